// SPDX-License-Identifier: Apache-2.0
#include "support/Fakes.hpp"

#include <unistd.h>

namespace {

using std::chrono_literals::operator""s;

const std::string root = "/sys/fs/cgroup/";

struct ProcessManagerTest : testing::Test {
    Lines transcript;
    std::shared_ptr<MemoryFileSystem> fileSystem = std::make_shared<MemoryFileSystem>(transcript);
    ProcessManager processes{fileSystem, std::make_shared<SystemResources>(fileSystem)};

    std::string TranscriptOf(const std::function<void()>& operation) {
        transcript.clear();
        const std::string failure = Failure(operation);
        return failure + Joined(transcript);
    }
    std::string Add(int pid, const std::string& parent, const std::string& child, std::uint32_t quota) {
        return TranscriptOf([&] { processes.AddCgroupForManagedProcess(pid, parent, child, quota); });
    }
};

TEST_F(ProcessManagerTest, FillsCgroupsBeforeTheProcessEnters) {
    fileSystem->files = {{root + "cgroup.controllers", {}},
                         {root + "cwset/cpuset.cpus", {"0-3", "ignored"}},
                         {root + "cwset/cpuset.mems", {"0"}}};
    const std::string child = root + "cwset/42-7";
    EXPECT_EQ(Add(42, "/cwset", "/42-7", 50), "mkdir " + child + "|write " + child + "/cpuset.mems 0|write " +
                                                  child + "/cpuset.cpus 0-3|write " + child +
                                                  "/cpu.max 50000 100000|write " + child +
                                                  "/cgroup.procs 42");
    EXPECT_EQ(TranscriptOf([&] { processes.RemoveCgroupForManagedProcess("cwset", "42-7"); }),
              "rmdir " + child);

    fileSystem->files = {{root + "cpu,cpuacct", {}}, {root + "cpuset/cwset/cpuset.cpus", {"0-3"}}};
    fileSystem->directories = {root + "cpu,cpuacct/cwset/1-1"};
    const std::string cpuset = root + "cpuset/cwset/42-7", cpu = root + "cpu,cpuacct/cwset/42-7";
    EXPECT_EQ(Add(42, "cwset", "42-7", 4294967295),
              "mkdir " + cpuset + "|write " + cpuset + "/cpuset.cpus 0-3|mkdir " + cpu + "|write " + cpu +
                  "/cpu.cfs_period_us 100000|write " + cpu + "/cpu.cfs_quota_us 4294967295000|write " +
                  cpuset + "/cgroup.procs 42|write " + cpu + "/cgroup.procs 42");
    EXPECT_EQ(processes.ListManagedChildCgroups("cwset"), (Lines{"1-1", "42-7"}));
    EXPECT_EQ(TranscriptOf([&] { processes.RemoveCgroupForManagedProcess("cwset", "42-7"); }),
              "rmdir " + cpuset + "|rmdir " + cpu);
}

TEST_F(ProcessManagerTest, FindsTheStartTimeBehindAnyCommandName) {
    const auto stat = [](Lines pieces, const std::string& startTime, std::size_t between = 19) {
        pieces.insert(pieces.end(), between, "0");
        pieces.push_back(startTime);
        return pieces;
    };
    const std::vector<std::pair<Lines, std::string>> cases{
        {stat({"1", "(cat)"}, "777"), "777"},
        {stat({"1", "(a)", "b", "c)"}, "777"), "777"},
        {stat({"1", "none"}, "777x"), "777"},
        {stat({"1", "(cat)"}, "777", 18), "Failed to parse process stat file - insufficient fields: "},
        {stat({"1", "(a", "b)"}, "777", 18), "Failed to parse process stat file - insufficient fields: "},
        {stat({"1", "(cat)"}, "x7"), "Invalid argument: startTimeStr. Reason: No conversion of start time "
                                     "could be performed. Invalid format: 'x7'"},
        {stat({"1", "(cat)"}, "99999999999999999999"),
         "Failed to parse start time from process stat file - value out of range: '99999999999999999999': "
         "Numerical result out of range"},
    };
    for (const auto& [pieces, outcome] : cases) {
        fileSystem->files["/proc/" + std::to_string(::getpid()) + "/stat"] = pieces;
        std::string startTime;
        const std::string failure =
            Failure([&] { startTime = std::to_string(processes.GetProcessStartTime(::getpid())); });
        EXPECT_THAT(startTime + failure, testing::StartsWith(outcome));
    }
}

TEST_F(ProcessManagerTest, SignalsNoProcessGroup) {
    EXPECT_FALSE(processes.ProcessKill(0)); // would end this test's own process group
    EXPECT_EQ(TranscriptOf([&] { processes.ProcessShutdown(-1, In(5s)); }),
              "Invalid argument: pid. Reason: must be greater than 0");
}

} // namespace
