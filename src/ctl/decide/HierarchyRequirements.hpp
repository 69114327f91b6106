// SPDX-License-Identifier: Apache-2.0
// What must hold of the host around the managed cgroup: of the hierarchies and their roots, and of /tmp.
#pragma once

#include "ctl/decide/Requirement.hpp"
#include "ctl/read/HostFacts.hpp"

/// That one is mounted where launchers look for it; no other one of the cgroups can hold without.
Requirement CgroupFileSystem(const HostFacts& host);

/// That the hierarchy whose root is given has the controller: "cpuset" or "cpu". With v2 there is one
/// hierarchy, with v1 one for each.
Requirement Controller(const HostFacts& host, const CgroupFacts& root, const std::string& controller);

/// That the caller can make the managed cgroup below this root.
Requirement Writable(const HostFacts& host, const CgroupFacts& root);

/// With v2, that the root can give controllers to children with processes.
Requirement UsableChildren(const HostFacts& host);

/// That none of the reads failed without which preparing would write over a list or overlook a command.
Requirement Readable(const HostFacts& host);

/// That the root has what the managed cgroup still lacks.
Requirement Fillable(const HostFacts& host);

/// That /tmp, where launchers have their registries, is not mounted read-only.
Requirement WritableTemporaryDirectory(const HostFacts& host);

/// Why the caller cannot write to the cgroup in the hierarchy that is mounted there.
Problem WriteProblem(const HostFacts& host, const CgroupFacts& cgroup, const std::string& mount);

/// Of the first thing that could not be read, which is empty when all could.
Problem UnreadProblem(const std::string& unread);

/// Whether commands in a cgroup without CPUs or memory nodes of its own get those of the cgroups above it.
bool InheritsEmptyLists(const HostFacts& host);
