// SPDX-License-Identifier: Apache-2.0
// The life of one run: the command is checked, a deadline is fixed, the launcher forks. The child places
// itself, in a quota cgroup of its own or on a core, and becomes the command. The parent looks at it once a
// second until the deadline; then it asks it to stop, waits, and kills it.
//
// Exit statuses:
//     the command's own   it ended in time; 128 + n when signal n ended it
//     124                 it did not, and ended on request or was sent SIGKILL
//     1                   the launcher failed: no such command, no placement in time, a failed system call
//
// Caveats: nothing is cleaned up after the command; its registry line and its quota cgroup are dropped by
// later launches, which find it no longer live. A command that was sent SIGKILL is not waited for. There are
// no signal handlers: a launcher that is killed takes its child along through the parent-death signal alone.
#include "app/Cpuwarden.hpp"

#include "app/Usage.hpp"
#include "exceptions/Exceptions.hpp"

namespace {

constexpr const char* managedCgroup = "cwset";
constexpr int failureStatus = 1;
constexpr int timeoutStatus = 124; // as timeout(1) reports it

} // namespace

Cpuwarden::Cpuwarden(std::shared_ptr<Interfaces::IConfiguration> configurationService,
                     std::unique_ptr<Interfaces::ICoreManager> coreManagerService,
                     std::shared_ptr<Interfaces::IFileSystem> fileSystemService,
                     std::shared_ptr<Interfaces::ILogger> loggerService,
                     std::shared_ptr<Interfaces::IProcessManager> processManagerService)
    : configuration(std::move(configurationService)),
      coreManager(std::move(coreManagerService)),
      fileSystem(std::move(fileSystemService)),
      logger(std::move(loggerService)),
      processManager(std::move(processManagerService)) {
    Exceptions::RequireNotNull(configuration, "configuration");
    Exceptions::RequireNotNull(coreManager, "coreManager");
    Exceptions::RequireNotNull(fileSystem, "fileSystem");
    Exceptions::RequireNotNull(logger, "logger");
    Exceptions::RequireNotNull(processManager, "processManager");
}

int Cpuwarden::RunApplication(int argc, char** argv) {
    if (argc < 2) {
        logger->Error(UsageLine(argc, argv));
        return failureStatus;
    }
    const std::string command = argv[1];
    const std::vector<std::string> arguments(argv + 2, argv + argc);
    try {
        return Launch(command, arguments);
    } catch (const Exceptions::XInvalidArgument& error) {
        logger->Error(error.what());
    } catch (const Exceptions::XRuntimeError& error) {
        logger->Error(error.what());
    } catch (const Exceptions::XSystemError& error) {
        logger->Error(error.what());
    } catch (const std::exception& error) {
        logger->Error(std::string("Unexpected error: ") + error.what());
    }
    return failureStatus;
}

int Cpuwarden::Launch(const std::string& command, const std::vector<std::string>& arguments) const {
    if (!fileSystem->ValidateExecutable(command)) {
        logger->Error("Executable is not a valid file: " + command);
        return failureStatus;
    }
    const std::chrono::seconds timeout = configuration->ProcessExecutionTimeout();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const int pid = processManager->Fork();
    return pid > 0 ? Supervise(command, pid, deadline) : PlaceAndExecute(command, arguments, deadline);
}

int Cpuwarden::Supervise(const std::string& command, int pid, Interfaces::Deadline deadline) const {
    const std::string identity = command + " with PID: " + std::to_string(pid);
    logger->Info(identity + " requesting execution");
    const auto [exited, code] = processManager->ProcessWait(pid, deadline);
    if (!exited) {
        logger->Error("PID: " + std::to_string(pid) + " exceeded timeout, requesting a graceful shutdown...");
        return Stop(pid);
    }
    logger->Info(identity + ", exited. Exit code: " + std::to_string(code));
    return code;
}

int Cpuwarden::Stop(int pid) const {
    const std::chrono::seconds timeout = configuration->ProcessShutdownTimeout();
    if (processManager->ProcessShutdown(pid, std::chrono::steady_clock::now() + timeout)) {
        return timeoutStatus;
    }
    logger->Warning("PID: " + std::to_string(pid) + " did not exit gracefully, sending SIGKILL...");
    if (processManager->ProcessKill(pid)) {
        return timeoutStatus;
    }
    logger->Error("Failed to kill PID: " + std::to_string(pid));
    return failureStatus;
}

int Cpuwarden::PlaceAndExecute(const std::string& command, const std::vector<std::string>& arguments,
                               Interfaces::Deadline deadline) const {
    processManager->PreventOrphanProcess();
    const int pid = processManager->GetCurrentPid();
    if (configuration->ManagedProcessCpuQuotaPercentage() != 0) {
        PlaceInQuotaCgroup(command, pid, deadline);
    } else {
        PlaceOnCore(command, pid, deadline);
    }
    processManager->Execute(command, arguments);
    return 0;
}

void Cpuwarden::PlaceInQuotaCgroup(const std::string& command, int pid, Interfaces::Deadline deadline) const {
    const std::uint64_t startTime = processManager->GetProcessStartTime(pid);
    coreManager->AssignQuotaCgroupForProcess(command, pid, startTime, managedCgroup, deadline);
    logger->Info("Executing: " + command + " with PID: " + std::to_string(pid) +
                 ". Quota: " + std::to_string(configuration->ManagedProcessCpuQuotaPercentage()) + "%");
}

void Cpuwarden::PlaceOnCore(const std::string& command, int pid, Interfaces::Deadline deadline) const {
    processManager->MoveProcessToCgroup(pid, managedCgroup);
    const int core = coreManager->SelectCoreForProcess(command, deadline);
    if (core < 0) {
        throw Exceptions::XRuntimeError("Unable to select a core for the child process with PID: " +
                                        std::to_string(pid));
    }
    logger->Info("Executing: " + command + ", PID: " + std::to_string(pid) +
                 ". Selected core: " + std::to_string(core));
    logger->Info("PID: " + std::to_string(pid) + " running on core: " + std::to_string(core));
    coreManager->SetAffinity(static_cast<std::uint32_t>(core));
}
