// SPDX-License-Identifier: Apache-2.0
// The system calls that a test can make fail, or that lead to its host: those that take a path to a host
// whose files are in a folder.
#include "support/Host.hpp"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <string_view>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

// <fcntl.h> has a struct of the name of flock(2).
#pragma GCC diagnostic ignored "-Wshadow"

namespace {

/// Whether the call is to fail now, with errno set.
bool Fails(const std::string& call) {
    const auto errors = machine.errors.find(call);
    if (errors == machine.errors.end() || errors->second.empty()) {
        return false;
    }
    errno = errors->second.front();
    errors->second.pop_front();
    return errno != 0;
}

template <typename Result, typename... Arguments>
Result Library(const char* name, Arguments... arguments) {
    return reinterpret_cast<Result (*)(Arguments...)>(::dlsym(RTLD_NEXT, name))(arguments...);
}

/// Fails as the test wants, or calls the C library.
template <typename Result, typename... Arguments>
Result Call(const char* name, Arguments... arguments) {
    return Fails(name) ? -1 : Library<Result>(name, arguments...);
}

bool IsOnHost(std::string_view path) {
    return !machine.folder.empty() && path.starts_with('/') && !path.starts_with(machine.folder);
}

std::string OnDisk(const char* path) {
    return IsOnHost(path) ? machine.folder + path : path;
}

void Log(int priority, const char* format, std::va_list arguments) {
    const Lines levels{"emerg:", "alert:", "crit:", "err:", "warning:", "notice:", "info:", "debug:"};
    const bool isLiteral = std::string_view(format) == "%s";
    machine.Step(levels.at(static_cast<std::size_t>(priority)),
                 isLiteral ? va_arg(arguments, const char*) : "?");
}

} // namespace

extern "C" {

int connect(int fd, const sockaddr* address, socklen_t length) {
    const std::string path = reinterpret_cast<const sockaddr_un*>(address)->sun_path;
    return Call<int>(path == "/dev/log" ? "connect" : "connect elsewhere", fd, address, length);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_MONOTONIC && clock != CLOCK_BOOTTIME) {
        return Call<int>("clock_gettime", clock, time);
    }
    *time = {machine.now / std::chrono::seconds(1), (machine.now % std::chrono::seconds(1)).count()};
    return 0;
}

int nanosleep(const timespec* time, timespec* remaining) {
    const Clock::duration asked =
        std::chrono::seconds(time->tv_sec) + std::chrono::nanoseconds(time->tv_nsec);
    const bool interrupted = Fails("nanosleep");
    const Clock::duration slept = interrupted ? asked / 2 : asked;
    machine.now += slept;
    machine.Step("sleep", slept / std::chrono::milliseconds(1), "ms");
    machine.onSleep();
    *remaining = {0, (asked - slept).count()};
    return interrupted ? -1 : 0;
}

int flock(int fd, int operation) noexcept {
    machine.Step("flock", operation);
    return Call<int>("flock", fd, operation);
}

ssize_t read(int fd, void* buffer, size_t size) {
    return Call<ssize_t>("read", fd, buffer, std::min(size, machine.mostAtOnce));
}

ssize_t write(int fd, const void* buffer, size_t size) {
    machine.Step("write", std::string_view(static_cast<const char*>(buffer), size));
    return Call<ssize_t>("write", fd, buffer, std::min(size, machine.mostAtOnce));
}

int fstat(int fd, struct stat* status) noexcept {
    return Call<int>("fstat", fd, status);
}

int ftruncate(int fd, off_t length) noexcept {
    return Call<int>("ftruncate", fd, length);
}

pid_t fork() noexcept {
    machine.Step("fork");
    return machine.forked;
}

pid_t getpid() noexcept {
    return 42;
}

int prctl(int option, ...) noexcept {
    std::va_list arguments;
    va_start(arguments, option);
    machine.Step("prctl", option, va_arg(arguments, int));
    va_end(arguments);
    return Fails("prctl") ? -1 : 0;
}

int execvp(const char*, char* const* argv) noexcept {
    Lines words{"exec"};
    for (; *argv != nullptr; ++argv) {
        words.emplace_back(*argv);
    }
    machine.Step(Joined(words, " "));
    errno = ENOENT;
    return -1;
}

pid_t waitpid(pid_t pid, int* status, int) {
    if (Fails("waitpid")) {
        return -1;
    }
    *status = machine.ended.value_or(0);
    return machine.ended ? pid : 0;
}

int kill(pid_t pid, int signal) noexcept {
    if (signal != 0) {
        machine.Step("kill", pid, signal);
    }
    errno = ESRCH;
    return Fails("kill") || !machine.files.contains("/proc/" + std::to_string(pid) + "/stat") ? -1 : 0;
}

int get_nprocs() noexcept {
    return 3;
}

int sched_setaffinity(pid_t pid, size_t size, const cpu_set_t* cpus) noexcept {
    std::string step = pid == 0 ? "pin" : Sentence("pin process", pid, "to");
    for (std::size_t core = 0; core < size * CHAR_BIT; ++core) {
        step += CPU_ISSET_S(core, size, cpus) ? Sentence(" core", core) : "";
    }
    machine.Step(step);
    return CPU_COUNT_S(size, cpus) == 0 ? -1 : 0;
}

int sched_getaffinity(pid_t pid, size_t size, cpu_set_t* cpus) noexcept {
    CPU_ZERO_S(size, cpus);
    for (const std::size_t core : machine.affinities[pid]) {
        CPU_SET_S(core, size, cpus);
    }
    return Fails("sched_getaffinity") || CPU_COUNT_S(size, cpus) == 0 ? -1 : 0;
}

void openlog(const char* identity, int options, int facility) {
    machine.Step("openlog", identity, options, facility);
}

void syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    Log(priority, format, arguments);
    va_end(arguments);
}

/// What syslog() is compiled to with _FORTIFY_SOURCE.
void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    Log(priority, format, arguments);
    va_end(arguments);
}

int open(const char* path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const std::string step = Sentence("open", path);
    const bool changes = (flags & O_ACCMODE) != O_RDONLY; // what opens for reading takes no step
    changes ? machine.Step(step) : machine.Happens(step);
    return changes && Fails(step) ? -1 : Call<int>("open", OnDisk(path).c_str(), flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    machine.Happens(Sentence("openat", path));
    return Call<int>("openat", folder, OnDisk(path).c_str(), flags);
}

DIR* opendir(const char* path) {
    return Fails("opendir") ? nullptr : Library<DIR*>("opendir", OnDisk(path).c_str());
}

int stat(const char* path, struct stat* status) noexcept {
    return Call<int>("stat", OnDisk(path).c_str(), status);
}

int lstat(const char* path, struct stat* status) noexcept {
    return Call<int>("lstat", OnDisk(path).c_str(), status);
}

int statx(int folder, const char* path, int flags, unsigned mask, struct statx* status) noexcept {
    return Call<int>("statx", folder, OnDisk(path).c_str(), flags, mask, status);
}

int fstatat(int folder, const char* path, struct stat* status, int flags) noexcept {
    return Call<int>("fstatat", folder, OnDisk(path).c_str(), status, flags);
}

dirent* readdir(DIR* directory) {
    return Fails("readdir") ? nullptr : Library<dirent*>("readdir", directory);
}

int statvfs(const char*, struct statvfs* status) noexcept {
    *status = machine.fileSystem;
    return Fails("statvfs") ? -1 : 0;
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

ssize_t readlinkat(int folder, const char* path, char* target, size_t size) noexcept {
    return Call<ssize_t>("readlinkat", folder, OnDisk(path).c_str(), target, size);
}

char* realpath(const char* path, char* resolved) noexcept {
    char* const real = Library<char*>("realpath", OnDisk(path).c_str(), resolved);
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

int rmdir(const char* path) noexcept {
    machine.Step("rmdir", path);
    return Call<int>("rmdir", OnDisk(path).c_str());
}

int unlink(const char* path) noexcept {
    return Call<int>("unlink", OnDisk(path).c_str());
}

int fchownat(int folder, const char* path, uid_t owner, gid_t group, int flags) noexcept {
    return Call<int>("fchownat", folder, OnDisk(path).c_str(), owner, group, flags);
}

int fchmod(int fd, mode_t mode) noexcept {
    return Call<int>("fchmod", fd, mode);
}

int fchmodat(int folder, const char* path, mode_t mode, int flags) noexcept {
    errno = EIO; // which means nothing where it succeeds, see errno(3)
    return Call<int>("fchmodat", folder, OnDisk(path).c_str(), mode, flags);
}

} // extern "C"
