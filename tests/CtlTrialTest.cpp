// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Trial.hpp"
#include "ctl/tell/Reasons.hpp"
#include "support/CtlHosts.hpp"

namespace {

const Place onCore{.pid = 7, .startTime = 5, .cpusetCgroup = "/cwset", .cpuCgroup = "/", .affinity = {1}};
const Place withQuota{
    .pid = 7, .startTime = 5, .cpusetCgroup = "/cwset/7-5", .cpuCgroup = "/cwset/7-5", .limit = 50};

Trial Seen(const std::optional<Place>& place, int status = 0) {
    const std::vector<Record> records{
        {"other", 7, 5}, {"cpuwardenctl", 6, 5}, {"cpuwardenctl", 7, 4}, {"cpuwardenctl", 7, 5}};
    Trial trial{.application = "cpuwardenctl", .place = place, .status = status};
    trial.registries = ListRegistries(CpuSet{1});
    trial.registries[place && place->limit ? 1 : 0].records = records;
    return trial;
}

TEST(CtlTrial, ReadsWhatACommandTellsOfItsPlace) {
    for (const Place& place : {onCore, withQuota}) {
        const std::string text = ToText(place);
        EXPECT_EQ(ParsePlace(text), place);
        for (std::size_t length = 0; length < text.size(); ++length) { // of what is still being written
            EXPECT_EQ(ParsePlace(text.substr(0, length)), std::nullopt);
        }
        EXPECT_EQ(ParsePlace("x" + text), std::nullopt);
    }
}

TEST(CtlTrial, ReadsItsOwnPlace) {
    CtlHost host;
    const auto expectPlace = [&](const std::string& controllers, const Lines& cgroups, std::uint64_t limit) {
        host.Write("/proc/self/cgroup", Joined(cgroups, "\n") + "\n");
        const Place place = ReadOwnPlace(*MakeServices().systemResources);
        EXPECT_EQ(place.cpusetCgroup + place.cpuCgroup, "/cwset/7-5/cwset/7-5") << controllers;
        EXPECT_EQ(place.limit, limit) << controllers;
    };
    host.Write(cwset + "/7-5/cpu.max", "50000 100000\n");
    host.Write(cwset + "/cpu.max", "max 100000\n");
    expectPlace("both", {"0::/cwset/7-5"}, 50);
    host.Write(cwset + "/cpu.max", "20000 100000\n");
    expectPlace("both", {"0::/cwset/7-5"}, 20);
    host.BecomeV1();
    host.Fill("/sys/fs/cgroup/cpu/cwset/7-5", {"cpu.cfs_quota_us 30000", "cpu.cfs_period_us 100000"});
    expectPlace("each", {"5:cpu,cpuacct:/cwset/7-5", "4:cpuset:/cwset/7-5", "0::/"}, 30);
}

TEST(CtlTrial, ComparesThePlaceWithTheConfiguration) {
    const std::string misplaced = "FAIL a launch was not placed as configured: ";
    const WaitingLaunch forLock{.waitsFor = {{.core = 0}}};
    const WaitingLaunch forRoom{.holds = {{}}};
    // clang-format off
    const struct { std::string what; unsigned quota; Trial trial; std::string finding; } cases[] = {
        {"a core", 0, Seen(onCore), "PASS a launch was placed as configured: on core 1"},
        {"a quota", 50, Seen(withQuota), "PASS a launch was placed as configured: in /cwset/7-5 at 50 %"},
        {"outside", 0, Seen(Place{.pid = 7, .startTime = 5, .cpusetCgroup = "/", .cpuCgroup = "/", .affinity = {0, 1}}),
         misplaced + "its cgroup is / instead of /cwset, its list of cores is 0-1 instead of 1."},
        {"one cgroup for another", 50,
         Seen(Place{.pid = 7, .startTime = 5, .cpusetCgroup = "/cwset", .cpuCgroup = "/cwset/7-6", .limit = 20}),
         misplaced + "its cpuset cgroup is /cwset instead of /cwset/7-5, its cpu cgroup is /cwset/7-6 instead of "
                     "/cwset/7-5, its limit is 20 % instead of 50 %."},
        {"the other mode's record", 50, Seen(onCore), misplaced + "it has no record"},
        {"another's record", 0, Seen(Place{.pid = 8, .startTime = 5, .cpusetCgroup = "/cwset", .affinity = {1}}),
         misplaced + "it has no record"},
        {"a timeout", 0, Seen(onCore, 124), misplaced + "its launcher's status is 124 instead of 0."},
        {"an end", 0, {.status = 1}, "FAIL a launch ended with 1 before its command ran"},
        {"no launcher", 0, {.status = 127}, "FAIL the launcher beside this program cannot be executed."},
        {"another launcher", 0, {.waits = forLock}, "WARN a launch found no place within 5 s, since another launcher"},
        {"a full host", 0, {.waits = forRoom}, "WARN a launch found no place within 5 s, since the host is full"},
        {"a launch that hangs with the lock", 50,
         {.application = "cpuwardenctl", .registries = Seen(withQuota).registries, .waits = {{.pid = 7, .holds = {{}}}}},
         "FAIL a launch came to no place within 5 s"},
        {"a launch that has not begun to wait", 0, {.waits = WaitingLaunch{}}, "FAIL a launch came to no place within 5 s"},
    };
    // clang-format on
    for (const auto& c : cases) {
        machine.files = {};
        if (c.quota != 0) {
            machine.files["/etc/brindlewax.d/agent.conf"] = {"Cpuwarden_ManagedProcessCpuQuotaPercentage=" +
                                                             std::to_string(c.quota)};
        }
        const Finding finding = JudgeTrial(
            c.trial, Configuration(std::make_shared<MemoryFileSystem>(), std::make_shared<Logger>("")));
        EXPECT_THAT(Sentence(NameOf(finding.grade), finding.text), StartsWith(c.finding)) << c.what;
    }
}

TEST(CtlTrial, TellsTheOtherFindingsToo) {
    CtlHost host;
    host.Link("/proc/self/exe", "/opt/sbin/cpuwardenctl");
    const std::string text = host.Run(checkCommand, {"--launch"});
    EXPECT_THAT(text, StartsWith(host.Run(checkCommand)));
    EXPECT_THAT(
        text, HasSubstr("\nFAIL no launch was tried: there is no Cpuwarden beside /opt/sbin/cpuwardenctl."));
}

} // namespace
