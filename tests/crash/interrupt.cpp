// SPDX-License-Identifier: Apache-2.0
// interrupt launcher|child N signal|error NUMBER FREED COMMAND [ARGS...]: runs a launcher and, at the N-th
// system call of it or of the child that it forks, ends that process by the signal, or makes the call fail
// with the error. Prints the call, or with N = 0 every call; nothing when the child executes, or all have
// ended, before there is an N-th one. No time passes in sleeps: the launcher's last as long as its child
// needs, and at a sleep of the child, which waits for room, the process FREED is killed. A signal comes
// before the call; SIGTERM is pending while it is made.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include <elf.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <poll.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int syscallStop = SIGTRAP | 0x80; // see PTRACE_O_TRACESYSGOOD in ptrace(2)

struct Plan {
    bool inChild;
    long at;
    bool bySignal;
    int number;
    pid_t freed;
};

/// Stopped where it enters a system call, the process does not make it, but has its result.
void Answer(pid_t pid, long result) {
    user_regs_struct registers{};
    iovec words{&registers, sizeof registers};
    ::ptrace(PTRACE_GETREGSET, pid, NT_PRSTATUS, &words);
#ifdef __x86_64__
    registers.orig_rax = static_cast<unsigned long long>(-1);
    registers.rax = static_cast<unsigned long long>(result);
#else
    registers.regs[0] = static_cast<unsigned long long>(result);
    int none = -1;
    iovec call{&none, sizeof none};
    ::ptrace(PTRACE_SETREGSET, pid, NT_ARM_SYSCALL, &call);
#endif
    ::ptrace(PTRACE_SETREGSET, pid, NT_PRSTATUS, &words);
}

/// The file that a call is about: of a descriptor or a path among its first arguments.
std::string Target(pid_t pid, const __ptrace_syscall_info& call) {
    const std::string process = "/proc/" + std::to_string(pid);
    const auto descriptor = static_cast<int>(call.entry.args[0]);
    std::string path(PATH_MAX, '\0');
    const ssize_t length =
        ::readlink((process + "/fd/" + std::to_string(descriptor)).c_str(), path.data(), PATH_MAX);
    path.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    if (length < 0) {
        std::ifstream memory(process + "/mem");
        memory.seekg(static_cast<std::streamoff>(call.entry.args[descriptor == AT_FDCWD ? 1 : 0]));
        std::getline(memory, path, '\0');
    }
    return path.starts_with('/') || length > 0 ? path : "-";
}

void Free(pid_t pid) {
    pollfd end{static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)), POLLIN, 0};
    ::kill(pid, SIGKILL);
    ::poll(&end, 1, -1);
    ::close(end.fd);
}

class Trace {
public:
    Trace(const Plan& wanted, char** command) : plan(wanted), launcher(::fork()) {
        if (launcher == 0) {
            ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            ::dup2(STDERR_FILENO, STDOUT_FILENO);
            ::execv(command[0], command);
            std::abort();
        }
        ::waitpid(launcher, nullptr, 0);
        ::ptrace(PTRACE_SETOPTIONS, launcher, nullptr,
                 PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL);
        Resume(launcher);
    }

    void Run() {
        int status = 0;
        for (pid_t pid = 0; !IsOver() && (pid = ::waitpid(-1, &status, __WALL)) > 0;) {
            WIFSTOPPED(status) ? Stopped(pid, status) : Ended(pid, status);
        }
        for (const pid_t pid : {child, launcher}) {
            if (pid > 0 && plan.bySignal) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, nullptr, __WALL);
            }
        }
    }

private:
    static void Resume(pid_t pid, int signal = 0) { ::ptrace(PTRACE_SYSCALL, pid, nullptr, signal); }

    bool IsOver() const { return plan.bySignal && childIsDone && (launcherSleeps || launcherHasEnded); }

    void Ended(pid_t pid, int status) {
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        std::printf("%s %d\n", pid == launcher ? "status" : "child-status", code);
        if (pid == launcher) {
            launcherHasEnded = true;
        } else {
            ChildIsDone();
        }
    }

    void Stopped(pid_t pid, int status) {
        if (pid != launcher && child == 0) { // with SIGSTOP, see PTRACE_O_TRACEFORK
            child = pid;
            std::printf("child %d\n", child);
            Resume(child);
        } else if (WSTOPSIG(status) == syscallStop) {
            Call(pid);
        } else if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8)) {
            Executes();
        } else {
            Resume(pid, WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status));
        }
    }

    void Executes() {
        std::puts("executes");
        if (isHit && plan.inChild && plan.bySignal) {
            Resume(child); // to its end
            return;
        }
        if (!plan.bySignal) {
            ::ptrace(PTRACE_DETACH, child, nullptr, nullptr);
        }
        ChildIsDone();
    }

    void ChildIsDone() {
        childIsDone = true;
        if (launcherSleeps && !plan.bySignal) {
            Answer(launcher, 0);
            Resume(launcher);
        }
    }

    void Call(pid_t pid) {
        __ptrace_syscall_info call{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof call, &call);
        const bool isWanted = (pid == child) == plan.inChild;
        if (call.op == PTRACE_SYSCALL_INFO_EXIT) {
            if (isWanted && closeFails) {
                Answer(pid, -plan.number);
                closeFails = false;
            }
            return Resume(pid);
        }
        const bool isNow = isWanted && ++calls == plan.at;
        if (isNow || (isWanted && plan.at == 0)) {
            std::printf("call %ld %s\n", static_cast<long>(call.entry.nr), Target(pid, call).c_str());
        }
        if (isNow) {
            isHit = true;
            if (plan.bySignal) {
                ::kill(pid, plan.number);
            } else if (call.entry.nr == SYS_close) {
                closeFails = true; // which closes the descriptor nevertheless
            } else {
                Answer(pid, -plan.number);
            }
        } else if (call.entry.nr == SYS_clock_nanosleep || call.entry.nr == SYS_nanosleep) {
            return Sleeps(pid);
        }
        Resume(pid);
    }

    void Sleeps(pid_t pid) {
        if (pid == launcher && (plan.bySignal || !childIsDone)) {
            launcherSleeps = true;
            return;
        }
        if (pid == child && plan.freed > 0) {
            Free(plan.freed);
        }
        Answer(pid, 0);
        Resume(pid);
    }

    const Plan plan;
    const pid_t launcher;
    pid_t child = 0;
    long calls = 0;
    bool isHit = false;
    bool closeFails = false;
    bool childIsDone = false;
    bool launcherSleeps = false;
    bool launcherHasEnded = false;
};

} // namespace

int main(int, char** argv) {
    const Plan plan{.inChild = std::string_view(argv[1]) == "child",
                    .at = std::atol(argv[2]),
                    .bySignal = std::string_view(argv[3]) == "signal",
                    .number = std::atoi(argv[4]),
                    .freed = std::atoi(argv[5])};
    Trace(plan, argv + 6).Run();
}
