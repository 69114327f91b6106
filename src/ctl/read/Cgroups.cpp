// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Cgroups.hpp"

#include "ctl/read/Fields.hpp"
#include "ctl/read/Paths.hpp"
#include "filesystem/Split.hpp"

#include <cerrno>
#include <map>
#include <system_error>

namespace {

std::string Below(const std::string& path, const std::string& name) {
    return path + "/" + name;
}

using Members = std::unordered_map<int, std::string>;

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

/// The managed cgroup in one hierarchy.
struct HierarchyPart {
    bool areMembersKnown = true;
    Members members{};
    std::map<std::string, std::size_t> contents{}; ///< The processes and cgroups in each of its children.
};

/// A leaf has the links "." and its name alone, see inode(7), and need not be listed.
bool HasChildren(const std::string& directory) {
    constexpr nlink_t linksOfLeaf = 2;
    return Inspect(directory).links != linksOfLeaf;
}

/// The pids in a cgroup; none when it has gone, nothing when they are not known. A threaded cgroup does not
/// tell them, but those of its threads are in the domain above it, see "Thread mode" in cgroups(7).
std::optional<std::string> ReadPids(const std::string& directory, bool isTop, FailedReads& failed) {
    const std::string file = directory + "/" + procsFile;
    std::optional<std::string> pids = ReadKernelFile(file);
    const int error = pids ? 0 : errno;
    if (HasGone(error) || (error == EOPNOTSUPP && !isTop)) {
        return "";
    }
    failed.Note(file, error);
    return pids;
}

/// Reads the managed cgroup and all below it. These come and go: one that has gone is no gap.
HierarchyPart ReadHierarchyPart(const std::string& directory, const Services& services, FailedReads& failed) {
    HierarchyPart part;
    std::vector<std::string> cgroups{""}; // with a slash before each name
    while (!cgroups.empty()) {
        const std::string cgroup = std::move(cgroups.back());
        cgroups.pop_back();
        const std::string path = directory + cgroup;
        const std::optional<std::string> pids = ReadPids(path, cgroup.empty(), failed);
        part.areMembersKnown = part.areMembersKnown && pids;
        std::size_t count = AddMembers(pids.value_or(""), Paths::managedCgroup + cgroup, part.members);
        const bool isListed = cgroup.empty() || HasChildren(path);
        for (const std::string& name :
             isListed ? services.fileSystem->ListSubdirectories(path) : std::vector<std::string>{}) {
            cgroups.push_back(Below(cgroup, name));
            ++count;
        }
        if (!cgroup.empty()) {
            part.contents[cgroup.substr(1, cgroup.find('/', 1) - 1)] += count;
        }
    }
    return part;
}

std::optional<Throttling> ReadThrottling(const std::string& cgroup, FailedReads& failed) {
    const std::string file = cgroup + "/" + cpuStatFile;
    const std::optional<std::string> stat = ReadAtOnce(file);
    failed.Note(file, stat ? 0 : errno);
    return stat ? std::optional(ParseThrottling(*stat)) : std::nullopt;
}

} // namespace

CgroupFacts ReadCgroup(const std::string& path, FailedReads* failed) {
    FailedReads own;
    FailedReads& noted = failed == nullptr ? own : *failed;
    const CgroupFiles files(path, noted);
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
    if (!own.ByError().empty()) {
        const auto& [error, kind] = *own.ByError().begin();
        cgroup.unread = kind.first + ": " + std::generic_category().message(error);
    }
    return cgroup;
}

// A cgroup that is removed meanwhile refuses with ENODEV, and one that is threaded the list of its processes
// with EOPNOTSUPP, see cgroups(7).
std::vector<Process> ReadProcesses(const ProcessTable& table, CgroupFacts& cgroup) {
    const std::string file = Below(cgroup.path, cgroup.type == "threaded" ? "cgroup.threads" : procsFile);
    const std::optional<std::string> pids = ReadKernelFile(file);
    const int error = pids ? 0 : errno;
    if (error != 0 && !HasGone(error) && error != EOPNOTSUPP) {
        cgroup.unread = file + ": " + std::generic_category().message(error);
    }
    std::vector<Process> processes;
    for (const int pid : ParsePids(pids.value_or(""))) {
        processes.push_back(table.Read(pid).value_or(Process{.pid = pid}));
    }
    return processes;
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

std::string QuotaCgroupName(int pid, std::uint64_t startTime) {
    return std::to_string(pid) + "-" + std::to_string(startTime);
}

ManagedCgroup ReadManagedCgroup(const Services& services, FailedReads& failed) {
    const std::string managed = Paths::managedCgroup;
    const std::string cpuset = services.systemResources->GetManagedCpusetCgroupPath(managed);
    const std::string cpu = services.systemResources->GetManagedCpuCgroupPath(managed);
    ManagedCgroup cgroup;
    cgroup.facts = ReadCgroup(cpuset, &failed);
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
    const HierarchyPart cpusetPart = ReadHierarchyPart(cpuset, services, failed);
    const HierarchyPart cpuPart = cpu == cpuset ? cpusetPart : ReadHierarchyPart(cpu, services, failed);
    cgroup.areMembersKnown = cpusetPart.areMembersKnown && cpuPart.areMembersKnown;
    cgroup.cpusetMembers = cpusetPart.members;
    cgroup.cpuMembers = cpuPart.members;
    std::map<std::string, std::size_t> contents = cpusetPart.contents;
    for (const auto& [child, count] : cpuPart.contents) {
        contents[child] += count;
    }
    for (const auto& [child, count] : contents) {
        if (IsQuotaCgroupName(child)) {
            cgroup.quotaCgroups.push_back({child, count == 0, ReadThrottling(Below(cpu, child), failed)});
        }
    }
    return cgroup;
}
