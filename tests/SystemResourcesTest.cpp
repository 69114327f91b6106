// SPDX-License-Identifier: Apache-2.0
#include "support/HostTest.hpp"

namespace {

struct SystemResourcesTest : HostTest {};

TEST_F(SystemResourcesTest, FindsTheCgroupsOfEachLayout) {
    for (const auto& c : ReadCases("layouts.json")) {
        machine.files.clear();
        for (const std::string name : c["present"]) {
            machine.files[root + name] = {};
        }
        EXPECT_EQ(resources->GetManagedCpusetCgroupPath("/a/b"), root + std::string(c["cpuset"])) << c.dump();
        EXPECT_EQ(resources->GetManagedCpuCgroupPath("/a/b"), root + std::string(c["cpu"])) << c.dump();
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
