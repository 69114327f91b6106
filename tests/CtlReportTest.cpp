// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/HostReport.hpp"
#include "ctl/read/Paths.hpp"
#include "ctl/tell/Reasons.hpp"
#include "support/HostTest.hpp"

namespace {

using std::chrono_literals::operator""s;

constexpr int launcher = 10;
constexpr int command = 11;

/// A host of three cores, on which 3000 s have passed, with a launcher and its command on core 1.
struct CtlReportTest : HostTest {
    ConfigurationReading reading;
    HostSnapshot host{.now = 300000, .ticksPerSecond = 100};

    CtlReportTest() {
        host.cgroup = {.facts = {.exists = true}, .cpus = "0-2", .cpuCount = 3};
        for (const std::uint32_t core : {0U, 1U, 2U}) {
            host.registries.push_back(
                {.file = {.path = Paths::CoreRegistry(core)}, .core = core, .lockId = std::to_string(core)});
        }
        host.registries.push_back({.file = {.path = Paths::allocationRegistry}, .lockId = "a"});
        Add(1, 0, "/sbin/init");
        Add(launcher, 1, "/usr/bin/Cpuwarden");
        Add(command, launcher, "/bin/w");
    }

    Process& Add(int pid, int parent, const std::optional<std::string>& executable) {
        Process& process = host.processes[pid];
        process = {
            .pid = pid, .parent = parent, .commandName = "w", .startTime = 5, .executable = executable};
        return process;
    }
    void Launched(Launch launch) { host.launches.push_back(std::move(launch)); }
    Registry& Allocations() { return host.registries.back(); }
    void Configure(const Lines& lines) { reading.configuration = Configured(lines); }
    HostReport Report() const { return MakeReport(host, reading); }
};

TEST_F(CtlReportTest, SortsRecordsLikeALaunch) {
    Configure({"Cpuwarden_ManagedProcessCpuQuotaPercentage=50", "Cpuwarden_ApplicationGroups=h:w;g:w"});
    Add(20, 1, "/bin/other");
    Add(21, 1, "").hasEnded = true;
    Add(22, launcher, "/usr/bin/Cpuwarden").hasExecuted = false;
    host.hiddenProcesses = {23};
    Allocations().records = {{"w", command, 5}, {"w", 20, 5}, {"w", 21, 5},      {"w", 22, 5}, {"w", 23, 5},
                             {"w", command, 6}, {"w", 99, 5}, {"w", command, 5}, {"w", -1, 5}};
    host.cgroup.quotaCgroups = {{"11-5", true, Throttling{3, 2s}}, {"20-5", true, {}}, {"99-5", false, {}}};
    Launched({.launcher = launcher, .child = command});
    const HostReport report = Report();
    Lines dead;
    for (const DeadRecord& record : report.deadRecords) {
        dead.push_back(std::to_string(record.record.pid) + " " + std::string(RowOf(record.reason).name));
    }
    EXPECT_EQ(Joined(dead),
              "20 executable_name|21 ended|22 not_yet_executing|11 pid_reused|99 ended|-1 ended");
    ASSERT_EQ(report.allocations.size(), 2U);
    const LiveCommand& live = report.allocations.front();
    EXPECT_EQ(live.records, 2U);
    EXPECT_EQ(live.launcher, launcher);
    EXPECT_EQ(Joined(live.groups), "g|h");
    EXPECT_EQ(live.throttling->time, 2s);
    EXPECT_FALSE(report.allocations.back().isVerified);
    EXPECT_EQ(report.admitted, 150U);
    EXPECT_EQ(report.capacity, 300U);
    EXPECT_EQ(Joined(report.orphanedCgroups), "20-5");
}

// Two readings of one format must not drift apart.
TEST_F(CtlReportTest, ReadsRecordsAsLaunchersDo) {
    // clang-format off
    const Lines lines{
        "w:119:5", "w: 119x:5y:z", "w:4294967415:5", "a:119:5", "w:119:6", "w:9:5", "a:w:119:5", "w:119",
        "w", "", "w:8:5", "w::5", "w:119:", "w:0:5", "w:-7:5", "w:x:5", "w:119:x", ":119:5", "w:+119: 5",
        "w:119:-18446744073709551611", "w:99999999999999999999:5", "w:119:99999999999999999999"};
    // clang-format on
    machine.files[Paths::CoreRegistry(0)] = lines;
    StartProcess(119, "/bin/w", "5");
    StartProcess(8, "/opt/Cpuwarden", "5"); // not executing yet
    const auto configuration = Configured({"Cpuwarden_CoreDistribution=w:0,1"});
    reading.configuration = configuration;
    Cores(configuration)->SelectCoreForProcess("w", In(1s));
    Add(119, 1, "/bin/w");
    for (const std::string& line : lines) {
        if (const std::optional<Record> record = ParseRecord(line)) {
            host.registries[0].records.push_back(*record);
        }
    }
    const HostReport report = Report();
    EXPECT_EQ(machine.files[Paths::CoreRegistry(0)], Lines(5, "w:119:5"));
    ASSERT_EQ(report.cores[0].commands.size(), 1U);
    EXPECT_EQ(report.cores[0].commands[0].records, 5U);
}

} // namespace
