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
    std::shared_ptr<MemoryFileSystem> fileSystem = std::make_shared<MemoryFileSystem>(
        transcript, MemoryFileSystem::Files{{"/sys/fs/cgroup/cgroup.controllers", {}}, {cwset + "/cpuset.cpus", {"0-2"}}});
    std::shared_ptr<FakeResources> resources = std::make_shared<FakeResources>(fileSystem);
    std::shared_ptr<FakeProcesses> processes = std::make_shared<FakeProcesses>(fileSystem, resources);
    std::shared_ptr<FakeConfiguration> configuration = std::make_shared<FakeConfiguration>();
    CoreManager manager{configuration, fileSystem, processes, resources, std::make_shared<FakeLogger>(transcript)};

    void Run(int pid, const std::string& executable, std::uint64_t start = 1) { processes->running[pid] = {executable, start}; }
    std::string AssignFailure(std::chrono::milliseconds time = 1s) {
        return Failure([&] { manager.AssignQuotaCgroupForProcess("/bin/w", 42, 777, "cwset", In(time)); });
    }
};

TEST_F(CoreManagerTest, KeepsOnlyLiveRecords) {
    Run(7, "/bin/w", 5);
    Run(8, "/opt/Cpuwarden", 5); // registered, not yet executed
    fileSystem->files[Registry(0)] = {"w:7:5", "w: 7x:5y:z", "w:4294967303:5", "x:7:5", "w:7:6",  "w:9:5", "w:8:5", "a:w:7:5", "w:7",  "w",
                                      "",      "w::5",       "w:7:",           "w:0:5", "w:-7:5", "w:x:5", "w:7:x", ":7:5",    "w:7:5"};
    fileSystem->files[Registry(0)].push_back("w:99999999999999999999:5");
    fileSystem->files[Registry(0)].push_back("w:7:99999999999999999999");
    configuration->cores["w"] = {0, 1};
    EXPECT_EQ(manager.SelectCoreForProcess("/usr/bin/w", In(1s)), 1);
    EXPECT_EQ(fileSystem->files[Registry(0)], (Lines{"w:7:5", "w:7:5", "w:7:5", "w:7:5"}));
    EXPECT_EQ(fileSystem->files[Registry(1)], Lines{"w:42:777"});
}

TEST_F(CoreManagerTest, TakesAndReleasesLocksInOneOrder) {
    configuration->cores["w"] = {0, 2};
    EXPECT_EQ(manager.SelectCoreForProcess("w", In(1s)), 0);
    EXPECT_EQ(transcript, (Lines{"lock core_pids_0.lock", "lock core_pids_2.lock", "write " + Registry(0) + " ", "write " + Registry(2) + " ",
                                 "append " + Registry(0) + " w:42:777", "unlock core_pids_0.lock", "close core_pids_0.lock",
                                 "unlock core_pids_2.lock", "close core_pids_2.lock"}));
    transcript.clear();
    fileSystem->unlockable = "core_pids_2.lock";
    EXPECT_THROW(manager.SelectCoreForProcess("w", In(1s)), Exceptions::XTimeoutError);
    EXPECT_EQ(transcript, (Lines{"lock core_pids_0.lock", "close core_pids_2.lock", "unlock core_pids_0.lock", "close core_pids_0.lock"}));
}

TEST_F(CoreManagerTest, ReleasesLocksWhenAScanFails) {
    configuration->cores["w"] = {1};
    fileSystem->files[Registry(1)] = {"w:7:5"};
    processes->onProbe = [] { throw Exceptions::XRuntimeError("only this record is dropped"); };
    EXPECT_EQ(manager.SelectCoreForProcess("w", In(1s)), 1);
    processes->onProbe = [] { throw Exceptions::XTimeoutError("passes through"); };
    transcript.clear();
    EXPECT_THROW(manager.SelectCoreForProcess("w", In(1s)), Exceptions::XTimeoutError);
    EXPECT_EQ(transcript, (Lines{"lock core_pids_1.lock", "unlock core_pids_1.lock", "close core_pids_1.lock"}));
}

TEST_F(CoreManagerTest, ChoosesACore) {
    const auto busy = [&](const std::map<int, Lines>& names) { // live processes by core
        int pid = 100;
        for (const auto& [core, running] : names) {
            fileSystem->files[Registry(core)].clear();
            for (const std::string& name : running) {
                Run(++pid, "/bin/" + name);
                fileSystem->files[Registry(core)].push_back(name + ":" + std::to_string(pid) + ":1");
            }
        }
    };
    using Assigned = std::map<std::string, std::vector<std::uint32_t>>;
    using Groups = std::unordered_map<std::string, Lines>;
    const struct {
        std::string title;
        bool share;
        Assigned cores;
        Groups groups;
        std::map<int, Lines> running;
        int core;
    } cases[] = {
        // clang-format off
        {"other applications do not count", false, {{"w", {1, 2}}}, {}, {{1, {"x", "y"}}, {2, {}}}, 1},
        {"the first free core", false, {{"w", {0, 1, 2}}}, {}, {{0, {"w"}}, {1, {}}, {2, {}}}, 1},
        {"all cores taken", false, {{"w", {0, 1}}}, {}, {{0, {"w"}}, {1, {"w"}}}, -1},
        {"all cores of the machine", false, {}, {}, {{0, {"w"}}, {1, {"w"}}, {2, {}}}, 2},
        {"the fewest, and the earlier of equals", true, {{"w", {0, 1, 2}}}, {}, {{0, {"w", "w"}}, {1, {"w"}}, {2, {"w"}}}, 1},
        {"a member of the group", false, {{"w", {0, 1}}, {"x", {0}}}, {{"g", {"w", "x"}}}, {{0, {"x"}}, {1, {}}}, 1},
        {"members of every group", false, {{"w", {0, 1, 2}}, {"x", {0}}, {"y", {1}}}, {{"g", {"w", "x"}}, {"h", {"y", "w"}}}, {{0, {"x"}}, {1, {"y"}}, {2, {}}}, 2},
        {"a member counts where it is assigned", false, {{"w", {0, 1}}, {"x", {1}}}, {{"g", {"w", "x"}}}, {{0, {"x"}}, {1, {}}}, 0},
        {"a group without cores counts nothing", false, {}, {{"g", {"w"}}}, {{0, {"w"}}, {1, {}}, {2, {}}}, 0},
        {"the group's own name does not count", false, {{"w", {0}}, {"g", {0}}}, {{"g", {"w"}}}, {{0, {"g"}}}, 0},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.title);
        configuration->shareCore = c.share;
        configuration->cores = c.cores;
        configuration->groups = c.groups;
        busy(c.running);
        EXPECT_EQ(manager.SelectCoreForProcess("w", In(20ms)), c.core);
    }
}

TEST_F(CoreManagerTest, SaysWhenItCannotDoAsConfigured) {
    configuration->cores["w"] = {1, 99, 100};
    EXPECT_EQ(manager.SelectCoreForProcess("/bin/w", In(1s)), 0);
    resources->available = {};
    EXPECT_EQ(manager.SelectCoreForProcess("/bin/x", In(20ms)), -1);
    EXPECT_THAT(transcript, testing::IsSupersetOf({"err: CoreAssignmentSchema contains invalid core ID: 99",
                                                   "info: Ignoring CoreAssignmentSchema for process: /bin/w and using all available cores.",
                                                   "err: No specific cores were assigned to x in the configuration file. Using all available cores.",
                                                   "err: Unable to select a core for: /bin/x"}));
}

TEST_F(CoreManagerTest, WaitsForACoreThatFrees) {
    Run(7, "/bin/w", 5);
    fileSystem->files[Registry(1)] = {"w:7:5"};
    configuration->cores["w"] = {1};
    int probes = 0;
    processes->onProbe = [&] { ++probes == 3 ? void(processes->running.erase(7)) : void(); };
    const auto start = Clock::now();
    EXPECT_EQ(manager.SelectCoreForProcess("w", In(5s)), 1);
    EXPECT_GE(Clock::now() - start, 100ms);
    EXPECT_EQ(fileSystem->files[Registry(1)], Lines{"w:42:777"});
}

TEST_F(CoreManagerTest, AdmitsWhileThereIsRoomAndRemovesOrphans) {
    configuration->quota = 140; // two of them fit 300 %
    Run(7, "/bin/a", 5);
    fileSystem->files[allocations] = {"gone:8:1", "a:7:5"};
    for (const char* child : {"7-5", "8-1", "1-23", "batch", "12-34-56", "-12", "12-", "1a-2", "1-2a", "123"}) {
        fileSystem->directories.insert(cwset + "/" + child);
    }
    EXPECT_EQ(AssignFailure(), "");
    const std::string child = cwset + "/42-777";
    EXPECT_EQ(transcript,
              (Lines{"info: CPU quota capacity leaves unused capacity for cgroup 'cwset'. Total capacity: "
                     "300%, quota: "
                     "140%, max active managed processes: 2, unused capacity: 20%. Consider fine-tuning "
                     "Cpuwarden_ManagedProcessCpuQuotaPercentage if this is unexpected.",
                     "lock cw_allocations.lock", "rmdir " + cwset + "/1-23", "rmdir " + cwset + "/8-1", "mkdir " + child,
                     "write " + child + "/cpuset.cpus 0-2", "write " + child + "/cpu.max 140000 100000", "write " + child + "/cgroup.procs 42",
                     "write " + allocations + " a:7:5|w:42:777", "info: PID: 42 assigned to quota cgroup: 42-777 with quota: 140%",
                     "unlock cw_allocations.lock", "close cw_allocations.lock"}));
}

TEST_F(CoreManagerTest, WaitsForRoomUntilTheDeadline) {
    configuration->quota = 300;
    Run(7, "/bin/a", 5);
    fileSystem->files[allocations] = {"gone:8:1", "a:7:5"};
    EXPECT_EQ(AssignFailure(20ms), "Unable to allocate CPU quota for: /bin/w");
    EXPECT_EQ(transcript,
              (Lines{"lock cw_allocations.lock", "write " + allocations + " a:7:5", "unlock cw_allocations.lock", "close cw_allocations.lock"}));
    processes->onProbe = [this] { processes->running.erase(7); };
    EXPECT_EQ(AssignFailure(), "");
    EXPECT_EQ(fileSystem->files[allocations], Lines{"w:42:777"});
}

TEST_F(CoreManagerTest, RefusesAQuotaThatNeverFits) {
    const std::string key = "Cpuwarden_ManagedProcessCpuQuotaPercentage";
    configuration->quota = 301;
    EXPECT_EQ(AssignFailure(), key + " (301) exceeds available capacity for cgroup 'cwset' (300).");
    configuration->quota = 0;
    EXPECT_EQ(AssignFailure(), key + " must be greater than 0. Got: 0.");
    EXPECT_EQ(transcript, Lines{});
    configuration->quota = 100;
    fileSystem->files.erase(cwset + "/cpuset.cpus");
    EXPECT_THAT(AssignFailure(), testing::StartsWith("Unable to read CPU list for cgroup 'cwset'. Reason: "));
}

TEST_F(CoreManagerTest, NamesWhatIsMissing) {
    EXPECT_EQ(Failure<Exceptions::XRuntimeError>([&] { manager.SetAffinity(1024); }), "Failed to set CPU affinity on core: 1024");
    EXPECT_EQ(Failure([&] { CoreManager(configuration, fileSystem, nullptr, resources, nullptr); }),
              "Invalid argument: processManager. Reason: cannot be null");
}

} // namespace
