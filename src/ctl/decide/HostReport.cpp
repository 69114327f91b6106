// SPDX-License-Identifier: Apache-2.0
// The rules are the launcher's, in core/CoreManager.cpp: IsLive says which records are live, and
// CountMatchingManagedProcesses what they count against. They are written once more here, in WhyDead and
// CountsOn, because a launcher only acts on them, while this says which of them fails. A change to one is a
// change to both.
#include "ctl/decide/HostReport.hpp"

#include "ctl/decide/PlacedRecord.hpp"
#include "ctl/read/Collections.hpp"
#include "ctl/read/CpuList.hpp"
#include "ctl/read/Paths.hpp"

#include <algorithm>
#include <map>
#include <system_error>
#include <tuple>
#include <unordered_set>

namespace {

/// What the configuration says of applications; each name is looked up once.
class Applications {
public:
    explicit Applications(const Interfaces::IConfiguration* source) : configuration(source) {}

    const std::vector<std::string>& GroupsOf(const std::string& name) { return Find(name).groups; }

    /// Whether a command of this name on the core counts against another one of its name: members of groups
    /// count on assigned cores alone.
    bool CountsOn(std::uint32_t core, const std::string& name) {
        const Application& application = Find(name);
        return application.groups.empty() ||
               std::ranges::find(application.cores, core) != application.cores.end();
    }

private:
    struct Application {
        std::vector<std::string> groups;
        std::vector<std::uint32_t> cores;
    };

    const Application& Find(const std::string& name) {
        const auto [found, isNew] = known.try_emplace(name);
        if (isNew && configuration != nullptr) {
            for (const auto& [group, members] : configuration->ApplicationGroups()) {
                if (std::ranges::find(members, name) != members.end()) {
                    found->second.groups.push_back(group);
                }
            }
            std::sort(found->second.groups.begin(), found->second.groups.end());
            found->second.cores = configuration->CoreAssignmentSchema(name);
        }
        return found->second;
    }

    const Interfaces::IConfiguration* configuration;
    std::unordered_map<std::string, Application> known;
};

bool RunsExecutable(const Process& process, const std::string& name) {
    return !process.executable || *process.executable == name;
}

std::optional<DeadReason> WhyDead(const Record& record, const HostSnapshot& snapshot) {
    if (snapshot.hiddenProcesses.contains(record.pid)) {
        return std::nullopt;
    }
    const Process* const process = Find(snapshot.processes, record.pid);
    if (process == nullptr || process->hasEnded) {
        return DeadReason::ended;
    }
    if (process->startTime != record.startTime) {
        return DeadReason::pidReused;
    }
    if (RunsExecutable(*process, record.name)) {
        return std::nullopt;
    }
    return process->hasExecuted ? DeadReason::executableName : DeadReason::notYetExecuting;
}

/// The snapshot with what the judgements below look up in it.
struct IndexedSnapshot {
    IndexedSnapshot(const HostSnapshot& taken, const Interfaces::IConfiguration* read);
    IndexedSnapshot(const IndexedSnapshot&) = delete;
    IndexedSnapshot& operator=(const IndexedSnapshot&) = delete;
    ~IndexedSnapshot() = default;

    Milliseconds Duration(std::uint64_t ticks) const {
        constexpr std::uint64_t millisecondsPerSecond = 1000;
        return Milliseconds(ticks * millisecondsPerSecond / snapshot.ticksPerSecond);
    }
    Milliseconds Age(const Process& process) const {
        return Duration(snapshot.now - std::min(snapshot.now, process.startTime));
    }
    const Process* FindProcess(int pid) const { return Find(snapshot.processes, pid); }
    bool DescendsFromLauncher(int pid) const;
    /// Launches are found among the processes of the snapshot, of which none is read again after that.
    const Process& ChildOf(const Launch& launch) const { return snapshot.processes.at(launch.child); }

    const HostSnapshot& snapshot;
    const Interfaces::IConfiguration* configuration;
    mutable Applications applications; ///< Looked up when they are asked for.
    CpuSet managedCpus;
    std::unordered_set<int> launchers;
    std::unordered_map<int, int> launcherOf;                              ///< By the pid of the child.
    std::unordered_map<int, std::vector<PlacedRecord>> recordsOfChildren; ///< In the order of registries.
    std::unordered_map<std::string, const QuotaCgroup*> quotaCgroups;
};

IndexedSnapshot::IndexedSnapshot(const HostSnapshot& taken, const Interfaces::IConfiguration* read)
    : snapshot(taken), configuration(read), applications(read), managedCpus(ParseCpuList(taken.cgroup.cpus)) {
    for (const Launch& launch : snapshot.launches) {
        launchers.insert(launch.launcher);
        launcherOf.emplace(launch.child, launch.launcher);
    }
    for (const Registry& registry : snapshot.registries) {
        for (const Record& record : registry.records) {
            if (launcherOf.contains(record.pid)) { // not all of what may be a million
                recordsOfChildren[record.pid].push_back({.registry = &registry, .record = &record});
            }
        }
    }
    for (const QuotaCgroup& cgroup : snapshot.cgroup.quotaCgroups) {
        quotaCgroups.emplace(cgroup.name, &cgroup);
    }
}

bool IndexedSnapshot::DescendsFromLauncher(int pid) const {
    // Read one after the other, the processes may seem to descend from one another in a circle.
    std::size_t generations = snapshot.processes.size();
    const Process* process = FindProcess(pid);
    while (process != nullptr && generations-- > 0) {
        if (launchers.contains(process->pid)) {
            return true;
        }
        process = FindProcess(process->parent);
    }
    return false;
}

// --- Records ---

LiveCommand Describe(const Registry& registry, const Record& record, const IndexedSnapshot& host) {
    LiveCommand command{.application = record.name,
                        .groups = host.applications.GroupsOf(record.name),
                        .pid = record.pid,
                        .launcher = ValueOf(host.launcherOf, record.pid)};
    const Process* const process = host.FindProcess(record.pid);
    command.isVerified = process != nullptr && process->executable;
    if (process != nullptr) {
        command.running = host.Age(*process);
        command.cpuTime = host.Duration(process->cpuTime);
    }
    if (!registry.core) {
        command.cgroup = QuotaCgroupName(record.pid, record.startTime);
        if (const auto* const cgroup = Find(host.quotaCgroups, command.cgroup)) {
            command.throttling = (*cgroup)->throttling;
        }
    }
    return command;
}

/// Divides the records of a registry into live commands, equal ones as one, and dead records.
std::vector<LiveCommand> JudgeRecords(const Registry& registry, const IndexedSnapshot& host,
                                      std::vector<DeadRecord>& dead) {
    std::vector<LiveCommand> commands;
    std::map<std::pair<int, std::string>, std::size_t> indexes;
    for (const Record& record : registry.records) {
        if (const std::optional<DeadReason> reason = WhyDead(record, host.snapshot)) {
            dead.push_back({registry.core, record, *reason});
            continue;
        }
        const auto [index, isNew] = indexes.try_emplace({record.pid, record.name}, commands.size());
        if (isNew) {
            commands.push_back(Describe(registry, record, host));
        } else {
            ++commands[index->second].records;
        }
    }
    return commands;
}

CoreState StateOf(const Registry& registry, const std::vector<LiveCommand>& commands) {
    if (!commands.empty()) {
        return CoreState::taken;
    }
    return registry.problem.empty() ? CoreState::free : CoreState::unknown;
}

void ReportRegistry(const Registry& registry, const IndexedSnapshot& host, HostReport& report) {
    std::vector<LiveCommand> commands = JudgeRecords(registry, host, report.deadRecords);
    report.strayLines += registry.strayLines;
    if (registry.core) {
        const bool isManaged = host.managedCpus.contains(*registry.core);
        const CoreState state = StateOf(registry, commands);
        report.cores.push_back({*registry.core, state, isManaged, std::move(commands)});
        return;
    }
    report.areAdmissionsKnown = registry.problem.empty();
    for (const LiveCommand& command : commands) {
        report.admitted += command.records * report.quota;
    }
    report.allocations = std::move(commands);
}

// --- Launches ---

WaitingLaunch DescribeWaiting(const Launch& launch, const IndexedSnapshot& host) {
    WaitingLaunch waiting{.launcher = launch.launcher,
                          .pid = launch.child,
                          .command = Joined(launch.command.words, " "),
                          .isCommandCut = launch.command.isCut};
    // The child's age, which starts when the timeout does. The launcher's process may be older: what executed
    // it may have waited for something else before.
    waiting.waiting = host.Age(host.ChildOf(launch));
    if (host.configuration != nullptr) {
        const Milliseconds timeout = host.configuration->ProcessExecutionTimeout();
        waiting.left = std::max(timeout - waiting.waiting, Milliseconds(0));
    }
    waiting.areFilesKnown = launch.openFiles.has_value();
    for (const Registry& registry : host.snapshot.registries) {
        const std::optional<int> holder = ValueOf(host.snapshot.lockHolders, registry.lockId);
        const std::vector<std::string> none;
        const std::vector<std::string>& open = launch.openFiles ? *launch.openFiles : none;
        if (holder == launch.child) {
            waiting.holds.push_back({registry.core, holder});
        } else if (std::ranges::find(open, registry.file.path) != open.end()) {
            waiting.waitsFor.push_back({registry.core, holder});
        }
    }
    return waiting;
}

/// The record of the process that its launcher made: the live one, else the one with the name that was
/// launched, else the first; none when there is none at all.
std::optional<PlacedRecord> FindRecord(const Process& process, const std::string& launched,
                                       const IndexedSnapshot& host) {
    const std::vector<PlacedRecord>* const records = Find(host.recordsOfChildren, process.pid);
    std::optional<PlacedRecord> found;
    const auto rank = [&](const PlacedRecord& placed) {
        const std::string& name = placed.record->name;
        return std::pair(RunsExecutable(process, name), name == launched);
    };
    for (const PlacedRecord& placed : records == nullptr ? std::vector<PlacedRecord>{} : *records) {
        const bool isOfProcess = placed.record->startTime == process.startTime;
        if (isOfProcess && (!found || rank(placed) > rank(*found))) {
            found = placed;
        }
    }
    return found;
}

/// Where a launcher that wrote the record had put the process before.
std::string ExpectedCgroup(const PlacedRecord& placed) {
    const Record& record = *placed.record;
    return placed.registry->core ? Paths::managedCgroup : QuotaCgroupPath(record.pid, record.startTime);
}

bool IsInItsCgroup(const PlacedRecord& placed, const ManagedCgroup& managed) {
    const int pid = placed.record->pid;
    const std::string cgroup = ValueOf(managed.cpusetMembers, pid).value_or("");
    if (!managed.areMembersKnown) {
        return true;
    }
    if (placed.registry->core) {
        return !cgroup.empty();
    }
    const std::string expected = ExpectedCgroup(placed);
    return cgroup == expected && ValueOf(managed.cpuMembers, pid) == expected;
}

/// Why a command with a record does not count where it runs; nothing when it does.
std::optional<NotCountedReason> WhyMisplaced(const PlacedRecord& placed, const Process& process,
                                             const CpuSet& affinity, const IndexedSnapshot& host) {
    const std::string& name = placed.record->name;
    const std::optional<std::uint32_t> core = placed.registry->core;
    if (!RunsExecutable(process, name)) {
        return NotCountedReason::executableName;
    }
    // A process without any affinity has ended meanwhile.
    if (core && !affinity.empty() && affinity != CpuSet{*core}) {
        return NotCountedReason::otherCore;
    }
    if (!IsInItsCgroup(placed, host.snapshot.cgroup)) {
        return NotCountedReason::outsideCgroup;
    }
    if (core && !host.applications.CountsOn(*core, name)) {
        return NotCountedReason::coreNotAssigned;
    }
    return std::nullopt;
}

/// Why a command has no record.
NotCountedReason WhyUnrecorded(const std::string& application, const Process& process) {
    if (application.find(':') != std::string::npos) {
        return NotCountedReason::nameWithColon;
    }
    return RunsExecutable(process, application) ? NotCountedReason::recordLost
                                                : NotCountedReason::executableName;
}

/// Judges a command that executes under a launcher; nothing when it counts.
std::optional<NotCounted> JudgeCommand(const Launch& launch, const Process& process,
                                       const IndexedSnapshot& host) {
    const std::vector<std::string>& words = launch.command.words;
    const std::string launched = words.empty() ? process.commandName : Basename(words.front());
    const std::optional<PlacedRecord> placed = FindRecord(process, launched, host);
    const std::optional<NotCountedReason> reason =
        placed ? WhyMisplaced(*placed, process, launch.affinity, host) : WhyUnrecorded(launched, process);
    if (!reason) {
        return std::nullopt;
    }
    return NotCounted{.reason = *reason,
                      .application = placed ? placed->record->name : launched,
                      .pid = launch.child,
                      .launcher = launch.launcher,
                      .running = host.Age(process),
                      .executable = launch.executable,
                      .registeredCore = placed ? placed->registry->core : std::nullopt,
                      .affinity = launch.affinity,
                      .cgroup = ValueOf(host.snapshot.cgroup.cpusetMembers, launch.child).value_or(""),
                      .expectedCgroup = placed ? ExpectedCgroup(*placed) : ""};
}

bool AreRegistriesKnown(const HostSnapshot& snapshot) {
    return std::ranges::all_of(snapshot.registries,
                               [](const Registry& registry) { return registry.problem.empty(); });
}

/// Reports what was seen of the launches, and returns how many commands may have their record in a registry
/// that could not be read.
std::size_t ReportLaunches(const IndexedSnapshot& host, HostReport& report) {
    const bool areRegistriesKnown = AreRegistriesKnown(host.snapshot);
    std::size_t unseenRecords{};
    for (const Launch& launch : host.snapshot.launches) {
        if (launch.hasOwnRegistries) {
            continue;
        }
        const Process& child = host.ChildOf(launch);
        if (!child.hasExecuted) {
            report.waiting.push_back(DescribeWaiting(launch, host));
        } else if (std::optional<NotCounted> command = JudgeCommand(launch, child, host)) {
            if (command->reason == NotCountedReason::recordLost && !areRegistriesKnown) {
                ++unseenRecords;
            } else {
                report.notCounted.push_back(*std::move(command));
            }
        }
    }
    return unseenRecords;
}

// --- The managed cgroup ---

void ReportOrphanedCgroups(const IndexedSnapshot& host, HostReport& report) {
    if (!report.areAdmissionsKnown) {
        return;
    }
    std::unordered_set<std::string> owned;
    for (const LiveCommand& command : report.allocations) {
        owned.insert(command.cgroup);
    }
    for (const QuotaCgroup& cgroup : host.snapshot.cgroup.quotaCgroups) {
        if (cgroup.isEmpty && !owned.contains(cgroup.name)) {
            report.orphanedCgroups.push_back(cgroup.name);
        }
    }
}

void ReportUnmanaged(const IndexedSnapshot& host, HostReport& report) {
    for (const auto& [pid, cgroup] : host.snapshot.cgroup.cpusetMembers) {
        const Process* const process = host.FindProcess(pid);
        if (process != nullptr && !host.DescendsFromLauncher(pid)) {
            report.unmanaged.push_back({pid, process->commandName, cgroup});
        }
    }
    std::ranges::sort(report.unmanaged,
                      [](const auto& one, const auto& other) { return one.pid < other.pid; });
}

// --- What could not be seen ---

std::size_t CountUnseenExecutables(const IndexedSnapshot& host, const HostReport& report) {
    const auto isUnseen = [](const LiveCommand& command) { return !command.isVerified; };
    std::size_t unseen = CountOf(report.allocations, isUnseen);
    for (const CoreReport& core : report.cores) {
        unseen += CountOf(core.commands, isUnseen);
    }
    return unseen + CountOf(host.snapshot.launches, [&](const Launch& launch) {
               return !host.ChildOf(launch).executable && !host.recordsOfChildren.contains(launch.child);
           });
}

void ReportBlindSpots(const IndexedSnapshot& host, std::size_t unseenRecords, HostReport& report) {
    const auto add = [&report](const std::string& what, const std::string& why) {
        report.blindSpots.push_back({what, why});
    };
    const auto addSome = [&add](std::size_t count, const std::string& what, const std::string& why) {
        if (count > 0) {
            add(what + ": " + std::to_string(count), why);
        }
    };
    for (const Registry& registry : host.snapshot.registries) {
        if (!registry.problem.empty()) {
            add(registry.file.path, registry.problem);
        }
    }
    if (!host.snapshot.processes.contains(firstProcess)) {
        add("processes of other users", "hidden by the mount option hidepid= of /proc");
    }
    addSome(CountUnseenExecutables(host, report), "executables of commands",
            "cannot be seen; what their records and names say is believed");
    addSome(unseenRecords, "records of commands", "they may stand in the registries that were not read");
    addSome(CountOf(host.snapshot.launches, [](const Launch& launch) { return launch.hasOwnRegistries; }),
            "launches with a /tmp of their own", "their registries are there");
    addSome(CountOf(report.waiting, [](const WaitingLaunch& wait) { return !wait.areFilesKnown; }),
            "open files of waiting launchers", "not permitted");
    for (const auto& [error, reads] : host.snapshot.failedReads.ByError()) {
        const std::string others =
            reads.count == 1 ? "" : " and " + std::to_string(reads.count - 1) + " more";
        add(reads.first + others, std::generic_category().message(error));
    }
}

} // namespace

std::size_t HostReport::CountCores(CoreState state) const {
    return CountOf(cores, [state](const CoreReport& core) { return core.isManaged && core.state == state; });
}

HostReport MakeReport(const HostSnapshot& snapshot) {
    const ConfigurationReading& reading = snapshot.configuration;
    const IndexedSnapshot host(snapshot, reading.configuration.get());
    HostReport report;
    report.complaints = reading.complaints;
    report.mode = ModeOf(reading);
    if (host.configuration == nullptr) {
        report.failure = reading.failure;
    } else {
        report.quota = host.configuration->ManagedProcessCpuQuotaPercentage();
        report.sharesCores = host.configuration->ShareCore();
    }
    report.cgroupExists = snapshot.cgroup.facts.exists;
    report.cpus = snapshot.cgroup.cpus;
    if (snapshot.cgroup.cpuCount) {
        report.capacity = std::uint64_t{wholeCpuPercentage} * *snapshot.cgroup.cpuCount;
    }
    for (const Registry& registry : snapshot.registries) {
        ReportRegistry(registry, host, report);
    }
    const std::size_t unseenRecords = ReportLaunches(host, report);
    ReportOrphanedCgroups(host, report);
    ReportUnmanaged(host, report);
    ReportBlindSpots(host, unseenRecords, report);
    return report;
}
