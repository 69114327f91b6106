// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/KernelFiles.hpp"

#include <array>

#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

namespace {

constexpr std::size_t recordSize = 16384; // bytes; a few hundred are common

OpenFile OpenDirectoryAt(int folder, const std::string& path) {
    return OpenFile(::openat(folder, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::optional<std::string> ReadKernelFileAt(int folder, const std::string& path) {
    const OpenFile file(::openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC));
    return file.IsOpen() ? std::optional(file.ReadAll()) : std::nullopt;
}

} // namespace

OpenFile OpenDirectory(const OpenFile& folder, const std::string& path) {
    return OpenDirectoryAt(folder.Descriptor(), path);
}

OpenFile OpenDirectory(const std::string& path) {
    return OpenDirectoryAt(AT_FDCWD, path);
}

std::optional<std::string> ReadKernelFile(const OpenFile& folder, const std::string& path) {
    return ReadKernelFileAt(folder.Descriptor(), path);
}

std::optional<std::string> ReadKernelFile(const std::string& path) {
    return ReadKernelFileAt(AT_FDCWD, path);
}

std::optional<std::string> ReadKernelRecord(const OpenFile& folder, const std::string& path) {
    const OpenFile file(::openat(folder.Descriptor(), path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, recordSize> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init): thousands of files
    const ssize_t length = file.IsOpen() ? ::read(file.Descriptor(), buffer.data(), buffer.size()) : -1;
    return length < 0 ? std::nullopt
                      : std::optional(std::string(buffer.data(), static_cast<std::size_t>(length)));
}

std::optional<std::string> ReadLink(const OpenFile& folder, const std::string& path) {
    // Not cleared: there are thousands of links, and their targets are short.
    std::array<char, PATH_MAX> target; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const ssize_t length = ::readlinkat(folder.Descriptor(), path.c_str(), target.data(), target.size());
    return length < 0 ? std::nullopt
                      : std::optional(std::string(target.data(), static_cast<std::size_t>(length)));
}
