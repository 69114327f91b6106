// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/FileFacts.hpp"

#include <array>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t readBufferSize = 65536; // bytes
constexpr mode_t permissionBits = 07777;

FileFacts ToFacts(const std::string& path, const struct stat& status) {
    return {.path = path, .mode = status.st_mode, .owner = status.st_uid, .links = status.st_nlink};
}

} // namespace

FileFacts Inspect(const std::string& path) {
    struct stat status = {};
    return ::lstat(path.c_str(), &status) == 0 ? ToFacts(path, status) : FileFacts{.path = path};
}

std::string KindOf(const FileFacts& file) {
    switch (file.mode & S_IFMT) {
    case S_IFREG:
        return "a plain file";
    case S_IFDIR:
        return "a directory";
    case S_IFLNK:
        return "a symbolic link";
    case S_IFIFO:
        return "a pipe";
    case S_IFSOCK:
        return "a socket";
    default:
        return file.Exists() ? "a device" : "missing";
    }
}

std::string PermissionsOf(const FileFacts& file) {
    constexpr unsigned octalDigitBits = 3;
    std::string digits;
    for (unsigned shift = 4 * octalDigitBits; shift > 0; shift -= octalDigitBits) {
        digits += static_cast<char>('0' + (((file.mode & permissionBits) >> (shift - octalDigitBits)) & 7U));
    }
    return digits;
}

OpenFile::~OpenFile() {
    if (fd >= 0) {
        ::close(fd);
    }
}

FileFacts OpenFile::Facts() const {
    struct stat status = {};
    return IsOpen() && ::fstat(fd, &status) == 0 ? ToFacts("", status) : FileFacts{};
}

std::string OpenFile::ReadAll(std::size_t limit) const {
    std::string text;
    // Not cleared: status reads the few bytes of thousands of files.
    std::array<char, readBufferSize> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    ssize_t count = 0;
    while (text.size() < limit && (count = ::read(fd, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

std::optional<OpenFile> OpenPlainFile(const std::string& path) {
    if (!S_ISREG(Inspect(path).mode)) {
        return std::nullopt; // not even opened, which a device could take for a command
    }
    OpenFile file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!S_ISREG(file.Facts().mode)) {
        return std::nullopt;
    }
    return file;
}
