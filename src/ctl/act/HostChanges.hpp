// SPDX-License-Identifier: Apache-2.0
// Does what was decided: all that `prepare` changes is changed here.
#pragma once

#include "ctl/decide/Preparation.hpp"

#include <string>

/// Takes the step. Throws Exceptions::XRuntimeError with the kernel's reason and the remedy when it is
/// refused.
void Take(const Step& step);

/// Brings the registry at `path` into its state, for launchers of the user `launchers`: never through a link,
/// never touching its content. Returns why launchers cannot use it, when it is another's or cannot be opened;
/// throws Exceptions::XRuntimeError when it cannot be changed.
Problem MakeRegistry(const std::string& path, uid_t launchers);

/// Waits until no other run prepares this host; the returned file keeps others out for as long as it lives.
/// Throws Exceptions::XTimeoutError when another run goes on for too long.
OpenFile LockPreparing(const Interfaces::IFileSystem& fileSystem);

/// Waits until no launcher is being admitted to a quota cgroup, and keeps others out likewise. Who made the
/// registry first could hold its lock for ever, so one that is not the launchers' is not waited for: nothing.
std::optional<OpenFile> LockAllocations(const Interfaces::IFileSystem& fileSystem, uid_t launchers);
