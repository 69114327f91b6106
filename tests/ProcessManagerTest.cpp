// SPDX-License-Identifier: Apache-2.0
#include "support/HostTest.hpp"

#include <csignal>

namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

struct ProcessManagerTest : HostTest {
    std::string Add(const std::string& parent, std::uint32_t quota) const {
        return Outcome([&] { processes->AddCgroupForManagedProcess(42, parent, "/42-7", quota); });
    }
    std::string Remove() const {
        return Outcome([this] { processes->RemoveCgroupForManagedProcess("cwset", "42-7"); });
    }
    std::string Move(const std::string& cgroup) const {
        return Outcome([&] { processes->MoveProcessToCgroup(42, cgroup); });
    }
};

TEST_F(ProcessManagerTest, FillsAndRemovesTheCgroupsOfBothHierarchies) {
    EXPECT_EQ(Remove(), "rmdir cwset/42-7");
    machine.files = {{root + "cpu,cpuacct", {}}, {root + "cpuset/cwset/cpuset.cpus", {"0-3"}}};
    machine.directories = {root + "cpu,cpuacct/cwset/1-1"};
    EXPECT_EQ(Add("/cwset", 4294967295),
              "mkdir cpuset/cwset/42-7|write cpuset/cwset/42-7/cpuset.cpus 0-3|mkdir cpu,cpuacct/cwset/42-7|"
              "write cpu,cpuacct/cwset/42-7/cpu.cfs_period_us 100000|"
              "write cpu,cpuacct/cwset/42-7/cpu.cfs_quota_us 4294967295000|"
              "write cpuset/cwset/42-7/cgroup.procs 42|write cpu,cpuacct/cwset/42-7/cgroup.procs 42");
    EXPECT_EQ(processes->ListManagedChildCgroups("cwset"), (Lines{"1-1", "42-7"}));
    EXPECT_EQ(Remove(), "rmdir cpuset/cwset/42-7|rmdir cpu,cpuacct/cwset/42-7");
}

TEST_F(ProcessManagerTest, NamesWhyAProcessCannotBePlaced) {
    EXPECT_EQ(Add("p", 1),
              "mkdir p/42-7!Unable to configure subcgroup '/42-7' for process with PID: 42. Reason: Invalid "
              "argument: /sys/fs/cgroup/p/cpuset.cpus. Reason: The file specified doesn't exist");
    EXPECT_EQ(Move("p"), "!cgroup '/sys/fs/cgroup/p/cgroup.procs' does not exist");
    machine.hooks["append"] = [] { throw Exceptions::XRuntimeError("refused"); };
    EXPECT_EQ(Move("cwset"), "append cwset/cgroup.procs 42!"
                             "Unable to move process with PID: 42 to cgroup 'cwset'. Reason: refused");
}

TEST_F(ProcessManagerTest, NamesTheArgumentThatIsNone) {
    const auto refuses = [](const std::string& argument, const auto& operation) {
        const std::string reason =
            "(must be greater than 0|cannot be empty|process with PID: 7 is not alive)";
        EXPECT_THAT(Failure(operation),
                    MatchesRegex("Invalid argument: " + argument + ". Reason: " + reason));
    };
    // Of several the first.
    refuses("pid", [&] { processes->AddCgroupForManagedProcess(0, "", "", 0); });
    refuses("quotaPercentage", [&] { processes->AddCgroupForManagedProcess(1, "", "", 0); });
    refuses("parentCgroupName", [&] { processes->AddCgroupForManagedProcess(1, "", "", 1); });
    refuses("childCgroupName", [&] { processes->AddCgroupForManagedProcess(1, "p", "", 1); });
    refuses("childCgroupName", [&] { processes->RemoveCgroupForManagedProcess("p", ""); });
    refuses("cgroupName", [&] { processes->MoveProcessToCgroup(1, ""); });
    refuses("pid", [&] { processes->IsProcessAlive(-1); });
    refuses("pid", [&] { processes->ProcessWait(0, In(1s)); });
    refuses("pid", [&] { processes->GetProcessExecutablePath(7); }); // does not run
}

TEST_F(ProcessManagerTest, FindsTheStartTimeBehindAnyCommandName) {
    for (const auto& c : ReadCases("stats.json")) {
        Lines& pieces = machine.files["/proc/42/stat"] = c["beginning"];
        pieces.insert(pieces.end(), c["zeros"], "0");
        pieces.push_back(c["start_time"]);
        const std::string outcome = Outcome([&] { machine.Step(processes->GetProcessStartTime(42)); });
        EXPECT_THAT(outcome, StartsWith(c["outcome"]));
    }
}

struct ChildTest : HostTest {
    std::string Wait(std::chrono::milliseconds time) const {
        return Outcome([&] {
            const auto [exited, code] = processes->ProcessWait(42, In(time));
            machine.Step(exited ? "ended" : "runs", code);
        });
    }
    std::string Shutdown(std::chrono::milliseconds time) const {
        return Outcome([&] { machine.Step(processes->ProcessShutdown(42, In(time)) ? "gone" : "stays"); });
    }
};

TEST_F(ChildTest, IsLookedAtOnceASecondUntilTheDeadline) {
    EXPECT_EQ(Wait(2s), "sleep 1000 ms|sleep 1000 ms|runs 0");
    machine.ended = 3 << 8;
    EXPECT_EQ(Wait(0s), "runs 0"); // not even then
    EXPECT_EQ(Wait(1ms), "ended 3");
    machine.ended = SIGKILL;
    EXPECT_EQ(Wait(1ms), "ended 137");
    machine.ended = 0x7f; // stopped, see waitpid(2)
    EXPECT_EQ(Wait(1ms), "ended 1");
    machine.errors["waitpid"] = {EINTR, 0, ECHILD};
    EXPECT_EQ(Wait(2s), "sleep 1000 ms|ended 1");
    EXPECT_EQ(Wait(2s), "!waitpid failed: No child processes");
}

TEST_F(ChildTest, IsAskedToStopAndAwaited) {
    EXPECT_EQ(Shutdown(1s), "kill 42 15|sleep 1000 ms|stays");
    machine.errors["kill"] = {0, ESRCH, 0, EPERM};
    EXPECT_EQ(Shutdown(1s), "kill 42 15|gone");
    EXPECT_EQ(Shutdown(1s), "kill 42 15|stays");
    machine.ended = SIGTERM;
    EXPECT_EQ(Shutdown(1s), "kill 42 15|gone");
    machine.files.erase("/proc/42/stat");
    EXPECT_EQ(Shutdown(1s), "gone");         // before anything is sent
    EXPECT_FALSE(processes->ProcessKill(0)); // the process group of the caller, see kill(2)
    EXPECT_EQ(machine.transcript, Lines{"gone"});
}

} // namespace
