// SPDX-License-Identifier: Apache-2.0
// Users as the files in /etc know them, and what they may do.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

struct User {
    uid_t id{};
    std::string name{}; ///< Empty for one that /etc/passwd does not know.
    gid_t group;
    std::vector<gid_t> groups{}; ///< The others that /etc/group gives him.
};

/// The user of this name, or with this number, which need not be in /etc/passwd; nothing for a name that is
/// not there. Other sources of users are not asked: a static program cannot, see nss(5).
std::optional<User> FindUser(const std::string& nameOrNumber);

/// The user with this number, likewise.
User UserOf(uid_t id);

/// Whether the user may access(2) the path in this mode, as the kernel itself says of him: ACLs and the
/// directories on the way count. For root alone to ask; true where the kernel does not let it.
bool MayAccess(const User& user, const std::string& path, int mode);
