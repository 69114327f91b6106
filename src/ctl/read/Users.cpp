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

constexpr gid_t noGroup = 65534; // which the kernel, too, takes for one that it cannot tell

/// The fields of each line, of those lines that have so many.
std::vector<std::vector<std::string>> ReadTable(const std::string& path, std::size_t fieldCount) {
    std::vector<std::vector<std::string>> table;
    for (const std::string& line : ReadKernelLines(path)) {
        std::vector<std::string> fields = Split(line, ':');
        if (fields.size() >= fieldCount) {
            table.push_back(std::move(fields));
        }
    }
    return table;
}

/// From lines such as "name:x:1000:1000:...", see passwd(5).
std::optional<User> FindInPasswd(const std::string& nameOrNumber) {
    for (const std::vector<std::string>& fields : ReadTable("/etc/passwd", 4)) {
        const auto id = ParseNumber<uid_t>(fields[2]);
        const auto group = ParseNumber<gid_t>(fields[3]);
        if (id && group && (fields[0] == nameOrNumber || fields[2] == nameOrNumber)) {
            return User{.id = *id, .name = fields[0], .group = *group};
        }
    }
    return std::nullopt;
}

/// From lines such as "name:x:1000:user,user", see group(5).
std::vector<gid_t> GroupsOf(const std::string& name) {
    std::vector<gid_t> groups;
    for (const std::vector<std::string>& fields : ReadTable("/etc/group", 4)) {
        const std::vector<std::string> members = Split(fields[3], ',');
        const auto group = ParseNumber<gid_t>(fields[2]);
        if (group && std::ranges::find(members, name) != members.end()) {
            groups.push_back(*group);
        }
    }
    return groups;
}

/// Lets the kernel take this process for the user, as far as files are concerned, see setfsuid(2): it then
/// also lacks the capabilities by which root passes over permissions.
class Disguise {
public:
    explicit Disguise(const User& user)
        : groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0))) {
        ::getgroups(static_cast<int>(groups.size()), groups.data());
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
    std::optional<User> user = FindInPasswd(nameOrNumber);
    if (user) {
        user->groups = GroupsOf(user->name);
        return user;
    }
    const auto id = ParseNumber<uid_t>(nameOrNumber);
    constexpr auto noUser = static_cast<uid_t>(-1); // chown(2) takes it for "as it is"
    return id && *id != noUser ? std::optional(User{.id = *id, .group = noGroup}) : std::nullopt;
}

bool MayAccess(const User& user, const std::string& path, int mode) {
    const Disguise disguise(user);
    return ::faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0 || errno != EACCES;
}
