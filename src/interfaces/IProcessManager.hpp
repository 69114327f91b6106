// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/Deadline.hpp"

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace Interfaces {

/// Processes and their cgroups. Throws Exceptions::XInvalidArgument for a pid that is not greater than 0 or
/// an empty cgroup name, and Exceptions::XSystemError for a failed system call, unless said otherwise.
class IProcessManager {
public:
    virtual ~IProcessManager() = default;

    /// Whether kill(2) with signal 0 reaches the process: true for a zombie, false for another user's
    /// process.
    virtual bool IsProcessAlive(int pid) const = 0;

    /// Where /proc/pid/exe leads, see proc(5); " (deleted)" is part of it for a program that was replaced.
    /// Throws Exceptions::XInvalidArgument for a process that is not alive; errors of reading the link pass
    /// through.
    virtual std::filesystem::path GetProcessExecutablePath(int pid) const = 0;

    /// When the process started, in clock ticks since boot: field 22 of /proc/pid/stat, see proc(5). Throws
    /// Exceptions::XInvalidArgument for a process that is not alive or a field without digits, and
    /// Exceptions::XSystemError for too few fields or a value out of range.
    virtual std::uint64_t GetProcessStartTime(int pid) const = 0;

    /// Looks once a second whether the child `pid` has ended, until `deadline`: (true, its exit code, or 128
    /// plus the number of the signal that ended it) once it is reaped, else (false, 0), up to one second
    /// late.
    virtual std::pair<bool, int> ProcessWait(int pid, Deadline deadline) const = 0;

    /// Asks the child to stop with SIGTERM and waits until `deadline`; whether it is gone. False when the
    /// signal could not be sent.
    virtual bool ProcessShutdown(int pid, Deadline deadline) const = 0;

    /// Sends SIGKILL; whether it could be sent. False, and nothing sent, for a pid that is not greater than
    /// 0.
    virtual bool ProcessKill(int pid) const = 0;

    /// fork(2): 0 in the child, the child's pid in the parent.
    virtual int Fork() const = 0;

    /// Has the kernel send the calling process SIGTERM when its parent ends, see PR_SET_PDEATHSIG in
    /// prctl(2).
    virtual void PreventOrphanProcess() const = 0;

    /// Moves the process into an existing cgroup (on cgroup v1 in the cpuset hierarchy alone), see
    /// cgroups(7). Throws Exceptions::XRuntimeError when there is no such cgroup. A move that the kernel
    /// refuses is silent.
    virtual void MoveProcessToCgroup(int pid, const std::string& cgroupName) const = 0;

    /// Creates the cgroup `parentCgroupName`/`childCgroupName` with the parent's CPUs and memory nodes and a
    /// quota in percent of one CPU, and moves the process into it. Throws Exceptions::XRuntimeError when a
    /// step fails, and undoes none; values that the kernel refuses are silent. A quota of 0
    /// is an Exceptions::XInvalidArgument too.
    virtual void AddCgroupForManagedProcess(int pid, const std::string& parentCgroupName,
                                            const std::string& childCgroupName,
                                            std::uint32_t quotaPercentage) const = 0;

    /// Removes the child cgroup where it exists and holds no process.
    virtual void RemoveCgroupForManagedProcess(const std::string& parentCgroupName,
                                               const std::string& childCgroupName) const = 0;

    /// The names of all child cgroups of the parent, each once, sorted.
    virtual std::vector<std::string> ListManagedChildCgroups(const std::string& parentCgroupName) const = 0;

    /// The calling process's own pid.
    virtual int GetCurrentPid() const = 0;

    /// Replaces the calling process's image by `command`, searched in PATH when it has no slash, see
    /// execvp(3). Returns only by throwing.
    virtual void Execute(const std::string& command, const std::vector<std::string>& arguments) const = 0;
};

} // namespace Interfaces
