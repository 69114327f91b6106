// SPDX-License-Identifier: Apache-2.0
// What has to be changed, decided from facts alone. Whatever is as it should be is left alone, so that a
// prepared host needs no step.
#pragma once

#include "ctl/decide/Requirements.hpp"
#include "ctl/read/HostFacts.hpp"
#include "ctl/read/ManagedTree.hpp"

#include <string>
#include <vector>

/// Whose a file is, and who else may use it.
struct Ownership {
    uid_t owner{};
    mode_t mode{};
};

/// One change of the cgroup tree.
struct Step {
    enum class Kind { makeCgroup, removeCgroup, write, give };

    Kind kind;
    std::string path;
    std::string text{};    ///< What is written to the file.
    std::string undo{};    ///< What is written to it to take that back.
    Ownership ownership{}; ///< What is given to the file or directory.
    Ownership former{};    ///< What is given to it to take that back.
};

/// What takes the step back, once it was taken.
Step UndoOf(const Step& step);

/// Makes the managed cgroup, with CPUs and memory nodes.
std::vector<Step> StepsToManagedCgroup(const HostFacts& host);

/// Gives the children of the managed cgroup the controllers of quota mode, or takes all of theirs away; with
/// v1 nothing. A controller that a child passes on itself stays, as the kernel wants it.
std::vector<Step> StepsToChildren(const HostFacts& host, Mode mode);

/// Gives the managed cgroup to the user of the launchers: its directories and the lists of its processes, but
/// not its own limits; everything further below; and, with v2, the list of processes of the root, from which
/// his launchers move their commands, see "Delegation containment" in cgroups(7). All else becomes root's.
std::vector<Step> StepsToOwner(const HostFacts& host, const ManagedTree& tree, uid_t owner);

/// Why the launchers cannot become those of `owner` now.
Problem HandOverProblem(const HostFacts& host, const ManagedTree& tree, const std::vector<Process>& recorded,
                        uid_t owner);

/// What to do when the kernel refuses the step with this errno(3).
std::string Remedy(const Step& step, int error);

/// What to tell before the cpuset controller is enabled, where that takes their affinity from processes.
Problem AffinityWarning(const HostFacts& host);
