// SPDX-License-Identifier: Apache-2.0
#include "ctl/KernelFiles.hpp"

#include <array>

#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

namespace {

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

std::optional<std::string> ReadLink(const OpenFile& folder, const std::string& path) {
    // Not cleared: there are thousands of links, and their targets are short.
    std::array<char, PATH_MAX> target; // NOLINT(cppcoreguidelines-pro-type-member-init)
    const ssize_t length = ::readlinkat(folder.Descriptor(), path.c_str(), target.data(), target.size());
    return length < 0 ? std::nullopt
                      : std::optional(std::string(target.data(), static_cast<std::size_t>(length)));
}
