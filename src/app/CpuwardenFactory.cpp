// SPDX-License-Identifier: Apache-2.0
#include "app/CpuwardenFactory.hpp"

#include "app/Cpuwarden.hpp"
#include "configuration/Configuration.hpp"
#include "core/CoreManager.hpp"
#include "filesystem/FileSystem.hpp"
#include "logging/Logger.hpp"
#include "system/ProcessManager.hpp"
#include "system/SystemResources.hpp"

std::unique_ptr<Interfaces::ICpuwarden> CpuwardenFactory::Create() {
    const auto logger = std::make_shared<Logger>("");
    const auto fileSystem = std::make_shared<FileSystem>();
    const auto systemResources = std::make_shared<SystemResources>(fileSystem);
    const auto configuration = std::make_shared<Configuration>(fileSystem, logger);
    const auto processManager = std::make_shared<ProcessManager>(fileSystem, systemResources);
    auto coreManager =
        std::make_unique<CoreManager>(configuration, fileSystem, processManager, systemResources, logger);
    return std::make_unique<Cpuwarden>(configuration, std::move(coreManager), fileSystem, logger,
                                       processManager);
}
