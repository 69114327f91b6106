// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Preparation.hpp"

#include "ctl/read/Paths.hpp"

#include <cerrno>
#include <set>

#include <sys/stat.h>

namespace {

constexpr mode_t registryPermissions = 0600;
constexpr mode_t permissionBits = 07777;

std::string SubtreeControl(const CgroupFacts& cgroup) {
    return cgroup.path + "/cgroup.subtree_control";
}

/// One for each controller, since a write of two is refused as a whole. Those of quota mode are wanted, or
/// none at all.
std::vector<Step> StepsToControllers(const CgroupFacts& cgroup, bool areWanted) {
    const std::set<std::string> ofQuotas{"cpu", "cpuset"};
    std::vector<Step> steps;
    for (const std::string& controller : areWanted ? ofQuotas : cgroup.childControllers) {
        if (cgroup.Controls(controller) != areWanted) {
            steps.push_back({SubtreeControl(cgroup), (areWanted ? "+" : "-") + controller});
        }
    }
    return steps;
}

void Append(std::vector<Step>& steps, const std::vector<Step>& others) {
    steps.insert(steps.end(), others.begin(), others.end());
}

/// A v1 cpuset takes no process before it has CPUs and memory nodes, see cpuset(7), and launchers count the
/// CPUs. What an operator has set stays.
void AppendFilling(std::vector<Step>& steps, const std::string& file,
                   const std::optional<std::string>& content, const std::string& all) {
    if (content.value_or("").empty()) {
        steps.push_back({file, all});
    }
}

} // namespace

std::vector<Step> StepsToManagedCgroup(const HostFacts& host) {
    std::vector<Step> steps;
    if (host.isV2) {
        // Before this, cwset has none of the files below.
        Append(steps, StepsToControllers(host.root, true));
    }
    if (!host.managed.exists) {
        steps.push_back({host.managed.path, ""});
    }
    if (!host.isV2 && !host.managedCpu.exists) {
        steps.push_back({host.managedCpu.path, ""});
    }
    AppendFilling(steps, host.managed.path + "/cpuset.cpus", host.managed.cpus,
                  host.isV2 ? host.root.effectiveCpus : host.root.cpus.value_or(""));
    AppendFilling(steps, host.managed.path + "/cpuset.mems", host.managed.mems,
                  host.isV2 ? host.root.effectiveMems : host.root.mems.value_or(""));
    return steps;
}

std::vector<Step> StepsToChildren(const HostFacts& host, Mode mode) {
    return host.isV2 ? StepsToControllers(host.managed, mode == Mode::quota) : std::vector<Step>{};
}

std::string Remedy(const Step& step, int error) {
    if (step.text.empty()) {
        return "Run this as root of a host that may create cgroups.";
    }
    if (step.text.front() != '+' && step.text.front() != '-') {
        return "Write the list for managed commands to it, then run this again.";
    }
    switch (error) {
    case EBUSY:
        return step.text.front() == '+'
                   ? "Processes have just come into the cgroup itself: stop them, then run this again."
                   : "Remove the cgroups below its children, then run this again.";
    case EINVAL:
        return "Move all processes with a real-time policy to the root cgroup, "
               "as some kernels demand, then run this again.";
    case ENOENT:
        return "The cgroup has no such controller any more: "
               "see its cgroup.controllers and who takes it away.";
    case EOPNOTSUPP:
        return "The cgroup is threaded, see its cgroup.type: remove it when nothing runs in it, "
               "then run this again.";
    case EACCES:
    case EPERM:
        return "Run this as root of the host; "
               "in a container the host has to delegate the controller.";
    default:
        return "See cgroups(7) about cgroup.subtree_control.";
    }
}

RegistryChange ChangeOf(const FileFacts& file, uid_t preparer, uid_t launchers) {
    RegistryChange change;
    if (!file.Exists()) {
        change.create = true;
        change.giveToLaunchers = preparer != launchers;
        return change;
    }
    const uid_t owner = file.owner == preparer ? preparer : launchers;
    change.refusal = RegistryProblem(file, owner);
    if (!change.refusal) {
        change.giveToLaunchers = owner != launchers;
        change.takePermissions = (file.mode & permissionBits & ~registryPermissions) != 0;
    }
    return change;
}

Problem AffinityWarning(const HostFacts& host) {
    if (host.pinned.empty() || host.keepsAffinity) {
        return {};
    }
    return "this kernel takes from processes the affinity that they have of their own "
           "when the cpuset controller is enabled. "
           "Prepare at boot, before others pin themselves, or pin these again: " +
           Listed(host.pinned);
}
