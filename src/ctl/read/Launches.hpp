// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/Cgroups.hpp"
#include "ctl/read/ProcessTable.hpp"
#include "ctl/read/Registries.hpp"

/// A launcher with the process that it forked.
struct Launch {
    int launcher{};
    int child{};
    /// False for a child that the launcher may have had before it was executed: nothing but its start speaks
    /// for it.
    bool isCertain{};
    CpuSet affinity{};        ///< The cores that the child may run on.
    std::string executable{}; ///< The path of the child's; empty where there is none or it may not be seen.
    // What follows is read for those alone that wait, or have not one record.
    CommandLine command{};                               ///< The command and its arguments.
    std::optional<std::vector<std::string>> openFiles{}; ///< Of a child that waits; none if not permitted.
    bool hasOwnRegistries{}; ///< The launcher sees another /tmp, as in a container.
};

/// The start times that registries have for each pid.
using RecordedProcesses = std::unordered_multimap<int, std::uint64_t>;

RecordedProcesses FindRecorded(const std::vector<Registry>& registries);

/// The launches that these processes show, the oldest first: a launcher is a process of root or of the owner
/// of the managed cgroup that runs an executable called Cpuwarden. Nobody else can place a command, though
/// anybody can give a program that name. Where executables may not be seen, the name of the command has to
/// do.
///
/// Its command is the one child that it forked itself. It may have others: from what executed it, such as a
/// shell's jobs and process substitutions, and, as the first process of a container, orphans.
std::vector<Launch> FindLaunches(const Processes& processes, const RecordedProcesses& recorded,
                                 const ManagedCgroup& cgroup);

/// Whether a process with these arguments runs this command, which is behind its interpreter where it is a
/// script, see execve(2).
bool RunsCommand(const std::vector<std::string>& arguments, const std::vector<std::string>& command);
