// SPDX-License-Identifier: Apache-2.0
#include "support/Fakes.hpp"

namespace {

const std::string root = "/sys/fs/cgroup/";

TEST(SystemResources, CountsCpus) {
    // clang-format off
    const std::map<std::string, std::string> cases{
        {"0-3,5", "5"}, {"7", "1"}, {",,1,2,2,0-0", "4"}, {"5-3", "Invalid CPU range: 5-3"}, {"1,-3", "Invalid CPU list entry: -3"},
        {"1-", "Invalid CPU list entry: 1-"}, {"99999999999999999999", "CPU list entry out of range: 99999999999999999999"}, {"", "No CPUs assigned to cgroup: cwset"}};
    // clang-format on
    Lines transcript;
    const auto fileSystem = std::make_shared<MemoryFileSystem>(transcript);
    const SystemResources resources(fileSystem);
    for (const auto& [cpus, outcome] : cases) {
        fileSystem->files[root + "cpuset/cwset/cpuset.cpus"] = {cpus, "0-9"};
        std::string counted;
        const std::string failure = Failure<Exceptions::XRuntimeError>(
            [&] { counted = std::to_string(resources.GetCgroupCpuCount("cwset")); });
        EXPECT_EQ(counted + failure,
                  (failure.empty() ? "" : "Unable to read CPU list for cgroup 'cwset'. Reason: ") + outcome);
    }
}

} // namespace
