// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/HostFacts.hpp"

#include <string>
#include <vector>

/// The managed cgroup of all hierarchies with all below it: what its owner gets, and who is in it.
struct ManagedTree {
    /// Directories come after what is in them; that in the cpuset hierarchy, whose owner is the launchers'
    /// user, is the last.
    std::vector<FileFacts> files;
    std::vector<Process> processes; ///< Threads where a cgroup is threaded.
    FailedReads failedReads;
};

ManagedTree GatherManagedTree(const HostFacts& host);

/// The processes with a record in one of the host's registries, by which they count as commands.
std::vector<Process> GatherRecorded(const HostFacts& host);
