// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/CpuList.hpp"
#include "ctl/read/FailedReads.hpp"
#include "ctl/read/Files.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <sys/types.h>

/// One process as proc(5) shows it. Times are in clock ticks.
struct Process {
    int pid{};
    int parent{};
    std::string commandName{}; ///< At most 15 bytes, and whatever the process sets it to.
    bool hasEnded{};           ///< A zombie that nobody has waited for yet.
    bool hasExecuted{};        ///< False between fork(2) and execve(2).
    std::uint64_t startTime{};
    std::uint64_t cpuTime{};
    /// The name of its file, with what the link says behind it. Empty where there is none (kernel threads and
    /// zombies), none where it may not be seen.
    std::optional<std::string> executable{""};
    uid_t user{}; ///< The effective one. Only read for what is called as a launcher.
};

/// The process that all others descend from; missing only where processes of others are hidden.
inline constexpr int firstProcess = 1;

using Processes = std::unordered_map<int, Process>;

/// What the launcher's program is called.
inline constexpr const char* launcherName = "Cpuwarden";

/// What a symbolic link in /proc says of a file that was removed or replaced while in use.
inline constexpr const char* deletedSuffix = " (deleted)";

/// The last component of a path, as records keep it.
std::string Basename(const std::string& path);

/// Whether its executable is called as that of launchers is; where that may not be seen, whether the command
/// is.
bool IsCalledAsLauncher(const Process& process);

/// The arguments of a process.
struct CommandLine {
    std::vector<std::string> words{};
    bool isCut{}; ///< Whether there are more bytes than `commandLineLimit`.
};

/// How many bytes of its arguments are read of a process, which may have megabytes.
inline constexpr std::size_t commandLineLimit = 16384;

/// The process file system. Processes that end in the middle of a reading are left out.
class ProcessTable {
public:
    /// Takes note of failed reads where it is told where, which then has to outlive it. Throws
    /// Exceptions::XSystemError when there is no process file system.
    explicit ProcessTable(FailedReads* noted = nullptr);

    /// The pids of all processes that may be seen.
    std::vector<int> ListPids() const;
    /// These processes, as they are now.
    Processes ReadAll() const;
    /// One process; nothing when there is none or it may not be seen.
    std::optional<Process> Read(int pid) const;
    /// The path of its executable; empty where there is none or it may not be seen.
    std::string ReadExecutable(int pid) const;
    /// Its arguments; none when it has gone.
    CommandLine ReadCommandLine(int pid) const;
    /// Where its descriptors lead; nothing when they may not be seen.
    std::optional<std::vector<std::string>> ReadOpenFiles(int pid) const;
    /// Whether /tmp is another directory for it than for the caller. False when that may not be seen.
    bool HasOtherTmp(int pid) const;
    /// The cores on which it may run; none when it has gone.
    CpuSet ReadCores(int pid) const;
    /// Who holds the flock(2) locks of the host: pids by "major:minor:inode", as /proc/locks has them. Of a
    /// list that is too long only the beginning, which counts as a failed read.
    std::unordered_map<std::string, int> ReadLockHolders() const;

private:
    /// Of the process with that folder; empty where there is none, nothing where it cannot be seen.
    std::optional<std::string> ReadExecutablePath(const std::string& own) const;
    uid_t ReadEffectiveUser(const std::string& own) const;
    /// `path` is relative to that of the process file system.
    void Note(const std::string& path, int error) const;

    FailedReads* failed;
    OpenFile folder;
};

/// The cores on which the process may run, see sched_getaffinity(2); none when it has gone.
CpuSet ReadAffinity(int pid);
