// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/IProcessManager.hpp"
#include "interfaces/ISystemResources.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

/// How often and how long the quota held the processes of a cgroup up, see cpu.stat in cgroups(7).
struct Throttling {
    std::uint64_t periods = 0;
    std::chrono::microseconds time{0};
};

/// A cgroup that a launcher made below the managed one.
struct QuotaCgroup {
    std::string name; ///< The pid, a hyphen and the start time.
    bool isEmpty = false;
    std::optional<Throttling> throttling{};
};

/// The managed cgroup as its files show it.
struct ManagedCgroup {
    bool exists = false;
    uid_t owner = 0;    ///< The user whose launchers may place processes in it, besides root.
    std::string cpus{}; ///< Its CPUs as a list, see cpuset(7); those in effect where none are set.
    std::optional<std::uint32_t> cpuCount{};
    bool areMembersKnown = true; ///< Whether all lists of processes could be read.
    /// The processes at and below it: names of cgroups, relative to the hierarchy, by pid. Both are the same
    /// with cgroup v2; with v1 only quotas take a process into the cpu hierarchy.
    std::unordered_map<int, std::string> cpusetMembers{};
    std::unordered_map<int, std::string> cpuMembers{};
    std::vector<QuotaCgroup> quotaCgroups{};
};

/// Whether a launcher made the cgroup: digits, one hyphen, digits.
bool IsQuotaCgroupName(const std::string& name);

/// Reads the managed cgroup and its children.
ManagedCgroup ReadManagedCgroup(const Interfaces::ISystemResources& systemResources,
                                const Interfaces::IProcessManager& processManager);

/// The throttling in the text of a cpu.stat file of either cgroup version.
Throttling ParseThrottling(const std::string& text);
