// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>

/// An open file descriptor, or none. Close-on-exec like all that this tool opens.
class Descriptor {
public:
    explicit Descriptor(int descriptor) : fd(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor();

    bool IsOpen() const { return fd >= 0; }
    int Get() const { return fd; }

private:
    const int fd;
};

/// What is left to read, at most `limit` bytes. An error of read(2) ends the text, as for a process that
/// ends meanwhile.
std::string ReadUpTo(const Descriptor& file, std::size_t limit);

/// The text of a file of the kernel, in /proc or /sys, with `path` relative to `folder`; nothing when it
/// cannot be opened.
std::optional<std::string> ReadKernelFile(const Descriptor& folder, const std::string& path);
/// The same with an absolute path.
std::optional<std::string> ReadKernelFile(const std::string& path);

/// Where the symbolic link leads, see readlinkat(2). Nothing, with errno set, when that cannot be read.
std::optional<std::string> ReadLink(const Descriptor& folder, const std::string& path);
