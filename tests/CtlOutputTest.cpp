// SPDX-License-Identifier: Apache-2.0
#include "ctl/tell/MetricsText.hpp"
#include "ctl/tell/StatusJson.hpp"
#include "ctl/tell/StatusText.hpp"
#include "ctl/tell/Text.hpp"
#include "support/HostTest.hpp"

namespace {

using std::chrono_literals::operator""s;
using testing::HasSubstr;

// A sequence that clears the screen, one in C1, quotes, a newline, and what is no UTF-8.
const std::string evil = "\x1b[2J\xc2\x9b"
                         "\"\\\n\xff\xed\xa0\x80\xc0\xaf\xf4\x90\x80\x80";

HostReport EveryKind(const std::string& name) {
    HostReport report;
    report.complaints = {name};
    report.mode = Mode::quota;
    report.quota = 50;
    report.cgroupExists = true;
    report.cpus = "0-1";
    report.capacity = 200;
    report.admitted = 50;
    const LiveCommand onCore{
        .application = name, .groups = {"g"}, .pid = 2, .launcher = 1, .running = 90061s, .cpuTime = 1s};
    report.cores = {{.core = 0, .state = CoreState::taken, .commands = {onCore}}, {.core = 1}};
    report.allocations = {{.application = name,
                           .pid = 3,
                           .isVerified = false,
                           .cgroup = "3-4",
                           .throttling = Throttling{2, 3s}}};
    report.waiting = {{.launcher = 5,
                       .pid = 6,
                       .command = name,
                       .left = 7s,
                       .waitsFor = {{0, 8}},
                       .holds = {{std::nullopt, 6}}}};
    report.notCounted = {{.reason = NotCountedReason::otherCore,
                          .application = name,
                          .pid = 9,
                          .launcher = 8,
                          .executable = name,
                          .registeredCore = 0,
                          .affinity = {0, 1},
                          .cgroup = "cwset",
                          .expectedCgroup = "cwset"}};
    report.deadRecords.assign(1500, {.core = 1, .record = {name, 10, 11}, .reason = DeadReason::pidReused});
    report.strayLines = 12;
    report.orphanedCgroups = {"13-14"};
    report.unmanaged = {{15, name, "cwset"}};
    report.blindSpots = {{name, "why"}};
    return report;
}

TEST(CtlOutputTest, KeepsItsJson) {
    HostReport report = EveryKind("\xc3\xa4\xf0\x9f\x98\x80\x1b\xff\"\\");
    report.deadRecords.resize(1);
    const std::string name = R"("\u00e4\ud83d\ude00\u001b\ufffd\"\\")";
    const auto command = [&name](const std::string& rest) {
        return R"({"application":)" + name + rest + "}";
    };
    EXPECT_EQ(
        ToJson(report),
        R"({"failure":null,"complaints":[)" + name +
            R"(],"mode":"quota","shares_cores":false,"quota_percent":50,"cwset_exists":true,"cwset_cpus":"0-1",)"
            R"("capacity_percent":200,"admitted_percent":50,"cores_free":1,"cores_taken":1,"cores_unknown":0,)"
            R"("cores":[{"core":0,"state":"taken","managed":true,"commands":[)" +
            command(R"(,"groups":["g"],"pid":2,"launcher":1,"running_seconds":90061.0,)"
                    R"("cpu_seconds":1.0,"records":1,"verified":true)") +
            R"(]},{"core":1,"state":"free","managed":true,"commands":[]}],"allocations":[)" +
            command(
                R"(,"groups":[],"pid":3,"launcher":null,"running_seconds":0.0,"cpu_seconds":0.0,)"
                R"("records":1,"verified":false,"cgroup":"3-4","throttled_periods":2,"throttled_seconds":3.0)") +
            R"(],"waiting":[{"launcher":5,"pid":6,"command":)" + name +
            R"(,"waiting_seconds":0.0,"left_seconds":7.0,"waits_for":[{"registry":"/tmp/core_pids_0.lock",)"
            R"("core":0,"holder":8}],"holds":[{"registry":"/tmp/cw_allocations.lock","core":null,"holder":6}],)"
            R"("files_known":true}],"not_counted":[{"reason":"other_core","application":)" +
            name + R"(,"pid":9,"launcher":8,"running_seconds":0.0,"executable":)" + name +
            R"(,"registered_core":0,"affinity":[0,1],"cgroup":"cwset","expected_cgroup":"cwset"}],)"
            R"("dead_record_count":1,"dead_records":[{"registry":"/tmp/core_pids_1.lock","core":1,"application":)" +
            name +
            R"(,"pid":10,"start_time":11,"reason":"pid_reused"}],"stray_lines":12,)"
            R"("orphaned_cgroups":["13-14"],"unmanaged_processes":[{"pid":15,"name":)" +
            name + R"(,"cgroup":"cwset"}],"not_seen":[{"what":)" + name + R"(,"why":"why"}]})" + "\n");
}

TEST(CtlOutputTest, LetsNoNameSteerTheTerminal) {
    const HostReport report = EveryKind(evil);
    for (const std::string& text : {ToText(report), ToJson(report), ToOpenMetrics(report)}) {
        for (const char byte : text) {
            ASSERT_TRUE(byte == '\n' || (byte >= ' ' && byte <= '~')) << text;
        }
    }
    EXPECT_EQ(Printable(evil), R"(\x1b[2J\xc2\x9b"\\x0a\xff\xed\xa0\x80\xc0\xaf\xf4\x90\x80\x80)");
    EXPECT_EQ(Printable("gr\xc3\xb6\xc3\x9f"
                        "e\xe2\x80\xae"),
              "gr\xc3\xb6\xc3\x9f"
              R"(e\xe2\x80\xae)");
    EXPECT_THAT(ToOpenMetrics(report), HasSubstr(R"(application="\\x1b[2J\\xc2\\x9b\"\\\\x0a)"));
}

TEST(CtlOutputTest, HasNoSampleTwice) {
    HostReport report;
    report.allocations = {{.application = "\x1b"}, {.application = R"(\x1b)"}};
    EXPECT_THAT(ToOpenMetrics(report), HasSubstr(R"({core="",application="\\x1b"} 2)"));
}

} // namespace
