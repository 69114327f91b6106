// SPDX-License-Identifier: Apache-2.0
#include "ctl/HostReport.hpp"
#include "ctl/Paths.hpp"
#include "support/HostTest.hpp"

namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

constexpr int launcher = 10;
constexpr int command = 11;

/// A host of three cores, on which 3000 s have passed, with a launcher and its command on core 1.
struct CtlReportTest : HostTest {
    ConfigurationReading reading;
    HostSnapshot host{.now = 300000, .ticksPerSecond = 100, .cores = {0, 1, 2}};

    CtlReportTest() {
        host.cgroup = {.exists = true, .cpus = "0-2", .cpuCount = 3};
        for (const std::uint32_t core : host.cores) {
            host.registries.push_back(
                {.path = Paths::CoreRegistry(core), .core = core, .file = std::to_string(core)});
        }
        host.registries.push_back({.path = Paths::allocationRegistry, .file = "a"});
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

std::string Name(NotCountedReason reason) {
    for (const auto& [known, name] : notCountedReasons) {
        if (known == reason) {
            return std::string(name);
        }
    }
    return "";
}

std::string Name(DeadReason reason) {
    for (const auto& [known, name] : deadReasons) {
        if (known == reason) {
            return std::string(name);
        }
    }
    return "";
}

TEST_F(CtlReportTest, TellsWhyACommandDoesNotCount) {
    const std::optional<std::size_t> onCore = 1;
    const std::optional<std::size_t> withQuota = 3;
    const std::optional<std::size_t> lost;
    const std::string own = "cwset/11-5";
    // clang-format off
    const struct {
        std::string title;
        std::string word; // that was launched
        std::optional<std::size_t> registry;
        std::optional<std::string> executable;
        CpuSet affinity;
        std::string cpuset;
        std::string cpu;
        Lines configuration;
        std::string reason;
    } cases[] = {
        {"on its core", "w", onCore, "/bin/w", {1}, "cwset", "", {}, ""},
        {"in a cgroup of its own making", "w", onCore, "/bin/w", {1}, "cwset/x", "", {}, ""},
        {"a script that is still recorded", "w", onCore, "/bin/sh", {1}, "cwset", "", {}, "executable_name"},
        {"a script whose record was dropped", "w", lost, "/bin/sh", {1}, "cwset", "", {}, "executable_name"},
        {"replaced while it runs", "w", onCore, "/bin/w (deleted)", {1}, "cwset", "", {}, "executable_name"},
        {"a name with a colon", "/opt/w:1", lost, "/opt/w:1", {1}, "cwset", "", {}, "name_with_colon"},
        {"a lost record", "/bin/w", lost, "/bin/w", {1}, "cwset", "", {}, "record_lost"},
        {"not pinned", "w", onCore, "/bin/w", {0, 1, 2}, "cwset", "", {}, "other_core"},
        {"pinned elsewhere", "w", onCore, "/bin/w", {2}, "cwset", "", {}, "other_core"},
        {"ended meanwhile", "w", onCore, "/bin/w", {}, "cwset", "", {}, ""},
        {"outside cwset", "w", onCore, "/bin/w", {1}, "", "", {}, "outside_cgroup"},
        {"with a quota", "w", withQuota, "/bin/w", {0, 1}, own, own, {}, ""},
        {"without its quota", "w", withQuota, "/bin/w", {0, 1}, "cwset", "cwset", {}, "outside_cgroup"},
        {"in one hierarchy of two", "w", withQuota, "/bin/w", {0, 1}, own, "", {}, "outside_cgroup"},
        {"a group without cores", "w", onCore, "/bin/w", {1}, "cwset", "", {"ApplicationGroups=g:w"}, "core_not_assigned"},
        {"a group with the core", "w", onCore, "/bin/w", {1}, "cwset", "", {"ApplicationGroups=g:w", "CoreDistribution=g:1"}, ""},
        {"not to be seen", "w", onCore, std::nullopt, {1}, "cwset", "", {}, ""},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.title);
        Lines lines;
        for (const std::string& assignment : c.configuration) {
            lines.push_back("Cpuwarden_" + assignment);
        }
        Configure(lines);
        for (Registry& registry : host.registries) {
            registry.records.clear();
        }
        if (c.registry) {
            host.registries[*c.registry].records = {{"w", command, 5}};
        }
        host.cgroup.cpusetMembers = host.cgroup.cpuMembers = {};
        if (!c.cpuset.empty()) {
            host.cgroup.cpusetMembers[command] = c.cpuset;
        }
        if (!c.cpu.empty()) {
            host.cgroup.cpuMembers[command] = c.cpu;
        }
        Add(command, launcher, c.executable);
        host.launches = {
            {.launcher = launcher, .child = command, .affinity = c.affinity, .command = {c.word, "x"}}};
        const HostReport report = Report();
        EXPECT_EQ(report.notCounted.empty() ? "" : Name(report.notCounted.front().reason), c.reason);
        EXPECT_THAT(report.unmanaged, testing::IsEmpty());
    }
}

TEST_F(CtlReportTest, CallsNoRecordLostThatMayStandInAnUnreadRegistry) {
    Launched({.launcher = launcher, .child = command, .affinity = {1}, .command = {"w"}});
    host.registries[2].problem = "Permission denied";
    const HostReport report = Report();
    EXPECT_THAT(report.notCounted, testing::IsEmpty());
    EXPECT_EQ(report.cores[2].state, CoreState::unknown);
    ASSERT_EQ(report.blindSpots.size(), 2U);
    EXPECT_EQ(report.blindSpots[0].what, "/tmp/core_pids_2.lock");
    EXPECT_EQ(report.blindSpots[1].what, "records of commands: 1");
}

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
        dead.push_back(std::to_string(record.record.pid) + " " + Name(record.reason));
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
        "w", "", "w::5", "w:119:", "w:0:5", "w:-7:5", "w:x:5", "w:119:x", ":119:5", "w:+119: 5",
        "w:119:-18446744073709551611", "w:99999999999999999999:5", "w:119:99999999999999999999"};
    // clang-format on
    machine.files[Paths::CoreRegistry(0)] = lines;
    StartProcess(119, "/bin/w", "5");
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
    ASSERT_EQ(report.cores[0].commands.size(), 1U);
    EXPECT_EQ(report.cores[0].commands[0].records, machine.files[Paths::CoreRegistry(0)].size());
}

} // namespace
