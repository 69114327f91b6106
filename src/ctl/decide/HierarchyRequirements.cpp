// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/HierarchyRequirements.hpp"

#include "ctl/read/Collections.hpp"
#include "ctl/read/Paths.hpp"

#include <algorithm>

namespace {

/// Whether something is mounted at `directory` and `word` is its file system's type or among its options.
bool IsMountedWith(const HostFacts& host, const std::string& directory, const std::string& word) {
    const std::string resolved = ValueOf(host.links, directory).value_or(directory);
    // A later mount hides those before it.
    const auto last = std::ranges::find_if(host.mounts.rbegin(), host.mounts.rend(),
                                           [&](const Mount& mount) { return mount.directory == resolved; });
    return last != host.mounts.rend() && last->words.contains(word);
}

/// With v1.
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

/// With v2.
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

bool IsFillable(const std::optional<std::string>& list, const std::string& all) {
    return !list.value_or("").empty() || !all.empty();
}

} // namespace

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

Requirement Controller(const HostFacts& host, const CgroupFacts& root, const std::string& controller) {
    return {.good = "the " + controller + " controller is at " + root.path,
            .problem =
                host.isV2 ? ControllerProblem(host, controller) : HierarchyProblem(host, root, controller)};
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

Requirement Readable(const HostFacts& host) {
    return {.good = "the cgroups can be read",
            .problem = UnreadProblem(host.presentCpus.empty() ? "the list of present CPUs"
                                                              : host.failedReads.First())};
}

Requirement Fillable(const HostFacts& host) {
    const CgroupFacts& root = host.root;
    const bool hasCpus =
        IsFillable(host.managed.cpus, host.isV2 ? root.effectiveCpus : root.cpus.value_or(""));
    const bool hasMems =
        IsFillable(host.managed.mems, host.isV2 ? root.effectiveMems : root.mems.value_or(""));
    return Require(
        hasCpus && hasMems, root.path + " has CPUs and memory nodes",
        root.path + " has no " + (hasCpus ? "memory nodes" : "CPUs") + ", so that there are none for " +
            host.managed.path +
            ". Write them to its cpuset.cpus and cpuset.mems; in a container, have the host do so.");
}

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

Problem UnreadProblem(const std::string& unread) {
    return unread.empty() ? Problem{} : "cannot read " + unread + ". See why, then run this again.";
}

bool InheritsEmptyLists(const HostFacts& host) {
    return host.isV2 || IsMountedWith(host, host.root.path, "cpuset_v2_mode");
}
