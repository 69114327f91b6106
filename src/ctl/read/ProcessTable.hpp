// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/CpuList.hpp"
#include "ctl/read/Files.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

/// One process as proc(5) shows it. Times are in clock ticks.
struct Process {
    int pid = 0;
    int parent = 0;
    std::string commandName{}; ///< At most 15 bytes, and whatever the process sets it to.
    bool hasEnded = false;     ///< A zombie that nobody has waited for yet.
    bool hasExecuted = true;   ///< False between fork(2) and execve(2).
    std::uint64_t startTime = 0;
    std::uint64_t cpuTime = 0;
    /// Empty where there is none (kernel threads and zombies), none where it may not be seen.
    std::optional<std::string> executable{""};
    uid_t user = 0; ///< The effective one. Only read for what is called as a launcher.
};

/// The process that all others descend from; missing only where processes of others are hidden.
inline constexpr int firstProcess = 1;

using Processes = std::unordered_map<int, Process>;

/// What a symbolic link in /proc says of a file that was removed or replaced while in use.
inline constexpr const char* deletedSuffix = " (deleted)";

/// The last component of a path, as records keep it.
std::string Basename(const std::string& path);

/// A launcher with the process that it forked.
struct Launch {
    int launcher = 0;
    int child = 0;
    CpuSet affinity{}; ///< The cores that the child may run on.
    // What follows is read for those alone that wait or have no record.
    std::vector<std::string> command{};                  ///< The command and its arguments.
    std::optional<std::vector<std::string>> openFiles{}; ///< Of a child that waits; none if not permitted.
    bool hasOwnRegistries = false; ///< The launcher sees another /tmp, as in a container.
};

/// The launches that these processes show, the oldest first: a launcher is a process of root or of the user
/// `launchers` that runs an executable called Cpuwarden, its command the oldest of its children. (It may have
/// more as the first process of a container, which adopts orphans.) Nobody else can place a command, though
/// anybody can give a program that name. Where executables may not be seen, the name of the command has to
/// do.
std::vector<Launch> FindLaunches(const Processes& processes, uid_t launchers);

/// The process file system. Processes that end in the middle of a reading are left out.
class ProcessTable {
public:
    /// Throws Exceptions::XSystemError when there is no `root`.
    explicit ProcessTable(const std::string& root = "/proc");

    /// The pids of all processes that may be seen.
    std::vector<int> ListPids() const;
    /// These processes, as they are now.
    Processes ReadAll() const;
    /// One process; nothing when there is none or it may not be seen.
    std::optional<Process> Read(int pid) const;
    /// Its arguments, cut off after the first 16 KiB; none when it has gone.
    std::vector<std::string> ReadCommandLine(int pid) const;
    /// Where its descriptors lead; nothing when they may not be seen.
    std::optional<std::vector<std::string>> ReadOpenFiles(int pid) const;
    /// Whether /tmp is another directory for it than for the caller. False when that may not be seen.
    bool HasOtherTmp(int pid) const;
    /// Who holds the flock(2) locks of the host: pids by "major:minor:inode", as /proc/locks has them.
    std::unordered_map<std::string, int> ReadLockHolders() const;

private:
    OpenFile folder;
};

/// The cores on which the process may run, see sched_getaffinity(2); none when it has gone.
CpuSet ReadAffinity(int pid);
