// SPDX-License-Identifier: Apache-2.0
// Where a command finds itself, told by the command: what a launch on trial runs.
#pragma once

#include "ctl/read/CpuList.hpp"
#include "interfaces/ISystemResources.hpp"

#include <cstdint>
#include <optional>
#include <string>

/// Where a process is, as it sees itself.
struct Place {
    int pid{};
    std::uint64_t startTime{}; ///< Clock ticks since boot.
    std::string
        cpusetCgroup{};      ///< Relative to the root of the hierarchy, see /proc/pid/cgroup in cgroups(7).
    std::string cpuCgroup{}; ///< With cgroup v2 the same.
    CpuSet affinity{};
    /// The smallest limit of its cgroup and those above it, in percent of one CPU; none without a limit.
    std::optional<std::uint64_t> limit{};

    bool operator==(const Place&) const = default;
};

/// The place of the calling process.
Place ReadOwnPlace(const Interfaces::ISystemResources& systemResources);

/// The place as lines of text, of which the last one is empty, and back: nothing for a text that is not
/// whole.
std::string ToText(const Place& place);
std::optional<Place> ParsePlace(const std::string& text);
