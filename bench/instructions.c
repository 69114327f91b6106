// SPDX-License-Identifier: Apache-2.0
// instructions PROBE COMMAND...: counts the instructions that the command and its children execute in user
// space until one of them becomes PROBE, and its first process sleeps or waits. By single steps, since the
// counters of the processor are often out of a virtual machine's reach; a repeated string instruction counts
// as one.
#define _GNU_SOURCE
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef __x86_64__

enum { most_processes = 64 };
static pid_t known[most_processes];
static unsigned long long last_address[most_processes];

static unsigned long long* address_of(pid_t pid) {
    int slot = 0;
    while (known[slot] != pid && known[slot] != 0 && slot < most_processes - 1)
        ++slot;
    known[slot] = pid;
    return &last_address[slot];
}

static int executes(pid_t pid, const char* program) {
    char path[64], target[4096];
    snprintf(path, sizeof path, "/proc/%d/exe", pid);
    const ssize_t length = readlink(path, target, sizeof target - 1);
    target[length < 0 ? 0 : length] = '\0';
    return strcmp(target, program) == 0;
}

static int supervises(const struct user_regs_struct* registers) {
    return registers->orig_rax == SYS_nanosleep || registers->orig_rax == SYS_clock_nanosleep ||
           registers->orig_rax == SYS_wait4 || registers->orig_rax == SYS_rt_sigsuspend;
}

int main(int argc, char** argv) {
    if (argc < 3)
        return 2;
    const pid_t first = fork();
    if (first == 0) {
        ptrace(PTRACE_TRACEME, 0, 0, 0);
        raise(SIGSTOP);
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(1);
    }
    const long options = PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC |
                         PTRACE_O_EXITKILL;
    long long count = 0;
    int status = 0, executed = 0, supervised = 0;
    waitpid(first, &status, 0);
    ptrace(PTRACE_SETOPTIONS, first, 0, options);
    ptrace(PTRACE_CONT, first, 0, 0);
    pid_t pid;
    while (!(executed && supervised) && (pid = waitpid(-1, &status, __WALL)) > 0) {
        if (!WIFSTOPPED(status)) {
            supervised |= pid == first;
            continue;
        }
        int signal = 0;
        if (status >> 8 == (SIGTRAP | PTRACE_EVENT_EXEC << 8)) {
            if (executes(pid, argv[1])) {
                executed = 1;
                kill(pid, SIGKILL);
                continue;
            }
        } else if (status >> 16 == 0 && WSTOPSIG(status) == SIGTRAP) {
            struct user_regs_struct registers;
            ptrace(PTRACE_GETREGS, pid, 0, &registers);
            if (pid == first && supervises(&registers)) {
                supervised = 1;
                continue;
            }
            unsigned long long* address = address_of(pid);
            count += *address != registers.rip;
            *address = registers.rip;
        } else if (status >> 16 == 0 && WSTOPSIG(status) != SIGSTOP) {
            signal = WSTOPSIG(status);
        }
        ptrace(PTRACE_SINGLESTEP, pid, 0, signal);
    }
    if (!executed)
        return fputs("instructions: the probe was never executed\n", stderr), 1;
    printf("%lld\n", count);
    return 0;
}

#else

int main(void) {
    puts("not available");
    return 0;
}

#endif
