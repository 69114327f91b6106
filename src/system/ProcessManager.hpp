// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/IFileSystem.hpp"
#include "interfaces/IProcessManager.hpp"
#include "interfaces/ISystemResources.hpp"

#include <memory>

/// The one gateway to Linux process control and to changes of the cgroup tree. Remembers no process.
class ProcessManager : public Interfaces::IProcessManager {
public:
    /// Throws Exceptions::XNullArgument for a missing service.
    ProcessManager(std::shared_ptr<Interfaces::IFileSystem> fileSystemService,
                   std::shared_ptr<Interfaces::ISystemResources> systemResourcesService);

    bool IsProcessAlive(int pid) const override;
    std::filesystem::path GetProcessExecutablePath(int pid) const override;
    std::uint64_t GetProcessStartTime(int pid) const override;
    std::pair<bool, int> ProcessWait(int pid, Interfaces::Deadline deadline) const override;
    bool ProcessShutdown(int pid, Interfaces::Deadline deadline) const override;
    bool ProcessKill(int pid) const override;
    int Fork() const override;
    void PreventOrphanProcess() const override;
    void MoveProcessToCgroup(int pid, const std::string& cgroupName) const override;
    void AddCgroupForManagedProcess(int pid, const std::string& parentCgroupName,
                                    const std::string& childCgroupName,
                                    std::uint32_t quotaPercentage) const override;
    void RemoveCgroupForManagedProcess(const std::string& parentCgroupName,
                                       const std::string& childCgroupName) const override;
    std::vector<std::string> ListManagedChildCgroups(const std::string& parentCgroupName) const override;
    int GetCurrentPid() const override;
    void Execute(const std::string& command, const std::vector<std::string>& arguments) const override;

private:
    void RequireAlive(int pid) const;
    void CopyCpuset(const std::string& parent, const std::string& child) const;
    void FillUnifiedCgroup(int pid, const std::string& name, const std::string& quota) const;
    void FillSplitCgroups(int pid, const std::string& name, const std::string& quota) const;

    std::shared_ptr<Interfaces::IFileSystem> fileSystem;
    std::shared_ptr<Interfaces::ISystemResources> systemResources;
};
