// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/IConfiguration.hpp"
#include "interfaces/IFileSystem.hpp"
#include "interfaces/ILogger.hpp"

#include <memory>
#include <unordered_set>

/// The configuration file of the host's agent, read once. Lines of other programs are skipped without
/// comment.
class Configuration : public Interfaces::IConfiguration {
public:
    /// Reads the file; what is wrong with it is logged and replaced by defaults, except a bad quota, which
    /// throws Exceptions::XRuntimeError: guessing one would throttle every worker of the host. Throws
    /// Exceptions::XNullArgument for a missing service; errors of reading the file pass through.
    Configuration(std::shared_ptr<Interfaces::IFileSystem> fileSystemService,
                  std::shared_ptr<Interfaces::ILogger> loggerService);

    bool ShareCore() const override;
    std::uint32_t ManagedProcessCpuQuotaPercentage() const override;
    std::vector<std::uint32_t> CoreAssignmentSchema(const std::string& processName) const override;
    std::chrono::seconds ProcessExecutionTimeout() const override;
    std::chrono::seconds ProcessShutdownTimeout() const override;
    const std::unordered_map<std::string, std::vector<std::string>>& ApplicationGroups() const override;

private:
    void LoadLine(const std::string& line, std::unordered_set<std::string>& seenKeys);
    void SetValue(const std::string& key, const std::string& value);

    std::shared_ptr<Interfaces::IFileSystem> fileSystem;
    std::shared_ptr<Interfaces::ILogger> logger;

    // The defaults. Each key is set once at most, so a bad value of it leaves its default.
    bool shareCore = false;
    std::uint32_t managedProcessCpuQuotaPercentage = 0; // none
    std::unordered_map<std::string, std::vector<std::uint32_t>> coreDistribution;
    std::chrono::seconds processExecutionTimeout{900};
    std::chrono::seconds processShutdownTimeout{5};
    std::unordered_map<std::string, std::vector<std::string>> applicationGroups;
};
