// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Cgroups.hpp"

#include "ctl/read/Fields.hpp"
#include "ctl/read/Paths.hpp"
#include "filesystem/Split.hpp"

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include <sys/stat.h>

namespace {

std::string Below(const std::string& path, const std::string& name) {
    return path + "/" + name;
}

constexpr const char* procsFile = "cgroup.procs";
constexpr const char* cpuStatFile = "cpu.stat";

/// Reads the files of one cgroup.
class CgroupFiles {
public:
    CgroupFiles(std::string directory, FailedReads& noted) : path(std::move(directory)), failed(noted) {}

    FileFacts Facts(const std::string& name) const {
        FileFacts facts = Inspect(Below(path, name));
        Note(name, facts.Exists() ? 0 : errno);
        return facts;
    }
    std::optional<std::string> Line(const std::string& name) const {
        std::optional<std::string> line = ReadKernelLine(Below(path, name));
        Note(name, line ? 0 : errno);
        return line;
    }
    std::string LineOrNothing(const std::string& name) const { return Line(name).value_or(""); }
    std::set<std::string> WordsIn(const std::string& name) const {
        const std::string line = LineOrNothing(name);
        const std::vector<std::string_view> words = Words(line);
        return {words.begin(), words.end()};
    }

private:
    void Note(const std::string& name, int error) const { failed.Note(Below(path, name), error); }

    std::string path;
    FailedReads& failed;
};

std::optional<std::uint32_t> CountCpus(const Interfaces::ISystemResources& systemResources) {
    try {
        return systemResources.GetCgroupCpuCount(Paths::managedCgroup);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

/// The managed cgroup in one hierarchy.
struct HierarchyPart {
    bool areMembersKnown = true;
    std::unordered_map<int, std::string> members{};
    std::map<std::string, bool> children{}; ///< Whether there are processes or cgroups in each of them.
};

/// A leaf has the links "." and its name alone, see inode(7), and need not be listed.
bool HasChildren(const std::string& directory) {
    constexpr nlink_t linksOfLeaf = 2;
    return Inspect(directory).links != linksOfLeaf;
}

/// Whether it is one itself: nothing behind a link is part of the tree, and root could give it away.
bool IsDirectory(const std::string& path, FailedReads& failed) {
    const FileFacts facts = Inspect(path);
    failed.Note(path, facts.Exists() ? 0 : errno);
    return S_ISDIR(facts.mode);
}

/// The pids in a list of processes or threads; none when the cgroup has gone, nothing when they are not
/// known. A threaded cgroup does not tell its processes, but those of its threads are in the domain above it,
/// see "Thread mode" in cgroups(7).
std::optional<std::vector<int>> ReadPids(const std::string& file, bool mayBeThreaded, FailedReads& failed) {
    const std::optional<std::string> text = ReadKernelFile(file);
    const int error = text ? 0 : errno;
    if (HasGone(error) || (error == EOPNOTSUPP && mayBeThreaded)) {
        return std::vector<int>{};
    }
    failed.Note(file, error);
    return text ? std::optional(ParsePids(*text)) : std::nullopt;
}

HierarchyPart ReadHierarchyPart(const std::string& directory, FailedReads& failed) {
    HierarchyPart part;
    WalkCgroups(directory, failed, [&](const std::string& path) {
        const std::string below = path.substr(directory.size()); // with a slash before each name
        const std::optional<std::vector<int>> pids = ReadPids(Below(path, procsFile), !below.empty(), failed);
        part.areMembersKnown = part.areMembersKnown && pids;
        for (const int pid : pids.value_or(std::vector<int>{})) {
            part.members.emplace(pid, Paths::managedCgroup + below);
        }
        if (!below.empty()) {
            const std::size_t end = below.find('/', 1);
            bool& isInUse = part.children[below.substr(1, end - 1)];
            isInUse = isInUse || end != std::string::npos || (pids && !pids->empty());
        }
    });
    return part;
}

std::optional<Throttling> ReadThrottling(const std::string& cgroup, FailedReads& failed) {
    const std::string file = cgroup + "/" + cpuStatFile;
    const std::optional<std::string> stat = ReadAtOnce(file);
    failed.Note(file, stat ? 0 : errno);
    return stat ? std::optional(ParseThrottling(*stat)) : std::nullopt;
}

} // namespace

CgroupFacts ReadCgroup(const std::string& path, FailedReads& failed) {
    const CgroupFiles files(path, failed);
    CgroupFacts cgroup{.path = path, .owner = files.Facts("").owner, .procs = files.Facts(procsFile)};
    cgroup.exists = cgroup.procs.Exists();
    cgroup.type = files.LineOrNothing("cgroup.type");
    cgroup.controllers = files.WordsIn("cgroup.controllers");
    cgroup.childControllers = files.WordsIn("cgroup.subtree_control");
    cgroup.cpus = files.Line("cpuset.cpus");
    cgroup.mems = files.Line("cpuset.mems");
    // The one name with v2, the other with v1.
    cgroup.effectiveCpus =
        files.LineOrNothing("cpuset.cpus.effective") + files.LineOrNothing("cpuset.effective_cpus");
    cgroup.effectiveMems =
        files.LineOrNothing("cpuset.mems.effective") + files.LineOrNothing("cpuset.effective_mems");
    return cgroup;
}

std::vector<Process> ReadProcesses(const ProcessTable& table, const CgroupFacts& cgroup,
                                   FailedReads& failed) {
    const std::string file = Below(cgroup.path, cgroup.type == "threaded" ? "cgroup.threads" : procsFile);
    std::vector<Process> processes;
    for (const int pid : ReadPids(file, true, failed).value_or(std::vector<int>{})) {
        processes.push_back(table.Read(pid).value_or(Process{.pid = pid}));
    }
    return processes;
}

void WalkCgroups(const std::string& top, FailedReads& failed,
                 const std::function<void(const std::string& path)>& visit) {
    std::vector<std::string> paths{top};
    while (!paths.empty()) {
        const std::string path = std::move(paths.back());
        paths.pop_back();
        visit(path);
        // The top has children as a rule where there are quotas, so that to ask first would save nothing.
        if (path == top || HasChildren(path)) {
            for (const std::string& name : ListSubdirectories(path, failed)) {
                if (std::string child = Below(path, name); IsDirectory(child, failed)) {
                    paths.push_back(std::move(child));
                }
            }
        }
    }
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

std::string UnifiedCgroupOf(const std::vector<std::string>& lines) {
    constexpr std::string_view unified = "0::";
    const auto line =
        std::ranges::find_if(lines, [&](const std::string& each) { return each.starts_with(unified); });
    return line == lines.end() ? "" : line->substr(unified.size());
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

std::string QuotaCgroupName(int pid, std::uint64_t startTime) {
    return std::to_string(pid) + "-" + std::to_string(startTime);
}

std::string QuotaCgroupPath(int pid, std::uint64_t startTime) {
    return Below(Paths::managedCgroup, QuotaCgroupName(pid, startTime));
}

ManagedCgroup ReadManagedCgroup(const Services& services, FailedReads& failed) {
    const std::string managed = Paths::managedCgroup;
    const std::string cpuset = services.systemResources->GetManagedCpusetCgroupPath(managed);
    const std::string cpu = services.systemResources->GetManagedCpuCgroupPath(managed);
    ManagedCgroup cgroup;
    cgroup.facts = ReadCgroup(cpuset, failed);
    if (!cgroup.facts.exists) {
        // In a hierarchy that is not mounted it has its processes all the same.
        const std::string ofRoot = cpuset.substr(0, cpuset.rfind('/') + 1) + procsFile;
        cgroup.areMembersKnown = Inspect(ofRoot).Exists();
        failed.Note(ofRoot, cgroup.areMembersKnown ? 0 : ENXIO);
        return cgroup;
    }
    cgroup.cpus = cgroup.facts.cpus.value_or("");
    if (cgroup.cpus.empty()) {
        cgroup.cpus = cgroup.facts.effectiveCpus;
    }
    cgroup.cpuCount = CountCpus(*services.systemResources);
    const HierarchyPart cpusetPart = ReadHierarchyPart(cpuset, failed);
    const HierarchyPart cpuPart = cpu == cpuset ? cpusetPart : ReadHierarchyPart(cpu, failed);
    cgroup.areMembersKnown = cpusetPart.areMembersKnown && cpuPart.areMembersKnown;
    cgroup.cpusetMembers = cpusetPart.members;
    cgroup.cpuMembers = cpuPart.members;
    std::map<std::string, bool> children = cpusetPart.children;
    for (const auto& [child, isInUse] : cpuPart.children) {
        children[child] = children[child] || isInUse;
    }
    for (const auto& [child, isInUse] : children) {
        if (IsQuotaCgroupName(child)) {
            cgroup.quotaCgroups.push_back({child, !isInUse, ReadThrottling(Below(cpu, child), failed)});
        }
    }
    return cgroup;
}
