// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Interfaces {

/// Where the cgroup files of this host are, see cgroups(7), and how many CPUs there are. Answers are found
/// out afresh at every call. Paths are not checked for existence; an empty cgroup name throws
/// Exceptions::XInvalidArgument; errors of looking for files pass through.
class ISystemResources {
public:
    virtual ~ISystemResources() = default;

    /// The ids of all cores, ascending from 0.
    virtual std::vector<std::uint32_t> GetAvailableCores() const = 0;

    /// Whether /sys/fs/cgroup itself is the unified hierarchy (cgroup v2). A hybrid host, which has it
    /// elsewhere, counts as v1.
    virtual bool IsCgroupV2() const = 0;

    /// The cgroup's directory in the cpuset hierarchy; on v2 in the unified one.
    virtual std::filesystem::path GetManagedCpusetCgroupPath(const std::string& cgroupName) const = 0;
    /// The cgroup's directory in the cpu hierarchy; on v2 in the unified one.
    virtual std::filesystem::path GetManagedCpuCgroupPath(const std::string& cgroupName) const = 0;
    /// Members of the cpuset directory; a pid written here moves the process.
    virtual std::filesystem::path GetCgroupProcsPath(const std::string& cgroupName) const = 0;
    /// CPU list, see cpuset(7).
    virtual std::filesystem::path GetCpusetCpusPath(const std::string& cgroupName) const = 0;
    /// Members of the cpu directory; on v2 the same file as GetCgroupProcsPath.
    virtual std::filesystem::path GetCpuCgroupProcsPath(const std::string& cgroupName) const = 0;
    /// Memory node list, see cpuset(7).
    virtual std::filesystem::path GetCpusetMemsPath(const std::string& cgroupName) const = 0;
    /// Quota and period in microseconds; v2 only.
    virtual std::filesystem::path GetCpuMaxPath(const std::string& cgroupName) const = 0;
    /// Period in microseconds; v1 only.
    virtual std::filesystem::path GetCpuCfsPeriodPath(const std::string& cgroupName) const = 0;
    /// Quota in microseconds; v1 only.
    virtual std::filesystem::path GetCpuCfsQuotaPath(const std::string& cgroupName) const = 0;

    /// How many CPUs the cgroup's CPU list names. Throws Exceptions::XRuntimeError when the list cannot be
    /// read, is malformed or names none.
    virtual std::uint32_t GetCgroupCpuCount(const std::string& cgroupName) const = 0;
};

} // namespace Interfaces
