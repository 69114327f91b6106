// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/Deadline.hpp"

#include <filesystem>
#include <string>
#include <vector>

namespace Interfaces {

/// Files, directories, links and advisory locks. Failures are Exceptions::XSystemError unless said otherwise.
class IFileSystem {
public:
    virtual ~IFileSystem() = default;

    /// Whether `path` exists, links followed: false for a dangling link. Throws when that cannot be found
    /// out.
    virtual bool FileExists(const std::filesystem::path& path) const = 0;

    /// Whether `path` can name a command: a bare name always (it is searched in PATH later), anything with a
    /// slash when it leads to a regular file with the owner's execute bit. Throws when that cannot be found
    /// out.
    virtual bool ValidateExecutable(const std::filesystem::path& path) const = 0;

    /// Creates the directory with all missing parents. False when it existed already; throws
    /// Exceptions::XRuntimeError when it cannot be created.
    virtual bool CreateDirectories(const std::filesystem::path& path) const = 0;

    /// Removes the directory `path` if it is empty (a cgroup: if it has no process and no child, cgroups(7))
    /// and says whether it did. Never throws; a symbolic link is left alone.
    virtual bool TryRemoveEmptyDirectory(const std::filesystem::path& path) const = 0;

    /// The names of the directories in `path`, links to directories among them, unsorted. What cannot be read
    /// is missing from the list; never throws for it.
    virtual std::vector<std::string> ListSubdirectories(const std::filesystem::path& path) const = 0;

    /// Opens `path` for reading and writing, creating it with mode 0644 less the umask, see open(2). The
    /// caller owns the descriptor. It is inherited across execve(2).
    virtual int FileOpen(const std::filesystem::path& path) const = 0;

    /// Closes a descriptor of FileOpen.
    virtual void FileClose(int fd) const = 0;

    /// Takes the exclusive advisory lock of flock(2), trying every 100 ms until `deadline`. Throws
    /// Exceptions::XInvalidArgument when `fd` is negative or the deadline is not in the future, and
    /// Exceptions::XTimeoutError, up to 100 ms late, when it passes.
    virtual void TryFileLockUntil(int fd, Deadline deadline) const = 0;

    /// Releases the lock of TryFileLockUntil.
    virtual void FileUnlock(int fd) const = 0;

    /// The lines of the file; the same as reading with the delimiter '\n'.
    virtual std::vector<std::string> ReadLines(const std::filesystem::path& path) const = 0;

    /// The file's text cut at each delimiter: nothing is trimmed, and a delimiter at the very end adds no
    /// empty piece. Throws Exceptions::XInvalidArgument for a missing file and Exceptions::XRuntimeError for
    /// one that cannot be opened; an error of reading ends the list with the last whole piece.
    virtual std::vector<std::string> ReadLines(const std::filesystem::path& path, char delimiter) const = 0;

    /// Replaces the content of the existing file by `lines`, each ended by a newline, in place: whatever ends
    /// the process between two system calls leaves the old lines or the new ones, the latter perhaps with
    /// empty lines after them; within write(2) a signal that ends it may let through the first pages of
    /// memory alone. Throws as ReadLines does; a failed write is silent.
    virtual void WriteLines(const std::filesystem::path& path,
                            const std::vector<std::string>& lines) const = 0;

    /// Adds `lines` at the end of the existing file. Throws as ReadLines does; a failed write is silent.
    virtual void AppendLines(const std::filesystem::path& path,
                             const std::vector<std::string>& lines) const = 0;

    /// What the symbolic link stores, not resolved, see readlink(2). Throws Exceptions::XInvalidArgument when
    /// it is missing or dangling.
    virtual std::filesystem::path ReadSymlink(const std::filesystem::path& path) const = 0;
};

} // namespace Interfaces
