// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/IConfiguration.hpp"
#include "interfaces/IFileSystem.hpp"
#include "interfaces/IProcessManager.hpp"
#include "interfaces/ISystemResources.hpp"

#include <memory>
#include <optional>
#include <string>
#include <vector>

/// What commands look at the host through: the launcher's own services, so that both see the same.
struct Services {
    std::shared_ptr<Interfaces::IFileSystem> fileSystem;
    std::shared_ptr<Interfaces::ISystemResources> systemResources;
    std::shared_ptr<Interfaces::IProcessManager> processManager;
};

/// The services of this host.
Services MakeServices();

/// The same on another file system.
Services MakeServices(const std::shared_ptr<Interfaces::IFileSystem>& fileSystem);

/// The configuration as a launcher that starts now reads it.
struct ConfigurationReading {
    std::shared_ptr<Interfaces::IConfiguration> configuration; ///< None when no launcher starts.
    std::string failure;                                       ///< Why none starts.
    std::vector<std::string> complaints; ///< What a launcher would log meanwhile, each ended by a period.
    bool isDirectory{};                ///< Whether a directory is in its place, which reads as an empty file.
    std::vector<std::string> programs; ///< The names of programs in it, sorted.
};

/// What the configuration asks for.
enum class Mode { core, quota };

/// "core" or "quota".
std::string NameOf(Mode mode);

/// The mode that it configures; none when no launcher starts.
std::optional<Mode> ModeOf(const ConfigurationReading& reading);

/// Reads the configuration file with the launcher's own parser. Never throws for what the file is or says,
/// and never waits, which a launcher does for ever when the file is a pipe.
ConfigurationReading ReadConfiguration(const Services& services);
