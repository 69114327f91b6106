// SPDX-License-Identifier: Apache-2.0
#include "core/CoreManager.hpp"

#include "support/Fakes.hpp"

namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

std::string Registry(int core) { return "/tmp/core_pids_" + std::to_string(core) + ".lock"; }
const std::string allocations = "/tmp/cw_allocations.lock";
const std::string cwset = "/sys/fs/cgroup/cwset";

struct CoreManagerTest : testing::Test {
    Lines transcript;
    std::shared_ptr<MemoryFileSystem> fileSystem =
        std::make_shared<MemoryFileSystem>(transcript, MemoryFileSystem::Files{{"/sys/fs/cgroup/cgroup.controllers", {}}, {cwset + "/cpuset.cpus", {"0-2"}}});
    std::shared_ptr<FakeResources> resources = std::make_shared<FakeResources>(fileSystem);
    std::shared_ptr<FakeProcesses> processes = std::make_shared<FakeProcesses>(fileSystem, resources);
    std::shared_ptr<FakeConfiguration> configuration = std::make_shared<FakeConfiguration>();
    CoreManager manager{configuration, fileSystem, processes, resources, std::make_shared<FakeLogger>(transcript)};

    CoreManagerTest() {
        for (const int name : {'a', 'b', 'w'}) processes->running[name] = {std::string("/bin/") + static_cast<char>(name), 5}; // "w" is process 119
        processes->running[8] = {"/opt/Cpuwarden", 5};                                                                         // registered, not yet executing
    }
    std::string AssignFailure(std::chrono::milliseconds time = 1s) {
        return Failure([&] { manager.AssignQuotaCgroupForProcess("/bin/w", 42, 777, "cwset", In(time)); });
    }
};

TEST_F(CoreManagerTest, KeepsOnlyLiveRecords) {
    fileSystem->files[Registry(0)] = {"w:119:5", "w: 119x:5y:z", "w:4294967415:5", "a:119:5", "w:119:6", "w:9:5", "w:8:5",   "a:w:119:5", "w:119",  "w",
                                      "",        "w::5",         "w:119:",         "w:0:5",   "w:-7:5",  "w:x:5", "w:119:x", ":119:5",    "w:119:5"};
    fileSystem->files[Registry(0)].push_back("w:99999999999999999999:5");
    fileSystem->files[Registry(0)].push_back("w:119:99999999999999999999");
    configuration->cores["w"] = {0, 1};
    EXPECT_EQ(manager.SelectCoreForProcess("/usr/bin/w", In(1s)), 1);
    EXPECT_EQ(fileSystem->files[Registry(0)], Lines(4, "w:119:5"));
    EXPECT_EQ(fileSystem->files[Registry(1)], Lines{"w:42:777"});
}

TEST_F(CoreManagerTest, TakesAndReleasesLocksInOneOrder) {
    configuration->cores["w"] = {0, 2};
    EXPECT_EQ(manager.SelectCoreForProcess("w", In(1s)), 0);
    EXPECT_EQ(Joined(transcript), "lock core_pids_0.lock|lock core_pids_2.lock|write " + Registry(0) + " |write " + Registry(2) + " |append " + Registry(0) +
                                      " w:42:777|unlock core_pids_0.lock|close core_pids_0.lock|unlock core_pids_2.lock|close core_pids_2.lock");
    fileSystem->files[Registry(0)] = fileSystem->files[Registry(2)] = {"w:119:5"};
    transcript.clear();
    EXPECT_EQ(manager.SelectCoreForProcess("w", In(20ms)), -1);
    EXPECT_THAT(Joined(transcript), testing::EndsWith("|unlock core_pids_0.lock|close core_pids_0.lock|unlock core_pids_2.lock|close core_pids_2.lock"));
    transcript.clear();
    fileSystem->unlockable = "core_pids_2.lock";
    EXPECT_THROW(manager.SelectCoreForProcess("w", In(1s)), Exceptions::XTimeoutError);
    EXPECT_EQ(Joined(transcript), "lock core_pids_0.lock|close core_pids_2.lock|unlock core_pids_0.lock|close core_pids_0.lock");
    transcript.clear();
    configuration->cores["w"] = {0};
    processes->onProbe = [] { throw Exceptions::XTimeoutError("is no reason to drop a record"); };
    EXPECT_THROW(manager.SelectCoreForProcess("w", In(1s)), Exceptions::XTimeoutError);
    EXPECT_EQ(Joined(transcript), "lock core_pids_0.lock|unlock core_pids_0.lock|close core_pids_0.lock");
}

TEST_F(CoreManagerTest, ChoosesACore) {
    using Assigned = std::map<std::string, std::vector<std::uint32_t>>;
    using Groups = std::unordered_map<std::string, Lines>;
    struct Case {
        bool share;
        Assigned cores;
        Groups groups;
        std::vector<std::string> running;
        int core;
    };
    const std::map<std::string, Case> cases{
        // clang-format off
        {"other applications do not count", {false, {{"w", {1, 2}}}, {}, {"", "ab", ""}, 1}},
        {"the first free core", {false, {{"w", {0, 1, 2}}}, {}, {"w", "", ""}, 1}},
        {"all cores taken", {false, {{"w", {0, 1}}}, {}, {"w", "w", ""}, -1}},
        {"all cores of the machine", {false, {}, {}, {"w", "w", ""}, 2}},
        {"the fewest, and the earlier of equals", {true, {{"w", {0, 1, 2}}}, {}, {"ww", "w", "w"}, 1}},
        {"members of every group", {false, {{"w", {0, 1, 2}}, {"a", {0}}, {"b", {1}}}, {{"g", {"w", "a"}}, {"h", {"b", "w"}}}, {"a", "b", ""}, 2}},
        {"a member counts where it is assigned", {false, {{"w", {0, 1}}, {"a", {1}}}, {{"g", {"w", "a"}}}, {"a", "", ""}, 0}},
        {"a group without cores counts nothing", {false, {}, {{"g", {"w"}}}, {"w", "", ""}, 0}},
        {"the group's own name does not count", {false, {{"w", {0}}, {"a", {0}}}, {{"a", {"w"}}}, {"a", "", ""}, 0}},
        // clang-format on
    };
    for (const auto& [title, c] : cases) {
        configuration->shareCore = c.share;
        configuration->cores = c.cores;
        configuration->groups = c.groups;
        for (std::size_t core = 0; core < c.running.size(); ++core) {
            Lines& records = fileSystem->files[Registry(static_cast<int>(core))] = {};
            for (const char name : c.running[core]) records.push_back(name + (":" + std::to_string(name)) + ":5");
        }
        EXPECT_EQ(manager.SelectCoreForProcess("w", In(20ms)), c.core) << title;
    }
}

TEST_F(CoreManagerTest, AdmitsWhileThereIsRoomAndRemovesOrphans) {
    configuration->quota = 140; // two of them fit 300 %
    fileSystem->files[allocations] = {"gone:9:1", "a:97:5"};
    for (const char* child : {"97-5", "9-1", "1-23", "batch", "12-34-56", "-12", "12-", "1a-2", "1-2a", "123"})
        fileSystem->directories.insert(cwset + "/" + child);
    EXPECT_EQ(AssignFailure(), "");
    EXPECT_EQ(Joined(transcript), "info: CPU quota capacity leaves unused capacity for cgroup 'cwset'. Total capacity: 300%, quota: 140%, max active managed "
                                  "processes: 2, unused capacity: 20%. Consider fine-tuning Cpuwarden_ManagedProcessCpuQuotaPercentage if this is unexpected."
                                  "|lock cw_allocations.lock|rmdir /sys/fs/cgroup/cwset/1-23|rmdir /sys/fs/cgroup/cwset/9-1|mkdir /sys/fs/cgroup/cwset/42-777"
                                  "|write /sys/fs/cgroup/cwset/42-777/cpuset.cpus 0-2|write /sys/fs/cgroup/cwset/42-777/cpu.max 140000 100000"
                                  "|write /sys/fs/cgroup/cwset/42-777/cgroup.procs 42|write /tmp/cw_allocations.lock a:97:5|w:42:777"
                                  "|info: PID: 42 assigned to quota cgroup: 42-777 with quota: 140%|unlock cw_allocations.lock|close cw_allocations.lock");
}

TEST_F(CoreManagerTest, WaitsForRoomUntilTheDeadline) {
    configuration->quota = 300;
    fileSystem->files[allocations] = {"gone:9:1", "a:97:5"};
    EXPECT_EQ(AssignFailure(20ms), "Unable to allocate CPU quota for: /bin/w");
    EXPECT_EQ(Joined(transcript), "lock cw_allocations.lock|write /tmp/cw_allocations.lock a:97:5|unlock cw_allocations.lock|close cw_allocations.lock");
    processes->onProbe = [this] { processes->running.erase('a'); };
    EXPECT_EQ(AssignFailure(), "");
    EXPECT_EQ(fileSystem->files[allocations], Lines{"w:42:777"});
    const std::string key = "Cpuwarden_ManagedProcessCpuQuotaPercentage";
    transcript.clear();
    configuration->quota = 301;
    EXPECT_EQ(AssignFailure(), key + " (301) exceeds available capacity for cgroup 'cwset' (300).");
    configuration->quota = 0;
    EXPECT_EQ(AssignFailure(), key + " must be greater than 0. Got: 0.");
    EXPECT_EQ(transcript, Lines{}); // refused before any lock is taken
}

} // namespace
