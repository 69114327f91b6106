// SPDX-License-Identifier: Apache-2.0
// Launchers agree on cores and quota slots through the registry files below, each of which is also the file
// whose flock(2) lock guards it. Launchers of different versions run side by side, so paths, the format of a
// record, the names of quota cgroups and the order in which locks are taken must not change.
#include "core/CoreManager.hpp"

#include "configuration/ConfigurationKeys.hpp"
#include "configuration/Contains.hpp"
#include "exceptions/Exceptions.hpp"

#include <algorithm>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include <sched.h>

namespace {

constexpr const char* allocationRegistry = "/tmp/cw_allocations.lock";
constexpr std::chrono::milliseconds roomPollPeriod{50};
constexpr std::uint64_t cpuCapacityPercentage = 100;

/// One process that a launcher placed. The pid and the start time (clock ticks since boot) identify it; a
/// reused pid has another start time.
struct ManagedProcessInfo {
    int pid;
    std::string name;
    std::uint64_t startTime;
};

using ManagedProcesses = std::vector<ManagedProcessInfo>;
using ManagedProcessesByCore = std::unordered_map<std::uint32_t, ManagedProcesses>;

/// Holds the lock of one registry file. The file system service must outlive it.
class ScopedFileLock {
public:
    ScopedFileLock(const Interfaces::IFileSystem& fileSystemService, const std::string& path,
                   Interfaces::Deadline deadline)
        : fileSystem(fileSystemService), fd(fileSystem.FileOpen(path)) {
        try {
            fileSystem.TryFileLockUntil(fd, deadline);
        } catch (...) {
            Attempt(&Interfaces::IFileSystem::FileClose);
            throw;
        }
    }
    ScopedFileLock(const ScopedFileLock&) = delete;
    ScopedFileLock& operator=(const ScopedFileLock&) = delete;
    ~ScopedFileLock() {
        Attempt(&Interfaces::IFileSystem::FileUnlock);
        Attempt(&Interfaces::IFileSystem::FileClose);
    }

private:
    // Closing the descriptor releases the lock even where unlocking failed, and neither failure may hide the
    // exception that ends the scope.
    void Attempt(void (Interfaces::IFileSystem::*step)(int) const) const noexcept {
        try {
            (fileSystem.*step)(fd);
        } catch (...) { // NOLINT(bugprone-empty-catch)
        }
    }

    const Interfaces::IFileSystem& fileSystem;
    const int fd;
};

std::string CoreFilePath(std::uint32_t core) {
    return "/tmp/core_pids_" + std::to_string(core) + ".lock";
}

/// The locks of several cores, taken in the order given and released in the same order, which a vector's own
/// destruction would not promise.
class CoreLocks {
public:
    CoreLocks(const Interfaces::IFileSystem& fileSystem, const std::vector<std::uint32_t>& cores,
              Interfaces::Deadline deadline) {
        try {
            for (const std::uint32_t core : cores) {
                locks.push_back(std::make_unique<ScopedFileLock>(fileSystem, CoreFilePath(core), deadline));
            }
        } catch (...) {
            Release();
            throw;
        }
    }
    CoreLocks(const CoreLocks&) = delete;
    CoreLocks& operator=(const CoreLocks&) = delete;
    ~CoreLocks() { Release(); }

private:
    void Release() noexcept {
        for (std::unique_ptr<ScopedFileLock>& lock : locks) {
            lock.reset();
        }
    }

    std::vector<std::unique_ptr<ScopedFileLock>> locks;
};

std::string GetBasename(const std::filesystem::path& path) {
    const std::string& text = path.native();
    return text.substr(text.rfind('/') + 1); // npos + 1 is 0: all of a text without a slash
}

std::string ToLine(const ManagedProcessInfo& process) {
    return process.name + ":" + std::to_string(process.pid) + ":" + std::to_string(process.startTime);
}

std::vector<std::string> ToLines(const ManagedProcesses& processes) {
    std::vector<std::string> lines(processes.size());
    std::ranges::transform(processes, lines.begin(), ToLine);
    return lines;
}

/// Reads "name:pid:starttime", the numbers as strtol(3) reads them; nothing for a line that is no record.
std::optional<ManagedProcessInfo> ParseLine(const std::string& line) {
    const std::size_t pidColon = line.find(':');
    const std::size_t startTimeColon = line.find(':', pidColon + 1); // npos + 1 is 0: again none
    if (startTimeColon == std::string::npos) {
        return std::nullopt;
    }
    try {
        const long long pid = std::stoll(line.substr(pidColon + 1, startTimeColon - pidColon - 1));
        return ManagedProcessInfo{.pid = static_cast<int>(pid),
                                  .name = line.substr(0, pidColon),
                                  .startTime = std::stoull(line.substr(startTimeColon + 1))};
    } catch (const std::invalid_argument&) {
        return std::nullopt;
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

/// Whether the recorded process still runs the recorded program. One that cannot be inspected does not.
/// ctl/decide/HostReport.cpp tells the same rule once more, as WhyDead, and has to follow a change.
bool IsLive(const Interfaces::IProcessManager& processManager, const ManagedProcessInfo& process) {
    try {
        return processManager.IsProcessAlive(process.pid) &&
               GetBasename(processManager.GetProcessExecutablePath(process.pid)) == process.name &&
               processManager.GetProcessStartTime(process.pid) == process.startTime;
    } catch (const Exceptions::XInvalidArgument&) {
        return false;
    } catch (const Exceptions::XRuntimeError&) {
        return false;
    }
}

/// The live records of a registry file whose lock is held, in file order.
ManagedProcesses ScanManagedProcesses(const Interfaces::IFileSystem& fileSystem,
                                      const Interfaces::IProcessManager& processManager,
                                      const std::string& path) {
    ManagedProcesses live;
    for (const std::string& line : fileSystem.ReadLines(path)) {
        std::optional<ManagedProcessInfo> process = ParseLine(line);
        if (process && IsLive(processManager, *process)) {
            live.push_back(*std::move(process));
        }
    }
    return live;
}

/// Scans the registry files of all these cores, whose locks are held, and rewrites each with what is live.
ManagedProcessesByCore ScanCoreManagedProcesses(const Interfaces::IFileSystem& fileSystem,
                                                const Interfaces::IProcessManager& processManager,
                                                const std::vector<std::uint32_t>& cores) {
    ManagedProcessesByCore processesByCore;
    for (const std::uint32_t core : cores) {
        const std::string path = CoreFilePath(core);
        ManagedProcesses live = ScanManagedProcesses(fileSystem, processManager, path);
        fileSystem.WriteLines(path, ToLines(live));
        processesByCore.emplace(core, std::move(live));
    }
    return processesByCore;
}

std::uint64_t CountProcessesByName(const ManagedProcesses& processes, const std::string& name) {
    return static_cast<std::uint64_t>(
        std::ranges::count_if(processes, [&name](const auto& process) { return process.name == name; }));
}

/// The members of every application group that lists `name`.
std::unordered_set<std::string> RelatedNames(const std::string& name,
                                             const Interfaces::IConfiguration& configuration) {
    std::unordered_set<std::string> related;
    for (const auto& [group, members] : configuration.ApplicationGroups()) {
        if (Contains(members, name)) {
            related.insert(members.begin(), members.end());
        }
    }
    return related;
}

bool IsAssignedTo(std::uint32_t core, const std::string& name,
                  const Interfaces::IConfiguration& configuration) {
    return Contains(configuration.CoreAssignmentSchema(name), core);
}

/// How many processes on the core stand in the way of a new one called `name`: those of its name, or, when it
/// is in application groups, of every member that is assigned to the core. ctl/decide/HostReport.cpp tells
/// the same rule once more, as Applications::CountsOn, and has to follow a change.
std::uint64_t CountMatchingManagedProcesses(const std::string& name, std::uint32_t core,
                                            const ManagedProcessesByCore& processesByCore,
                                            const Interfaces::IConfiguration& configuration) {
    const auto onCore = processesByCore.find(core);
    if (onCore == processesByCore.end()) {
        return 0;
    }
    const std::unordered_set<std::string> related = RelatedNames(name, configuration);
    if (related.empty()) {
        return CountProcessesByName(onCore->second, name);
    }
    std::uint64_t count = 0;
    for (const std::string& member : related) {
        if (IsAssignedTo(core, member, configuration)) {
            count += CountProcessesByName(onCore->second, member);
        }
    }
    return count;
}

std::string QuotaCgroupName(int pid, std::uint64_t startTime) {
    return std::to_string(pid) + "-" + std::to_string(startTime);
}

/// Whether a launcher made this cgroup: digits, one hyphen, digits. Others below the managed cgroup are not
/// ours.
bool IsQuotaCgroupName(const std::string& name) {
    constexpr const char* digits = "0123456789";
    const std::size_t hyphen = name.find_first_not_of(digits);
    return hyphen != std::string::npos && hyphen != 0 && hyphen + 1 != name.size() && name[hyphen] == '-' &&
           name.find_first_not_of(digits, hyphen + 1) == std::string::npos;
}

/// Removes the quota cgroups below `cgroupName` whose process is not among the live admissions.
void RemoveOrphanedQuotaCgroups(const Interfaces::IProcessManager& processManager,
                                const std::string& cgroupName, const ManagedProcesses& live) {
    std::unordered_set<std::string> owned;
    for (const ManagedProcessInfo& process : live) {
        owned.insert(QuotaCgroupName(process.pid, process.startTime));
    }
    for (const std::string& child : processManager.ListManagedChildCgroups(cgroupName)) {
        if (IsQuotaCgroupName(child) && !owned.contains(child)) {
            processManager.RemoveCgroupForManagedProcess(cgroupName, child);
        }
    }
}

/// How many processes fit a cgroup, all in percent of one CPU.
struct QuotaPlan {
    std::uint32_t quota;
    std::uint64_t capacity;

    bool HasRoomBeside(std::uint64_t active) const { return (active + 1) * quota <= capacity; }
};

QuotaPlan PlanQuota(const Interfaces::IConfiguration& configuration,
                    const Interfaces::ISystemResources& systemResources, const std::string& cgroupName) {
    const std::uint32_t quota = configuration.ManagedProcessCpuQuotaPercentage();
    const std::uint64_t capacity = cpuCapacityPercentage * systemResources.GetCgroupCpuCount(cgroupName);
    const std::string quotaKey = ConfigurationKeys::quotaPercentage;
    if (quota == 0) {
        throw Exceptions::XRuntimeError(quotaKey + " must be greater than 0. Got: 0.");
    }
    if (quota > capacity) {
        throw Exceptions::XRuntimeError(quotaKey + " (" + std::to_string(quota) +
                                        ") exceeds available capacity for cgroup '" + cgroupName + "' (" +
                                        std::to_string(capacity) + ").");
    }
    return {.quota = quota, .capacity = capacity};
}

void ReportUnusedCapacity(const Interfaces::ILogger& logger, const QuotaPlan& plan,
                          const std::string& cgroupName) {
    const std::uint64_t maxActive = plan.capacity / plan.quota;
    const std::uint64_t unused = plan.capacity % plan.quota;
    if (unused == 0) {
        return;
    }
    logger.Info("CPU quota capacity leaves unused capacity for cgroup '" + cgroupName +
                "'. Total capacity: " + std::to_string(plan.capacity) + "%, quota: " +
                std::to_string(plan.quota) + "%, max active managed processes: " + std::to_string(maxActive) +
                ", unused capacity: " + std::to_string(unused) + "%. Consider fine-tuning " +
                ConfigurationKeys::quotaPercentage + " if this is unexpected.");
}

} // namespace

CoreManager::CoreManager(std::shared_ptr<Interfaces::IConfiguration> configurationService,
                         std::shared_ptr<Interfaces::IFileSystem> fileSystemService,
                         std::shared_ptr<Interfaces::IProcessManager> processManagerService,
                         std::shared_ptr<Interfaces::ISystemResources> systemResourcesService,
                         std::shared_ptr<Interfaces::ILogger> loggerService)
    : configuration(std::move(configurationService)),
      fileSystem(std::move(fileSystemService)),
      processManager(std::move(processManagerService)),
      systemResources(std::move(systemResourcesService)),
      logger(std::move(loggerService)) {
    Exceptions::RequireNotNull(configuration, "configuration");
    Exceptions::RequireNotNull(fileSystem, "fileSystem");
    Exceptions::RequireNotNull(processManager, "processManager");
    Exceptions::RequireNotNull(systemResources, "systemResources");
    Exceptions::RequireNotNull(logger, "logger");
}

int CoreManager::SelectCoreForProcess(const std::string& processName, Interfaces::Deadline deadline) const {
    const std::string basename = GetBasename(processName);
    const std::vector<std::uint32_t> cores = CandidateCores(processName, basename);
    const CoreLocks locks(*fileSystem, cores, deadline);
    const std::optional<std::uint32_t> core = configuration->ShareCore()
                                                  ? LeastLoadedCore(basename, cores)
                                                  : AwaitFreeCore(basename, cores, deadline);
    if (!core) {
        logger->Error("Unable to select a core for: " + processName);
        return -1;
    }
    RegisterCallingProcess(basename, *core);
    return static_cast<int>(*core);
}

std::vector<std::uint32_t> CoreManager::CandidateCores(const std::string& processName,
                                                       const std::string& basename) const {
    std::vector<std::uint32_t> assigned = configuration->CoreAssignmentSchema(basename);
    if (assigned.empty()) {
        logger->Error("No specific cores were assigned to " + basename +
                      " in the configuration file. Using all available cores.");
        return systemResources->GetAvailableCores();
    }
    std::vector<std::uint32_t> available = systemResources->GetAvailableCores();
    const auto invalid = std::ranges::find_if(
        assigned, [&available](std::uint32_t core) { return !Contains(available, core); });
    if (invalid == assigned.end()) {
        return assigned;
    }
    logger->Error("CoreAssignmentSchema contains invalid core ID: " + std::to_string(*invalid));
    logger->Info("Ignoring CoreAssignmentSchema for process: " + processName +
                 " and using all available cores.");
    return available;
}

std::optional<std::uint32_t> CoreManager::LeastLoadedCore(const std::string& basename,
                                                          const std::vector<std::uint32_t>& cores) const {
    const ManagedProcessesByCore processesByCore =
        ScanCoreManagedProcesses(*fileSystem, *processManager, cores);
    std::optional<std::uint32_t> leastLoaded;
    std::uint64_t leastCount = 0;
    for (const std::uint32_t core : cores) {
        const std::uint64_t count =
            CountMatchingManagedProcesses(basename, core, processesByCore, *configuration);
        if (!leastLoaded || count < leastCount) {
            leastLoaded = core;
            leastCount = count;
        }
    }
    return leastLoaded;
}

std::optional<std::uint32_t> CoreManager::AwaitFreeCore(const std::string& basename,
                                                        const std::vector<std::uint32_t>& cores,
                                                        Interfaces::Deadline deadline) const {
    while (std::chrono::steady_clock::now() < deadline) {
        const ManagedProcessesByCore processesByCore =
            ScanCoreManagedProcesses(*fileSystem, *processManager, cores);
        const auto free = std::ranges::find_if(cores, [&](std::uint32_t core) {
            return CountMatchingManagedProcesses(basename, core, processesByCore, *configuration) == 0;
        });
        if (free != cores.end()) {
            return *free;
        }
        std::this_thread::sleep_for(roomPollPeriod);
    }
    return std::nullopt;
}

void CoreManager::RegisterCallingProcess(const std::string& basename, std::uint32_t core) const {
    const int pid = processManager->GetCurrentPid();
    const ManagedProcessInfo process{
        .pid = pid, .name = basename, .startTime = processManager->GetProcessStartTime(pid)};
    fileSystem->AppendLines(CoreFilePath(core), {ToLine(process)});
}

void CoreManager::AssignQuotaCgroupForProcess(const std::string& processName, int pid,
                                              std::uint64_t startTime, const std::string& cgroupName,
                                              Interfaces::Deadline deadline) const {
    const QuotaPlan plan = PlanQuota(*configuration, *systemResources, cgroupName);
    ReportUnusedCapacity(*logger, plan, cgroupName);
    const std::string basename = GetBasename(processName);
    const ScopedFileLock lock(*fileSystem, allocationRegistry, deadline);
    while (std::chrono::steady_clock::now() < deadline) {
        ManagedProcesses live = ScanManagedProcesses(*fileSystem, *processManager, allocationRegistry);
        RemoveOrphanedQuotaCgroups(*processManager, cgroupName, live);
        if (plan.HasRoomBeside(live.size())) {
            const std::string child = QuotaCgroupName(pid, startTime);
            processManager->AddCgroupForManagedProcess(pid, cgroupName, child, plan.quota);
            live.push_back({pid, basename, startTime});
            fileSystem->WriteLines(allocationRegistry, ToLines(live));
            logger->Info("PID: " + std::to_string(pid) + " assigned to quota cgroup: " + child +
                         " with quota: " + std::to_string(plan.quota) + "%");
            return;
        }
        fileSystem->WriteLines(allocationRegistry, ToLines(live));
        std::this_thread::sleep_for(roomPollPeriod);
    }
    throw Exceptions::XRuntimeError("Unable to allocate CPU quota for: " + processName);
}

void CoreManager::SetAffinity(std::uint32_t core) const {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(core, &cpus); // leaves the set empty for a core beyond its size, and the kernel refuses that
    if (::sched_setaffinity(0, sizeof cpus, &cpus) == -1) {
        throw Exceptions::XRuntimeError("Failed to set CPU affinity on core: " + std::to_string(core));
    }
}
