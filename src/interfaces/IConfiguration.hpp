// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace Interfaces {

/// What the operator configured, or the defaults. Never changes, and no operation fails.
class IConfiguration {
public:
    virtual ~IConfiguration() = default;

    /// Whether processes of one application may share a core.
    virtual bool ShareCore() const = 0;

    /// The quota of each process in percent of one CPU; 0 when none is configured.
    virtual std::uint32_t ManagedProcessCpuQuotaPercentage() const = 0;

    /// The cores assigned to `processName` or to an application group that lists it, ascending and each once,
    /// so that all launchers lock overlapping cores in one order. Empty when none is assigned; not compared
    /// with the cores of the machine.
    virtual std::vector<std::uint32_t> CoreAssignmentSchema(const std::string& processName) const = 0;

    /// How long a command may run, its placement included.
    virtual std::chrono::seconds ProcessExecutionTimeout() const = 0;

    /// How long a command that was asked to stop may take.
    virtual std::chrono::seconds ProcessShutdownTimeout() const = 0;

    /// Application names by group, valid as long as the configuration lives.
    virtual const std::unordered_map<std::string, std::vector<std::string>>& ApplicationGroups() const = 0;
};

} // namespace Interfaces
