// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/ManagedCgroup.hpp"

#include "ctl/read/FileFacts.hpp"
#include "ctl/read/KernelFiles.hpp"
#include "ctl/read/Paths.hpp"
#include "exceptions/Exceptions.hpp"

#include <algorithm>
#include <charconv>
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

/// Adds the processes in the text of a cgroup.procs file and says how many there are. Not with a stream:
/// there may be thousands of cgroups.
std::size_t AddMembers(std::string_view text, const std::string& cgroup, Members& members) {
    std::size_t count = 0;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        int pid = 0;
        if (std::from_chars(line.data(), line.data() + line.size(), pid).ec == std::errc()) {
            members.emplace(pid, cgroup);
            ++count;
        }
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return count;
}

std::optional<std::uint32_t> CountCpus(const Interfaces::ISystemResources& systemResources) {
    try {
        return systemResources.GetCgroupCpuCount(Paths::managedCgroup);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

/// The managed cgroup in one hierarchy: how many processes are in each of its children.
struct HierarchyPart {
    bool areMembersKnown = false;
    Members members{};
    std::unordered_map<std::string, std::size_t> counts{};
};

/// Reads it with these children, which come and go: one that has gone is no gap.
HierarchyPart ReadHierarchyPart(const OpenFile& directory, const std::vector<std::string>& children) {
    HierarchyPart part;
    const std::string managed = Paths::managedCgroup;
    if (const std::optional<std::string> pids = ReadKernelFile(directory, procsFile)) {
        part.areMembersKnown = true;
        AddMembers(*pids, managed, part.members);
    }
    for (const std::string& child : children) {
        const std::string pids = ReadKernelFile(directory, fs::path(child) / procsFile).value_or("");
        part.counts[child] = AddMembers(pids, fs::path(managed) / child, part.members);
    }
    return part;
}

std::optional<Throttling> ReadThrottling(const OpenFile& directory, const std::string& child) {
    const std::optional<std::string> stat = ReadKernelRecord(directory, fs::path(child) / cpuStatFile);
    return stat ? std::optional(ParseThrottling(*stat)) : std::nullopt;
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
    cgroup.owner = Inspect(cpuset).owner;
    cgroup.cpus = FirstLine(ReadKernelFile(systemResources.GetCpusetCpusPath(managed)));
    if (cgroup.cpus.empty()) {
        cgroup.cpus = FirstLine(ReadKernelFile(cpuset / effectiveCpusFile));
    }
    cgroup.cpuCount = CountCpus(systemResources);
    const std::vector<std::string> children = processManager.ListManagedChildCgroups(managed);
    const OpenFile cpuDirectory = OpenDirectory(cpu);
    const HierarchyPart cpusetPart = ReadHierarchyPart(OpenDirectory(cpuset), children);
    const HierarchyPart cpuPart = cpu == cpuset ? cpusetPart : ReadHierarchyPart(cpuDirectory, children);
    cgroup.areMembersKnown = cpusetPart.areMembersKnown && cpuPart.areMembersKnown;
    cgroup.cpusetMembers = cpusetPart.members;
    cgroup.cpuMembers = cpuPart.members;
    for (const std::string& child : children) {
        if (IsQuotaCgroupName(child)) {
            const bool isEmpty = cpusetPart.counts.at(child) == 0 && cpuPart.counts.at(child) == 0;
            cgroup.quotaCgroups.push_back({child, isEmpty, ReadThrottling(cpuDirectory, child)});
        }
    }
    return cgroup;
}
