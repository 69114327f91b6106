// SPDX-License-Identifier: Apache-2.0
// probe FD         reports to the file descriptor when its main began
// probe FD hold    the same, and stays until it is ended
// probe crowd N    N processes that stay until they are ended, with this one; their pids on standard output
#define _GNU_SOURCE
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

struct report {
    long long nanoseconds; // CLOCK_MONOTONIC
    long long pid;
};

static _Noreturn void stay(void) {
    for (;;)
        pause();
}

// Forks that execute nothing share nearly all memory, which makes thousands of them bearable.
static int crowd(long size) {
    for (long member = 0; member < size; ++member) {
        const pid_t pid = fork();
        if (pid < 0) {
            perror("probe: fork");
            return 1;
        }
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            close(STDOUT_FILENO); // or a reader would wait for its end
            stay();
        }
        printf("%d\n", pid);
    }
    fclose(stdout);
    stay();
}

int main(int argc, char** argv) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (argc > 2 && strcmp(argv[1], "crowd") == 0)
        return crowd(atol(argv[2]));
    if (argc < 2)
        return 1;
    const struct report report = {now.tv_sec * 1000000000LL + now.tv_nsec, getpid()};
    if (write(atoi(argv[1]), &report, sizeof report) != sizeof report)
        return 1;
    if (argc > 2)
        stay();
    return 0;
}
