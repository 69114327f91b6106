// SPDX-License-Identifier: Apache-2.0
// Looks at files in /tmp, where any user may have put anything under the name of a registry.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

/// What lstat(2) tells of a path.
struct FileFacts {
    std::string path;
    mode_t mode = 0; ///< Type and permissions; 0 when there is nothing.
    uid_t owner = 0;
    nlink_t links = 0;

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
    /// Takes over the descriptor.
    explicit OpenFile(int descriptor) : fd(descriptor) {}
    OpenFile(OpenFile&& other) noexcept : fd(other.fd) { other.fd = -1; }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    OpenFile& operator=(OpenFile&&) = delete;
    ~OpenFile();

    bool IsOpen() const { return fd >= 0; }
    int Descriptor() const { return fd; }

    /// What fstat(2) tells, with no path.
    FileFacts Facts() const;

    /// The text up to the first error of reading, of at most about `limit` bytes.
    std::string ReadAll(std::size_t limit = 64U << 20U) const;

private:
    int fd;
};

/// Opens a plain file for reading: never through a link, never waiting for the other end of a pipe, and
/// without the O_CREAT that fs.protected_regular refuses, see proc(5). Nothing when it is anything else, or
/// is refused.
std::optional<OpenFile> OpenPlainFile(const std::string& path);
