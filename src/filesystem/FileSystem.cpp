// SPDX-License-Identifier: Apache-2.0
// Text files are read and written with plain system calls instead of streams: a cgroup control file takes its
// whole value in one write(2), see cgroups(7), and a launcher that waits for hours should not carry the
// memory of a stream's locale.
#include "filesystem/FileSystem.hpp"

#include "exceptions/Exceptions.hpp"
#include "filesystem/Split.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string_view>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::milliseconds lockPollPeriod{100};
constexpr mode_t registryFileMode = 0644;
constexpr std::size_t readBufferSize = 4096; // bytes; process and cgroup files fit in one

/// What `call`, a read(2) or write(2), returns once no signal interrupts it.
template <typename Call>
ssize_t Uninterrupted(const Call& call) {
    ssize_t count = call();
    while (count < 0 && errno == EINTR) {
        count = call();
    }
    return count;
}

/// An existing text file, open for one operation.
class TextFile {
public:
    /// Throws Exceptions::XRuntimeError that reads `failure` and the path when it cannot be opened.
    TextFile(const fs::path& path, int flags, const char* failure)
        : fd(::open(path.c_str(), flags | O_CLOEXEC)) {
        if (fd < 0) {
            throw Exceptions::XRuntimeError(failure + path.string());
        }
    }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;
    ~TextFile() { ::close(fd); }

    std::string ReadAll(char delimiter) const;
    std::size_t Write(std::string_view text) const;
    void Replace(std::string text) const;

private:
    void AvoidHalfOf(std::size_t length) const;

    const int fd;
};

// Where reading fails, the piece begun is dropped: the first digit of a percentage of 50 would pass for a
// value.
std::string TextFile::ReadAll(char delimiter) const {
    std::string text;
    // Not cleared, which would touch stack pages that the few bytes of a common file leave alone.
    std::array<char, readBufferSize> buffer; // NOLINT(cppcoreguidelines-pro-type-member-init)
    ssize_t count = 0;
    while ((count = Uninterrupted([&] { return ::read(fd, buffer.data(), buffer.size()); })) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    if (count < 0) {
        text.erase(text.rfind(delimiter) + 1); // npos + 1 is 0: no piece is whole
    }
    return text;
}

// A write that the kernel refuses ends silently: a cgroup that takes no process must not keep the command
// from running. Returns how many bytes were written.
std::size_t TextFile::Write(std::string_view text) const {
    std::string_view rest = text;
    ssize_t count = 0;
    while (!rest.empty() &&
           (count = Uninterrupted([&] { return ::write(fd, rest.data(), rest.size()); })) > 0) {
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
    return text.size() - rest.size();
}

// A registry holds the records of other commands, which neither the end of this process between two system
// calls nor a full disk may cost. So the text is written over the old one, whose rest becomes empty lines,
// which are no records, and only then the file is cut. To truncate it first would also give its block away,
// and on ext4 wait for the write-back that closing the last rewrite began. A control file has no length, and
// takes the text as it is.
void TextFile::Replace(std::string text) const {
    struct stat status = {};
    if (::fstat(fd, &status) != 0) {
        return; // as silent as a write that fails
    }
    const auto oldLength = static_cast<std::size_t>(status.st_size);
    const std::size_t length = text.size();
    text.resize(std::max(length, oldLength), '\n');
    if (oldLength > 0) {
        AvoidHalfOf(text.size());
    }
    // Once the lines are there, it does not matter whether the empty ones are, as where a hole is to be
    // filled.
    if (Write(text) >= length && length < oldLength) {
        [[maybe_unused]] const int isUncut = ::ftruncate(fd, static_cast<off_t>(length));
    }
}

// A limit on file sizes, see RLIMIT_FSIZE in getrlimit(2), would let through the first part of the text and
// so cut an old record in two. Written beyond the limit, none of it is, and the kernel says so with SIGXFSZ
// as it would in any case. An empty file has no record to lose.
void TextFile::AvoidHalfOf(std::size_t length) const {
    rlimit limit = {};
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur < length) {
        ::lseek(fd, static_cast<off_t>(limit.rlim_cur), SEEK_SET);
    }
}

/// Whether the entry of the directory `parent` is a directory or a link to one.
bool IsDirectory(const fs::path& parent, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) {
        return entry.d_type == DT_DIR;
    }
    std::error_code error;
    return fs::is_directory(parent / static_cast<const char*>(entry.d_name), error);
}

std::string ToText(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text.append(line).push_back('\n');
    }
    return text;
}

} // namespace

bool FileSystem::FileExists(const fs::path& path) const {
    try {
        return fs::exists(path);
    } catch (const fs::filesystem_error& error) {
        throw Exceptions::XSystemError(error.code(), "Error checking if file: " + path.string() +
                                                         ", exists. Error:" + error.what());
    }
}

bool FileSystem::ValidateExecutable(const fs::path& path) const {
    if (path.empty()) {
        return false;
    }
    if (path.native().find('/') == std::string::npos) {
        return true;
    }
    if (!FileExists(path)) {
        return false;
    }
    try {
        const fs::file_status status = fs::status(path);
        return fs::is_regular_file(status) &&
               (status.permissions() & fs::perms::owner_exec) != fs::perms::none;
    } catch (const fs::filesystem_error& error) {
        throw Exceptions::XSystemError(error.code(), "Error checking if file: " + path.string() +
                                                         ", is a valid executable. Error:" + error.what());
    }
}

bool FileSystem::CreateDirectories(const fs::path& path) const {
    try {
        // The parent exists as a rule, and is then not asked for.
        std::error_code error;
        return fs::create_directory(path, error) || fs::create_directories(path);
    } catch (const fs::filesystem_error& error) {
        throw Exceptions::XRuntimeError("Failed to create directory: " + path.string() +
                                        ". Error: " + error.what());
    }
}

bool FileSystem::TryRemoveEmptyDirectory(const fs::path& path) const {
    // rmdir(2) itself refuses files, links and what is not empty, and removes a cgroup, whose control files
    // make it look full.
    return ::rmdir(path.c_str()) == 0;
}

std::vector<std::string> FileSystem::ListSubdirectories(const fs::path& path) const {
    std::vector<std::string> names;
    std::error_code error;
    if (!fs::is_directory(path, error)) {
        return names;
    }
    // Not with the library's iterator, which makes a path of each of the dozens of control files of a cgroup.
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), ::closedir);
    if (!directory) {
        return names;
    }
    while (const dirent* entry = ::readdir(directory.get())) {
        const std::string_view name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != ".." && IsDirectory(path, *entry)) {
            names.emplace_back(name);
        }
    }
    return names;
}

int FileSystem::FileOpen(const fs::path& path) const {
    // Exactly these flags; the scoped holder of the registry lock closes the descriptor before exec.
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, registryFileMode);
    if (fd < 0) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(), "Failed to open: " + path.string()};
    }
    return fd;
}

void FileSystem::FileClose(int fd) const {
    if (::close(fd) == -1) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(),
                                       "Failed to close file descriptor: " + std::to_string(fd)};
    }
}

void FileSystem::TryFileLockUntil(int fd, Interfaces::Deadline deadline) const {
    if (fd < 0) {
        throw Exceptions::XInvalidArgument("fd", "file descriptor cannot be less than 0");
    }
    if (std::chrono::steady_clock::now() >= deadline) {
        throw Exceptions::XInvalidArgument("deadline", "deadline must be a future time point");
    }
    // A poll, since flock(2) knows no deadline and interrupting it would take a signal handler.
    while (std::chrono::steady_clock::now() < deadline) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            return;
        }
        if (errno != EAGAIN) {
            throw Exceptions::XSystemError{Exceptions::LastSystemError(),
                                           "Failed to lock file descriptor: " + std::to_string(fd)};
        }
        std::this_thread::sleep_for(lockPollPeriod); // resumes by itself after a signal
    }
    const int lastError = errno;
    throw Exceptions::XTimeoutError(
        "Timeout reached while trying to acquire lock on file descriptor: " + std::to_string(fd) +
        ", errno: " + std::to_string(lastError) + " (" + std::strerror(lastError) + ")");
}

void FileSystem::FileUnlock(int fd) const {
    if (::flock(fd, LOCK_UN) == -1) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(),
                                       "Failed to unlock file descriptor: " + std::to_string(fd)};
    }
}

std::vector<std::string> FileSystem::ReadLines(const fs::path& path) const {
    return ReadLines(path, '\n');
}

std::vector<std::string> FileSystem::ReadLines(const fs::path& path, char delimiter) const {
    RequireFile(path);
    return Split(TextFile(path, O_RDONLY, "Failed to open file: ").ReadAll(delimiter), delimiter);
}

void FileSystem::WriteLines(const fs::path& path, const std::vector<std::string>& lines) const {
    RequireFile(path);
    TextFile(path, O_WRONLY, "Failed to open file: ").Replace(ToText(lines));
}

void FileSystem::AppendLines(const fs::path& path, const std::vector<std::string>& lines) const {
    RequireFile(path);
    TextFile(path, O_WRONLY | O_APPEND, "Failed to append to file: ").Write(ToText(lines));
}

fs::path FileSystem::ReadSymlink(const fs::path& path) const {
    RequireFile(path);
    try {
        return fs::read_symlink(path);
    } catch (const fs::filesystem_error& error) {
        throw Exceptions::XSystemError(error.code(), "Failed to read symbolic link: " + path.string() +
                                                         ". Error: " + error.what());
    }
}

void FileSystem::RequireFile(const fs::path& path) const {
    if (!FileExists(path)) {
        throw Exceptions::XInvalidArgument(path.string(), "The file specified doesn't exist");
    }
}
