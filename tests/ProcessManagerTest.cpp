// SPDX-License-Identifier: Apache-2.0
#include "support/Fakes.hpp"

#include <csignal>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

const std::string root = "/sys/fs/cgroup/";

struct ProcessManagerTest : HostTest {
    ProcessManager processes{fileSystem, std::make_shared<SystemResources>(fileSystem)};

    std::string Add() {
        return Outcome([this] { processes.AddCgroupForManagedProcess(42, "/cwset", "/42-7", 4294967295); });
    }
    std::string Remove() {
        return Outcome([this] { processes.RemoveCgroupForManagedProcess("cwset", "42-7"); });
    }
};

TEST_F(ProcessManagerTest, FillsCgroupsBeforeTheProcessEnters) {
    fileSystem->files = {{root + "cgroup.controllers", {}},
                         {root + "cwset/cpuset.cpus", {"0-3", "ignored"}},
                         {root + "cwset/cpuset.mems", {"0"}}};
    EXPECT_EQ(Add(), "mkdir cwset/42-7|write cwset/42-7/cpuset.mems 0|write cwset/42-7/cpuset.cpus 0-3|"
                     "write cwset/42-7/cpu.max 4294967295000 100000|write cwset/42-7/cgroup.procs 42");
    EXPECT_EQ(processes.ListManagedChildCgroups("cwset"), Lines{"42-7"});
    EXPECT_EQ(Remove(), "rmdir cwset/42-7");

    fileSystem->files = {{root + "cpu,cpuacct", {}}, {root + "cpuset/cwset/cpuset.cpus", {"0-3"}}};
    fileSystem->directories = {root + "cpu,cpuacct/cwset/1-1"};
    EXPECT_EQ(Add(),
              "mkdir cpuset/cwset/42-7|write cpuset/cwset/42-7/cpuset.cpus 0-3|mkdir cpu,cpuacct/cwset/42-7|"
              "write cpu,cpuacct/cwset/42-7/cpu.cfs_period_us 100000|"
              "write cpu,cpuacct/cwset/42-7/cpu.cfs_quota_us 4294967295000|"
              "write cpuset/cwset/42-7/cgroup.procs 42|write cpu,cpuacct/cwset/42-7/cgroup.procs 42");
    EXPECT_EQ(processes.ListManagedChildCgroups("cwset"), (Lines{"1-1", "42-7"}));
    EXPECT_EQ(Remove(), "rmdir cpuset/cwset/42-7|rmdir cpu,cpuacct/cwset/42-7");
}

TEST_F(ProcessManagerTest, NamesWhyAProcessCannotBePlaced) {
    fileSystem->files[root + "cpuset/readonly/cgroup.procs"] = {};
    host.failures["append"] = [] { throw Exceptions::XRuntimeError("refused"); };
    const std::string pid = "Invalid argument: pid. Reason: must be greater than 0";
    // clang-format off
    const std::vector<std::pair<std::function<void()>, std::string>> cases{
        {[&] { processes.AddCgroupForManagedProcess(0, "p", "c", 1); }, pid},
        {[&] { processes.AddCgroupForManagedProcess(1, "p", "c", 0); },
            "Invalid argument: quotaPercentage. Reason: must be greater than 0"},
        {[&] { processes.AddCgroupForManagedProcess(1, "", "c", 1); },
            "Invalid argument: parentCgroupName. Reason: cannot be empty"},
        {[&] { processes.AddCgroupForManagedProcess(1, "p", "", 1); },
            "Invalid argument: childCgroupName. Reason: cannot be empty"},
        {[&] { processes.AddCgroupForManagedProcess(1, "p", "c", 1); },
            "Unable to configure subcgroup 'c' for process with PID: 1. Reason: Invalid argument: "
            "/sys/fs/cgroup/cpuset/p/cpuset.cpus. Reason: The file specified doesn't exist"},
        {[&] { processes.MoveProcessToCgroup(0, "p"); }, pid},
        {[&] { processes.MoveProcessToCgroup(1, ""); }, "Invalid argument: cgroupName. Reason: cannot be empty"},
        {[&] { processes.MoveProcessToCgroup(1, "p"); }, "cgroup '/sys/fs/cgroup/cpuset/p/cgroup.procs' does not exist"},
        {[&] { processes.MoveProcessToCgroup(1, "readonly"); },
            "Unable to move process with PID: 1 to cgroup 'readonly'. Reason: refused"},
        {[&] { processes.ProcessShutdown(-5, In(1s)); }, pid},
        {[&] { processes.ProcessWait(0, In(0s)); }, pid},
    };
    // clang-format on
    for (const auto& [operation, text] : cases) {
        EXPECT_EQ(Failure(operation), text);
    }
    EXPECT_FALSE(processes.ProcessKill(0)); // which would be a process group
}

TEST_F(ProcessManagerTest, FindsTheStartTimeBehindAnyCommandName) {
    const std::string tooFew = "Failed to parse process stat file - insufficient fields";
    // clang-format off
    const struct { Lines beginning; std::size_t zeros; std::string startTime, outcome; } cases[] = {
        {{"1", "(cat)"}, 19, "777", "777"},
        {{"1", "(a)", "b", "c)"}, 19, "777", "777"},
        {{"1", "none"}, 19, "777x", "777"},
        {{"1", "(cat)"}, 18, "777", tooFew},
        {{"1", "(a", "b)"}, 18, "777", tooFew},
        {{"1", "(cat)"}, 19, "x7", "Invalid argument: startTimeStr. Reason: No conversion of start time could be performed. "
                                   "Invalid format: 'x7'"},
        {{"1", "(cat)"}, 19, "99999999999999999999", "Failed to parse start time from process stat file - value out of range: "
                                                     "'99999999999999999999': Numerical result out of range"},
    };
    // clang-format on
    for (const auto& c : cases) {
        Lines& pieces = fileSystem->files["/proc/" + std::to_string(::getpid()) + "/stat"] = c.beginning;
        pieces.insert(pieces.end(), c.zeros, "0");
        pieces.push_back(c.startTime);
        std::string startTime;
        const std::string failure =
            Failure([&] { startTime = Sentence(processes.GetProcessStartTime(::getpid())); });
        EXPECT_THAT(startTime + failure, testing::StartsWith(c.outcome));
    }
}

/// Real children, on a clock that moves in sleeps alone.
struct ChildTest : ProcessManagerTest {
    const int pid = Start([] { ::pause(); });
    const std::string signal = "kill " + std::to_string(pid) + " ";

    ~ChildTest() override {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
    int Start(const std::function<void()>& life) const {
        const int child = processes.Fork();
        if (child == 0) {
            life();
            ::_exit(0);
        }
        return child;
    }
    /// What ProcessWait says once the child has ended.
    std::string EndOf(int child, std::chrono::milliseconds time = 1ms) const {
        siginfo_t end;
        ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT);
        const auto [exited, code] = processes.ProcessWait(child, In(time));
        return Sentence(exited, code);
    }
    std::string Wait(std::chrono::milliseconds time) {
        return Outcome([&] { EXPECT_EQ(processes.ProcessWait(pid, In(time)), std::pair(false, 0)); });
    }
    std::string Shutdown(bool gone, std::chrono::milliseconds time = 1s) {
        return Outcome([&] { EXPECT_EQ(processes.ProcessShutdown(pid, In(time)), gone); });
    }
};

TEST_F(ChildTest, EndsWithAStatusOrASignal) {
    EXPECT_EQ(EndOf(Start([] { ::_exit(3); })), "1 3");
    EXPECT_TRUE(processes.ProcessKill(pid));
    EXPECT_EQ(EndOf(pid, 0ms), "0 0"); // not even then
    EXPECT_EQ(EndOf(pid), "1 137");
    EXPECT_EQ(Wait(1ms), "!waitpid failed: No child processes");
    EXPECT_EQ(Shutdown(true), signal + "0");
    EXPECT_EQ(Failure([&] { processes.GetProcessStartTime(pid); }),
              "Invalid argument: pid. Reason: process with PID: " + std::to_string(pid) + " is not alive");
    EXPECT_FALSE(processes.ProcessKill(pid));
}

TEST_F(ChildTest, IsLookedAtOnceASecondUntilTheDeadline) {
    host.errors["waitpid"] = {EINTR};
    EXPECT_EQ(Wait(2s), "sleep 1000 ms|sleep 1000 ms");
    EXPECT_EQ(Wait(0s), "");
}

TEST_F(ChildTest, IsAskedToStopAndAwaited) {
    host.errors["kill"] = {0, ESRCH, 0, EPERM};
    EXPECT_EQ(Shutdown(true), signal + "0|" + signal + "15");
    EXPECT_EQ(Shutdown(false), signal + "0|" + signal + "15");
    EXPECT_EQ(Shutdown(false, 0s), signal + "0|" + signal + "15");
    host.errors["waitpid"] = {EINTR};
    host.onSleep = [this] { EXPECT_EQ(EndOf(pid, 0s), "0 0"); };
    EXPECT_EQ(Shutdown(true, 2s), signal + "0|" + signal + "15|sleep 1000 ms");
}

TEST_F(ChildTest, MayFailToStart) {
    host.errors["fork"] = {EAGAIN};
    EXPECT_EQ(Failure([&] { processes.Fork(); }), "fork failed: Resource temporarily unavailable");
}

} // namespace
