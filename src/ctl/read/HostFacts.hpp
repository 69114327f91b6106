// SPDX-License-Identifier: Apache-2.0
// What a host is like, gathered at once and judged elsewhere: nothing here decides or changes anything.
#pragma once

#include "ctl/read/Cgroups.hpp"
#include "ctl/read/CpuList.hpp"
#include "ctl/read/FailedReads.hpp"
#include "ctl/read/Registries.hpp"
#include "ctl/read/Services.hpp"
#include "ctl/read/Users.hpp"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

/// A line of /proc/self/mounts, see proc(5).
struct Mount {
    std::string directory;
    std::set<std::string> words; ///< The type of the file system, and its options.
};

/// A line of /proc/cgroups, which is about v1 alone: newer kernels leave out controllers that only v2 has.
struct KernelController {
    bool isTakenByV1{};
    bool isEnabled{};
};

/// A file system, see statvfs(3).
struct FileSystemFacts {
    bool isReadOnly{};
    bool hasFreeBlock = true; ///< For users: some file systems keep the last ones for root.
    bool hasFreeInode = true;
};

/// The first program that a search in PATH finds under a name of the configuration.
struct ProgramFacts {
    std::string name;
    std::string path;        ///< Empty when there is none.
    std::string target;      ///< The file itself, when `path` is a link to it.
    std::string interpreter; ///< Of a script, from its first line.
};

struct HostFacts {
    bool isV2{};
    std::vector<Mount> mounts;
    std::map<std::string, std::string> links; ///< Of the directories below, those that are links to another.
    std::map<std::string, KernelController> kernelControllers;
    CgroupFacts root;                     ///< In the cpuset hierarchy; with v2 the only one.
    CgroupFacts cpuRoot;                  ///< With v1 in the cpu hierarchy.
    CgroupFacts managed;                  ///< "cwset" below the root.
    CgroupFacts managedCpu;               ///< With v1 in the cpu hierarchy.
    std::vector<CgroupFacts> descendants; ///< All cgroups below the managed one.
    /// Of these cgroups and their lists of processes, but not of their bounds. Preparing refuses on them: it
    /// would guess. What else cannot be read is empty, or "missing", and the finding about it says what that
    /// means.
    FailedReads failedReads;
    bool isBelowManaged{};  ///< With v2, whether the caller runs in or below the managed one.
    bool mayMoveFromRoot{}; ///< Whether the caller can write to cgroup.procs of the root.

    CpuSet cores; ///< Of launchers: from 0 on, as many as are online.
    CpuSet presentCpus;
    CpuSet onlineCpus;
    CpuSet isolatedCpus; ///< Of the kernel option isolcpus.
    CpuSet nodes;        ///< With memory.
    /// Processes outside the root cgroup with fewer CPUs than are online; gathered when cpuset is not enabled
    /// for the children of the v2 root yet.
    std::vector<Process> pinned;
    /// Whether this kernel gives processes their affinity back, as it does from 6.2.
    bool keepsAffinity{};

    bool mayReadConfiguration = true; ///< Whether the launchers' user may; looked at where root checks.
    uid_t caller{};
    std::optional<User> launchers; ///< Whom launchers run as, looked up for a check.
    FileFacts temporaryDirectory;
    FileSystemFacts temporaryFileSystem;
    std::vector<Registry> registries; ///< All that launchers may open, missing ones too.
    std::map<std::string, std::string> sysctls;
    bool logHasListener{};
    std::vector<ProgramFacts> programs;

    /// The user whom launchers run as.
    uid_t Launchers() const { return managed.exists ? managed.owner : caller; }
};

/// Looks at cgroups, CPUs, processes and the place of the registries: what preparing depends on.
HostFacts GatherCgroups(const Services& services);

/// Looks at the rest as well: what `check` judges. `configuration` gives the names of programs.
HostFacts GatherAll(const Services& services, const ConfigurationReading& configuration);

/// The registries that launchers of this host may open, not read yet.
std::vector<Registry> ListRegistries(const HostFacts& host);
