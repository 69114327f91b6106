// SPDX-License-Identifier: Apache-2.0
#include "support/Fakes.hpp"

namespace {

const std::string root = "/sys/fs/cgroup/";

TEST(SystemResources, FindsTheCgroupsOfEachLayout) {
    const std::map<Lines, std::pair<std::string, std::string>> cases{
        {{root + "cgroup.controllers", root + "cpu"}, {root + "a/b/cgroup.procs", root + "a/b/cgroup.procs"}},
        {{root + "cpu", root + "cpu,cpuacct"}, {root + "cpuset/a/b/cgroup.procs", root + "cpu/a/b/cgroup.procs"}},
        {{root + "cpu,cpuacct"}, {root + "cpuset/a/b/cgroup.procs", root + "cpu,cpuacct/a/b/cgroup.procs"}},
        {{}, {root + "cpuset/a/b/cgroup.procs", root + "cpu/a/b/cgroup.procs"}},
    };
    for (const auto& [present, procs] : cases) {
        Lines transcript;
        const auto fileSystem = std::make_shared<MemoryFileSystem>(transcript);
        for (const std::string& path : present) fileSystem->files[path] = {};
        const SystemResources resources(fileSystem);
        EXPECT_EQ(resources.GetCgroupProcsPath("/a/b"), procs.first) << Joined(present);
        EXPECT_EQ(resources.GetCpuCgroupProcsPath("a/b"), procs.second) << Joined(present);
    }
}

TEST(SystemResources, CountsCpus) {
    const std::map<Lines, std::string> cases{
        {{"0-3,5", "6"}, "5"},
        {{"7"}, "1"},
        {{",,1,2,2,0-0"}, "4"},
        {{"5-3"}, "Invalid CPU range: 5-3"},
        {{"1,-3"}, "Invalid CPU list entry: -3"},
        {{"1-"}, "Invalid CPU list entry: 1-"},
        {{"99999999999999999999"}, "CPU list entry out of range: 99999999999999999999"},
        {{}, "No CPUs assigned to cgroup: cwset"},
        {{""}, "No CPUs assigned to cgroup: cwset"},
    };
    Lines transcript;
    const auto fileSystem = std::make_shared<MemoryFileSystem>(transcript);
    const SystemResources resources(fileSystem);
    for (const auto& [cpus, outcome] : cases) {
        fileSystem->files[root + "cpuset/cwset/cpuset.cpus"] = cpus;
        std::uint32_t count = 0;
        const std::string failure = Failure<Exceptions::XRuntimeError>([&] { count = resources.GetCgroupCpuCount("cwset"); });
        EXPECT_EQ(count > 0 ? std::to_string(count) : failure, (count > 0 ? "" : "Unable to read CPU list for cgroup 'cwset'. Reason: ") + outcome);
    }
    EXPECT_EQ(Failure([&] { resources.GetCgroupCpuCount(""); }), "Invalid argument: cgroupName. Reason: cannot be empty");
}

} // namespace
