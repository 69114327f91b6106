// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Preparation.hpp"

#include "ctl/decide/HierarchyRequirements.hpp"
#include "ctl/read/Collections.hpp"
#include "ctl/read/Paths.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>

#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

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
            const std::string on = "+" + controller;
            const std::string off = "-" + controller;
            steps.push_back({.kind = Step::Kind::write,
                             .path = SubtreeControl(cgroup),
                             .text = areWanted ? on : off,
                             .undo = areWanted ? off : on});
        }
    }
    return steps;
}

/// Whether a cgroup further below has the controller for its children, so that the kernel leaves it to all
/// above, see "Top-down Constraint" in cgroups(7).
bool IsPassedOn(const HostFacts& host, const std::string& controller) {
    return std::ranges::any_of(host.descendants,
                               [&](const CgroupFacts& cgroup) { return cgroup.Controls(controller); });
}

/// A v1 cpuset takes no process before it has CPUs and memory nodes, see cpuset(7), and launchers count the
/// CPUs. What an operator has set stays.
void AppendFilling(std::vector<Step>& steps, const std::string& file,
                   const std::optional<std::string>& content, const std::string& all) {
    if (content.value_or("").empty()) {
        steps.push_back({.kind = Step::Kind::write, .path = file, .text = all, .undo = "\n"});
    }
}

/// Also takes from others what the former owner may have given them.
void AppendGiving(std::vector<Step>& steps, const FileFacts& file, uid_t owner) {
    if (file.owner == owner) {
        return;
    }
    constexpr mode_t writableForOthers = S_IWGRP | S_IWOTH;
    const mode_t mode = file.mode & permissionBits;
    steps.push_back({.kind = Step::Kind::give,
                     .path = file.path,
                     .ownership = {.owner = owner, .mode = mode & ~writableForOthers},
                     .former = {.owner = file.owner, .mode = mode}});
}

/// Launchers make and remove cgroups below the managed one, and move processes.
bool IsForLaunchers(const HostFacts& host, const FileFacts& file) {
    const fs::path path = file.path;
    const bool isInManaged =
        path.parent_path() == host.managed.path || path.parent_path() == host.managedCpu.path;
    const std::string name = path.filename();
    return !isInManaged || S_ISDIR(file.mode) || name == "cgroup.procs" || name == "cgroup.threads" ||
           name == "tasks";
}

} // namespace

std::vector<Step> StepsToManagedCgroup(const HostFacts& host) {
    std::vector<Step> steps;
    if (host.isV2) {
        // Before this, cwset has none of the files below.
        Append(steps, StepsToControllers(host.root, true));
    }
    if (!host.managed.exists) {
        steps.push_back({.kind = Step::Kind::makeCgroup, .path = host.managed.path});
    }
    if (!host.isV2 && !host.managedCpu.exists) {
        steps.push_back({.kind = Step::Kind::makeCgroup, .path = host.managedCpu.path});
    }
    AppendFilling(steps, host.managed.path + "/cpuset.cpus", host.managed.cpus,
                  host.isV2 ? host.root.effectiveCpus : host.root.cpus.value_or(""));
    AppendFilling(steps, host.managed.path + "/cpuset.mems", host.managed.mems,
                  host.isV2 ? host.root.effectiveMems : host.root.mems.value_or(""));
    return steps;
}

std::vector<Step> StepsToChildren(const HostFacts& host, Mode mode) {
    if (!host.isV2) {
        return {};
    }
    CgroupFacts managed = host.managed;
    if (mode == Mode::core) {
        std::erase_if(managed.childControllers,
                      [&](const std::string& controller) { return IsPassedOn(host, controller); });
    }
    return StepsToControllers(managed, mode == Mode::quota);
}

std::vector<Step> StepsToOwner(const HostFacts& host, const ManagedTree& tree, uid_t owner) {
    std::vector<Step> steps;
    if (host.isV2) {
        AppendGiving(steps, host.root.procs, owner);
    }
    for (const FileFacts& file : tree.files) {
        AppendGiving(steps, file, IsForLaunchers(host, file) ? owner : 0);
    }
    return steps;
}

Problem HandOverProblem(const HostFacts& host, const ManagedTree& tree, const std::vector<Process>& recorded,
                        uid_t owner) {
    if (Problem unread = UnreadProblem(tree.failedReads.First())) {
        return unread;
    }
    std::vector<Process> commands = tree.processes;
    Append(commands, recorded);
    std::ranges::sort(commands, {}, &Process::pid);
    const auto isSame = [](const Process& one, const Process& other) { return one.pid == other.pid; };
    commands.erase(std::unique(commands.begin(), commands.end(), isSame), commands.end()); // most are in both
    if (commands.empty()) {
        return {};
    }
    return "commands of user " + std::to_string(host.Launchers()) + " run, with which launchers of user " +
           std::to_string(owner) + " could not agree. Stop these, then run this again: " + Listed(commands);
}

Step UndoOf(const Step& step) {
    switch (step.kind) {
    case Step::Kind::makeCgroup:
        return {.kind = Step::Kind::removeCgroup, .path = step.path};
    default:
        return {.kind = step.kind,
                .path = step.path,
                .text = step.undo,
                .undo = step.text,
                .ownership = step.former,
                .former = step.ownership};
    }
}

std::string Remedy(const Step& step, int error) {
    if (step.kind == Step::Kind::give) {
        return "Run this as root of the host.";
    }
    if (step.kind != Step::Kind::write) {
        return error == EEXIST ? "Somebody has just made it: run this again."
                               : "Run this as root of a host that may create cgroups.";
    }
    if (step.text.front() != '+' && step.text.front() != '-') {
        return "See who else has some of these exclusively, make the cgroup with the list for managed "
               "commands, then run this again.";
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

Problem AffinityWarning(const HostFacts& host) {
    if (host.pinned.empty() || host.keepsAffinity) {
        return {};
    }
    return "this kernel takes from processes the affinity that they have of their own "
           "when the cpuset controller is enabled. "
           "Prepare at boot, before others pin themselves, or pin these again: " +
           Listed(host.pinned);
}
