// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Users.hpp"

#include "ctl/read/Fields.hpp"
#include "ctl/read/Files.hpp"
#include "filesystem/Split.hpp"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <grp.h>
#include <sys/fsuid.h>
#include <unistd.h>

namespace {

constexpr std::size_t nameField = 0; // of both passwd(5) and group(5)
constexpr std::size_t idField = 2;
constexpr std::size_t fieldCount = 4;           // as many as are looked at
constexpr auto noUser = static_cast<uid_t>(-1); // chown(2) takes it for "as it is"
constexpr gid_t noGroup = 65534;                // which the kernel, too, takes for one that it cannot tell

/// The fields of each line that has as many as are looked at.
std::vector<std::vector<std::string>> ReadTable(const std::string& path) {
    std::vector<std::vector<std::string>> table;
    for (const std::string& line : ReadKernelLines(path)) {
        std::vector<std::string> fields = Split(line, ':');
        if (fields.size() >= fieldCount) {
            table.push_back(std::move(fields));
        }
    }
    return table;
}

/// The first user of whom the field of passwd(5) is this text, from lines such as "name:x:1000:1000:...".
std::optional<User> FindInPasswd(std::size_t field, const std::string& text) {
    for (const std::vector<std::string>& fields : ReadTable("/etc/passwd")) {
        const auto id = ParseNumber<uid_t>(fields[idField]);
        const auto group = ParseNumber<gid_t>(fields[idField + 1]);
        if (id && *id != noUser && group && fields[field] == text) {
            return User{.id = *id, .name = fields[nameField], .group = *group};
        }
    }
    return std::nullopt;
}

/// From lines such as "name:x:1000:user,user", see group(5).
std::vector<gid_t> GroupsOf(const std::string& name) {
    std::vector<gid_t> groups;
    for (const std::vector<std::string>& fields : ReadTable("/etc/group")) {
        const std::vector<std::string> members = Split(fields[3], ',');
        const auto group = ParseNumber<gid_t>(fields[2]);
        if (group && std::ranges::find(members, name) != members.end()) {
            groups.push_back(*group);
        }
    }
    return groups;
}

/// The supplementary groups of this process, see getgroups(2).
std::vector<gid_t> OwnGroups() {
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0)));
    const int count = groups.empty() ? 0 : ::getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    return groups;
}

/// Lets the kernel take this process for the user, as far as files are concerned, see setfsuid(2): it then
/// also lacks the capabilities by which root passes over permissions.
class Disguise {
public:
    explicit Disguise(const User& user) : groups(OwnGroups()) {
        ::setgroups(user.groups.size(), user.groups.data());
        ::setfsgid(user.group);
        ::setfsuid(user.id);
    }
    Disguise(const Disguise&) = delete;
    Disguise& operator=(const Disguise&) = delete;
    ~Disguise() {
        ::setfsuid(::geteuid());
        ::setfsgid(::getegid());
        ::setgroups(groups.size(), groups.data());
    }

private:
    std::vector<gid_t> groups;
};

} // namespace

std::optional<User> FindUser(const std::string& nameOrNumber) {
    if (std::optional<User> user = FindInPasswd(nameField, nameOrNumber)) {
        user->groups = GroupsOf(user->name);
        return user;
    }
    const auto id = ParseNumber<uid_t>(nameOrNumber);
    return id && *id != noUser ? std::optional(UserOf(*id)) : std::nullopt;
}

User UserOf(uid_t id) {
    User user = FindInPasswd(idField, std::to_string(id)).value_or(User{.id = id, .group = noGroup});
    user.groups = GroupsOf(user.name);
    return user;
}

bool MayAccess(const User& user, const std::string& path, int mode) {
    const Disguise disguise(user);
    return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 || errno != EACCES;
}
