// SPDX-License-Identifier: Apache-2.0
// What a host is like, gathered at once and judged elsewhere: nothing here decides or changes anything.
#pragma once

#include "ctl/read/CpuList.hpp"
#include "ctl/read/FileFacts.hpp"
#include "ctl/read/Services.hpp"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <sys/types.h>

struct ProcessFacts {
    int pid = 0;
    std::string name; ///< From /proc/pid/comm; empty when it cannot be read.
    CpuSet cpus;      ///< Its affinity, where that is what matters.
};

/// One cgroup of one hierarchy, see cgroups(7).
struct CgroupFacts {
    std::string path;
    bool exists = false;
    bool isWritable = false; ///< Whether the caller can move processes into it.
    uid_t owner = 0;
    FileFacts procs;                        ///< cgroup.procs, to which launchers write.
    std::string type;                       ///< cgroup.type; empty with v1 and in the root of all.
    std::set<std::string> controllers;      ///< What it has itself; v2.
    std::set<std::string> childControllers; ///< What its children have; v2.
    std::vector<ProcessFacts> processes;    ///< In itself; threads where it is threaded.
    std::optional<std::string> cpus;        ///< cpuset.cpus, empty or none when the file is.
    std::optional<std::string> mems;        ///< cpuset.mems, likewise.
    std::string effectiveCpus;              ///< What the kernel lets processes use of them.
    std::string effectiveMems;

    bool Controls(const std::string& controller) const { return childControllers.contains(controller); }
};

/// A line of /proc/self/mounts, see proc(5).
struct Mount {
    std::string directory;
    std::set<std::string> words; ///< The type of the file system, and its options.
};

/// A line of /proc/cgroups, which is about v1 alone: newer kernels leave out controllers that only v2 has.
struct KernelController {
    bool isTakenByV1 = false;
    bool isEnabled = false;
};

/// A file system, see statvfs(3).
struct FileSystemFacts {
    bool isReadOnly = false;
    bool hasFreeBlock = true; ///< For users: some file systems keep the last ones for root.
    bool hasFreeInode = true;
};

/// A registry file.
struct RegistryFacts {
    FileFacts file;
    int openError = 0;          ///< The errno(3) with which the caller cannot open it; 0 when he can.
    bool hasOtherLines = false; ///< Whether lines that are no records were seen in it.
};

/// The first program that a search in PATH finds under a name of the configuration.
struct ProgramFacts {
    std::string name;
    std::string path;        ///< Empty when there is none.
    std::string target;      ///< The file itself, when `path` is a link to it.
    std::string interpreter; ///< Of a script, from its first line.
};

struct HostFacts {
    bool isV2 = false;
    std::vector<Mount> mounts;
    std::map<std::string, KernelController> kernelControllers;
    CgroupFacts root;                     ///< In the cpuset hierarchy; with v2 the only one.
    CgroupFacts cpuRoot;                  ///< With v1 in the cpu hierarchy.
    CgroupFacts managed;                  ///< "cwset" below the root.
    CgroupFacts managedCpu;               ///< With v1 in the cpu hierarchy.
    std::vector<CgroupFacts> descendants; ///< With v2, all cgroups below the managed one.
    bool isBelowManaged = false;          ///< With v2, whether the caller runs in or below the managed one.
    bool mayMoveFromRoot = false;         ///< Whether the caller can write to cgroup.procs of the root.

    CpuSet cores; ///< Of launchers: from 0 on, as many as are online.
    CpuSet presentCpus;
    CpuSet onlineCpus;
    CpuSet isolatedCpus; ///< Of the kernel option isolcpus.
    CpuSet nodes;        ///< With memory.
    /// Processes outside the root cgroup with fewer CPUs than are online; gathered when cpuset is not enabled
    /// for the children of the v2 root yet.
    std::vector<ProcessFacts> pinned;
    bool keepsAffinity =
        false; ///< Whether this kernel gives processes their affinity back, as it does from 6.2.

    uid_t caller = 0;
    FileFacts temporaryDirectory;
    FileSystemFacts temporaryFileSystem;
    std::vector<RegistryFacts> registries; ///< Of all cores and of the quota cgroups, missing ones too.
    std::map<std::string, std::string> sysctls;
    bool logHasListener = false;
    std::vector<ProgramFacts> programs;

    /// The user whom launchers run as.
    uid_t Launchers() const { return managed.exists ? managed.owner : caller; }
};

/// Whether something is mounted at `directory` and `word` is its file system's type or among its options.
bool IsMountedWith(const HostFacts& host, const std::string& directory, const std::string& word);

/// Looks at cgroups, CPUs, processes and the place of the registries: what preparing depends on.
HostFacts GatherCgroups(const Services& services);

/// Looks at the rest as well: what `check` judges. `configuration` gives the names of programs.
HostFacts GatherAll(const Services& services, const ConfigurationReading& configuration);

/// The paths of all registries that launchers of this host may open.
std::vector<std::string> RegistryPaths(const HostFacts& host);
