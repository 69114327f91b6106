// SPDX-License-Identifier: Apache-2.0
#include "ctl/Services.hpp"

#include "configuration/Configuration.hpp"
#include "ctl/Paths.hpp"
#include "filesystem/FileSystem.hpp"
#include "interfaces/ILogger.hpp"
#include "system/ProcessManager.hpp"
#include "system/SystemResources.hpp"

#include <filesystem>

namespace {

/// Keeps the complaints about the configuration, which a launcher sends to syslog.
class ComplaintLogger : public Interfaces::ILogger {
public:
    explicit ComplaintLogger(std::vector<std::string>& list) : complaints(list) {}
    void Info(const std::string& /*message*/) const override {}
    void Warning(const std::string& message) const override { complaints.push_back(message); }
    void Error(const std::string& message) const override { complaints.push_back(message); }

private:
    std::vector<std::string>& complaints;
};

/// Opening a pipe waits for a writer, see fifo(7), and a device could do anything.
bool IsPipeOrDevice(const std::filesystem::path& path) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    return std::filesystem::is_other(status);
}

} // namespace

Services MakeServices() {
    const auto fileSystem = std::make_shared<FileSystem>();
    const auto systemResources = std::make_shared<SystemResources>(fileSystem);
    return {fileSystem, systemResources, std::make_shared<ProcessManager>(fileSystem, systemResources)};
}

ConfigurationReading ReadConfiguration(const Services& services) {
    ConfigurationReading reading;
    if (IsPipeOrDevice(Paths::configuration)) {
        reading.failure =
            std::string(Paths::configuration) + " is no file, so that launchers may wait for ever";
        return reading;
    }
    try {
        reading.configuration = std::make_shared<Configuration>(
            services.fileSystem, std::make_shared<ComplaintLogger>(reading.complaints));
    } catch (const std::exception& error) {
        reading.failure = error.what();
    }
    return reading;
}
