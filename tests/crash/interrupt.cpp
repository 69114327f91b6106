// SPDX-License-Identifier: Apache-2.0
// interrupt launcher|child N NUMBER FREED COMMAND [ARGS...]: runs a launcher and, at the N-th system call of
// it or of the child that it forks, ends that process by the signal of this number, or makes the call fail
// with the error of the negative one. Prints the call, or with N = 0 every call, and the launcher's status;
// no call when there is no N-th one, or the child executes before it. No time passes in sleeps: the
// launcher's last as long as its child lives, and at a sleep of the child, which waits for room, the process
// FREED is killed. A signal comes before the call; SIGTERM is pending while it is made. Until the launcher
// sleeps or is interrupted its command does not run, so that its calls are the same each time.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <elf.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int syscallStop = SIGTRAP | 0x80; // see PTRACE_O_TRACESYSGOOD in ptrace(2)

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
    std::error_code error;
    std::string path = std::filesystem::read_symlink(process + "/fd/" + std::to_string(descriptor), error);
    if (error) {
        std::ifstream memory(process + "/mem");
        memory.seekg(static_cast<std::streamoff>(call.entry.args[descriptor == AT_FDCWD ? 1 : 0]));
        std::getline(memory, path, '\0');
    }
    return error && !path.starts_with('/') ? "-" : path;
}

class Trace {
public:
    explicit Trace(char** arguments)
        : inChild(std::string_view(arguments[1]) == "child"),
          at(std::atol(arguments[2])),
          number(std::atoi(arguments[3])),
          freed(std::atoi(arguments[4])),
          launcher(::fork()) {
        if (launcher == 0) {
            ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            ::dup2(STDERR_FILENO, STDOUT_FILENO);
            ::execv(arguments[5], arguments + 5);
            std::abort();
        }
        ::waitpid(launcher, nullptr, 0);
        ::ptrace(PTRACE_SETOPTIONS, launcher, nullptr,
                 PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEFORK | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL);
        Resume(launcher);
    }

    void Run() {
        int status = 0;
        for (pid_t pid = 0; (pid = ::waitpid(-1, &status, __WALL)) > 0;) {
            WIFSTOPPED(status) ? Stopped(pid, status) : Ended(pid, status);
        }
    }

private:
    void LetCommandRun() {
        commandMayRun = true;
        if (std::exchange(commandIsHeld, false)) {
            Resume(child);
        }
    }

    void Resume(pid_t pid, int signal = 0) const {
        ::ptrace(pid == child && executes ? PTRACE_CONT : PTRACE_SYSCALL, pid, nullptr, signal);
    }

    void Ended(pid_t pid, int status) {
        if (pid == launcher) {
            LetCommandRun();
            std::printf("status %d\n", WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
            return;
        }
        childHasEnded = true;
        if (launcherSleeps) {
            Sleep(launcher);
        }
    }

    void Stopped(pid_t pid, int status) {
        const int signal = WSTOPSIG(status);
        if (signal == syscallStop) {
            Call(pid);
        } else if (pid != launcher && child == 0) { // with SIGSTOP, see PTRACE_O_TRACEFORK
            child = pid;
            std::printf("child %d\n", child);
            Resume(child);
        } else {
            const bool begins = status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8);
            executes = executes || begins;
            if (begins && !commandMayRun) {
                commandIsHeld = true;
                return;
            }
            Resume(pid, signal == SIGTRAP ? 0 : signal);
        }
    }

    void Call(pid_t pid) {
        __ptrace_syscall_info call{};
        ::ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof call, &call);
        if (call.op == PTRACE_SYSCALL_INFO_EXIT) {
            return Resume(pid);
        }
        const bool isWanted = (pid == child) == inChild;
        calls += isWanted ? 1 : 0;
        if (isWanted && (at == 0 || at == calls)) {
            std::printf("call %d %s\n", static_cast<int>(call.entry.nr), Target(pid, call).c_str());
        }
        if (pid == launcher && (call.entry.nr == SYS_clock_nanosleep || (isWanted && at == calls))) {
            LetCommandRun();
        }
        if (isWanted && at == calls) {
            Interrupt(pid, call.entry.nr == SYS_close);
        } else if (call.entry.nr == SYS_clock_nanosleep) {
            Sleep(pid);
        } else {
            Resume(pid);
        }
    }

    void Interrupt(pid_t pid, bool closes) const {
        if (number > 0) {
            ::kill(pid, number);
            return Resume(pid);
        }
        if (closes) { // the descriptor nevertheless
            Resume(pid);
            ::waitpid(pid, nullptr, __WALL);
        }
        Answer(pid, number);
        Resume(pid);
    }

    void Sleep(pid_t pid) {
        if (pid == launcher && !childHasEnded) {
            launcherSleeps = true;
            return;
        }
        if (pid == child && freed > 0) {
            pollfd end{static_cast<int>(::syscall(SYS_pidfd_open, freed, 0)), POLLIN, 0};
            ::kill(freed, SIGKILL);
            ::poll(&end, 1, -1);
            ::close(end.fd);
        }
        Answer(pid, 0);
        Resume(pid);
    }

    const bool inChild;
    const long at;
    const int number;
    const pid_t freed;
    const pid_t launcher;
    pid_t child = 0;
    long calls = 0;
    bool executes = false;
    bool commandMayRun = false;
    bool commandIsHeld = false;
    bool childHasEnded = false;
    bool launcherSleeps = false;
};

} // namespace

int main(int, char** argv) {
    Trace(argv).Run();
}
