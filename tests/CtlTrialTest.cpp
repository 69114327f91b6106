// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Trial.hpp"
#include "ctl/tell/Reasons.hpp"
#include "support/CtlHosts.hpp"

namespace {

const Place onCore{.pid = 7, .startTime = 5, .cpusetCgroup = "/cwset", .cpuCgroup = "/", .affinity = {1}};
const Place withQuota{
    .pid = 7, .startTime = 5, .cpusetCgroup = "/cwset/7-5", .cpuCgroup = "/cwset/7-5", .limit = 50};

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
    host.Fill("/sys/fs/cgroup", {"cwset/cpu.max max 100000", "cpu.max 10000 0"});
    expectPlace("both", {"0::/cwset/7-5"}, 50);
    host.Write(cwset + "/cpu.max", "20000 100000\n");
    expectPlace("both", {"0::/cwset/7-5"}, 20);
    host.BecomeV1();
    host.Fill("/sys/fs/cgroup/cpu/cwset/7-5", {"cpu.cfs_quota_us 30000", "cpu.cfs_period_us 100000"});
    expectPlace("each", {"5:cpu,cpuacct:/cwset/7-5", "4:cpuset:/cwset/7-5", "0::/"}, 30);
}

// A "place" is as the command tells it: pid, start time, cpuset and cpu cgroup, cores and limit, "-" for
// none. Of pid 7, whose last record is the command's, and of pid 6 there are records, on core 1, or in a
// "registry" of allocations, as with a limit. "waits" is a launch by its pid, with the number of locks that
// it waits for and holds.
TEST(CtlTrial, ComparesThePlaceWithTheConfiguration) {
    for (const auto& c :
         ReadCases("trials.json", {"application", "place", "registry", "status", "waits", "finding"})) {
        CtlHost host;
        host.Configure({c.value("configuration", "")});
        Trial trial{.application = c.value("application", "cpuwardenctl"),
                    .registries = ListRegistries(CpuSet{1})};
        trial.place = ParsePlace(Joined(c.value("place", Lines{}), "\n") + "\n\n");
        EXPECT_EQ(trial.place.has_value(), c.contains("place"));
        const bool isAdmitted = c.contains("registry") || (trial.place && trial.place->limit);
        trial.registries[isAdmitted ? 1 : 0].records = {
            {"other", 7, 5}, {"cpuwardenctl", 6, 5}, {"cpuwardenctl", 7, 4}, {"cpuwardenctl", 7, 5}};
        if (c.contains("status")) {
            trial.status = c["status"];
        }
        if (c.contains("waits")) {
            trial.waits = WaitingLaunch{.pid = c["waits"]["pid"]};
            trial.waits->waitsFor.resize(c["waits"].value("waits_for", 0U));
            trial.waits->holds.resize(c["waits"].value("holds", 0U));
        }
        const Finding finding = JudgeTrial(trial, *ReadConfiguration(MakeServices()).configuration);
        EXPECT_THAT(Sentence(NameOf(finding.grade), finding.text), StartsWith(c.at("finding"))) << c.dump();
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
