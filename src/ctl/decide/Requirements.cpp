// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Requirements.hpp"

#include "configuration/ConfigurationKeys.hpp"
#include "ctl/decide/HierarchyRequirements.hpp"
#include "ctl/read/Collections.hpp"
#include "ctl/read/Paths.hpp"

#include <algorithm>

namespace {

Requirement If(bool isNeeded, Requirement requirement) {
    requirement.isNeeded = isNeeded;
    return requirement;
}

/// Beside processes of cwset itself its children become "domain invalid", see cgroups(7): they take no
/// process, and the quota would silently not apply.
Requirement NoProcessInManaged(const HostFacts& host) {
    return Require(host.managed.processes.empty(), "no process is in " + host.managed.path + " itself",
                   "a quota is configured, and applies only when no process is in " + host.managed.path +
                       " itself. Stop these, or remove the quota from " + Paths::configuration +
                       ", then run cpuwardenctl prepare: " + Listed(host.managed.processes));
}

/// Below controllers, a child with a process keeps all others out of cwset itself, see "No internal
/// processes" in cgroups(7), unless it is threaded; and to take the controllers away would lift the quota of
/// that process.
Requirement NoProcessInChildren(const HostFacts& host) {
    std::vector<Process> processes;
    bool keepOthersOut{};
    for (const CgroupFacts& cgroup : host.descendants) {
        Append(processes, cgroup.processes);
        keepOthersOut = keepOthersOut || (!cgroup.processes.empty() && cgroup.type != "threaded");
    }
    return If(keepOthersOut,
              Require(host.managed.childControllers.empty() || processes.empty(),
                      "no process below " + host.managed.path + " keeps others out of it",
                      "no quota is configured, but processes run in cgroups with controllers below " +
                          host.managed.path + ". Stop these, or configure the quota again in " +
                          Paths::configuration + ", then run cpuwardenctl prepare: " + Listed(processes)));
}

/// All controllers but the threaded ones keep processes out of the cgroup itself even where no child has any,
/// see "Thread mode" in cgroups(7).
Requirement NoDomainController(const HostFacts& host) {
    const std::set<std::string> threaded{"cpu", "cpuset", "pids"};
    std::string names;
    for (const std::string& controller : host.managed.childControllers) {
        names += threaded.contains(controller) ? "" : (names.empty() ? "" : ", ") + controller;
    }
    return Require(names.empty(), "no controller keeps processes out of " + host.managed.path,
                   "the children of " + host.managed.path + " have the controllers " + names +
                       ", which keep processes out of it itself, so that commands stay outside. " +
                       runPrepare);
}

Requirement ControlledChildren(const HostFacts& host) {
    return Require(host.managed.Controls("cpu") && host.managed.Controls("cpuset"),
                   "the children of " + host.managed.path + " have the controllers",
                   "a quota is configured, but the children of " + host.managed.path +
                       " lack its controllers, so that no command starts. " + runPrepare);
}

Requirement NotFrozen(const HostFacts& host) {
    const CgroupFacts& frozen = host.root.bounds.isFrozen ? host.root : host.managed;
    return Require(!frozen.bounds.isFrozen, host.managed.path + " is not frozen",
                   frozen.path + "/cgroup.freeze is 1, so that each launch hangs as soon as it is placed. "
                                 "Write 0 to it.");
}

/// The cgroups that the next launch removes first.
std::uint64_t CountOrphans(const HostFacts& host) {
    return CountOf(host.descendants, [&](const CgroupFacts& cgroup) {
        return cgroup.processes.empty() &&
               IsQuotaCgroupName(cgroup.path.substr(host.managed.path.size() + 1));
    });
}

/// Of a cgroup that has that many levels down to those of commands.
Problem RoomProblem(const CgroupFacts& cgroup, std::uint64_t levels, std::uint64_t orphans) {
    const CgroupBounds& bounds = cgroup.bounds;
    const bool isDeep = bounds.mostDepth && *bounds.mostDepth < levels;
    const bool isFull = bounds.mostDescendants && bounds.descendants >= *bounds.mostDescendants + orphans;
    if (!isDeep && !isFull) {
        return {};
    }
    return cgroup.path +
           (isDeep ? "/cgroup.max.depth is " + std::to_string(*bounds.mostDepth)
                   : "/cgroup.max.descendants is " + std::to_string(*bounds.mostDescendants)) +
           ", so that no cgroup can be made for a command, and launches fail. Write max to it.";
}

Requirement RoomForCgroups(const HostFacts& host) {
    const std::uint64_t orphans = CountOrphans(host);
    const Problem problem = RoomProblem(host.managed, 1, orphans);
    return {.good = "a cgroup can be made for a command in " + host.managed.path,
            .problem = problem ? problem : RoomProblem(host.root, 2, orphans)};
}

/// With v1, where no cpuset may have what an exclusive one beside it has, see cpuset(7).
Requirement NothingExclusive(const HostFacts& host) {
    Requirement requirement{.good = "nothing below " + host.managed.path + " is exclusive", .problem = {}};
    for (const CgroupFacts& cgroup : host.descendants) {
        const CgroupBounds& bounds = cgroup.bounds;
        if (!requirement.problem && (bounds.hasCpusAlone || bounds.hasMemsAlone)) {
            requirement.problem = cgroup.path +
                                  (bounds.hasCpusAlone ? "/cpuset.cpu_exclusive" : "/cpuset.mem_exclusive") +
                                  " is 1, so that the cgroup of a command cannot have the same, and commands "
                                  "stay outside the cpuset. Write 0 to it.";
        }
    }
    return requirement;
}

/// With v1, where the kernel refuses a child more than its parent has.
Requirement QuotaFitsLimits(const HostFacts& host, std::uint64_t quota) {
    Requirement requirement{.good = "no limit on " + host.managedCpu.path + " is below one quota",
                            .problem = {}};
    for (const CgroupFacts* const cgroup : {&host.cpuRoot, &host.managedCpu}) {
        if (cgroup->bounds.cpuRatio.value_or(UINT64_MAX) < CpuRatio(quota, wholeCpuPercentage)) {
            requirement.problem =
                cgroup->path + "/cpu.cfs_quota_us limits all commands to less than the quota of one, " +
                std::to_string(quota) + " %, so that commands run without any. Write -1 to it, or lower " +
                ConfigurationKeys::quotaPercentage + ".";
        }
    }
    return requirement;
}

Requirement QuotaFitsCapacity(const HostFacts& host, std::uint64_t quota) {
    const std::size_t cpus = ParseCpuList(host.managed.cpus.value_or("")).size();
    const std::uint64_t capacity = std::uint64_t{wholeCpuPercentage} * cpus;
    return Require(quota <= capacity,
                   std::to_string(capacity / quota) + " commands at " + std::to_string(quota) +
                       " % fit the capacity of " + std::to_string(capacity) + " %, and leave " +
                       std::to_string(capacity % quota) + " %",
                   std::string(ConfigurationKeys::quotaPercentage) + " is " + std::to_string(quota) +
                       ", more than the capacity of " + host.managed.path + "/cpuset.cpus, " +
                       std::to_string(capacity) + " %, so that every launch fails. Lower it, or add CPUs.");
}

Problem DomainProblem(const CgroupFacts& cgroup, Mode mode) {
    if (cgroup.type == "domain" || (mode == Mode::core && cgroup.type == "domain threaded")) {
        return {};
    }
    return cgroup.path + " is '" + cgroup.type +
           "', not 'domain'. Stop all processes in cwset, remove it with its children, "
           "then run cpuwardenctl prepare as root.";
}

/// A command of quota mode has a cgroup of its own, which has to be a domain; beside those of core mode,
/// cwset may head threaded ones, see "Thread mode" in cgroups(7), or even be one.
Requirement Domains(const HostFacts& host, Mode mode) {
    Requirement requirement{.good = "the cgroup.type of " + host.managed.path +
                                    " and what it needs below is right",
                            .problem = DomainProblem(host.managed, mode),
                            .isNeeded = mode == Mode::quota || host.managed.type != "threaded"};
    for (const CgroupFacts& cgroup : host.descendants) {
        const bool isChild = cgroup.path.find('/', host.managed.path.size() + 1) == std::string::npos;
        if (mode == Mode::quota && isChild && !requirement.problem) {
            requirement.problem = DomainProblem(cgroup, mode);
        }
    }
    return requirement;
}

/// Root may write to everything, and so has to be told what launchers of another user may not.
Problem RightsProblem(const HostFacts& host, const CgroupFacts& managed) {
    if (managed.isOpenToLaunchers) {
        return {};
    }
    const std::string user = std::to_string(host.Launchers());
    return "user " + user + " may not write to " + managed.procs.path +
           ", so that his launchers cannot place a command. Run cpuwardenctl prepare --owner " + user +
           ", and name him in /etc/default/cpuwarden for the next boot.";
}

Problem ManagedProblem(const HostFacts& host, const CgroupFacts& managed, const std::string& mount) {
    if (!managed.exists) {
        return managed.path + " does not exist. " + runPrepare;
    }
    const Problem problem = WriteProblem(host, managed, mount);
    return problem ? problem : RightsProblem(host, managed);
}

Requirement Managed(const HostFacts& host, const CgroupFacts& managed, const std::string& mount) {
    return {.good = managed.path + " exists and can be written to",
            .problem = ManagedProblem(host, managed, mount)};
}

/// With v2 a user may move a process only within what is delegated to him, up to the closest common ancestor
/// of both cgroups, see "Delegation containment" in cgroups(7); what the kernel refuses here is silent. Of
/// users other than the caller it cannot be told where their launchers run.
bool MayMoveFromOutside(const HostFacts& host, uid_t user) {
    if (user == 0) {
        return true;
    }
    if (host.caller == user) {
        return host.mayMoveFromRoot || host.isBelowManaged;
    }
    return host.root.isOpenToLaunchers;
}

Requirement MovesFromOutside(const HostFacts& host) {
    const uid_t user = host.caller == 0 ? host.Launchers() : host.caller;
    return Require(MayMoveFromOutside(host, user),
                   "launchers may move their commands to " + host.managed.path,
                   "user " + std::to_string(user) + " may not write to " + host.root.procs.path +
                       ", so that a launcher which does not itself run in or below cwset "
                       "leaves its command outside. Run cpuwardenctl prepare --owner " +
                       std::to_string(user) +
                       ", which gives him the file, or start the launchers in a cgroup below cwset.");
}

Problem ListProblem(const std::string& file, const std::optional<std::string>& list, bool isNeeded) {
    if (!list) {
        return file + " is gone with the controller. Run cpuwardenctl prepare as root, "
                      "and where systemd took it away, enable cpuwarden-cgroup.service.";
    }
    if (list->empty()) {
        return file + " is empty, so that " +
               (isNeeded ? "no command can be placed. "
                         : "commands may use all that the cgroups above it have. ") +
               runPrepare;
    }
    return {};
}

/// The lists of the managed cgroup. With a quota its CPUs are counted.
std::vector<Requirement> RequiredOfLists(const HostFacts& host, std::optional<Mode> mode) {
    const bool isRefused = !InheritsEmptyLists(host);
    const bool isCounted = isRefused || mode == Mode::quota;
    const CgroupFacts& managed = host.managed;
    return {{.good = managed.path + " has memory nodes",
             .problem = ListProblem(managed.path + "/cpuset.mems", managed.mems, isRefused),
             .isNeeded = isRefused},
            {.good = managed.path + " has CPUs",
             .problem = ListProblem(managed.path + "/cpuset.cpus", managed.cpus, isCounted),
             .isNeeded = isCounted}};
}

/// What preparing cannot mend of a managed cgroup that is there.
std::vector<Requirement> RequiredOfExisting(const HostFacts& host, Mode mode) {
    std::vector<Requirement> requirements;
    if (host.isV2) {
        requirements = {Domains(host, mode), NotFrozen(host)};
    }
    if (mode == Mode::quota) {
        requirements.push_back(host.isV2 ? RoomForCgroups(host) : NothingExclusive(host));
    }
    return requirements;
}

/// Only quotas need the cpu hierarchy, in which launchers make the managed cgroup themselves where they may.
std::vector<Requirement> RequiredOfV1(const HostFacts& host, std::optional<Mode> mode) {
    const bool hasQuota = mode != Mode::core;
    const bool isMade =
        !host.managedCpu.exists && host.cpuRoot.isWritable && (host.caller != 0 || host.Launchers() == 0);
    return {Controller(host, host.root, "cpuset"), If(hasQuota, Controller(host, host.cpuRoot, "cpu")),
            If(hasQuota && !isMade, Managed(host, host.managedCpu, host.cpuRoot.path)),
            Managed(host, host.managed, host.root.path)};
}

std::vector<Requirement> RequiredOfV2(const HostFacts& host, std::optional<Mode> mode) {
    const bool hasQuota = mode != Mode::core;
    std::vector<Requirement> requirements{If(hasQuota, Controller(host, host.root, "cpuset")),
                                          If(hasQuota, Controller(host, host.root, "cpu")),
                                          UsableChildren(host), Managed(host, host.managed, host.root.path)};
    if (!host.managed.exists || !mode) {
        return requirements;
    }
    if (mode == Mode::quota) {
        requirements.push_back(ControlledChildren(host));
        requirements.push_back(NoProcessInManaged(host));
    } else {
        requirements.push_back(NoProcessInChildren(host));
        requirements.push_back(NoDomainController(host));
    }
    requirements.push_back(MovesFromOutside(host));
    return requirements;
}

std::vector<Requirement> RequiredOfQuota(const HostFacts& host, std::uint64_t quota) {
    std::vector<Requirement> requirements;
    if (!host.isV2) {
        requirements.push_back(QuotaFitsLimits(host, quota));
    }
    if (!host.managed.cpus.value_or("").empty()) { // which is told otherwise
        requirements.push_back(QuotaFitsCapacity(host, quota));
    }
    return requirements;
}

} // namespace

std::vector<Requirement> RequiredToPrepare(const HostFacts& host, Mode mode) {
    std::vector<Requirement> requirements{CgroupFileSystem(host)};
    if (host.isV2) {
        Append(requirements, {Controller(host, host.root, "cpu"), Controller(host, host.root, "cpuset"),
                              Writable(host, host.root), UsableChildren(host)});
    } else {
        Append(requirements, {Controller(host, host.root, "cpuset"), Controller(host, host.cpuRoot, "cpu"),
                              Writable(host, host.root), Writable(host, host.cpuRoot)});
    }
    Append(requirements, {Readable(host), Fillable(host), WritableTemporaryDirectory(host)});
    if (host.isV2) {
        requirements.push_back(mode == Mode::quota ? NoProcessInManaged(host)
                                                   : If(true, NoProcessInChildren(host)));
    }
    if (host.managed.exists) {
        Append(requirements, RequiredOfExisting(host, mode));
    }
    return requirements;
}

std::vector<Requirement> RequiredToLaunch(const HostFacts& host, const ConfigurationReading& configuration) {
    const std::optional<Mode> mode = ModeOf(configuration);
    std::vector<Requirement> requirements{WritableTemporaryDirectory(host), CgroupFileSystem(host)};
    if (requirements.back().problem) {
        return requirements;
    }
    if (const Requirement readable = Readable(host); readable.problem) {
        requirements.push_back(readable);
    }
    Append(requirements, host.isV2 ? RequiredOfV2(host, mode) : RequiredOfV1(host, mode));
    if (host.managed.exists && mode) {
        Append(requirements, RequiredOfExisting(host, *mode));
    }
    if (host.managed.exists) {
        Append(requirements, RequiredOfLists(host, mode));
    }
    if (mode == Mode::quota) {
        Append(requirements,
               RequiredOfQuota(host, configuration.configuration->ManagedProcessCpuQuotaPercentage()));
    }
    return requirements;
}

std::string Listed(const std::vector<Process>& processes) {
    constexpr std::size_t most = 20; // for a line that can still be read
    std::string list;
    for (std::size_t i = 0; i < std::min(processes.size(), most); ++i) {
        const Process& process = processes[i];
        list += (i == 0 ? "" : ", ") + std::to_string(process.pid) + " (" +
                (process.commandName.empty() ? "its name cannot be read" : process.commandName) + ")";
    }
    return processes.size() > most ? list + " and " + std::to_string(processes.size() - most) + " more"
                                   : list;
}
