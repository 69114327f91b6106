// SPDX-License-Identifier: Apache-2.0
// Does what was decided: all that `prepare` changes is changed here.
#pragma once

#include "ctl/decide/Preparation.hpp"
#include "ctl/decide/RegistryChange.hpp"

#include <string>

/// Changes of the cgroup tree, which are taken back in reverse order unless all of them are to be kept.
class Changes {
public:
    Changes() = default;
    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;
    ~Changes();

    /// Takes these steps as well. Throws Exceptions::XRuntimeError with the kernel's reason and the remedy
    /// when one is refused.
    void Make(const std::vector<Step>& steps);

    void Keep();

private:
    std::vector<Step> taken;
};

/// Brings the registry at `path` into its state: never through a link, never touching its content, but that
/// of a former owner is replaced by an empty one. Returns why launchers cannot use it, when it is another's
/// or cannot be opened; throws Exceptions::XRuntimeError when it cannot be changed.
Problem MakeRegistry(const std::string& path, const Owners& owners);

/// Waits until no other run prepares this host; the returned file keeps others out for as long as it lives.
/// Throws Exceptions::XTimeoutError when another run goes on for too long.
OpenFile LockPreparing(const Interfaces::IFileSystem& fileSystem);

/// Waits until no launcher of the user `launchers` is being placed, and keeps others out for as long as the
/// returned files live. Throws Exceptions::XTimeoutError when one waits for its place.
std::vector<OpenFile> LockRegistries(const Interfaces::IFileSystem& fileSystem,
                                     const std::vector<Registry>& registries, uid_t launchers);

/// Waits until no launcher is being admitted to a quota cgroup, and keeps others out likewise. Returns
/// nothing for a registry that is not the launchers', without waiting: who made it could hold its lock for
/// ever.
std::optional<OpenFile> LockAllocations(const Interfaces::IFileSystem& fileSystem, uid_t launchers);
