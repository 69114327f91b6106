// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/HostSnapshot.hpp"

#include "ctl/read/Find.hpp"
#include "ctl/read/Paths.hpp"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <unordered_set>

#include <unistd.h>

namespace {

std::uint64_t TicksSinceBoot(std::uint64_t ticksPerSecond) {
    constexpr std::uint64_t nanosecondsPerSecond = 1'000'000'000;
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now); // as start times in /proc/pid/stat
    return (static_cast<std::uint64_t>(now.tv_sec) * ticksPerSecond) +
           (static_cast<std::uint64_t>(now.tv_nsec) * ticksPerSecond / nanosecondsPerSecond);
}

/// Takes the process as it is now.
void Refresh(int pid, const ProcessTable& table, HostSnapshot& snapshot) {
    if (std::optional<Process> process = table.Read(pid)) {
        snapshot.processes[pid] = *std::move(process);
    } else {
        snapshot.processes.erase(pid);
    }
}

void RefreshWithParent(int pid, const ProcessTable& table, HostSnapshot& snapshot) {
    Refresh(pid, table, snapshot);
    if (const Process* const process = Find(snapshot.processes, pid)) {
        Refresh(process->parent, table, snapshot);
    }
}

/// A parent that has not executed anything yet may be a launcher by now.
void RefreshParents(const ProcessTable& table, HostSnapshot& snapshot) {
    std::set<int> parents;
    for (const auto& [pid, process] : snapshot.processes) {
        const Process* const parent = Find(snapshot.processes, process.parent);
        if (parent != nullptr && !parent->hasExecuted) {
            parents.insert(process.parent);
        }
    }
    for (const int parent : parents) {
        Refresh(parent, table, snapshot);
    }
}

std::unordered_set<int> RecordedPids(const std::vector<Registry>& registries) {
    std::unordered_set<int> pids;
    for (const Registry& registry : registries) {
        for (const Record& record : registry.records) {
            pids.insert(record.pid);
        }
    }
    return pids;
}

/// A process that was recorded after the processes were read is not there yet, or not executing yet; nor may
/// its launcher be.
void RefreshRecorded(const std::unordered_set<int>& recorded, const ProcessTable& table,
                     HostSnapshot& snapshot) {
    for (const int pid : table.ListPids()) {
        const Process* const process = Find(snapshot.processes, pid);
        const bool isStale = process == nullptr || !process->hasExecuted;
        if (isStale && recorded.contains(pid)) {
            RefreshWithParent(pid, table, snapshot);
        }
    }
}

/// Without the first process the caller sees no more than its own.
void FindHidden(const std::unordered_set<int>& recorded, HostSnapshot& snapshot) {
    if (snapshot.processes.contains(firstProcess)) {
        return;
    }
    for (const int pid : recorded) {
        if (pid > 0 && !snapshot.processes.contains(pid) && ::kill(pid, 0) != 0 && errno == EPERM) {
            snapshot.hiddenProcesses.insert(pid);
        }
    }
}

/// In a quota cgroup of v1 a process is in both hierarchies, which are read one after the other.
bool IsInManagedCgroup(const ManagedCgroup& cgroup, int pid) {
    const std::string* const member = Find(cgroup.cpusetMembers, pid);
    return member != nullptr && (*member == Paths::managedCgroup || cgroup.cpuMembers.contains(pid));
}

/// A command that ended after the processes were read has rightly lost its record or left its cgroup. One
/// that did not execute then is left as it was: its record may have been made after the registries were read.
void RefreshMissing(const std::unordered_set<int>& recorded, const ProcessTable& table,
                    HostSnapshot& snapshot) {
    for (const Launch& launch : FindLaunches(snapshot.processes, snapshot.cgroup.facts.owner)) {
        const bool isMissing =
            !recorded.contains(launch.child) || !IsInManagedCgroup(snapshot.cgroup, launch.child);
        if (isMissing && snapshot.processes.at(launch.child).hasExecuted) {
            Refresh(launch.child, table, snapshot);
        }
    }
}

/// The arguments of a launcher are the command and its own.
std::vector<std::string> ReadCommand(int launcher, const ProcessTable& table) {
    std::vector<std::string> words = table.ReadCommandLine(launcher);
    words.erase(words.begin(), words.begin() + (words.empty() ? 0 : 1));
    return words;
}

void ReadLaunches(const std::unordered_set<int>& recorded, const ProcessTable& table,
                  HostSnapshot& snapshot) {
    snapshot.launches = FindLaunches(snapshot.processes, snapshot.cgroup.facts.owner);
    for (Launch& launch : snapshot.launches) {
        launch.affinity = ReadAffinity(launch.child);
        const bool waits = !snapshot.processes.at(launch.child).hasExecuted;
        if (waits) {
            launch.openFiles = table.ReadOpenFiles(launch.child);
        }
        if (waits || !recorded.contains(launch.child)) {
            launch.command = ReadCommand(launch.launcher, table);
            launch.hasOwnRegistries = table.HasOtherTmp(launch.launcher);
        }
    }
}

} // namespace

HostSnapshot TakeSnapshot(const Services& services, const ProcessTable& table) {
    HostSnapshot snapshot;
    snapshot.ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    // Whatever executes has been placed and then recorded, so the processes are read before the registries,
    // and these before the cgroups.
    snapshot.processes = table.ReadAll();
    const std::vector<std::uint32_t> cores = services.systemResources->GetAvailableCores();
    snapshot.registries = ReadRegistries(ListRegistries({cores.begin(), cores.end()}));
    snapshot.lockHolders = table.ReadLockHolders();
    snapshot.cgroup = ReadManagedCgroup(*services.systemResources, *services.processManager);
    const std::unordered_set<int> recorded = RecordedPids(snapshot.registries);
    RefreshParents(table, snapshot);
    RefreshRecorded(recorded, table, snapshot);
    RefreshMissing(recorded, table, snapshot);
    FindHidden(recorded, snapshot);
    ReadLaunches(recorded, table, snapshot);
    snapshot.now = TicksSinceBoot(snapshot.ticksPerSecond);
    return snapshot;
}
