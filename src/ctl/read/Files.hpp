// SPDX-License-Identifier: Apache-2.0
// Looks at files: small ones of the kernel in /proc and /sys, which may go at any time but never make a
// reader wait; and those in /tmp, where any user may have put anything under the name of a registry.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/types.h>

/// Of a mode, which has the type of the file as well, see inode(7).
inline constexpr mode_t permissionBits = 07777;

/// What lstat(2) tells of a path.
struct FileFacts {
    std::string path{};
    mode_t mode{}; ///< Type and permissions; 0 when there is nothing.
    uid_t owner{};
    nlink_t links{};

    bool Exists() const { return mode != 0; }
};

/// Looks at the path itself, at a link instead of where it leads. What cannot be looked at does not exist.
FileFacts Inspect(const std::string& path);

/// What the file is, such as "a plain file" or "a symbolic link".
std::string KindOf(const FileFacts& file);

/// Its permissions as four octal digits, such as "0644".
std::string PermissionsOf(const FileFacts& file);

/// An open descriptor, closed at the end of its life.
class OpenFile {
public:
    /// Takes over the descriptor; -1 is that of a file that could not be opened, see open(2).
    explicit OpenFile(int descriptor) : fd(descriptor) {}
    OpenFile(OpenFile&& other) noexcept : fd(std::exchange(other.fd, none)) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    OpenFile& operator=(OpenFile&&) = delete;
    ~OpenFile();

    bool IsOpen() const { return fd != none; }
    /// Leaves the descriptor to somebody else.
    void Release() { fd = none; }
    int Descriptor() const { return fd; }

    /// What fstat(2) tells, with no path.
    FileFacts Facts() const;

    /// The text up to the first error of reading, which errno then tells; it is 0 without one. Of a longer
    /// text at least `limit` bytes.
    std::string ReadAll(std::size_t limit = mostText) const;

    static constexpr std::size_t mostText = 64U << 20U; ///< Bytes.

private:
    static constexpr int none = -1;

    int fd;
};

// --- Files that anybody may have put there ---

/// The flags of open(2) for a path that may have become anything since it was looked at: they neither follow
/// a link nor wait for the other end of a pipe, see fifo(7).
inline constexpr int guardedFlags = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

/// A file that was opened for reading, or why it was not.
struct Opening {
    OpenFile file;
    std::string refusal; ///< Empty for one that is open, and for one that is missing.
};

/// Opens nothing but a plain file, with these flags and without the O_CREAT that fs.protected_regular
/// refuses, see proc(5).
Opening OpenPlainFile(const std::string& path);

// --- Files of the kernel ---

// Paths are absolute or relative to the open directory `folder`, see openat(2).

/// Opens a directory; when it cannot be opened, errno is set and the descriptor returned is not open.
OpenFile OpenDirectory(const std::string& path, int folder = AT_FDCWD);

/// The text of a file, of a longer one at least `limit` bytes; nothing, with errno set, when it cannot be
/// read to its end. errno is 0 otherwise.
std::optional<std::string> ReadKernelFile(const std::string& path, int folder = AT_FDCWD,
                                          std::size_t limit = OpenFile::mostText);

/// The same of a file that the kernel makes as a whole, as it does stat files, and not line by line: the
/// first 16 KiB of it, with half of the system calls.
std::optional<std::string> ReadAtOnce(const std::string& path, int folder = AT_FDCWD);

/// The lines of a file; none, with errno set, when it cannot be read.
std::vector<std::string> ReadKernelLines(const std::string& path);
/// Its first line, empty when the file is; nothing, with errno set, when it cannot be read.
std::optional<std::string> ReadKernelLine(const std::string& path);

/// Where the symbolic link leads, see readlinkat(2). Nothing, with errno set, when that cannot be read.
std::optional<std::string> ReadLink(const std::string& path, int folder);
