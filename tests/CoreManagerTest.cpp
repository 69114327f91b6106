// SPDX-License-Identifier: Apache-2.0
#include "core/CoreManager.hpp"

#include "support/HostTest.hpp"

namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

std::string Registry(int core) {
    return "/tmp/core_pids_" + std::to_string(core) + ".lock";
}
const std::string allocations = "/tmp/cw_allocations.lock";
const std::string quotaKey = "Cpuwarden_ManagedProcessCpuQuotaPercentage";
const std::string cores = "Cpuwarden_CoreDistribution=";
const std::string groups = "Cpuwarden_ApplicationGroups=";
const std::string shared = "Cpuwarden_ShareCore=true";

struct CoreManagerTest : HostTest {
    int core = -1; // the last selected

    CoreManagerTest() {
        StartProcess(8, "/opt/Cpuwarden", "5");   // registered, not yet executing
        for (const char name : {'a', 'b', 'w'}) { // "w" is process 119
            StartProcess(name, std::string("/bin/") + name, "5");
        }
    }
    std::string Select(const Lines& settings, std::chrono::milliseconds time = 1s) {
        const auto manager = Cores(Configured(settings));
        return Outcome([&] { core = manager->SelectCoreForProcess("/usr/bin/w", In(time)); });
    }
    std::string Assign(std::uint32_t quota, std::chrono::milliseconds time = 1s) const {
        const auto manager = Cores(Configured({quotaKey + "=" + std::to_string(quota)}));
        return Outcome([&] { manager->AssignQuotaCgroupForProcess("/bin/w", 42, 777, "cwset", In(time)); });
    }
};

TEST_F(CoreManagerTest, KeepsLiveRecordsInOrder) {
    StartProcess(9, "bare", "18446744073709551615");
    machine.errors["kill"] = {EPERM}; // of another user
    Lines kept;
    for (const auto& c : ReadCases("records.json")) {
        machine.files[Registry(0)].push_back(c["line"]);
        if (c["kept"] != "") {
            kept.push_back(c["kept"]);
        }
    }
    Select({cores + "w:0,1"});
    EXPECT_EQ(core, 1);
    EXPECT_EQ(machine.files[Registry(0)], kept);
    EXPECT_EQ(machine.files[Registry(1)], Lines{"w:42:777"});
}

TEST_F(CoreManagerTest, TakesAndReleasesLocksInOneOrder) {
    const Lines two{cores + "w:2,0"};
    const std::string locks = "lock core 0 within 1000|lock core 2 within 1000|";
    const std::string registers = "write core 0 |write core 2 |append core 0 w:42:777|";
    const std::string unlocks = "unlock core 0|close core 0|unlock core 2|close core 2";
    EXPECT_EQ(Select(two), locks + registers + unlocks);
    machine.hooks["read /proc/42/exe"] = [] {
        throw Exceptions::XRuntimeError("is a reason to drop a record");
    };
    EXPECT_EQ(Select(two), locks + registers + unlocks);
    machine.hooks["read /proc/42/exe"] = [] { throw Exceptions::XTimeoutError("is none"); };
    EXPECT_EQ(Select(two), locks + unlocks + "!XTimeoutError: is none");
    machine.hooks["lock core 2"] = [] { throw Exceptions::XTimeoutError("late"); };
    EXPECT_EQ(Select(two), locks + "close core 2|unlock core 0|close core 0!XTimeoutError: late");
}

TEST_F(CoreManagerTest, WaitsForACoreUntilTheDeadline) {
    const Lines one{cores + "w:0"};
    const std::string waits = "write core 0 w:119:5|sleep 50 ms|";
    const std::string unlocks = "unlock core 0|close core 0";
    machine.files[Registry(0)] = {"w:119:5"};
    EXPECT_EQ(Select(one, 100ms), "lock core 0 within 100|" + waits + waits +
                                      "err: Unable to select a core for: /usr/bin/w|" + unlocks);
    EXPECT_EQ(core, -1);
    machine.onSleep = [] { machine.files.erase("/proc/119/stat"); };
    EXPECT_EQ(Select(one, 100ms),
              "lock core 0 within 100|" + waits + "write core 0 |append core 0 w:42:777|" + unlocks);
}

TEST_F(CoreManagerTest, ChoosesACore) {
    for (const auto& c : ReadCases("choices.json")) {
        for (std::size_t number = 0; number < c["running"].size(); ++number) {
            Lines& records = machine.files[Registry(static_cast<int>(number))] = {};
            for (const char name : std::string(c["running"][number])) {
                records.push_back(name + (":" + std::to_string(name)) + ":5");
            }
        }
        Select(c["settings"], 20ms);
        EXPECT_EQ(core, c["core"]) << c.dump();
    }
}

TEST_F(CoreManagerTest, SaysWhyAllCoresAreCandidates) {
    const std::string locks = "|lock core 0 within 1000|lock core 1 within 1000|lock core 2 within 1000|";
    EXPECT_THAT(Select({}), StartsWith("err: No specific cores were assigned to w in the configuration file. "
                                       "Using all available cores." +
                                       locks));
    EXPECT_THAT(
        Select({cores + "w:2,3"}),
        StartsWith("err: CoreAssignmentSchema contains invalid core ID: 3|info: Ignoring CoreAssignment"
                   "Schema for process: /usr/bin/w and using all available cores." +
                   locks));
    EXPECT_EQ(Failure([this] { Cores(Configured({}))->SetAffinity(1024); }),
              "Failed to set CPU affinity on core: 1024");
}

TEST_F(CoreManagerTest, AdmitsWhileThereIsRoomAndRemovesOrphans) {
    machine.files[allocations] = {"gone:9:1", "a:97:5"};
    for (const char* child :
         {"97-5", "9-1", "1-23", "batch", "12-34-5", "-12", "12-", "1a-2", "1-2a", "123"}) {
        machine.directories.insert(std::string("/sys/fs/cgroup/cwset/") + child);
    }
    EXPECT_EQ(
        Assign(140), // two of them fit 300 %
        "info: CPU quota capacity leaves unused capacity for cgroup 'cwset'. Total capacity: 300%, quota: "
        "140%, "
        "max active managed processes: 2, unused capacity: 20%. Consider fine-tuning "
        "Cpuwarden_ManagedProcessCpuQuotaPercentage if this is unexpected.|"
        "lock allocations within 1000|rmdir cwset/1-23|rmdir cwset/9-1|mkdir cwset/42-777|"
        "write cwset/42-777/cpuset.mems 0|write cwset/42-777/cpuset.cpus 0-2|"
        "write cwset/42-777/cpu.max 140000 100000|write cwset/42-777/cgroup.procs 42|"
        "write allocations a:97:5|w:42:777|info: PID: 42 assigned to quota cgroup: 42-777 with quota: 140%|"
        "unlock allocations|close allocations");
}

TEST_F(CoreManagerTest, WaitsForRoomUntilTheDeadline) {
    machine.files[allocations] = {"gone:9:1", "a:97:5"};
    const std::string waits = "lock allocations within 100|write allocations a:97:5|sleep 50 ms|";
    EXPECT_EQ(Assign(300, 100ms),
              waits + "write allocations a:97:5|sleep 50 ms|unlock allocations|close allocations!"
                      "Unable to allocate CPU quota for: /bin/w");
    machine.onSleep = [] { machine.files.erase("/proc/97/stat"); };
    EXPECT_THAT(Assign(300, 100ms), StartsWith(waits + "mkdir cwset/42-777|"));
    EXPECT_EQ(machine.files[allocations], Lines{"w:42:777"});
    EXPECT_THAT(Assign(1), EndsWith("with quota: 1%|unlock allocations|close allocations"));
    EXPECT_EQ(Assign(301), "!" + quotaKey + " (301) exceeds available capacity for cgroup 'cwset' (300).");
}

} // namespace
