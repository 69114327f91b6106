// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/RegistryFindings.hpp"

#include "ctl/decide/RegistryChange.hpp"

#include <cerrno>

#include <sys/stat.h>

namespace {

/// With protected_regular, /tmp yields no file of another user to an open(2) with O_CREAT, as launchers
/// call it, not even to root.
Grade GradeOf(const HostFacts& host, const FileFacts& file) {
    const uid_t launchers = host.Launchers();
    const std::string& isProtected = host.sysctls.at("protected_regular");
    const bool isOpenToRoot =
        launchers == 0 && S_ISREG(file.mode) && (isProtected == "0" || isProtected == "missing");
    const bool isOwn = file.owner == launchers && (S_ISREG(file.mode) || S_ISLNK(file.mode));
    return isOpenToRoot || isOwn ? Grade::warn : Grade::fail;
}

/// Of a registry that is as it should be otherwise. What a launcher of a user other than the caller may do
/// shows in the permissions, not in the error.
Problem OpenProblem(const HostFacts& host, const Registry& registry) {
    constexpr mode_t usable = S_IRUSR | S_IWUSR;
    const std::string subject = registry.file.path;
    switch (registry.openError) {
    case EROFS:
        return subject + " is mounted read-only, so that launches fail. Unmount it.";
    case EPERM:
        return subject +
               " is immutable or append-only, so that launches fail. Make it a common file: chattr -ia " +
               subject;
    default:
        break;
    }
    if (host.Launchers() != 0 && registry.file.Exists() && (registry.file.mode & usable) != usable) {
        return subject + " has mode " + PermissionsOf(registry.file) +
               ", with which its owner cannot use it, so that launches fail. Set it: chmod 600 " + subject;
    }
    return {};
}

/// What keeps launchers from a registry, or from having it to themselves.
std::optional<Finding> FindInRegistry(const HostFacts& host, const Registry& registry) {
    if (const Problem problem = RegistryProblem(registry.file, host.Launchers())) {
        return Finding{.grade = GradeOf(host, registry.file), .text = *problem};
    }
    const Problem problem = host.temporaryFileSystem.isReadOnly ? Problem{} : OpenProblem(host, registry);
    return problem ? std::optional(Fail(*problem)) : std::nullopt;
}

/// Whether others than its owner have permissions.
bool IsWide(const FileFacts& file, uid_t launchers) {
    return ChangeOf(file, {.preparer = launchers, .former = launchers, .launchers = launchers})
        .takePermissions;
}

/// The same where launchers run in this mode. They do not open the registries of the other one, so that what
/// would make launches fail there only warns of a change of the configuration.
std::optional<Finding> FindInRegistryOfMode(const HostFacts& host, const Registry& registry,
                                            std::optional<Mode> mode) {
    const Mode user = registry.core ? Mode::core : Mode::quota;
    std::optional<Finding> finding = FindInRegistry(host, registry);
    if (!finding || finding->grade != Grade::fail || !mode || mode == user) {
        return finding;
    }
    return Warn("only in " + NameOf(user) + " mode: " + finding->text);
}

/// One line of all files that share a finding.
void WarnOfAll(Findings& findings, const std::vector<std::string>& files, const std::string& text) {
    if (!files.empty()) {
        const std::string others =
            files.size() == 1 ? "" : " and " + std::to_string(files.size() - 1) + " more like it";
        findings.push_back(Warn(files.front() + others + text));
    }
}

} // namespace

Findings FindInRegistries(const HostFacts& host, std::optional<Mode> mode) {
    Findings findings;
    std::vector<std::string> missing;
    std::vector<std::string> wide;
    std::vector<std::string> changed;
    for (const Registry& registry : host.registries) {
        const FileFacts& file = registry.file;
        if (const std::optional<Finding> finding = FindInRegistryOfMode(host, registry, mode)) {
            findings.push_back(*finding);
        } else if (!file.Exists()) {
            missing.push_back(file.path);
        } else if (IsWide(file, host.Launchers())) {
            wide.push_back(file.path + " (" + PermissionsOf(file) + ")");
        }
        if (registry.strayLines > 0 && file.owner == host.Launchers()) {
            changed.push_back(file.path);
        }
    }
    WarnOfAll(findings, missing,
              " is missing, so that whoever makes it first decides what launchers meet there. " + runPrepare);
    WarnOfAll(findings, wide, " lets other users open and lock it, and so hold up launches. " + runPrepare);
    WarnOfAll(findings, changed,
              " has lines other than name:pid:starttime, which the next launcher drops. "
              "See what else writes to it.");
    if (findings.empty()) {
        findings.push_back(Pass("the " + std::to_string(host.registries.size()) +
                                " registries are there, for user " + std::to_string(host.Launchers()) +
                                " alone"));
    }
    return findings;
}

Findings FindInTemporaryDirectory(const HostFacts& host) {
    const FileFacts& directory = host.temporaryDirectory;
    constexpr mode_t writableForAll = S_IWOTH;
    Findings findings;
    WarnIf(findings, (directory.mode & writableForAll) != 0 && (directory.mode & S_ISVTX) == 0,
           directory.path + " has mode " + PermissionsOf(directory) +
               ", so that any user can remove a registry. Set it: chmod 1777 " + directory.path);
    WarnIf(findings, directory.owner != 0 && directory.owner != host.Launchers(),
           directory.path + " belongs to user " + std::to_string(directory.owner) +
               ", who can remove a registry in spite of the sticky bit. Give it back: chown root " +
               directory.path);
    WarnIf(findings, !host.temporaryFileSystem.hasFreeBlock,
           directory.path + " has no free block for users, so that new records may be lost, and launches "
                            "succeed without regard to one another. Free some, see df(1).");
    WarnIf(findings, !host.temporaryFileSystem.hasFreeInode,
           directory.path +
               " has no free inode, so that a registry that is missing cannot be made, and launches "
               "that need it fail. Free some, see df(1).");
    return findings;
}
