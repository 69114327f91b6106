// SPDX-License-Identifier: Apache-2.0
#include "ctl/act/HostChanges.hpp"

#include "ctl/read/Paths.hpp"
#include "exceptions/Exceptions.hpp"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Only root writes to /run, so nobody else can hold this lock, as anybody could in /tmp or on a file that
// they may read.
constexpr const char* lockDirectory = "/run/cpuwarden";
constexpr const char* lockFile = "/run/cpuwarden/prepare.lock";
constexpr mode_t lockDirectoryMode = 0700;
constexpr mode_t lockFileMode = 0600;
constexpr mode_t cgroupMode = 0755;
constexpr std::chrono::seconds lockPatience{10};
constexpr auto sameGroup = static_cast<gid_t>(-1); // see chown(2)

[[noreturn]] void FailTo(const std::string& what, int error, const std::string& remedy) {
    throw Exceptions::XRuntimeError("cannot " + what + ": " + std::strerror(error) + ". " + remedy);
}

/// The errno(3) of writing all of `text` at once, as a cgroup file wants it; 0 when it is written.
int WriteAtOnce(const std::string& path, const std::string& text) {
    const OpenFile file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return errno;
    }
    const bool isWritten =
        ::write(file.Descriptor(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return isWritten ? 0 : errno;
}

OpenFile OpenRegistry(const std::string& path, int flags) {
    return OpenFile(::open(path.c_str(), O_RDWR | guardedFlags | flags, registryMode));
}

std::string RemedyOfOpening(const std::string& path, int error) {
    switch (error) {
    case EEXIST:
    case ELOOP:
    case ENOENT:
        return "Somebody has just made or removed it: see who, then run this again.";
    case ENOSPC:
    case EDQUOT:
        return "Free a block and an inode there, see df(1), then run this again.";
    case EROFS:
        return "Unmount it, then run this again.";
    case EPERM:
        return "Make it a common file, chattr -ia " + path + ", then run this again.";
    default:
        return "Run this as root.";
    }
}

/// What can only be told by the file once it is open: between a look and an open it may have been replaced.
Problem Adjust(const OpenFile& file, const std::string& path, uid_t launchers) {
    FileFacts facts = file.Facts();
    facts.path = path;
    const RegistryChange change =
        ChangeOf(facts, {.preparer = ::geteuid(), .former = launchers, .launchers = launchers});
    if (change.refusal) {
        return change.refusal;
    }
    if (change.takePermissions && ::fchmod(file.Descriptor(), facts.mode & registryMode) != 0) {
        FailTo("narrow the permissions of " + path, errno, "Run this as root.");
    }
    if (change.giveToLaunchers && !HoldsOnlyRecords(file)) {
        return path + " has lines other than records, so that it is not given to user " +
               std::to_string(launchers) + ". See what it is, move it away, then run this again.";
    }
    if (change.giveToLaunchers && ::fchown(file.Descriptor(), launchers, sameGroup) != 0) {
        FailTo("give " + path + " to user " + std::to_string(launchers), errno, "Run this as root.");
    }
    return {};
}

Interfaces::Deadline In(std::chrono::milliseconds patience) {
    return std::chrono::steady_clock::now() + patience;
}

OpenFile Locked(const Interfaces::IFileSystem& fileSystem, OpenFile file, Interfaces::Deadline deadline,
                const std::string& failure) {
    try {
        fileSystem.TryFileLockUntil(file.Descriptor(), deadline);
    } catch (const Exceptions::XTimeoutError&) {
        throw Exceptions::XTimeoutError(failure);
    }
    return file;
}

/// Nothing for one that cannot be opened or is not the launchers', see LockAllocations.
std::optional<OpenFile> LockedRegistry(const Interfaces::IFileSystem& fileSystem, const std::string& path,
                                       uid_t launchers, Interfaces::Deadline deadline,
                                       const std::string& failure) {
    OpenFile file = OpenRegistry(path, 0);
    if (!file.IsOpen() || RegistryProblem(file.Facts(), launchers)) {
        return std::nullopt;
    }
    return Locked(fileSystem, std::move(file), deadline, failure);
}

/// Cgroups below the managed one come and go, with all their files.
int Give(const std::string& path, const Ownership& ownership) {
    const bool isGiven =
        ::fchownat(AT_FDCWD, path.c_str(), ownership.owner, sameGroup, AT_SYMLINK_NOFOLLOW) == 0 &&
        ::fchmodat(AT_FDCWD, path.c_str(), ownership.mode, 0) == 0;
    return isGiven || errno == ENOENT || errno == ENODEV ? 0 : errno;
}

/// The errno(3) of a system call that returned this; 0 when it succeeded.
int ErrorOf(int result) {
    return result == 0 ? 0 : errno;
}

/// The errno(3) of taking the step; 0 when it is taken.
int Take(const Step& step) {
    switch (step.kind) {
    case Step::Kind::makeCgroup:
        return ErrorOf(::mkdir(step.path.c_str(), cgroupMode));
    case Step::Kind::removeCgroup:
        return ErrorOf(::rmdir(step.path.c_str()));
    case Step::Kind::give:
        return Give(step.path, step.ownership);
    case Step::Kind::write:
        break;
    }
    return WriteAtOnce(step.path, step.text);
}

std::string Told(const Step& step) {
    switch (step.kind) {
    case Step::Kind::write:
        return "write '" + step.text + "' to " + step.path;
    case Step::Kind::give:
        return "give " + step.path + " to user " + std::to_string(step.ownership.owner);
    default:
        return "create " + step.path;
    }
}

} // namespace

// A cgroup that a launcher has entered meanwhile stays, as do the controllers that it uses.
Changes::~Changes() {
    while (!taken.empty()) {
        Take(UndoOf(taken.back()));
        taken.pop_back();
    }
}

void Changes::Make(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
        if (const int error = Take(step); error != 0) {
            FailTo(Told(step), error, Remedy(step, error));
        }
        taken.push_back(step);
    }
}

void Changes::Keep() {
    taken.clear();
}

Problem MakeRegistry(const std::string& path, const Owners& owners) {
    RegistryChange change = ChangeOf(Inspect(path), owners);
    if (change.refusal) {
        return change.refusal;
    }
    if (change.replace && ::unlink(path.c_str()) == 0) {
        change.create = true;
    }
    // O_EXCL fails for whatever else has appeared there meanwhile, links included, see open(2).
    const OpenFile file = OpenRegistry(path, change.create ? O_CREAT | O_EXCL : 0);
    if (!file.IsOpen()) {
        const int error = errno;
        return "cannot open " + path + ": " + std::strerror(error) + ". " + RemedyOfOpening(path, error);
    }
    return Adjust(file, path, owners.launchers);
}

OpenFile LockPreparing(const Interfaces::IFileSystem& fileSystem) {
    ::mkdir(lockDirectory, lockDirectoryMode);
    OpenFile file(::open(lockFile, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, lockFileMode));
    if (!file.IsOpen()) {
        FailTo(std::string("open ") + lockFile, errno, "Run this as root.");
    }
    return Locked(fileSystem, std::move(file), In(lockPatience),
                  "another run of cpuwardenctl prepare goes on. Wait for its end, then run this again.");
}

std::vector<OpenFile> LockRegistries(const Interfaces::IFileSystem& fileSystem,
                                     const std::vector<Registry>& registries, uid_t launchers) {
    std::vector<OpenFile> locked;
    const Interfaces::Deadline deadline = In(lockPatience); // for all of them, within that of the unit
    for (const Registry& registry : registries) {
        const std::string& path = registry.file.path;
        if (std::optional<OpenFile> file =
                LockedRegistry(fileSystem, path, launchers, deadline,
                               "somebody holds the lock of " + path +
                                   ", such as a launcher that waits for its place. Stop it, see "
                                   "/proc/locks, then run this again.")) {
            locked.push_back(*std::move(file));
        }
    }
    return locked;
}

std::optional<OpenFile> LockAllocations(const Interfaces::IFileSystem& fileSystem, uid_t launchers) {
    const std::string path = Paths::allocationRegistry;
    return LockedRegistry(fileSystem, path, launchers, In(lockPatience),
                          "a launcher waits for room and holds the lock of " + path +
                              ". Stop it, or configure the quota again, then run this again.");
}
