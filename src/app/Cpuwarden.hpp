// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/IConfiguration.hpp"
#include "interfaces/ICoreManager.hpp"
#include "interfaces/ICpuwarden.hpp"
#include "interfaces/IFileSystem.hpp"
#include "interfaces/ILogger.hpp"
#include "interfaces/IProcessManager.hpp"

#include <memory>

/// The application: one managed run.
class Cpuwarden : public Interfaces::ICpuwarden {
public:
    /// Throws Exceptions::XNullArgument for a missing service.
    Cpuwarden(std::shared_ptr<Interfaces::IConfiguration> configurationService,
              std::unique_ptr<Interfaces::ICoreManager> coreManagerService,
              std::shared_ptr<Interfaces::IFileSystem> fileSystemService,
              std::shared_ptr<Interfaces::ILogger> loggerService,
              std::shared_ptr<Interfaces::IProcessManager> processManagerService);

    int RunApplication(int argc, char** argv) override;

private:
    int Launch(const std::string& command, const std::vector<std::string>& arguments) const;
    int Supervise(const std::string& command, int pid, Interfaces::Deadline deadline) const;
    int Stop(int pid) const;
    int PlaceAndExecute(const std::string& command, const std::vector<std::string>& arguments,
                        Interfaces::Deadline deadline) const;
    void PlaceInQuotaCgroup(const std::string& command, int pid, Interfaces::Deadline deadline) const;
    void PlaceOnCore(const std::string& command, int pid, Interfaces::Deadline deadline) const;

    std::shared_ptr<Interfaces::IConfiguration> configuration;
    std::unique_ptr<Interfaces::ICoreManager> coreManager;
    std::shared_ptr<Interfaces::IFileSystem> fileSystem;
    std::shared_ptr<Interfaces::ILogger> logger;
    std::shared_ptr<Interfaces::IProcessManager> processManager;
};
