// SPDX-License-Identifier: Apache-2.0
// What has to be changed, decided from facts alone. Whatever is as it should be is left alone, so that a
// prepared host needs no step.
#pragma once

#include "ctl/decide/Requirements.hpp"
#include "ctl/read/HostFacts.hpp"

#include <string>
#include <vector>

/// One change of the cgroup tree.
struct Step {
    std::string path;
    std::string text; ///< What is written to the file; empty for a cgroup to be made.

    bool operator==(const Step&) const = default;
};

/// Makes the managed cgroup, with CPUs and memory nodes.
std::vector<Step> StepsToManagedCgroup(const HostFacts& host);

/// Gives the children of the managed cgroup the controllers of quota mode, or takes all of theirs away; with
/// v1 nothing.
std::vector<Step> StepsToChildren(const HostFacts& host, Mode mode);

/// What to do when the kernel refuses the step with this errno(3).
std::string Remedy(const Step& step, int error);

/// What has to be done to the file of a registry.
struct RegistryChange {
    bool create = false;
    bool giveToLaunchers = false;
    bool takePermissions = false; ///< Those beyond 0600.
    Problem refusal;              ///< Why it is left alone, though launchers cannot use it.
};

/// `preparer` is the user who prepares, whose own files are handed over to `launchers`; those of anyone else
/// are never touched.
RegistryChange ChangeOf(const FileFacts& file, uid_t preparer, uid_t launchers);

/// What to tell before the cpuset controller is enabled, where that takes their affinity from processes.
Problem AffinityWarning(const HostFacts& host);
