// SPDX-License-Identifier: Apache-2.0
// bare core CGROUP REGISTRY CORE COMMAND...
// bare quota CPUSET_CGROUP CPU_CGROUP REGISTRY CPUS MEMS QUOTA COMMAND...
//
// The least that places a command: only the system calls without which it would not be in its cgroup, on its
// core and in the registry, with everything else known beforehand. One registry, no scan, no configuration,
// no log. On v2 the two cgroups of a quota are the same directory.
#define _GNU_SOURCE
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static void require(int success, const char* what) {
    if (!success) {
        perror(what);
        _exit(1);
    }
}

static void put(const char* directory, const char* file, const char* text) {
    char path[4096];
    snprintf(path, sizeof path, "%s/%s", directory, file);
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    require(fd >= 0 && write(fd, text, strlen(text)) == (ssize_t)strlen(text), path);
    close(fd);
}

static const char* start_time(void) {
    static char stat[4096];
    const int fd = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
    const ssize_t length = fd < 0 ? -1 : read(fd, stat, sizeof stat - 1);
    require(length > 0, "/proc/self/stat");
    close(fd);
    char* field = strrchr(stat, ')') + 2;
    for (int skipped = 0; skipped < 19; ++skipped)
        field = strchr(field, ' ') + 1;
    *strchr(field, ' ') = '\0';
    return field;
}

static int lock(const char* registry) {
    const int fd = open(registry, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    require(fd >= 0 && flock(fd, LOCK_EX) == 0, registry);
    return fd;
}

static void record(int registry, const char* command, const char* since) {
    char line[4096];
    const char* slash = strrchr(command, '/');
    const int length =
        snprintf(line, sizeof line, "%s:%d:%s\n", slash ? slash + 1 : command, getpid(), since);
    require(write(registry, line, (size_t)length) == length, "record");
    flock(registry, LOCK_UN);
    close(registry);
}

static void place_on_core(char** words) {
    char pid[16];
    snprintf(pid, sizeof pid, "%d\n", getpid());
    put(words[0], "cgroup.procs", pid);
    const int registry = lock(words[1]);
    record(registry, words[3], start_time());
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(strtoul(words[2], NULL, 10), &cpus);
    require(sched_setaffinity(0, sizeof cpus, &cpus) == 0, "affinity");
}

static void place_in_quota(char** words) {
    char pid[16], cpuset[4096], cpu[4096], maximum[64];
    const char* since = start_time();
    snprintf(pid, sizeof pid, "%d\n", getpid());
    snprintf(cpuset, sizeof cpuset, "%s/%d-%s", words[0], getpid(), since);
    snprintf(cpu, sizeof cpu, "%s/%d-%s", words[1], getpid(), since);
    const int registry = lock(words[2]);
    require(mkdir(cpuset, 0777) == 0, cpuset);
    put(cpuset, "cpuset.mems", words[4]);
    put(cpuset, "cpuset.cpus", words[3]);
    if (strcmp(cpuset, cpu) == 0) {
        snprintf(maximum, sizeof maximum, "%s 100000\n", words[5]);
        put(cpu, "cpu.max", maximum);
    } else {
        require(mkdir(cpu, 0777) == 0, cpu);
        put(cpu, "cpu.cfs_period_us", "100000\n");
        put(cpu, "cpu.cfs_quota_us", words[5]);
        put(cpu, "cgroup.procs", pid);
    }
    put(cpuset, "cgroup.procs", pid);
    record(registry, words[6], since);
}

int main(int argc, char** argv) {
    const int quota = argc > 8 && strcmp(argv[1], "quota") == 0;
    if (!quota && (argc < 6 || strcmp(argv[1], "core") != 0))
        return fputs("bare: wrong arguments\n", stderr), 2;
    const pid_t child = fork();
    require(child >= 0, "fork");
    if (child > 0) {
        int status = 0;
        return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    }
    require(prctl(PR_SET_PDEATHSIG, SIGTERM) == 0, "prctl");
    char** words = argv + 2;
    char** command = words + (quota ? 6 : 3);
    (quota ? place_in_quota : place_on_core)(words);
    execv(command[0], command);
    require(0, command[0]);
}
