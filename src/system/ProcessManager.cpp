// SPDX-License-Identifier: Apache-2.0
#include "system/ProcessManager.hpp"

#include "exceptions/Exceptions.hpp"

#include <algorithm>
#include <csignal>
#include <set>
#include <thread>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::seconds childPollPeriod{1};
constexpr int signalExitBase = 128; // as a shell reports it
constexpr int unknownExitCode = 1;

// Fields of /proc/pid/stat, counted from 1 as in proc(5).
constexpr std::size_t commandNameField = 2;
constexpr std::size_t startTimeField = 22;

constexpr std::uint64_t cfsPeriod = 100'000; // microseconds
constexpr std::uint64_t wholeCpuPercentage = 100;

void ValidateProcessId(int pid) {
    if (pid <= 0) {
        throw Exceptions::XInvalidArgument("pid", "must be greater than 0");
    }
}

void ValidateNotEmpty(const std::string& value, const char* argumentName) {
    if (value.empty()) {
        throw Exceptions::XInvalidArgument(argumentName, "cannot be empty");
    }
}

fs::path ProcessFile(int pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

int ExitCode(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return WIFSIGNALED(status) ? signalExitBase + WTERMSIG(status) : unknownExitCode;
}

/// The start time among the pieces of a stat file cut at blanks; null when there are too few. The command
/// name may hold blanks itself, so fields are counted from the piece that closes its parenthesis: none after
/// it ends in one.
const std::string* FindStartTime(const std::vector<std::string>& pieces) {
    if (pieces.size() < startTimeField) {
        return nullptr;
    }
    const auto closing = std::ranges::find_if(pieces.rbegin(), pieces.rend(),
                                              [](const std::string& piece) { return piece.ends_with(')'); });
    const std::size_t fieldsUpToName =
        closing == pieces.rend() ? commandNameField : static_cast<std::size_t>(pieces.rend() - closing);
    const std::size_t index = fieldsUpToName + (startTimeField - commandNameField) - 1;
    return index < pieces.size() ? &pieces[index] : nullptr;
}

std::uint64_t ParseStartTime(const std::string& piece) {
    try {
        return std::stoull(piece);
    } catch (const std::invalid_argument&) {
        throw Exceptions::XInvalidArgument(
            "startTimeStr",
            "No conversion of start time could be performed. Invalid format: '" + piece + "'");
    } catch (const std::out_of_range&) {
        throw Exceptions::XSystemError(
            {ERANGE, std::system_category()},
            "Failed to parse start time from process stat file - value out of range: '" + piece + "'");
    }
}

std::string ChildCgroupName(const std::string& parent, const std::string& child) {
    return (fs::path(parent) / fs::path(child).relative_path()).string();
}

std::string FirstLine(const std::vector<std::string>& lines) {
    return lines.empty() ? std::string() : lines.front();
}

void MoveProcessToCgroupFile(const Interfaces::IFileSystem& fileSystem,
                             const Interfaces::ISystemResources& systemResources,
                             const std::string& cgroupName, int pid) {
    fileSystem.WriteLines(systemResources.GetCgroupProcsPath(cgroupName), {std::to_string(pid)});
}

} // namespace

ProcessManager::ProcessManager(std::shared_ptr<Interfaces::IFileSystem> fileSystemService,
                               std::shared_ptr<Interfaces::ISystemResources> systemResourcesService)
    : fileSystem(std::move(fileSystemService)), systemResources(std::move(systemResourcesService)) {
    Exceptions::RequireNotNull(fileSystem, "fileSystem");
    Exceptions::RequireNotNull(systemResources, "systemResources");
}

bool ProcessManager::IsProcessAlive(int pid) const {
    ValidateProcessId(pid);
    return ::kill(pid, 0) == 0;
}

fs::path ProcessManager::GetProcessExecutablePath(int pid) const {
    RequireAlive(pid);
    return fileSystem->ReadSymlink(ProcessFile(pid, "exe"));
}

std::uint64_t ProcessManager::GetProcessStartTime(int pid) const {
    RequireAlive(pid);
    const std::vector<std::string> pieces = fileSystem->ReadLines(ProcessFile(pid, "stat"), ' ');
    const std::string* const startTime = FindStartTime(pieces);
    if (startTime == nullptr) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(),
                                       "Failed to parse process stat file - insufficient fields"};
    }
    return ParseStartTime(*startTime);
}

void ProcessManager::RequireAlive(int pid) const {
    if (!IsProcessAlive(pid)) {
        throw Exceptions::XInvalidArgument("pid",
                                           "process with PID: " + std::to_string(pid) + " is not alive");
    }
}

std::pair<bool, int> ProcessManager::ProcessWait(int pid, Interfaces::Deadline deadline) const {
    ValidateProcessId(pid);
    // A poll, since waitpid(2) knows no deadline and interrupting it would take a signal handler.
    while (std::chrono::steady_clock::now() < deadline) {
        int status = 0;
        const int reaped = ::waitpid(pid, &status, WNOHANG);
        if (reaped == pid) {
            return {true, ExitCode(status)};
        }
        if (reaped == -1 && errno != EINTR) {
            throw Exceptions::XSystemError{Exceptions::LastSystemError(), "waitpid failed"};
        }
        std::this_thread::sleep_for(childPollPeriod);
    }
    return {false, 0};
}

bool ProcessManager::ProcessShutdown(int pid, Interfaces::Deadline deadline) const {
    if (!IsProcessAlive(pid)) {
        return true;
    }
    if (::kill(pid, SIGTERM) == -1) {
        return errno == ESRCH;
    }
    return ProcessWait(pid, deadline).first;
}

bool ProcessManager::ProcessKill(int pid) const {
    // kill(2) takes 0 and below for whole process groups.
    return pid > 0 && ::kill(pid, SIGKILL) == 0;
}

int ProcessManager::Fork() const {
    const int pid = ::fork();
    if (pid == -1) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(), "fork failed"};
    }
    return pid;
}

void ProcessManager::PreventOrphanProcess() const {
    if (::prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGTERM)) == -1) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(), "prctl failed"};
    }
}

void ProcessManager::MoveProcessToCgroup(int pid, const std::string& cgroupName) const {
    ValidateProcessId(pid);
    ValidateNotEmpty(cgroupName, "cgroupName");
    const fs::path procs = systemResources->GetCgroupProcsPath(cgroupName);
    if (!fileSystem->FileExists(procs)) {
        throw Exceptions::XRuntimeError("cgroup '" + procs.string() + "' does not exist");
    }
    Exceptions::WithReason("Unable to move process with PID: " + std::to_string(pid) + " to cgroup '" +
                               cgroupName + "'",
                           [&] { fileSystem->AppendLines(procs, {std::to_string(pid)}); });
}

void ProcessManager::AddCgroupForManagedProcess(int pid, const std::string& parentCgroupName,
                                                const std::string& childCgroupName,
                                                std::uint32_t quotaPercentage) const {
    ValidateProcessId(pid);
    if (quotaPercentage == 0) {
        throw Exceptions::XInvalidArgument("quotaPercentage", "must be greater than 0");
    }
    ValidateNotEmpty(parentCgroupName, "parentCgroupName");
    ValidateNotEmpty(childCgroupName, "childCgroupName");
    const std::string quota = std::to_string(quotaPercentage * cfsPeriod / wholeCpuPercentage);
    const std::string name = ChildCgroupName(parentCgroupName, childCgroupName);
    Exceptions::WithReason("Unable to configure subcgroup '" + childCgroupName +
                               "' for process with PID: " + std::to_string(pid),
                           [&] {
                               fileSystem->CreateDirectories(
                                   systemResources->GetManagedCpusetCgroupPath(name));
                               CopyCpuset(parentCgroupName, name);
                               if (systemResources->IsCgroupV2()) {
                                   FillUnifiedCgroup(pid, name, quota);
                               } else {
                                   FillSplitCgroups(pid, name, quota);
                               }
                           });
}

/// A v1 cpuset takes no process before it has memory nodes and CPUs, see cpuset(7).
void ProcessManager::CopyCpuset(const std::string& parent, const std::string& child) const {
    const fs::path parentMems = systemResources->GetCpusetMemsPath(parent);
    if (fileSystem->FileExists(parentMems)) {
        const std::string mems = FirstLine(fileSystem->ReadLines(parentMems));
        fileSystem->WriteLines(systemResources->GetCpusetMemsPath(child), {mems});
    }
    const std::string cpus = FirstLine(fileSystem->ReadLines(systemResources->GetCpusetCpusPath(parent)));
    fileSystem->WriteLines(systemResources->GetCpusetCpusPath(child), {cpus});
}

void ProcessManager::FillUnifiedCgroup(int pid, const std::string& name, const std::string& quota) const {
    fileSystem->WriteLines(systemResources->GetCpuMaxPath(name), {quota + " " + std::to_string(cfsPeriod)});
    MoveProcessToCgroupFile(*fileSystem, *systemResources, name, pid);
}

void ProcessManager::FillSplitCgroups(int pid, const std::string& name, const std::string& quota) const {
    fileSystem->CreateDirectories(systemResources->GetManagedCpuCgroupPath(name));
    fileSystem->WriteLines(systemResources->GetCpuCfsPeriodPath(name), {std::to_string(cfsPeriod)});
    fileSystem->WriteLines(systemResources->GetCpuCfsQuotaPath(name), {quota});
    MoveProcessToCgroupFile(*fileSystem, *systemResources, name, pid);
    fileSystem->WriteLines(systemResources->GetCpuCgroupProcsPath(name), {std::to_string(pid)});
}

void ProcessManager::RemoveCgroupForManagedProcess(const std::string& parentCgroupName,
                                                   const std::string& childCgroupName) const {
    ValidateNotEmpty(parentCgroupName, "parentCgroupName");
    ValidateNotEmpty(childCgroupName, "childCgroupName");
    const std::string name = ChildCgroupName(parentCgroupName, childCgroupName);
    fileSystem->TryRemoveEmptyDirectory(systemResources->GetManagedCpusetCgroupPath(name));
    if (!systemResources->IsCgroupV2()) {
        fileSystem->TryRemoveEmptyDirectory(systemResources->GetManagedCpuCgroupPath(name));
    }
}

std::vector<std::string> ProcessManager::ListManagedChildCgroups(const std::string& parentCgroupName) const {
    ValidateNotEmpty(parentCgroupName, "parentCgroupName");
    std::set<std::string> names;
    const auto addSubdirectories = [&](const fs::path& directory) {
        const std::vector<std::string> found = fileSystem->ListSubdirectories(directory);
        names.insert(found.begin(), found.end());
    };
    addSubdirectories(systemResources->GetManagedCpusetCgroupPath(parentCgroupName));
    if (!systemResources->IsCgroupV2()) {
        addSubdirectories(systemResources->GetManagedCpuCgroupPath(parentCgroupName));
    }
    return {names.begin(), names.end()};
}

int ProcessManager::GetCurrentPid() const {
    return ::getpid();
}

void ProcessManager::Execute(const std::string& command, const std::vector<std::string>& arguments) const {
    std::vector<std::string> words{command};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    ::execvp(argv.front(), argv.data());
    throw Exceptions::XSystemError{Exceptions::LastSystemError(), "execvp failed"};
}
