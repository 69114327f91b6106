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

/// The steps as an operator would type them, then those for the children.
std::string Typed(const HostFacts& host, Mode mode) {
    std::vector<Step> steps = StepsToManagedCgroup(host);
    const std::vector<Step> others = StepsToChildren(host, mode);
    steps.insert(steps.end(), others.begin(), others.end());
    Lines typed;
    for (const Step& step : steps) {
        typed.push_back((step.text.empty() ? "mkdir" : step.text + " >") + " " +
                        step.path.substr(root.size()));
    }
    return Joined(typed);
}

TEST(CtlPrepare, TakesOnlyTheStepsThatAreMissing) {
    const struct {
        HostFacts host;
        Mode mode;
        std::string steps;
    } cases[] = {
        {PreparedV1(), Mode::core, ""},
        {PreparedV1(), Mode::quota, ""},
        {With(PreparedV1(), [](HostFacts& host) { host.managed = Missing(host.managed.path); }), Mode::core,
         "mkdir cpuset/cwset|0-3 > cpuset/cwset/cpuset.cpus|0-1 > cpuset/cwset/cpuset.mems"},
        {With(PreparedV1(), [](HostFacts& host) { host.managedCpu.exists = false; }), Mode::core,
         "mkdir cpu/cwset"},
        {PreparedV2(), Mode::core, ""},
        {PreparedV2(), Mode::quota,
         "+cpu > cwset/cgroup.subtree_control|+cpuset > cwset/cgroup.subtree_control"},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.managed.childControllers = {"cpu", "memory"};
              }),
         Mode::core, "-cpu > cwset/cgroup.subtree_control"},
        {With(PreparedV2(), [](HostFacts& host) { host.managed.cpus = "2-3"; }), Mode::core, ""},
        // systemd has taken one controller away, and with it the lists.
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.root.childControllers = {"cpu"};
                  host.managed.cpus = host.managed.mems = std::nullopt;
              }),
         Mode::core, "+cpuset > cgroup.subtree_control|0-3 > cwset/cpuset.cpus|0-1 > cwset/cpuset.mems"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Typed(c.host, c.mode), c.steps);
    }
}

TEST(CtlPrepare, TellsARemedyForEachRefusal) {
    const Step enable{"/f", "+cpu"};
    EXPECT_NE(Remedy(enable, EBUSY), Remedy({"/f", "-cpu"}, EBUSY));
    EXPECT_NE(Remedy(enable, EINVAL).find("real-time"), std::string::npos);
    for (const int error : {EBUSY, ENOENT, EOPNOTSUPP, EPERM}) {
        EXPECT_EQ(Remedy(enable, error).find("real-time"), std::string::npos) << error;
    }
}

TEST(CtlPrepare, RefusesBeforeItChangesAnything) {
    const struct {
        HostFacts host;
        Mode mode;
        std::string problem;
    } cases[] = {
        {PreparedV1(), Mode::quota, ""},
        {PreparedV2(), Mode::core, ""},
        {With(PreparedV1(), [](HostFacts& host) { host.mounts.clear(); }), Mode::core,
         "/sys/fs/cgroup is no cgroup"},
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
        {With(PreparedV2(), [](HostFacts& host) { host.root.isWritable = false; }), Mode::core,
         "cannot write to /sys/fs/cgroup"},
        // The true root has no type, and may have processes.
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.root.processes = {{1, "init", {}}};
              }),
         Mode::core, ""},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.root.type = "domain";
                  host.root.processes = {{1, "init", {}}};
              }),
         Mode::core, "/sys/fs/cgroup is not the root of all cgroups"},
        {With(PreparedV2(),
              [](HostFacts& host) {
                  host.managed.processes = {{7, "web", {}}};
              }),
         Mode::core, ""},
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

TEST(CtlPrepare, WarnsWhereAffinityIsLost) {
    HostFacts host = PreparedV2();
    EXPECT_FALSE(AffinityWarning(host));
    host.pinned = {{7, "web", {1}}};
    EXPECT_TRUE(AffinityWarning(host).value_or("").ends_with(": 7 (web)"));
    host.keepsAffinity = true;
    EXPECT_FALSE(AffinityWarning(host));
}

TEST_F(HostTest, CtlPrepareKnowsTheRegistriesOfTheLaunchers) {
    const auto manager = Cores(Configured({"Cpuwarden_ManagedProcessCpuQuotaPercentage=50"}));
    manager->AssignQuotaCgroupForProcess("sleep", 42, 777, Paths::managedCgroup, In(std::chrono::seconds(1)));
    manager->SelectCoreForProcess("sleep", In(std::chrono::seconds(1)));
    HostFacts host;
    host.cores = {0, 1, 2};
    for (const std::string& path : RegistryPaths(host)) {
        EXPECT_TRUE(machine.files.contains(path)) << path;
    }
}

} // namespace
