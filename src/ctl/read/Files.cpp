// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Files.hpp"

#include "filesystem/Split.hpp"

#include <array>
#include <cerrno>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t readBufferSize = 16384; // bytes; a few hundred are common

FileFacts ToFacts(const std::string& path, const struct stat& status) {
    return {.path = path, .mode = status.st_mode, .owner = status.st_uid, .links = status.st_nlink};
}

/// Not cleared: status reads the few bytes of thousands of files.
using Buffer = std::array<char, readBufferSize>;

/// What read(2) and its like put into the buffer; nothing when they failed.
std::optional<std::string> ToText(const Buffer& buffer, ssize_t length) {
    return length == -1 ? std::nullopt
                        : std::optional(std::string(buffer.data(), static_cast<std::size_t>(length)));
}

Opening Refused(const std::string& refusal) {
    return {.file = OpenFile(-1), .refusal = refusal};
}

std::string RefusalOf(int error) {
    if (error == ENOENT) {
        return "";
    }
    return error == ELOOP ? "is a symbolic link" : std::generic_category().message(error);
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
    std::string digits;
    for (const int shift : {9, 6, 3, 0}) { // bits, three to an octal digit
        digits += static_cast<char>('0' + ((file.mode >> shift) & 7U));
    }
    return digits;
}

OpenFile::~OpenFile() {
    if (IsOpen()) {
        ::close(fd);
    }
}

FileFacts OpenFile::Facts() const {
    struct stat status = {};
    return IsOpen() && ::fstat(fd, &status) == 0 ? ToFacts("", status) : FileFacts{};
}

std::string OpenFile::ReadAll(std::size_t limit) const {
    std::string text;
    Buffer buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    ssize_t count{};
    errno = 0;
    while (text.size() < limit && (count = ::read(fd, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

Opening OpenPlainFile(const std::string& path) {
    constexpr const char* noPlainFile = "is no regular file";
    // What is there is looked at first: to open a device could already be a command to it.
    const FileFacts found = Inspect(path);
    if (found.Exists() && !S_ISREG(found.mode)) {
        return Refused(S_ISLNK(found.mode) ? RefusalOf(ELOOP) : noPlainFile);
    }
    OpenFile file(::open(path.c_str(), O_RDONLY | guardedFlags));
    if (!file.IsOpen()) {
        return Refused(RefusalOf(errno));
    }
    if (!S_ISREG(file.Facts().mode)) {
        return Refused(noPlainFile);
    }
    return {.file = std::move(file), .refusal = ""};
}

OpenFile OpenDirectory(const std::string& path, int folder) {
    return OpenFile(::openat(folder, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::optional<std::string> ReadKernelFile(const std::string& path, int folder, std::size_t limit) {
    const OpenFile file(::openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return std::nullopt;
    }
    std::string text = file.ReadAll(limit);
    return errno == 0 ? std::optional(std::move(text)) : std::nullopt;
}

std::optional<std::string> ReadAtOnce(const std::string& path, int folder) {
    const OpenFile file(::openat(folder, path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return std::nullopt;
    }
    Buffer buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    return ToText(buffer, ::read(file.Descriptor(), buffer.data(), buffer.size()));
}

std::vector<std::string> ReadKernelLines(const std::string& path) {
    return Split(ReadKernelFile(path).value_or(""), '\n');
}

std::optional<std::string> ReadKernelLine(const std::string& path) {
    const std::optional<std::string> text = ReadKernelFile(path);
    return text ? std::optional(text->substr(0, text->find('\n'))) : std::nullopt;
}

std::optional<std::string> ReadLink(const std::string& path, int folder) {
    Buffer target; // NOLINT(cppcoreguidelines-pro-type-member-init)
    return ToText(target, ::readlinkat(folder, path.c_str(), target.data(), target.size()));
}
