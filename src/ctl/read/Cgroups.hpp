// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/Files.hpp"
#include "ctl/read/ProcessTable.hpp"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

/// What keeps a cgroup from taking more, beside its cpuset; nothing where there is no such bound.
struct CgroupBounds {
    std::optional<std::uint64_t> cpuRatio{};        ///< Of its limit to its period, see CpuRatio; v1.
    bool hasCpusAlone{};                            ///< cpuset.cpu_exclusive; v1.
    bool hasMemsAlone{};                            ///< cpuset.mem_exclusive; v1.
    bool isFrozen{};                                ///< cgroup.freeze; v2.
    std::optional<std::uint64_t> mostDescendants{}; ///< v2, as the others.
    std::optional<std::uint64_t> mostDepth{};
    std::uint64_t descendants{};
};

/// The kernel's own measure of a limit, by which it compares those of v1: in units of 2^-20 of a CPU.
constexpr std::uint64_t CpuRatio(std::uint64_t limit, std::uint64_t period) {
    constexpr unsigned fractionBits = 20;
    return (limit << fractionBits) / period;
}

/// One cgroup of one hierarchy as its files show it, see cgroups(7).
struct CgroupFacts {
    std::string path{};
    bool exists{};
    /// Whether the caller can make children of a root, or move processes into a managed cgroup; looked at for
    /// these alone, and for a check.
    bool isWritable{};
    /// Whether the launchers' user can move processes into it; looked at where root checks.
    bool isOpenToLaunchers = true;
    uid_t owner{};
    FileFacts procs{};                        ///< cgroup.procs, to which launchers write.
    std::string type{};                       ///< cgroup.type; empty with v1 and in the root of all.
    std::set<std::string> controllers{};      ///< What it has itself; v2.
    std::set<std::string> childControllers{}; ///< What its children have; v2.
    std::vector<Process> processes{};  ///< In itself; looked at for a check. Threads where it is threaded.
    std::optional<std::string> cpus{}; ///< cpuset.cpus, empty or none when the file is.
    std::optional<std::string> mems{}; ///< cpuset.mems, likewise.
    std::string effectiveCpus{};       ///< What the kernel lets processes use of them.
    std::string effectiveMems{};
    CgroupBounds bounds{}; ///< Looked at for a check.

    bool Controls(const std::string& controller) const { return childControllers.contains(controller); }
};

// Where FailedReads are given, failed reads of the files of cgroups are noted there; those of processes only
// where the ProcessTable was told to. Cgroups come and go: one that has gone meanwhile is none.

/// Reads all but what is only looked at for a check.
CgroupFacts ReadCgroup(const std::string& path, FailedReads& failed);

/// The processes in the cgroup itself, with their pids alone where no more may be seen. A threaded cgroup
/// does not tell its processes, but its threads, see "Thread mode" in cgroups(7).
std::vector<Process> ReadProcesses(const ProcessTable& table, const CgroupFacts& cgroup, FailedReads& failed);

/// Visits the cgroup and all below it, links left out, each after its parent. The children of each are listed
/// once it was visited: so a process that moves meanwhile from a cgroup into a new child of it is seen in one
/// of both.
void WalkCgroups(const std::string& top, FailedReads& failed,
                 const std::function<void(const std::string& path)>& visit);

/// The pids in the text of a cgroup.procs file, or the ids of threads in that of a cgroup.threads file.
std::vector<int> ParsePids(const std::string& text);

/// How often and how long the quota held the processes of a cgroup up, see cpu.stat in cgroups(7).
struct Throttling {
    std::uint64_t periods{};
    std::chrono::microseconds time{};
};

/// A cgroup that a launcher made below the managed one.
struct QuotaCgroup {
    std::string name; ///< The pid, a hyphen and the start time.
    bool isEmpty{};   ///< Whether there is neither a process nor a cgroup in it.
    std::optional<Throttling> throttling{};
};

/// The managed cgroup with those below it.
struct ManagedCgroup {
    CgroupFacts
        facts{}; ///< In the cpuset hierarchy. Its owner's launchers may place processes, besides root's.
    std::string cpus{}; ///< Its CPUs as a list, see cpuset(7); those in effect where none are set.
    std::optional<std::uint32_t> cpuCount{};
    bool areMembersKnown{}; ///< Whether all lists of processes could be read.
    /// The processes at and below it: names of cgroups, relative to the hierarchy, by pid. Both are the same
    /// with cgroup v2; with v1 only quotas take a process into the cpu hierarchy.
    std::unordered_map<int, std::string> cpusetMembers{};
    std::unordered_map<int, std::string> cpuMembers{};
    std::vector<QuotaCgroup> quotaCgroups{};
};

/// Whether a launcher made the cgroup: digits, one hyphen, digits.
bool IsQuotaCgroupName(const std::string& name);

/// The name of the one that a launcher makes for this process, whose start time is in clock ticks since boot.
std::string QuotaCgroupName(int pid, std::uint64_t startTime);

/// Its path below the root of a hierarchy, which comes without a slash before it.
std::string QuotaCgroupPath(int pid, std::uint64_t startTime);

/// The cgroup in the unified hierarchy, from lines of /proc/pid/cgroup such as "0::/user.slice"; empty where
/// there is none.
std::string UnifiedCgroupOf(const std::vector<std::string>& lines);

/// Reads the managed cgroup and all below it.
ManagedCgroup ReadManagedCgroup(const Services& services, FailedReads& failed);

/// The throttling in the text of a cpu.stat file of either cgroup version.
Throttling ParseThrottling(const std::string& text);
