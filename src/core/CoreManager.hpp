// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/IConfiguration.hpp"
#include "interfaces/ICoreManager.hpp"
#include "interfaces/IFileSystem.hpp"
#include "interfaces/ILogger.hpp"
#include "interfaces/IProcessManager.hpp"
#include "interfaces/ISystemResources.hpp"

#include <memory>
#include <optional>
#include <vector>

/// Placement through registry files that all launchers of the host share. All state is in those files.
class CoreManager : public Interfaces::ICoreManager {
public:
    /// Throws Exceptions::XNullArgument for a missing service.
    CoreManager(std::shared_ptr<Interfaces::IConfiguration> configurationService,
                std::shared_ptr<Interfaces::IFileSystem> fileSystemService,
                std::shared_ptr<Interfaces::IProcessManager> processManagerService,
                std::shared_ptr<Interfaces::ISystemResources> systemResourcesService,
                std::shared_ptr<Interfaces::ILogger> loggerService);

    int SelectCoreForProcess(const std::string& processName, Interfaces::Deadline deadline) const override;
    void AssignQuotaCgroupForProcess(const std::string& processName, int pid, std::uint64_t startTime,
                                     const std::string& cgroupName,
                                     Interfaces::Deadline deadline) const override;
    void SetAffinity(std::uint32_t core) const override;

private:
    std::vector<std::uint32_t> CandidateCores(const std::string& processName,
                                              const std::string& basename) const;
    std::optional<std::uint32_t> LeastLoadedCore(const std::string& basename,
                                                 const std::vector<std::uint32_t>& cores) const;
    std::optional<std::uint32_t> AwaitFreeCore(const std::string& basename,
                                               const std::vector<std::uint32_t>& cores,
                                               Interfaces::Deadline deadline) const;
    void RegisterCallingProcess(const std::string& basename, std::uint32_t core) const;

    std::shared_ptr<Interfaces::IConfiguration> configuration;
    std::shared_ptr<Interfaces::IFileSystem> fileSystem;
    std::shared_ptr<Interfaces::IProcessManager> processManager;
    std::shared_ptr<Interfaces::ISystemResources> systemResources;
    std::shared_ptr<Interfaces::ILogger> logger;
};
