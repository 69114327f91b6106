// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Services.hpp"

#include "configuration/Configuration.hpp"
#include "configuration/ConfigurationKeys.hpp"
#include "ctl/read/Paths.hpp"
#include "filesystem/FileSystem.hpp"
#include "filesystem/Split.hpp"
#include "interfaces/ILogger.hpp"
#include "system/ProcessManager.hpp"
#include "system/SystemResources.hpp"

#include <filesystem>
#include <set>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

std::string Sentence(const std::string& text) {
    return text.ends_with('.') ? text : text + ".";
}

/// Keeps the complaints about the configuration, which a launcher sends to syslog.
class ComplaintLogger : public Interfaces::ILogger {
public:
    explicit ComplaintLogger(std::vector<std::string>& list) : complaints(list) {}
    ComplaintLogger(const ComplaintLogger&) = delete;
    ComplaintLogger& operator=(const ComplaintLogger&) = delete;
    ~ComplaintLogger() override = default;
    void Info(const std::string& /*message*/) const override {}
    void Warning(const std::string& message) const override { complaints.push_back(Sentence(message)); }
    void Error(const std::string& message) const override { complaints.push_back(Sentence(message)); }

private:
    std::vector<std::string>& complaints;
};

/// The configuration tells the cores of a name, but not all names that have some. So whatever stands where a
/// name may stand is asked about: whether it is one is left to the launcher's own parser.
std::vector<std::string> PossibleNames(const std::string& line) {
    std::vector<std::string> names;
    for (const std::string& entry : Split(line.substr(line.find('=') + 1), ';')) {
        names.push_back(entry.substr(0, entry.find(':')));
    }
    if (!names.empty() && names.front().starts_with('"')) {
        names.front().erase(0, 1);
    }
    return names;
}

/// The members of all groups, and the names with cores that are no group.
std::vector<std::string> ProgramsIn(const Interfaces::IFileSystem& fileSystem,
                                    const Interfaces::IConfiguration& configuration) {
    std::set<std::string> programs;
    for (const auto& [group, members] : configuration.ApplicationGroups()) {
        programs.insert(members.begin(), members.end());
    }
    if (!fileSystem.FileExists(Paths::configuration)) {
        return {};
    }
    for (const std::string& line : fileSystem.ReadLines(Paths::configuration)) {
        const bool givesCores = line.starts_with(std::string(ConfigurationKeys::coreDistribution) + "=");
        for (const std::string& name : givesCores ? PossibleNames(line) : std::vector<std::string>{}) {
            if (!configuration.ApplicationGroups().contains(name) &&
                !configuration.CoreAssignmentSchema(name).empty()) {
                programs.insert(name);
            }
        }
    }
    return {programs.begin(), programs.end()};
}

/// Whether the configuration is a link to /dev/null, which is to say that there is none: it reads as an empty
/// file.
bool IsNullDevice() {
    constexpr unsigned major = 1; // see null(4)
    constexpr unsigned minor = 3;
    struct stat file = {};
    return ::stat(Paths::configuration, &file) == 0 && S_ISCHR(file.st_mode) &&
           file.st_rdev == makedev(major, minor);
}

} // namespace

Services MakeServices() {
    return MakeServices(std::make_shared<FileSystem>());
}

Services MakeServices(const std::shared_ptr<Interfaces::IFileSystem>& fileSystem) {
    const auto systemResources = std::make_shared<SystemResources>(fileSystem);
    return {.fileSystem = fileSystem,
            .systemResources = systemResources,
            .processManager = std::make_shared<ProcessManager>(fileSystem, systemResources)};
}

std::string NameOf(Mode mode) {
    return mode == Mode::quota ? "quota" : "core";
}

std::optional<Mode> ModeOf(const ConfigurationReading& reading) {
    if (!reading.configuration) {
        return std::nullopt;
    }
    return reading.configuration->ManagedProcessCpuQuotaPercentage() == 0 ? Mode::core : Mode::quota;
}

ConfigurationReading ReadConfiguration(const Services& services) {
    ConfigurationReading reading;
    std::error_code unknown;
    const std::filesystem::file_status status = std::filesystem::status(Paths::configuration, unknown);
    reading.isDirectory = std::filesystem::is_directory(status);
    // Opening a pipe waits for a writer, see fifo(7), and a device could do anything.
    if (std::filesystem::is_other(status) && !IsNullDevice()) {
        reading.failure = "it is no file, and launchers may wait for ever to read it.";
        return reading;
    }
    try {
        reading.configuration = std::make_shared<Configuration>(
            services.fileSystem, std::make_shared<ComplaintLogger>(reading.complaints));
        reading.programs = ProgramsIn(*services.fileSystem, *reading.configuration);
    } catch (const std::exception& error) {
        reading.failure = Sentence(error.what());
    }
    return reading;
}
