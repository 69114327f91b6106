// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Requirements.hpp"
#include "ctl/read/Paths.hpp"
#include "support/CtlHosts.hpp"
#include "support/HostTest.hpp"

namespace {

TEST(CtlPrepare, RefusesBeforeItChangesAnything) {
    // clang-format off
    const struct {
        HostFacts host;
        Mode mode;
        std::string problem;
    } cases[] = {
        // A later mount hides those before it.
        {With(PreparedV1(),
              [](HostFacts& host) {
                  host.mounts.push_back({root + "cpuset", {"tmpfs"}});
              }),
         Mode::core, "the cpuset hierarchy is not mounted at /sys/fs/cgroup/cpuset"},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.root.controllers.erase("cpuset");
                  host.kernelControllers["cpuset"].isTakenByV1 = true;
              }),
         Mode::core, "a hierarchy of cgroup v1 has the cpuset controller"},
        // The true root has no type, and may have processes.
        {With(PreparedV2(), [](HostFacts& host) { host.root.processes = {{.pid = 1, .commandName = "init"}}; }), Mode::core, ""},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.root.type = "domain";
                  host.root.processes = {{.pid = 1, .commandName = "init"}};
              }),
         Mode::core, "/sys/fs/cgroup is not the root of all cgroups"},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.managed.childControllers = {"cpu"};
                  host.descendants = {Child("1-2", "domain", {{.pid = 8}})};
              }),
         Mode::core, "no quota is configured, but processes run in quota cgroups"},
    };
    // clang-format on
    for (const auto& c : cases) {
        std::string problem;
        for (const Requirement& requirement : RequiredToPrepare(c.host, c.mode)) {
            problem += problem.empty() ? requirement.problem.value_or("") : "";
        }
        EXPECT_EQ(problem.substr(0, c.problem.size()), c.problem) << problem;
        EXPECT_EQ(problem.empty(), c.problem.empty()) << problem;
    }
}

} // namespace
