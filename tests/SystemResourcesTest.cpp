// SPDX-License-Identifier: Apache-2.0
#include "support/HostTest.hpp"

namespace {

struct SystemResourcesTest : HostTest {};

TEST_F(SystemResourcesTest, FindsTheCgroupsOfEachLayout) {
    // clang-format off
    const struct { std::string layout; Lines present; std::string cpuset, cpu; } cases[] = {
        {"v2", {"cgroup.controllers", "cpu"}, "a/b", "a/b"},
        {"v1, split", {"cpuset", "cpu", "cpu,cpuacct"}, "cpuset/a/b", "cpu/a/b"},
        {"v1, joint", {"cpuset", "cpu,cpuacct"}, "cpuset/a/b", "cpu,cpuacct/a/b"},
        {"hybrid", {"unified/cgroup.controllers", "cpuset", "cpu"}, "cpuset/a/b", "cpu/a/b"},
        {"nothing mounted", {}, "cpuset/a/b", "cpu/a/b"},
    };
    // clang-format on
    for (const auto& c : cases) {
        machine.files.clear();
        for (const std::string& name : c.present) {
            machine.files[root + name] = {};
        }
        EXPECT_EQ(resources->GetManagedCpusetCgroupPath("/a/b"), root + c.cpuset) << c.layout;
        EXPECT_EQ(resources->GetManagedCpuCgroupPath("/a/b"), root + c.cpu) << c.layout;
    }
}

TEST_F(SystemResourcesTest, CountsCpus) {
    EXPECT_EQ(resources->GetAvailableCores(), (std::vector<std::uint32_t>{0, 1, 2}));
    // clang-format off
    const std::map<std::string, std::string> cases{
        {"0-3,5", "5"}, {"7", "1"}, {",,1,2,2,0-0", "4"},
        {"5-3", "Invalid CPU range: 5-3"}, {"1,-3", "Invalid CPU list entry: -3"}, {"1-", "Invalid CPU list entry: 1-"},
        {"99999999999999999999", "CPU list entry out of range: 99999999999999999999"}, {"", "No CPUs assigned to cgroup: cwset"},
    };
    // clang-format on
    for (const auto& [cpus, outcome] : cases) {
        machine.files[root + "cwset/cpuset.cpus"] = {cpus, "0-9"};
        std::string counted;
        const std::string failure =
            Failure([&] { counted = Sentence(resources->GetCgroupCpuCount("cwset")); });
        EXPECT_EQ(counted + failure,
                  (failure.empty() ? "" : "Unable to read CPU list for cgroup 'cwset'. Reason: ") + outcome);
    }
}

} // namespace
