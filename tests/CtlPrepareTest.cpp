// SPDX-License-Identifier: Apache-2.0
#include "core/CoreManager.hpp"
#include "ctl/Paths.hpp"
#include "ctl/Preparation.hpp"
#include "ctl/Requirements.hpp"
#include "support/CtlHosts.hpp"
#include "support/HostTest.hpp"

#include <cerrno>

#include <sys/stat.h>

namespace {

TEST(CtlPrepare, RefusesBeforeItChangesAnything) {
    // clang-format off
    const struct {
        HostFacts host;
        Mode mode;
        std::string problem;
    } cases[] = {
        {PreparedV1(), Mode::quota, ""},
        {PreparedV2(), Mode::core, ""},
        {With(PreparedV1(), [](HostFacts& host) { host.mounts.clear(); }), Mode::core, "/sys/fs/cgroup is no cgroup"},
        {With(PreparedV1(), [](HostFacts& host) { host.kernelControllers["cpu"].isEnabled = false; }),
         Mode::core, "this kernel has no cpu controller"},
        // A later mount hides those before it.
        {With(PreparedV1(),
              [](HostFacts& host) {
                  host.mounts.push_back({root + "cpuset", {"tmpfs"}});
              }),
         Mode::core, "the cpuset hierarchy is not mounted at /sys/fs/cgroup/cpuset"},
        {With(PreparedV2(), [](HostFacts& host) { host.root.controllers.erase("cpu"); }), Mode::core,
         "/sys/fs/cgroup/cgroup.controllers lacks the cpu controller"},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.root.controllers.erase("cpuset");
                  host.kernelControllers["cpuset"].isTakenByV1 = true;
              }),
         Mode::core, "a hierarchy of cgroup v1 has the cpuset controller"},
        {With(PreparedV2(), [](HostFacts& host) { host.mounts.back().words.insert("ro"); }), Mode::core,
         "/sys/fs/cgroup is mounted read-only"},
        {With(PreparedV2(), [](HostFacts& host) { host.root.isWritable = false; }), Mode::core, "cannot write to /sys/fs/cgroup"},
        // The true root has no type, and may have processes.
        {With(PreparedV2(), [](HostFacts& host) { host.root.processes = {{1, "init", {}}}; }), Mode::core, ""},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.root.type = "domain";
                  host.root.processes = {{1, "init", {}}};
              }),
         Mode::core, "/sys/fs/cgroup is not the root of all cgroups"},
        {With(PreparedV2(), [](HostFacts& host) { host.managed.processes = {{7, "web", {}}}; }), Mode::core, ""},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.managed.processes = {{7, "web", {}}};
              }),
         Mode::quota,
         "a quota is configured, and applies only when no process is in /sys/fs/cgroup/cwset itself"},
        // A child beside commands on cores keeps nobody out until it has controllers.
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.descendants = {Child("batch", "threaded", {{8, "", {}}})};
              }),
         Mode::core, ""},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.managed.childControllers = {"cpu"};
                  host.descendants = {Child("1-2", "domain", {{8, "", {}}})};
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

TEST(CtlPrepare, TouchesNoFileOfOthers) {
    constexpr uid_t launchers = 1000;
    constexpr uid_t other = 1001;
    const struct {
        FileFacts file;
        std::string change; ///< c(reate), h(and over), n(arrow), r(efuse)
    } cases[] = {
        {{.path = "/f"}, "ch"},
        {{"/f", S_IFREG | 0600, launchers, 1}, ""},
        {{"/f", S_IFREG | 0400, launchers, 1}, ""},
        {{"/f", S_IFREG | 0640, launchers, 1}, "n"},
        {{"/f", S_IFREG | 04600, launchers, 1}, "n"},
        {{"/f", S_IFREG | 0644, 0, 1}, "hn"},
        {{"/f", S_IFREG | 0600, other, 1}, "r"},
        {{"/f", S_IFREG | 0600, 0, 2}, "r"},
        {{"/f", S_IFLNK | 0777, 0, 1}, "r"},
        {{"/f", S_IFDIR | 0700, launchers, 2}, "r"},
        {{"/f", S_IFIFO | 0600, launchers, 1}, "r"},
    };
    for (const auto& c : cases) {
        const RegistryChange change = ChangeOf(c.file, 0, launchers);
        EXPECT_EQ(std::string(change.create ? "c" : "") + (change.hand ? "h" : "") +
                      (change.narrow ? "n" : "") + (change.refusal ? "r" : ""),
                  c.change)
            << PermissionsOf(c.file) << " " << KindOf(c.file) << " of " << c.file.owner;
    }
    EXPECT_FALSE(ChangeOf({.path = "/f"}, launchers, launchers).hand);
}

} // namespace
