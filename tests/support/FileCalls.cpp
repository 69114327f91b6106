// SPDX-License-Identifier: Apache-2.0
// The system calls that take a path. On a host whose files are in a folder they lead there.
#include "support/Host.hpp"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string_view>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

template <typename Result, typename... Arguments>
Result Call(const char* name, Arguments... arguments) {
    return reinterpret_cast<Result (*)(Arguments...)>(::dlsym(RTLD_NEXT, name))(arguments...);
}

bool IsOnHost(std::string_view path) {
    return !machine.folder.empty() && path.starts_with('/') && !path.starts_with(machine.folder);
}

std::string OnDisk(const char* path) {
    return IsOnHost(path) ? machine.folder + path : path;
}

/// Whatever opens for reading changes nothing, and so takes no step.
void TellOpen(const char* path, int flags) {
    if (machine.folder.empty()) {
        return;
    }
    if ((flags & O_ACCMODE) == O_RDONLY) {
        machine.Happens(Sentence("open", path));
    } else {
        machine.Step("open", path);
    }
}

} // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    TellOpen(path, flags);
    const auto refusal = machine.refusals.find(path);
    if (refusal != machine.refusals.end() && (flags & O_ACCMODE) != O_RDONLY) {
        errno = refusal->second;
        return -1;
    }
    return Call<int>("open", OnDisk(path).c_str(), flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    TellOpen(path, flags);
    return Call<int>("openat", folder, OnDisk(path).c_str(), flags);
}

DIR* opendir(const char* path) {
    return Call<DIR*>("opendir", OnDisk(path).c_str());
}

int stat(const char* path, struct stat* status) noexcept {
    return Call<int>("stat", OnDisk(path).c_str(), status);
}

int lstat(const char* path, struct stat* status) noexcept {
    return Call<int>("lstat", OnDisk(path).c_str(), status);
}

int fstatat(int folder, const char* path, struct stat* status, int flags) noexcept {
    return Call<int>("fstatat", folder, OnDisk(path).c_str(), status, flags);
}

int statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) noexcept {
    return Call<int>("statx", folder, OnDisk(path).c_str(), flags, mask, status);
}

int statvfs(const char* path, struct statvfs* status) noexcept {
    const int outcome = Call<int>("statvfs", OnDisk(path).c_str(), status);
    status->f_flag = machine.isReadOnly ? ST_RDONLY : 0;
    status->f_blocks = status->f_files = 9;
    status->f_bavail = status->f_ffree = machine.isFull ? 0 : 1;
    return outcome;
}

int access(const char* path, int mode) noexcept {
    return Call<int>("access", OnDisk(path).c_str(), mode);
}

int faccessat(int folder, const char* path, int mode, int flags) noexcept {
    return Call<int>("faccessat", folder, OnDisk(path).c_str(), mode, flags);
}

ssize_t readlink(const char* path, char* target, size_t size) noexcept {
    return Call<ssize_t>("readlink", OnDisk(path).c_str(), target, size);
}

char* realpath(const char* path, char* resolved) noexcept {
    char* const real = Call<char*>("realpath", OnDisk(path).c_str(), resolved);
    if (real != nullptr && IsOnHost(path)) {
        const std::size_t outside = machine.folder.size();
        std::memmove(real, real + outside, std::strlen(real + outside) + 1);
    }
    return real;
}

int mkdir(const char* path, mode_t mode) noexcept {
    const int outcome = Call<int>("mkdir", OnDisk(path).c_str(), mode);
    if (outcome == 0 && IsOnHost(path)) {
        machine.Step("mkdir", path);
    }
    return outcome;
}

} // extern "C"
