// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Cgroups.hpp"

#include "ctl/read/Fields.hpp"
#include "ctl/read/Paths.hpp"
#include "filesystem/Split.hpp"

namespace fs = std::filesystem;

namespace {

using Members = std::unordered_map<int, std::string>;

constexpr const char* procsFile = "cgroup.procs";
constexpr const char* cpuStatFile = "cpu.stat";

std::string ReadLineOrNothing(const std::string& path) {
    return ReadKernelLine(path).value_or("");
}

std::set<std::string> ReadWords(const std::string& path) {
    const std::string line = ReadLineOrNothing(path);
    const std::vector<std::string_view> words = Words(line);
    return {words.begin(), words.end()};
}

/// Adds the processes in the text of a cgroup.procs file and says how many there are.
std::size_t AddMembers(const std::string& text, const std::string& cgroup, Members& members) {
    const std::vector<int> pids = ParsePids(text);
    for (const int pid : pids) {
        members.emplace(pid, cgroup);
    }
    return pids.size();
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
    if (const std::optional<std::string> pids = ReadKernelFile(procsFile, directory.Descriptor())) {
        part.areMembersKnown = true;
        AddMembers(*pids, managed, part.members);
    }
    for (const std::string& child : children) {
        const std::string pids = ReadKernelFile(child + "/" + procsFile, directory.Descriptor()).value_or("");
        part.counts[child] = AddMembers(pids, fs::path(managed) / child, part.members);
    }
    return part;
}

std::optional<Throttling> ReadThrottling(const OpenFile& directory, const std::string& child) {
    const std::optional<std::string> stat = ReadAtOnce(child + "/" + cpuStatFile, directory.Descriptor());
    return stat ? std::optional(ParseThrottling(*stat)) : std::nullopt;
}

} // namespace

CgroupFacts ReadCgroup(const std::string& path) {
    CgroupFacts cgroup{.path = path, .owner = Inspect(path).owner, .procs = Inspect(path + "/" + procsFile)};
    cgroup.exists = cgroup.procs.Exists();
    cgroup.type = ReadLineOrNothing(path + "/cgroup.type");
    cgroup.controllers = ReadWords(path + "/cgroup.controllers");
    cgroup.childControllers = ReadWords(path + "/cgroup.subtree_control");
    cgroup.cpus = ReadKernelLine(path + "/cpuset.cpus");
    cgroup.mems = ReadKernelLine(path + "/cpuset.mems");
    // The one name with v2, the other with v1.
    cgroup.effectiveCpus = ReadLineOrNothing(path + "/cpuset.cpus.effective") +
                           ReadLineOrNothing(path + "/cpuset.effective_cpus");
    cgroup.effectiveMems = ReadLineOrNothing(path + "/cpuset.mems.effective") +
                           ReadLineOrNothing(path + "/cpuset.effective_mems");
    return cgroup;
}

std::vector<int> ParsePids(const std::string& text) {
    std::vector<int> pids;
    for (const std::string& line : Split(text, '\n')) {
        if (const auto pid = ParseNumber<int>(line)) {
            pids.push_back(*pid);
        }
    }
    return pids;
}

bool IsQuotaCgroupName(const std::string& name) {
    const std::size_t hyphen = name.find('-');
    return hyphen != std::string::npos && hyphen != 0 && hyphen + 1 != name.size() &&
           name.find_first_not_of("0123456789", hyphen + 1) == std::string::npos &&
           name.find_first_not_of("0123456789") == hyphen;
}

Throttling ParseThrottling(const std::string& text) {
    Throttling throttling;
    for (const std::string& line : Split(text, '\n')) {
        const std::vector<std::string_view> words = Words(line);
        if (words.size() != 2) {
            continue;
        }
        const std::string_view key = words[0];
        const std::uint64_t value = ParseNumber<std::uint64_t>(words[1]).value_or(0);
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
    cgroup.facts = ReadCgroup(cpuset);
    if (!cgroup.facts.exists) {
        return cgroup;
    }
    cgroup.cpus = cgroup.facts.cpus.value_or("");
    if (cgroup.cpus.empty()) {
        cgroup.cpus = cgroup.facts.effectiveCpus;
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
