// SPDX-License-Identifier: Apache-2.0
// Which files launchers can use as registries, and what makes one usable.
#pragma once

#include "ctl/decide/Requirement.hpp"
#include "ctl/read/Files.hpp"

/// Why launchers of the user `launchers` cannot use the file as a registry, or must not; a missing one is
/// well.
Problem RegistryProblem(const FileFacts& file, uid_t launchers);

/// What has to be done to the file of a registry.
struct RegistryChange {
    bool create{};
    bool replace{};         ///< Its former owner may have it open, or another name for it.
    bool giveToLaunchers{}; ///< Of one that is to be created, asked again once it is there.
    bool takePermissions{}; ///< Those beyond registryMode.
    Problem refusal;        ///< Why it is left alone, though launchers cannot use it.
};

/// The permissions of a registry, and those that are left to one that has more.
inline constexpr mode_t registryMode = 0600;

/// Whose files are handed over to the launchers; those of anyone else are never touched.
struct Owners {
    uid_t preparer{}; ///< Who prepares.
    uid_t former{};   ///< Whose the launchers were until now.
    uid_t launchers{};
};

RegistryChange ChangeOf(const FileFacts& file, const Owners& owners);
