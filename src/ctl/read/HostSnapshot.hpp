// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/Cgroups.hpp"
#include "ctl/read/FailedReads.hpp"
#include "ctl/read/Launches.hpp"
#include "ctl/read/ProcessTable.hpp"
#include "ctl/read/Registries.hpp"
#include "ctl/read/Services.hpp"

#include <set>

/// What the host shows of launchers and their commands at one time: facts, not judged yet.
struct HostSnapshot {
    std::uint64_t now{};            ///< Clock ticks since boot.
    std::uint64_t ticksPerSecond{}; ///< See sysconf(3).
    ManagedCgroup cgroup{};
    std::vector<Registry> registries{}; ///< Of the cores in their order, then of the allocations.
    /// Pids by Registry::lockId; read only when a launch waits.
    std::unordered_map<std::string, int> lockHolders{};
    Processes processes{};
    /// Recorded ones that exist, but could not be read, or not by the caller, see hidepid= in proc(5).
    std::set<int> hiddenProcesses{};
    std::vector<Launch> launches{};
    ConfigurationReading configuration{};
    FailedReads failedReads{};
};

/// Looks at the host without a lock and without writing. Commands come and go meanwhile; the order in
/// which things are read keeps any of them from looking lost or dead when it is not.
HostSnapshot TakeSnapshot();
