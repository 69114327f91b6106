// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/HostSnapshot.hpp"

#include "ctl/read/Collections.hpp"
#include "ctl/read/Paths.hpp"

#include <cerrno>
#include <csignal>
#include <ctime>

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

/// A process that was recorded after the processes were read is not there yet, or not executing yet; nor may
/// its launcher be.
void RefreshRecorded(const RecordedProcesses& recorded, const ProcessTable& table, HostSnapshot& snapshot) {
    for (const int pid : table.ListPids()) {
        const Process* const process = Find(snapshot.processes, pid);
        const bool isStale = process == nullptr || !process->hasExecuted;
        if (isStale && recorded.contains(pid)) {
            RefreshWithParent(pid, table, snapshot);
        }
    }
}

/// Without the first process the caller sees no more than its own. Nor has one ended that could not be read.
void FindHidden(const RecordedProcesses& recorded, const FailedReads& failed, HostSnapshot& snapshot) {
    if (snapshot.processes.contains(firstProcess) && failed.ByError().empty()) {
        return;
    }
    for (auto record = recorded.begin(); record != recorded.end();
         record = recorded.equal_range(record->first).second) {
        const int pid = record->first;
        if (pid > 0 && !snapshot.processes.contains(pid) && (::kill(pid, 0) == 0 || errno == EPERM)) {
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
void RefreshMissing(const RecordedProcesses& recorded, const ProcessTable& table, HostSnapshot& snapshot) {
    for (const Launch& launch : FindLaunches(snapshot.processes, recorded, snapshot.cgroup)) {
        const bool isMissing =
            !recorded.contains(launch.child) || !IsInManagedCgroup(snapshot.cgroup, launch.child);
        if (isMissing && snapshot.processes.at(launch.child).hasExecuted) {
            Refresh(launch.child, table, snapshot);
        }
    }
}

/// The arguments of a launcher are the command and its own.
CommandLine ReadCommand(int launcher, const ProcessTable& table) {
    CommandLine command = table.ReadCommandLine(launcher);
    command.words.erase(command.words.begin(), command.words.begin() + (command.words.empty() ? 0 : 1));
    return command;
}

void ReadLaunch(Launch& launch, bool waits, bool hasOneRecord, const ProcessTable& table) {
    launch.affinity = table.ReadCores(launch.child);
    launch.executable = table.ReadExecutable(launch.child);
    if (waits) {
        launch.openFiles = table.ReadOpenFiles(launch.child);
    }
    if (waits || !hasOneRecord) {
        launch.command = ReadCommand(launch.launcher, table);
        launch.hasOwnRegistries = table.HasOtherTmp(launch.launcher);
    }
}

/// Whether it is none: what the launcher has forked itself runs its command, unless that is in another
/// container.
bool IsInherited(const Launch& launch, const ProcessTable& table) {
    return !launch.isCertain && !launch.hasOwnRegistries &&
           !RunsCommand(table.ReadCommandLine(launch.child).words, launch.command.words);
}

void ReadLaunches(const RecordedProcesses& recorded, const ProcessTable& table, HostSnapshot& snapshot) {
    bool doesOneWait{};
    for (Launch& launch : FindLaunches(snapshot.processes, recorded, snapshot.cgroup)) {
        const bool waits = !snapshot.processes.at(launch.child).hasExecuted;
        ReadLaunch(launch, waits, recorded.count(launch.child) == 1, table);
        doesOneWait = doesOneWait || waits;
        if (!IsInherited(launch, table)) {
            snapshot.launches.push_back(std::move(launch));
        }
    }
    if (doesOneWait) {
        snapshot.lockHolders = table.ReadLockHolders();
    }
}

} // namespace

HostSnapshot TakeSnapshot() {
    HostSnapshot snapshot;
    const auto failed = std::make_shared<FailedReads>();
    const Services services = MakeNotingServices(failed);
    const ProcessTable table(failed.get());
    snapshot.configuration = ReadConfiguration(services);
    snapshot.ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
    // Whatever executes has been placed and then recorded, so the processes are read before the registries,
    // and these before the cgroups.
    snapshot.processes = table.ReadAll();
    const std::vector<std::uint32_t> cores = services.systemResources->GetAvailableCores();
    snapshot.registries = ReadRegistries(ListRegistries({cores.begin(), cores.end()}), failed.get());
    snapshot.cgroup = ReadManagedCgroup(services, *failed);
    const RecordedProcesses recorded = FindRecorded(snapshot.registries);
    RefreshParents(table, snapshot);
    RefreshRecorded(recorded, table, snapshot);
    RefreshMissing(recorded, table, snapshot);
    FindHidden(recorded, *failed, snapshot);
    ReadLaunches(recorded, table, snapshot);
    snapshot.now = TicksSinceBoot(snapshot.ticksPerSecond);
    snapshot.failedReads = *failed;
    return snapshot;
}
