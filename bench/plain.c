// SPDX-License-Identifier: Apache-2.0
// plain records REGISTRY PASSES    asks about each recorded process what a scan has to ask
// plain cores COUNT PASSES         locks, reads, empties and unlocks the registries of so many cores
//
// What the kernel's part of the launcher's work costs: nanoseconds of each pass, one a line.
#define _GNU_SOURCE
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <time.h>
#include <unistd.h>

enum { most = 1 << 16 };
static int pids[most];
static int descriptors[most];
static char content[4096];

static long long now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static int fail(const char* what) {
    perror(what);
    exit(1);
}

static void read_file(const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        fail(path);
    while (read(fd, content, sizeof content) > 0) {
    }
    close(fd);
}

static int read_pids(const char* registry) {
    FILE* file = fopen(registry, "r");
    int count = 0;
    if (!file)
        fail(registry);
    while (count < most && fscanf(file, "%*[^:]:%d:%*d\n", &pids[count]) == 1)
        ++count;
    fclose(file);
    return count;
}

static void ask_about(int pid) {
    char path[64];
    if (kill(pid, 0) || kill(pid, 0) || kill(pid, 0))
        fail("plain: a record is not live");
    snprintf(path, sizeof path, "/proc/%d/exe", pid);
    if (readlink(path, content, sizeof content) < 0)
        fail(path);
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    read_file(path);
}

static const char* registry_of(int core) {
    static char path[64];
    snprintf(path, sizeof path, "/tmp/core_pids_%d.lock", core);
    return path;
}

static void lock_all(int cores) {
    for (int core = 0; core < cores; ++core) {
        descriptors[core] = open(registry_of(core), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (descriptors[core] < 0 || flock(descriptors[core], LOCK_EX | LOCK_NB) != 0)
            fail(registry_of(core));
    }
    for (int core = 0; core < cores; ++core) {
        read_file(registry_of(core));
        close(open(registry_of(core), O_WRONLY | O_TRUNC | O_CLOEXEC));
    }
    for (int core = 0; core < cores; ++core) {
        flock(descriptors[core], LOCK_UN);
        close(descriptors[core]);
    }
}

int main(int argc, char** argv) {
    if (argc != 4)
        return 2;
    const int records = strcmp(argv[1], "records") == 0;
    const int count = records ? read_pids(argv[2]) : atoi(argv[2]);
    for (int pass = 0; count <= most && pass < atoi(argv[3]); ++pass) {
        const long long start = now();
        if (records)
            for (int record = 0; record < count; ++record)
                ask_about(pids[record]);
        else
            lock_all(count);
        printf("%lld\n", now() - start);
    }
    return 0;
}
