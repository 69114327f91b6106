// SPDX-License-Identifier: Apache-2.0
// What must hold for launches to work, decided from facts alone. Preparing stops at the first that does not;
// a check tells all of them.
#pragma once

#include "ctl/read/HostFacts.hpp"

#include <optional>
#include <string>
#include <vector>

/// What is wrong and, after it, the remedy; nothing when all is well.
using Problem = std::optional<std::string>;

struct Requirement {
    std::string good; ///< What to say when it holds.
    Problem problem;
    /// Whether launches fail or are not placed as configured without it; otherwise they only lose by it.
    bool isNeeded = true;
};

/// What must hold before anything is changed, in the order in which it is to be told.
std::vector<Requirement> RequiredToPrepare(const HostFacts& host, Mode mode);

/// What must hold of the host once it is prepared. Where no launcher starts with the configuration, what
/// depends on it is left out.
std::vector<Requirement> RequiredToLaunch(const HostFacts& host, const ConfigurationReading& configuration);

/// Whether commands in a cgroup without CPUs or memory nodes of its own get those of the cgroups above it.
bool InheritsEmptyLists(const HostFacts& host);

/// Of the first thing that could not be read, which is empty when all could.
Problem UnreadProblem(const std::string& unread);

/// Why launchers of the user `launchers` cannot use the file as a registry, or must not; a missing one is
/// well.
Problem RegistryProblem(const FileFacts& file, uid_t launchers);

/// "12 (sleep), 13 (tail) and 4 more".
std::string Listed(const std::vector<Process>& processes);
