// SPDX-License-Identifier: Apache-2.0
// What must hold of the host around the managed cgroup: of the hierarchies and their roots, and of /tmp.
#pragma once

#include "ctl/decide/Requirement.hpp"
#include "ctl/read/HostFacts.hpp"

Requirement CgroupFileSystem(const HostFacts& host);
Requirement Controller(const HostFacts& host, const std::string& controller);
Requirement Writable(const HostFacts& host, const CgroupFacts& root);
Requirement UsableChildren(const HostFacts& host);
Requirement Readable(const HostFacts& host);
/// Whether the root has what the managed cgroup still lacks.
Requirement Fillable(const HostFacts& host);
Requirement WritableTemporaryDirectory(const HostFacts& host);

/// Why the caller cannot write to the cgroup in the hierarchy that is mounted there.
Problem WriteProblem(const HostFacts& host, const CgroupFacts& cgroup, const std::string& mount);

/// Of the first thing that could not be read, which is empty when all could.
Problem UnreadProblem(const std::string& unread);

/// Whether commands in a cgroup without CPUs or memory nodes of its own get those of the cgroups above it.
bool InheritsEmptyLists(const HostFacts& host);
