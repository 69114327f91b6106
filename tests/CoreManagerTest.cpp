// SPDX-License-Identifier: Apache-2.0
#include "core/CoreManager.hpp"

#include "support/Fakes.hpp"

namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

std::string Registry(int core) {
    return "/tmp/core_pids_" + std::to_string(core) + ".lock";
}
const std::string allocations = "/tmp/cw_allocations.lock";
const std::string cwset = "/sys/fs/cgroup/cwset";

struct CoreManagerTest : testing::Test {
    Lines transcript;
    std::shared_ptr<MemoryFileSystem> fileSystem = std::make_shared<MemoryFileSystem>(
        transcript, MemoryFileSystem::Files{{"/sys/fs/cgroup/cgroup.controllers", {}},
                                            {cwset + "/cpuset.cpus", {"0-2"}}});
    std::shared_ptr<FakeResources> resources = std::make_shared<FakeResources>(fileSystem);
    std::shared_ptr<FakeProcesses> processes = std::make_shared<FakeProcesses>(fileSystem, resources);
    std::shared_ptr<FakeLogger> logger = std::make_shared<FakeLogger>(transcript);

    CoreManager Manager(const Lines& lines) {
        return {Configured(lines, logger), fileSystem, processes, resources, logger};
    }
    int Select(const Lines& lines, std::chrono::milliseconds time = 1s) {
        return Manager(lines).SelectCoreForProcess("/usr/bin/w", In(time));
    }
    std::string AssignFailure(std::uint32_t quota, std::chrono::milliseconds time = 1s) {
        const Lines lines{"Cpuwarden_ManagedProcessCpuQuotaPercentage=" + std::to_string(quota)};
        return Failure(
            [&] { Manager(lines).AssignQuotaCgroupForProcess("/bin/w", 42, 777, "cwset", In(time)); });
    }
    CoreManagerTest() {
        for (const int name : {'a', 'b', 'w'})
            processes->running[name] = {std::string("/bin/") + static_cast<char>(name),
                                        5};            // "w" is process 119
        processes->running[8] = {"/opt/Cpuwarden", 5}; // registered, not yet executing
    }
};

TEST_F(CoreManagerTest, KeepsOnlyLiveRecords) {
    fileSystem->files[Registry(0)] = {"w:119:5", "w: 119x:5y:z", "w:4294967415:5", "a:119:5", "w:119:6",
                                      "w:9:5",   "w:8:5",        "a:w:119:5",      "w:119",   "w",
                                      "",        "w::5",         "w:119:",         "w:0:5",   "w:-7:5",
                                      "w:x:5",   "w:119:x",      ":119:5",         "w:119:5"};
    fileSystem->files[Registry(0)].push_back("w:99999999999999999999:5");
    fileSystem->files[Registry(0)].push_back("w:119:99999999999999999999");
    EXPECT_EQ(Select({"Cpuwarden_CoreDistribution=w:0,1"}), 1);
    EXPECT_EQ(fileSystem->files[Registry(0)], Lines(4, "w:119:5"));
    EXPECT_EQ(fileSystem->files[Registry(1)], Lines{"w:42:777"});
}

TEST_F(CoreManagerTest, TakesAndReleasesLocksInOneOrder) {
    const Lines two{"Cpuwarden_CoreDistribution=w:2,0"};
    EXPECT_EQ(Select(two), 0);
    EXPECT_EQ(Joined(transcript), "lock core_pids_0.lock|lock core_pids_2.lock|write " + Registry(0) +
                                      " |write " + Registry(2) + " |append " + Registry(0) +
                                      " w:42:777|unlock core_pids_0.lock|close core_pids_0.lock|unlock "
                                      "core_pids_2.lock|close core_pids_2.lock");
    fileSystem->files[Registry(0)] = fileSystem->files[Registry(2)] = {"w:119:5"};
    transcript.clear();
    EXPECT_EQ(Select(two, 20ms), -1);
    EXPECT_THAT(Joined(transcript),
                testing::EndsWith("|unlock core_pids_0.lock|close core_pids_0.lock|unlock "
                                  "core_pids_2.lock|close core_pids_2.lock"));
    transcript.clear();
    fileSystem->unlockable = "core_pids_2.lock";
    EXPECT_THROW(Select(two), Exceptions::XTimeoutError);
    EXPECT_EQ(Joined(transcript),
              "lock core_pids_0.lock|close core_pids_2.lock|unlock core_pids_0.lock|close core_pids_0.lock");
    transcript.clear();
    processes->onProbe = [] { throw Exceptions::XTimeoutError("is no reason to drop a record"); };
    EXPECT_THROW(Select({"Cpuwarden_CoreDistribution=w:0"}), Exceptions::XTimeoutError);
    EXPECT_EQ(Joined(transcript), "lock core_pids_0.lock|unlock core_pids_0.lock|close core_pids_0.lock");
}

TEST_F(CoreManagerTest, ChoosesACore) {
    // clang-format off
    const struct { std::string title; Lines configuration; Lines running; int core; } cases[] = {
        {"other applications do not count", {"CoreDistribution=w:1,2"}, {"", "ab", ""}, 1},
        {"the first free core", {"CoreDistribution=w:0,1,2"}, {"w", "", ""}, 1},
        {"all cores taken", {"CoreDistribution=w:0,1"}, {"w", "w", ""}, -1},
        {"all cores of the machine", {}, {"w", "w", ""}, 2},
        {"the fewest, and the earlier of equals", {"CoreDistribution=w:0,1,2", "ShareCore=true"}, {"ww", "w", "w"}, 1},
        {"members of every group", {"CoreDistribution=w:0,1,2;a:0;b:1", "ApplicationGroups=g:w,a;h:b,w"}, {"a", "b", ""}, 2},
        {"a member counts where it is assigned", {"CoreDistribution=w:0,1;a:1", "ApplicationGroups=g:w,a"}, {"a", "", ""}, 0},
        {"a group without cores counts nothing", {"ApplicationGroups=g:w"}, {"w", "", ""}, 0},
        {"the group's own name does not count", {"CoreDistribution=w:0", "ApplicationGroups=a:w"}, {"a", "", ""}, 0},
    };
    // clang-format on
    for (const auto& c : cases) {
        for (std::size_t core = 0; core < c.running.size(); ++core) {
            Lines& records = fileSystem->files[Registry(static_cast<int>(core))] = {};
            for (const char name : c.running[core])
                records.push_back(name + (":" + std::to_string(name)) + ":5");
        }
        Lines lines;
        for (const std::string& assignment : c.configuration)
            lines.push_back("Cpuwarden_" + assignment);
        EXPECT_EQ(Select(lines, 20ms), c.core) << c.title;
    }
}

TEST_F(CoreManagerTest, AdmitsWhileThereIsRoomAndRemovesOrphans) {
    fileSystem->files[allocations] = {"gone:9:1", "a:97:5"};
    for (const char* child :
         {"97-5", "9-1", "1-23", "batch", "12-34-56", "-12", "12-", "1a-2", "1-2a", "123"})
        fileSystem->directories.insert(cwset + "/" + child);
    EXPECT_EQ(AssignFailure(140), ""); // two of them fit 300 %
    EXPECT_EQ(
        Joined(transcript),
        "info: CPU quota capacity leaves unused capacity for cgroup 'cwset'. Total capacity: 300%, quota: "
        "140%, max active managed "
        "processes: 2, unused capacity: 20%. Consider fine-tuning Cpuwarden_ManagedProcessCpuQuotaPercentage "
        "if this is unexpected."
        "|lock cw_allocations.lock|rmdir /sys/fs/cgroup/cwset/1-23|rmdir /sys/fs/cgroup/cwset/9-1|mkdir "
        "/sys/fs/cgroup/cwset/42-777"
        "|write /sys/fs/cgroup/cwset/42-777/cpuset.cpus 0-2|write /sys/fs/cgroup/cwset/42-777/cpu.max 140000 "
        "100000"
        "|write /sys/fs/cgroup/cwset/42-777/cgroup.procs 42|write /tmp/cw_allocations.lock a:97:5|w:42:777"
        "|info: PID: 42 assigned to quota cgroup: 42-777 with quota: 140%|unlock cw_allocations.lock|close "
        "cw_allocations.lock");
}

} // namespace
