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
constexpr mode_t registryMode = 0600;
constexpr std::chrono::seconds lockPatience{10};

[[noreturn]] void Fail(const std::string& what, int error, const std::string& remedy) {
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
    const RegistryChange change = ChangeOf(facts, ::geteuid(), launchers);
    if (change.refusal) {
        return change.refusal;
    }
    if (change.takePermissions && ::fchmod(file.Descriptor(), facts.mode & registryMode) != 0) {
        Fail("narrow the permissions of " + path, errno, "Run this as root.");
    }
    constexpr auto sameGroup = static_cast<gid_t>(-1);
    if (change.giveToLaunchers && ::fchown(file.Descriptor(), launchers, sameGroup) != 0) {
        Fail("give " + path + " to user " + std::to_string(launchers), errno, "Run this as root.");
    }
    return {};
}

OpenFile Locked(const Interfaces::IFileSystem& fileSystem, OpenFile file, const std::string& failure) {
    try {
        fileSystem.TryFileLockUntil(file.Descriptor(), std::chrono::steady_clock::now() + lockPatience);
    } catch (const Exceptions::XTimeoutError&) {
        throw Exceptions::XTimeoutError(failure);
    }
    return file;
}

/// The errno(3) of creating the cgroup; 0 also when there is one, which another run has made.
int Create(const std::string& path) {
    return ::mkdir(path.c_str(), cgroupMode) == 0 || errno == EEXIST ? 0 : errno;
}

} // namespace

void Take(const Step& step) {
    const bool isCgroup = step.text.empty();
    const int error = isCgroup ? Create(step.path) : WriteAtOnce(step.path, step.text);
    if (error != 0) {
        Fail(isCgroup ? "create " + step.path : "write '" + step.text + "' to " + step.path, error,
             Remedy(step, error));
    }
}

Problem MakeRegistry(const std::string& path, uid_t launchers) {
    const RegistryChange change = ChangeOf(Inspect(path), ::geteuid(), launchers);
    if (change.refusal) {
        return change.refusal;
    }
    // O_EXCL fails for whatever else has appeared there meanwhile, links included, see open(2).
    const OpenFile file = OpenRegistry(path, change.create ? O_CREAT | O_EXCL : 0);
    if (!file.IsOpen()) {
        const int error = errno;
        return "cannot open " + path + ": " + std::strerror(error) + ". " + RemedyOfOpening(path, error);
    }
    return Adjust(file, path, launchers);
}

OpenFile LockPreparing(const Interfaces::IFileSystem& fileSystem) {
    ::mkdir(lockDirectory, lockDirectoryMode);
    OpenFile file(::open(lockFile, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, lockFileMode));
    if (file.Descriptor() < 0) {
        Fail(std::string("open ") + lockFile, errno, "Run this as root.");
    }
    return Locked(fileSystem, std::move(file),
                  "another run of cpuwardenctl prepare goes on. Wait for its end, then run this again.");
}

std::optional<OpenFile> LockAllocations(const Interfaces::IFileSystem& fileSystem, uid_t launchers) {
    OpenFile registry = OpenRegistry(Paths::allocationRegistry, 0);
    if (!registry.IsOpen() || RegistryProblem(registry.Facts(), launchers)) {
        return std::nullopt;
    }
    return Locked(fileSystem, std::move(registry),
                  std::string("a launcher waits for room and holds the lock of ") +
                      Paths::allocationRegistry +
                      ". Stop it, or configure the quota again, then run this again.");
}
