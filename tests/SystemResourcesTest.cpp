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
    for (const auto& c : ReadCases("cpus.json")) {
        machine.files[root + "cwset/cpuset.cpus"] = {c["cpus"], "0-9"};
        std::string counted;
        const std::string failure =
            Failure([&] { counted = Sentence(resources->GetCgroupCpuCount("cwset")); });
        EXPECT_EQ(counted + failure,
                  (failure.empty() ? "" : "Unable to read CPU list for cgroup 'cwset'. Reason: ") +
                      std::string(c["outcome"]));
    }
}

} // namespace
