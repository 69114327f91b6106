// SPDX-License-Identifier: Apache-2.0
#include "ctl/FileReading.hpp"

#include <algorithm>
#include <array>

#include <fcntl.h>
#include <linux/limits.h>
#include <unistd.h>

namespace {

constexpr std::size_t readSize = 65536;               // bytes; the kernel fills in a page at a time
constexpr std::size_t kernelFileLimit = 64UL << 20UL; // bytes; far above what any of them holds

std::optional<std::string> ReadKernelFile(int folder, const std::string& path) {
    const Descriptor file(::openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC));
    return file.IsOpen() ? std::optional(ReadUpTo(file, kernelFileLimit)) : std::nullopt;
}

} // namespace

Descriptor::~Descriptor() {
    if (IsOpen()) {
        ::close(fd);
    }
}

std::string ReadUpTo(const Descriptor& file, std::size_t limit) {
    std::string text;
    // Not cleared: a process has a few hundred bytes to tell, and there are thousands of processes.
    std::array<char, readSize> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    ssize_t count = 0;
    while (text.size() < limit &&
           (count = ::read(file.Get(), buffer.data(), std::min(buffer.size(), limit - text.size()))) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

std::optional<std::string> ReadKernelFile(const Descriptor& folder, const std::string& path) {
    return ReadKernelFile(folder.Get(), path);
}

std::optional<std::string> ReadKernelFile(const std::string& path) {
    return ReadKernelFile(AT_FDCWD, path);
}

std::optional<std::string> ReadLink(const Descriptor& folder, const std::string& path) {
    std::array<char, PATH_MAX> target; // NOLINT(cppcoreguidelines-pro-type-member-init): as above
    const ssize_t length = ::readlinkat(folder.Get(), path.c_str(), target.data(), target.size());
    return length < 0 ? std::nullopt
                      : std::optional(std::string(target.data(), static_cast<std::size_t>(length)));
}
