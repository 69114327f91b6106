// SPDX-License-Identifier: Apache-2.0
#include "system/SystemResources.hpp"

#include "exceptions/Exceptions.hpp"
#include "filesystem/Split.hpp"

#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr const char* cgroupMountPoint = "/sys/fs/cgroup";
// In each cgroup of the unified hierarchy and in none of another, see cgroups(7).
constexpr const char* v2MarkerFile = "/cgroup.controllers";
constexpr const char* v1CpusetHierarchy = "cpuset";
constexpr const char* v1CpuHierarchy = "cpu";
constexpr const char* v1JointCpuHierarchy = "cpu,cpuacct";

constexpr const char* procsFile = "cgroup.procs";
constexpr const char* cpusetCpusFile = "cpuset.cpus";
constexpr const char* cpusetMemsFile = "cpuset.mems";
constexpr const char* cpuMaxFile = "cpu.max";
constexpr const char* cpuCfsPeriodFile = "cpu.cfs_period_us";
constexpr const char* cpuCfsQuotaFile = "cpu.cfs_quota_us";

void ValidateCgroupName(const std::string& cgroupName) {
    if (cgroupName.empty()) {
        throw Exceptions::XInvalidArgument("cgroupName", "cannot be empty");
    }
}

/// An absolute name would replace the root when joined, so its leading slashes do not count.
fs::path Below(const fs::path& root, const std::string& cgroupName) {
    return root / fs::path(cgroupName).relative_path();
}

/// `number` is the part of `entry` to convert, as strtoul(3) reads it; values are kept to 32 bits.
std::uint32_t ParseCpu(const std::string& number, const std::string& entry) {
    try {
        return static_cast<std::uint32_t>(std::stoul(number));
    } catch (const std::invalid_argument&) {
        throw Exceptions::XRuntimeError("Invalid CPU list entry: " + entry);
    } catch (const std::out_of_range&) {
        throw Exceptions::XRuntimeError("CPU list entry out of range: " + entry);
    }
}

std::uint32_t CountCpusOfEntry(const std::string& entry) {
    const std::size_t dash = entry.find('-');
    if (dash == std::string::npos) {
        ParseCpu(entry, entry);
        return 1;
    }
    const std::uint32_t first = ParseCpu(entry.substr(0, dash), entry);
    const std::uint32_t last = ParseCpu(entry.substr(dash + 1), entry);
    if (last < first) {
        throw Exceptions::XRuntimeError("Invalid CPU range: " + entry);
    }
    return last - first + 1;
}

/// The number of CPUs in a list such as "0-3,5", see cpuset(7), List format. Entries are not merged.
std::uint32_t CountCpus(const std::string& list) {
    std::uint32_t count = 0;
    for (const std::string& entry : Split(list, ',')) {
        if (!entry.empty()) {
            count += CountCpusOfEntry(entry);
        }
    }
    return count;
}

} // namespace

SystemResources::SystemResources(std::shared_ptr<Interfaces::IFileSystem> fileSystemService)
    : fileSystem(std::move(fileSystemService)) {
    Exceptions::RequireNotNull(fileSystem, "fileSystem");
}

std::vector<std::uint32_t> SystemResources::GetAvailableCores() const {
    std::vector<std::uint32_t> cores;
    // Asked again for each core: a CPU that goes offline meanwhile ends the list early.
    for (std::uint32_t core = 0; core < std::thread::hardware_concurrency(); ++core) {
        // NOLINTNEXTLINE(performance-inefficient-vector-operation): to ask for room first costs a system call
        cores.push_back(core);
    }
    return cores;
}

bool SystemResources::IsCgroupV2() const {
    return fileSystem->FileExists(std::string(cgroupMountPoint) + v2MarkerFile);
}

fs::path SystemResources::GetManagedCpusetCgroupPath(const std::string& cgroupName) const {
    ValidateCgroupName(cgroupName);
    const fs::path mountPoint(cgroupMountPoint);
    return Below(IsCgroupV2() ? mountPoint : mountPoint / v1CpusetHierarchy, cgroupName);
}

fs::path SystemResources::GetManagedCpuCgroupPath(const std::string& cgroupName) const {
    ValidateCgroupName(cgroupName);
    return Below(IsCgroupV2() ? fs::path(cgroupMountPoint) : CpuHierarchyRoot(), cgroupName);
}

fs::path SystemResources::CpuHierarchyRoot() const {
    const fs::path alone = fs::path(cgroupMountPoint) / v1CpuHierarchy;
    const fs::path joint = fs::path(cgroupMountPoint) / v1JointCpuHierarchy;
    return !fileSystem->FileExists(alone) && fileSystem->FileExists(joint) ? joint : alone;
}

fs::path SystemResources::GetCgroupProcsPath(const std::string& cgroupName) const {
    return GetManagedCpusetCgroupPath(cgroupName) / procsFile;
}

fs::path SystemResources::GetCpusetCpusPath(const std::string& cgroupName) const {
    return GetManagedCpusetCgroupPath(cgroupName) / cpusetCpusFile;
}

fs::path SystemResources::GetCpuCgroupProcsPath(const std::string& cgroupName) const {
    return GetManagedCpuCgroupPath(cgroupName) / procsFile;
}

fs::path SystemResources::GetCpusetMemsPath(const std::string& cgroupName) const {
    return GetManagedCpusetCgroupPath(cgroupName) / cpusetMemsFile;
}

fs::path SystemResources::GetCpuMaxPath(const std::string& cgroupName) const {
    return GetManagedCpuCgroupPath(cgroupName) / cpuMaxFile;
}

fs::path SystemResources::GetCpuCfsPeriodPath(const std::string& cgroupName) const {
    return GetManagedCpuCgroupPath(cgroupName) / cpuCfsPeriodFile;
}

fs::path SystemResources::GetCpuCfsQuotaPath(const std::string& cgroupName) const {
    return GetManagedCpuCgroupPath(cgroupName) / cpuCfsQuotaFile;
}

std::uint32_t SystemResources::GetCgroupCpuCount(const std::string& cgroupName) const {
    ValidateCgroupName(cgroupName);
    return Exceptions::WithReason("Unable to read CPU list for cgroup '" + cgroupName + "'", [&] {
        const std::vector<std::string> lines = fileSystem->ReadLines(GetCpusetCpusPath(cgroupName));
        const std::uint32_t count = lines.empty() ? 0 : CountCpus(lines.front());
        if (count == 0) {
            throw Exceptions::XRuntimeError("No CPUs assigned to cgroup: " + cgroupName);
        }
        return count;
    });
}
