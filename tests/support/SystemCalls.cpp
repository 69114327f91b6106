// SPDX-License-Identifier: Apache-2.0
#include "support/Host.hpp"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <ctime>

#include <dlfcn.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

/// Whether the call is to fail now, with errno set.
bool Fails(const char* name) {
    const auto errors = host.errors.find(name);
    if (errors == host.errors.end() || errors->second.empty()) {
        return false;
    }
    errno = errors->second.front();
    errors->second.pop_front();
    return errno != 0;
}

/// Fails as the test wants, or calls the C library.
template <typename Result, typename... Arguments>
Result Call(const char* name, Arguments... arguments) {
    const auto libraryCall = reinterpret_cast<Result (*)(Arguments...)>(::dlsym(RTLD_NEXT, name));
    return Fails(name) ? -1 : libraryCall(arguments...);
}

template <typename... Words>
void Note(const Words&... words) {
    host.transcript.push_back(Sentence(words...));
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_MONOTONIC) {
        return Call<int>("clock_gettime", clock, time);
    }
    *time = {host.now / std::chrono::seconds(1), (host.now % std::chrono::seconds(1)).count()};
    return 0;
}

int nanosleep(const timespec* time, timespec* remaining) {
    const Clock::duration asked =
        std::chrono::seconds(time->tv_sec) + std::chrono::nanoseconds(time->tv_nsec);
    const bool interrupted = Fails("nanosleep");
    const Clock::duration slept = interrupted ? asked / 2 : asked;
    host.now += slept;
    Note("sleep", slept / std::chrono::milliseconds(1), "ms");
    host.onSleep();
    *remaining = {0, (asked - slept).count()};
    return interrupted ? -1 : 0;
}

int flock(int fd, int operation) noexcept {
    Note(operation == LOCK_UN ? "unlock" : operation == (LOCK_EX | LOCK_NB) ? "try to lock" : "other lock");
    return Call<int>("flock", fd, operation);
}

ssize_t read(int fd, void* buffer, size_t size) {
    return Call<ssize_t>("read", fd, buffer, size);
}

ssize_t write(int fd, const void* buffer, size_t size) {
    return Call<ssize_t>("write", fd, buffer, size);
}

pid_t fork() noexcept {
    return Call<pid_t>("fork");
}

pid_t waitpid(pid_t pid, int* status, int options) {
    return Call<pid_t>("waitpid", pid, status, options);
}

/// Reaches no group of processes, whatever the program does.
int kill(pid_t pid, int signal) noexcept {
    Note("kill", pid, signal);
    return pid > 0 ? Call<int>("kill", pid, signal) : 0;
}

void openlog(const char* identity, int options, int facility) {
    Note("openlog", identity, options, facility);
}

void syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    Note("syslog", priority, format, va_arg(arguments, const char*));
    va_end(arguments);
}

void closelog() {
    Note("closelog");
}

} // extern "C"
