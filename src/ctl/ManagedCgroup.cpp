// SPDX-License-Identifier: Apache-2.0
#include "ctl/ManagedCgroup.hpp"

#include "ctl/KernelFiles.hpp"
#include "ctl/Paths.hpp"
#include "exceptions/Exceptions.hpp"

#include <sstream>

namespace fs = std::filesystem;

namespace {

using Members = std::unordered_map<int, std::string>;

constexpr const char* procsFile = "cgroup.procs";
constexpr const char* effectiveCpusFile = "cpuset.cpus.effective"; // v2 alone
constexpr const char* cpuStatFile = "cpu.stat";

std::string FirstLine(const std::optional<std::string>& text) {
    return text ? text->substr(0, text->find('\n')) : "";
}

/// Reads the processes of one cgroup and says how many there are; nothing when they may not be seen.
std::optional<std::size_t> AddMembers(const fs::path& directory, const std::string& name, Members& members) {
    const std::optional<std::string> text = ReadKernelFile(directory / procsFile);
    if (!text) {
        return std::nullopt;
    }
    std::istringstream pids(*text);
    std::size_t count = 0;
    for (int pid = 0; pids >> pid; ++count) {
        members.emplace(pid, name);
    }
    return count;
}

std::optional<std::uint32_t> CountCpus(const Interfaces::ISystemResources& systemResources) {
    try {
        return systemResources.GetCgroupCpuCount(Paths::managedCgroup);
    } catch (const Exceptions::XRuntimeError&) {
        return std::nullopt;
    }
}

/// Reads a hierarchy's managed cgroup and these children of it. Children come and go, and one that has gone
/// is no gap.
std::unordered_map<std::string, std::size_t> ReadHierarchy(const fs::path& directory,
                                                           const std::vector<std::string>& children,
                                                           Members& members, bool& areMembersKnown) {
    areMembersKnown = AddMembers(directory, Paths::managedCgroup, members).has_value() && areMembersKnown;
    std::unordered_map<std::string, std::size_t> counts;
    for (const std::string& child : children) {
        counts[child] =
            AddMembers(directory / child, fs::path(Paths::managedCgroup) / child, members).value_or(0);
    }
    return counts;
}

} // namespace

bool IsQuotaCgroupName(const std::string& name) {
    const std::size_t hyphen = name.find('-');
    return hyphen != std::string::npos && hyphen != 0 && hyphen + 1 != name.size() &&
           name.find_first_not_of("0123456789", hyphen + 1) == std::string::npos &&
           name.find_first_not_of("0123456789") == hyphen;
}

Throttling ParseThrottling(const std::string& text) {
    Throttling throttling;
    std::istringstream lines(text);
    std::uint64_t value = 0;
    for (std::string key; lines >> key >> value;) {
        if (key == "nr_throttled") {
            throttling.periods = value;
        } else if (key == "throttled_usec") {
            throttling.time = std::chrono::microseconds(value);
        } else if (key == "throttled_time") {
            throttling.time =
                std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::nanoseconds(value));
        }
    }
    return throttling;
}

ManagedCgroup ReadManagedCgroup(const Interfaces::ISystemResources& systemResources,
                                const Interfaces::IProcessManager& processManager) {
    const std::string managed = Paths::managedCgroup;
    const fs::path cpuset = systemResources.GetManagedCpusetCgroupPath(managed);
    const fs::path cpu = systemResources.GetManagedCpuCgroupPath(managed);
    ManagedCgroup cgroup;
    std::error_code error;
    cgroup.exists = fs::is_directory(cpuset, error);
    if (!cgroup.exists) {
        return cgroup;
    }
    cgroup.cpus = FirstLine(ReadKernelFile(systemResources.GetCpusetCpusPath(managed)));
    if (cgroup.cpus.empty()) {
        cgroup.cpus = FirstLine(ReadKernelFile(cpuset / effectiveCpusFile));
    }
    cgroup.cpuCount = CountCpus(systemResources);
    const std::vector<std::string> children = processManager.ListManagedChildCgroups(managed);
    auto counts = ReadHierarchy(cpuset, children, cgroup.cpusetMembers, cgroup.areMembersKnown);
    if (cpu == cpuset) {
        cgroup.cpuMembers = cgroup.cpusetMembers;
    } else {
        for (const auto& [child, count] :
             ReadHierarchy(cpu, children, cgroup.cpuMembers, cgroup.areMembersKnown)) {
            counts[child] += count;
        }
    }
    for (const std::string& child : children) {
        if (IsQuotaCgroupName(child)) {
            const std::optional<std::string> stat = ReadKernelFile(cpu / child / cpuStatFile);
            cgroup.quotaCgroups.push_back(
                {child, counts[child] == 0, stat ? std::optional(ParseThrottling(*stat)) : std::nullopt});
        }
    }
    return cgroup;
}
