// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/IFileSystem.hpp"
#include "interfaces/ISystemResources.hpp"

#include <memory>

/// The one place that knows cgroup paths and how the version is told apart. Caches nothing: a host may be
/// prepared while launchers run.
class SystemResources : public Interfaces::ISystemResources {
public:
    /// Throws Exceptions::XNullArgument for a missing service.
    explicit SystemResources(std::shared_ptr<Interfaces::IFileSystem> fileSystemService);

    std::vector<std::uint32_t> GetAvailableCores() const override;
    bool IsCgroupV2() const override;
    std::filesystem::path GetManagedCpusetCgroupPath(const std::string& cgroupName) const override;
    std::filesystem::path GetManagedCpuCgroupPath(const std::string& cgroupName) const override;
    std::filesystem::path GetCgroupProcsPath(const std::string& cgroupName) const override;
    std::filesystem::path GetCpusetCpusPath(const std::string& cgroupName) const override;
    std::filesystem::path GetCpuCgroupProcsPath(const std::string& cgroupName) const override;
    std::filesystem::path GetCpusetMemsPath(const std::string& cgroupName) const override;
    std::filesystem::path GetCpuMaxPath(const std::string& cgroupName) const override;
    std::filesystem::path GetCpuCfsPeriodPath(const std::string& cgroupName) const override;
    std::filesystem::path GetCpuCfsQuotaPath(const std::string& cgroupName) const override;
    std::uint32_t GetCgroupCpuCount(const std::string& cgroupName) const override;

private:
    std::filesystem::path CpuHierarchyRoot() const;

    std::shared_ptr<Interfaces::IFileSystem> fileSystem;
};
