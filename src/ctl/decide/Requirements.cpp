// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Requirements.hpp"

#include "ctl/read/Find.hpp"
#include "ctl/read/Paths.hpp"

#include <algorithm>

#include <sys/stat.h>

namespace {

const std::string runPrepare = "Run cpuwardenctl prepare as root.";
const std::string removeFile =
    " See who made it, stop the launchers, remove it, then run cpuwardenctl prepare.";

Requirement Require(bool holds, const std::string& good, const std::string& problem) {
    return {.good = good, .problem = holds ? std::nullopt : std::optional(problem)};
}

/// Whether something is mounted at `directory` and `word` is its file system's type or among its options.
bool IsMountedWith(const HostFacts& host, const std::string& directory, const std::string& word) {
    const std::string* const target = Find(host.links, directory);
    const std::string& resolved = target == nullptr ? directory : *target;
    // A later mount hides those before it.
    const auto last = std::ranges::find_if(host.mounts.rbegin(), host.mounts.rend(),
                                           [&](const Mount& mount) { return mount.directory == resolved; });
    return last != host.mounts.rend() && last->words.contains(word);
}

// --- The hierarchies ---------------------------------------------------------------------------------------

Requirement CgroupFileSystem(const HostFacts& host) {
    const bool isMounted = host.isV2 ? IsMountedWith(host, Paths::cgroupMount, "cgroup2")
                                     : std::ranges::any_of(host.mounts, [](const Mount& mount) {
                                           return mount.words.contains("cgroup") &&
                                                  mount.directory.starts_with(Paths::cgroupMount);
                                       });
    const std::string mount = Paths::cgroupMount;
    return Require(isMounted, mount + " has cgroup " + (host.isV2 ? "v2" : "v1"),
                   mount + " is no cgroup file system. Mount one: mount -t cgroup2 cgroup2 " + mount);
}

Problem HierarchyProblem(const HostFacts& host, const CgroupFacts& root, const std::string& controller) {
    const KernelController* const offered = Find(host.kernelControllers, controller);
    if (offered == nullptr || !offered->isEnabled) {
        return "this kernel has no " + controller +
               " controller, or it is disabled. Boot without cgroup_disable=" + controller +
               ", or a kernel that has it, see /proc/cgroups.";
    }
    if (!root.exists || !IsMountedWith(host, root.path, controller)) {
        return "the " + controller + " hierarchy is not mounted at " + root.path + ". Mount it: mkdir -p " +
               root.path + " && mount -t cgroup -o " + controller + " cgroup " + root.path;
    }
    return {};
}

/// With v1.
Requirement Hierarchy(const HostFacts& host, const CgroupFacts& root, const std::string& controller) {
    return {.good = "the " + controller + " controller is at " + root.path,
            .problem = HierarchyProblem(host, root, controller)};
}

Problem ControllerProblem(const HostFacts& host, const std::string& controller) {
    if (host.root.controllers.contains(controller)) {
        return {};
    }
    const KernelController* const known = Find(host.kernelControllers, controller);
    if (known != nullptr && known->isTakenByV1) {
        return "a hierarchy of cgroup v1 has the " + controller + " controller, so " + host.root.path +
               " lacks it. Unmount that one, or boot with cgroup_no_v1=all.";
    }
    return host.root.path + "/cgroup.controllers lacks the " + controller +
           " controller. Boot without cgroup_disable=" + controller +
           " and with a kernel that has it; in a container, have the host delegate it.";
}

/// With v2.
Requirement Controller(const HostFacts& host, const std::string& controller) {
    return {.good = "the " + controller + " controller is at " + host.root.path,
            .problem = ControllerProblem(host, controller)};
}

Problem WriteProblem(const HostFacts& host, const CgroupFacts& cgroup, const std::string& mount) {
    if (IsMountedWith(host, mount, "ro")) {
        return mount +
               " is mounted read-only, as is usual in containers. Run this on the host, "
               "or give the container a writable " +
               mount + ".";
    }
    if (!cgroup.isWritable) {
        return "cannot write to " + cgroup.path + ". Run this and all launchers as root, or as its owner.";
    }
    return {};
}

Requirement Writable(const HostFacts& host, const CgroupFacts& root) {
    return {.good = root.path + " can be written to", .problem = WriteProblem(host, root, root.path)};
}

/// Only the true root, which has no cgroup.type, can have processes of its own beside usable children, see
/// "No internal processes" in cgroups(7).
Requirement UsableChildren(const HostFacts& host) {
    const bool holds = host.root.type.empty() || host.root.processes.empty();
    return Require(holds, host.root.path + " can have children with processes",
                   host.root.path + " is not the root of all cgroups and has processes of its own, "
                                    "so that cwset could take none. Move them to another cgroup below it, "
                                    "then run cpuwardenctl prepare.");
}

// --- The place of the registries ---------------------------------------------------------------------------

Requirement WritableTemporaryDirectory(const HostFacts& host) {
    const std::string directory = Paths::temporaryDirectory;
    Problem problem;
    if (host.temporaryFileSystem.isReadOnly) {
        problem = directory +
                  " is mounted read-only, so that no launcher can open a registry, and each launch fails. "
                  "Mount it writable: mount -o remount,rw " +
                  directory;
    }
    return {.good = directory + " is not mounted read-only", .problem = problem};
}

// --- The managed cgroup ------------------------------------------------------------------------------------

/// Beside processes of cwset itself its children become "domain invalid", see cgroups(7): they take no
/// process, and the quota would silently not apply.
Requirement NoProcessInManaged(const HostFacts& host) {
    return Require(host.managed.processes.empty(), "no process is in " + host.managed.path + " itself",
                   "a quota is configured, and applies only when no process is in " + host.managed.path +
                       " itself. Stop these, or remove the quota from " + Paths::configuration +
                       ", then run cpuwardenctl prepare: " + Listed(host.managed.processes));
}

/// Below controllers, a child with a process keeps all others out of cwset itself, see "No internal
/// processes" in cgroups(7); and to take the controllers away would lift the quota of that process.
Requirement NoProcessInChildren(const HostFacts& host) {
    std::vector<Process> processes;
    for (const CgroupFacts& cgroup : host.descendants) {
        processes.insert(processes.end(), cgroup.processes.begin(), cgroup.processes.end());
    }
    const bool areLimited = host.managed.Controls("cpu") || host.managed.Controls("cpuset");
    return Require(!areLimited || processes.empty(),
                   "no process below " + host.managed.path + " keeps others out of it",
                   "no quota is configured, but processes run in quota cgroups below " + host.managed.path +
                       ". Stop these, or configure the quota again in " + Paths::configuration +
                       ", then run cpuwardenctl prepare: " + Listed(processes));
}

Requirement ControlledChildren(const HostFacts& host) {
    return Require(host.managed.Controls("cpu") && host.managed.Controls("cpuset"),
                   "the children of " + host.managed.path + " have the controllers",
                   "a quota is configured, but the children of " + host.managed.path +
                       " lack its controllers, so that no command starts. " + runPrepare);
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
/// cwset may head threaded ones, see "Thread mode" in cgroups(7).
Requirement Domains(const HostFacts& host, Mode mode) {
    Requirement requirement{.good = "the cgroup.type of " + host.managed.path +
                                    " and what it needs below is right",
                            .problem = DomainProblem(host.managed, mode)};
    for (const CgroupFacts& cgroup : host.descendants) {
        const bool isChild = cgroup.path.find('/', host.managed.path.size() + 1) == std::string::npos;
        if (mode == Mode::quota && isChild && !requirement.problem) {
            requirement.problem = DomainProblem(cgroup, mode);
        }
    }
    return requirement;
}

/// Root may write to everything, and so has to be told what launchers of another user may not.
Problem HandOverProblem(const HostFacts& host, const CgroupFacts& managed) {
    constexpr mode_t writableForOthers = S_IWGRP | S_IWOTH;
    const uid_t user = host.Launchers();
    const bool isTheirs = managed.procs.owner == user || (managed.procs.mode & writableForOthers) != 0;
    if (host.caller != 0 || user == 0 || isTheirs) {
        return {};
    }
    return "user " + std::to_string(user) + " may not write to " + managed.procs.path +
           ", so that his launchers cannot place a command. Run chown -R " + std::to_string(user) + " " +
           managed.path + ".";
}

Problem ManagedProblem(const HostFacts& host, const CgroupFacts& managed, const std::string& mount) {
    if (!managed.exists) {
        return managed.path + " does not exist. " + runPrepare;
    }
    const Problem problem = WriteProblem(host, managed, mount);
    return problem ? problem : HandOverProblem(host, managed);
}

Requirement Managed(const HostFacts& host, const CgroupFacts& managed, const std::string& mount) {
    return {.good = managed.path + " exists and can be written to",
            .problem = ManagedProblem(host, managed, mount)};
}

/// With v2 a user may move a process only within what is delegated to him, up to the closest common ancestor
/// of both cgroups, see "Delegation containment" in cgroups(7); what the kernel refuses here is silent. Of
/// users other than the caller no more can be told than whether they own the file.
bool MayMoveFromOutside(const HostFacts& host, uid_t user) {
    if (user == 0) {
        return true;
    }
    if (host.caller == user) {
        return host.mayMoveFromRoot || host.isBelowManaged;
    }
    return host.root.procs.owner == user;
}

Requirement MovesFromOutside(const HostFacts& host) {
    const uid_t user = host.caller == 0 ? host.Launchers() : host.caller;
    return Require(MayMoveFromOutside(host, user),
                   "launchers may move their commands to " + host.managed.path,
                   "user " + std::to_string(user) + " may not write to " + host.root.procs.path +
                       ", so that a launcher which does not itself run in or below cwset "
                       "leaves its command outside. Give the file to this user, "
                       "or start the launchers in a cgroup below cwset.");
}

Problem ListProblem(const std::string& file, const std::optional<std::string>& list) {
    if (!list) {
        return file + " is gone with the controller. Run cpuwardenctl prepare as root, "
                      "and where systemd took it away, enable cpuwarden-cgroup.service.";
    }
    if (list->empty()) {
        return file + " is empty, so that no command can be placed. " + runPrepare;
    }
    return {};
}

std::vector<Requirement> RequiredOfV1(const HostFacts& host) {
    return {Hierarchy(host, host.root, "cpuset"), Hierarchy(host, host.cpuRoot, "cpu"),
            Managed(host, host.managedCpu, host.cpuRoot.path), Managed(host, host.managed, host.root.path)};
}

std::vector<Requirement> RequiredOfV2(const HostFacts& host, std::optional<Mode> mode) {
    std::vector<Requirement> requirements{Controller(host, "cpuset"), Controller(host, "cpu"),
                                          UsableChildren(host), Managed(host, host.managed, host.root.path)};
    if (!host.managed.exists || !mode) {
        return requirements;
    }
    if (mode == Mode::quota) {
        requirements.push_back(ControlledChildren(host));
        requirements.push_back(NoProcessInManaged(host));
    } else {
        requirements.push_back(NoProcessInChildren(host));
    }
    requirements.push_back(Domains(host, *mode));
    requirements.push_back(MovesFromOutside(host));
    return requirements;
}

} // namespace

std::vector<Requirement> RequiredToPrepare(const HostFacts& host, Mode mode) {
    if (!host.isV2) {
        return {CgroupFileSystem(host),
                Hierarchy(host, host.root, "cpuset"),
                Hierarchy(host, host.cpuRoot, "cpu"),
                Writable(host, host.root),
                Writable(host, host.cpuRoot),
                WritableTemporaryDirectory(host)};
    }
    return {CgroupFileSystem(host),
            Controller(host, "cpu"),
            Controller(host, "cpuset"),
            Writable(host, host.root),
            UsableChildren(host),
            WritableTemporaryDirectory(host),
            mode == Mode::quota ? NoProcessInManaged(host) : NoProcessInChildren(host)};
}

std::vector<Requirement> RequiredToLaunch(const HostFacts& host, std::optional<Mode> mode) {
    std::vector<Requirement> requirements{WritableTemporaryDirectory(host), CgroupFileSystem(host)};
    if (requirements.back().problem) {
        return requirements;
    }
    const std::vector<Requirement> others = host.isV2 ? RequiredOfV2(host, mode) : RequiredOfV1(host);
    requirements.insert(requirements.end(), others.begin(), others.end());
    if (host.managed.exists) {
        const std::string mems = host.managed.path + "/cpuset.mems";
        const std::string cpus = host.managed.path + "/cpuset.cpus";
        requirements.push_back(
            {host.managed.path + " has memory nodes", ListProblem(mems, host.managed.mems)});
        requirements.push_back({host.managed.path + " has CPUs", ListProblem(cpus, host.managed.cpus)});
    }
    return requirements;
}

Problem RegistryProblem(const FileFacts& file, uid_t launchers) {
    if (!file.Exists()) {
        return {};
    }
    const std::string subject = file.path + " is " + KindOf(file) + " of user " + std::to_string(file.owner);
    if (!S_ISREG(file.mode)) {
        return subject + ", no plain file, so that launches fail or write to where it leads." + removeFile;
    }
    if (file.owner != launchers) {
        return subject + ", while launchers run as user " + std::to_string(launchers) +
               ", so that launches fail, or the other user decides what it says." + removeFile;
    }
    if (file.links != 1) {
        return subject +
               " with another name beside this one, so that launchers may write to another's file." +
               removeFile;
    }
    return {};
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
