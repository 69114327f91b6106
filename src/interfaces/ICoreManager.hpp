// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/Deadline.hpp"

#include <cstdint>
#include <string>

namespace Interfaces {

/// Placement of the calling process among all managed processes of the host. Failures of the services used
/// pass through, and every lock taken is released on every way out.
class ICoreManager {
public:
    virtual ~ICoreManager() = default;

    /// Chooses a core for the calling process, which is about to become `processName`, and registers it
    /// there. Waits for a free core until `deadline` unless cores are shared. Returns -1 when there was none.
    virtual int SelectCoreForProcess(const std::string& processName, Deadline deadline) const = 0;

    /// Admits the process `pid`, started at `startTime` (clock ticks since boot), to a quota cgroup of its
    /// own below `cgroupName`, waiting for room until `deadline`, and removes quota cgroups that nobody owns.
    /// Throws Exceptions::XRuntimeError when the quota can never fit or no room came in time.
    virtual void AssignQuotaCgroupForProcess(const std::string& processName, int pid, std::uint64_t startTime,
                                             const std::string& cgroupName, Deadline deadline) const = 0;

    /// Pins the calling thread to `core`, see sched_setaffinity(2). Throws Exceptions::XRuntimeError when the
    /// kernel refuses it, as it does for a core outside the process's cpuset(7).
    virtual void SetAffinity(std::uint32_t core) const = 0;
};

} // namespace Interfaces
