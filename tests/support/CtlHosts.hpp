// SPDX-License-Identifier: Apache-2.0
// Facts of hosts that are fit, for tests to spoil.
#pragma once

#include "ctl/read/HostFacts.hpp"
#include "ctl/read/Paths.hpp"

#include <utility>

#include <sys/stat.h>

inline const std::string root = "/sys/fs/cgroup/";

inline CgroupFacts Child(const std::string& name, const std::string& type, std::vector<Process> processes) {
    CgroupFacts child;
    child.path = root + "cwset/" + name;
    child.exists = true;
    child.type = type;
    child.processes = std::move(processes);
    return child;
}

/// A cgroup with the CPUs 0 to 3 and the memory nodes 0 and 1.
inline CgroupFacts Usable(const std::string& path) {
    CgroupFacts cgroup;
    cgroup.path = path;
    cgroup.exists = true;
    cgroup.isWritable = true;
    cgroup.procs = {path + "/cgroup.procs", S_IFREG | 0644, 0, 1};
    cgroup.cpus = cgroup.effectiveCpus = "0-3";
    cgroup.mems = cgroup.effectiveMems = "0-1";
    return cgroup;
}

/// What both versions have in common.
inline HostFacts PreparedHost() {
    HostFacts host;
    host.kernelControllers = {{"cpu", {.isEnabled = true}}, {"cpuset", {.isEnabled = true}}};
    host.cores = host.presentCpus = host.onlineCpus = {0, 1, 2, 3};
    host.nodes = {0, 1};
    host.temporaryDirectory = {Paths::temporaryDirectory, S_IFDIR | 01777, 0, 2};
    host.sysctls = {{"protected_symlinks", "1"}, {"protected_regular", "2"}};
    host.logHasListener = true;
    host.registries = ListRegistries(host);
    for (Registry& registry : host.registries) {
        registry.file = {registry.file.path, S_IFREG | 0600, 0, 1};
    }
    return host;
}

inline HostFacts PreparedV1() {
    HostFacts host = PreparedHost();
    host.mounts = {{root + "cpuset", {"cgroup", "rw", "cpuset"}}, {root + "cpu", {"cgroup", "rw", "cpu"}}};
    host.root = Usable(root + "cpuset");
    host.cpuRoot = Usable(root + "cpu");
    host.managed = Usable(root + "cpuset/cwset");
    host.managedCpu = Usable(root + "cpu/cwset");
    return host;
}

/// For core mode.
inline HostFacts PreparedV2() {
    HostFacts host = PreparedHost();
    host.isV2 = true;
    host.mounts = {{"/sys/fs/cgroup", {"cgroup2", "rw"}}};
    host.root = Usable("/sys/fs/cgroup");
    host.root.cpus = host.root.mems = std::nullopt;
    host.root.controllers = host.root.childControllers = {"cpu", "cpuset", "memory"};
    host.managed = Usable("/sys/fs/cgroup/cwset");
    host.managed.type = "domain";
    return host;
}

template <typename Change>
HostFacts With(HostFacts host, const Change& change) {
    change(host);
    return host;
}
