// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "filesystem/Split.hpp"
#include "support/CtlHosts.hpp"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

using std::chrono_literals::operator""s;
constexpr int launcher = 10;
constexpr int command = 11;
const std::string record = "w:11:180000\n";

struct CtlReportTest : testing::Test {
    CtlHost host;

    std::string Status() { return host.Run(statusCommand, {"--json"}); }
    std::string Seen(const std::string& name) { return Field(Status(), name); }
    /// Each of them is the name of a field and its values.
    void ExpectFields(const Lines& fields) {
        const std::string json = Status();
        for (const std::string& field : fields) {
            const std::string name = field.substr(0, field.find(' '));
            EXPECT_EQ(Sentence(name, Field(json, name)), field);
        }
    }
    /// A line of /proc/locks about the registry, by the numbers that its mount is given here.
    std::string LockOf(int core, int holder) const {
        struct stat held = {};
        ::stat(host.CoreRegistry(core).c_str(), &held);
        struct statx mounted = {};
        ::statx(AT_FDCWD, "/tmp", 0, STATX_MNT_ID, &mounted);
        host.Write("/proc/self/mountinfo",
                   "1 1 0:1 / / rw\n" + std::to_string(mounted.stx_mnt_id) + " 1 98:7 / / rw\n");
        return Sentence("1: FLOCK ADVISORY WRITE", holder, "62:07:" + std::to_string(held.st_ino), "0 EOF\n");
    }
    /// The text with single blanks.
    std::string Text() { return std::regex_replace(host.Run(statusCommand), std::regex(" +"), " "); }
};

void ExpectParts(const std::string& text, const Lines& parts, const std::string& beginning = "") {
    for (const std::string& part : parts) {
        EXPECT_THAT(text, HasSubstr(beginning + part));
    }
}

TEST_F(CtlReportTest, TellsWhyACommandDoesNotCount) {
    for (const auto& c : ReadCases("commands.json")) {
        SCOPED_TRACE(c.dump());
        const std::string executable = c.value("executable", "/bin/w");
        const std::string expected = c.value("reason", "");
        CtlHost fresh;
        fresh.Configure({c.value("configuration", "")});
        fresh.Launch(launcher, command, executable, c.value("word", "w") + " x");
        fresh.Write(c.value("registry", host.CoreRegistry(1)), record);
        fresh.Write(c.value("cgroup", cwset) + "/cgroup.procs", "11\n");
        machine.affinities[command] = c.value("affinity", std::set<std::size_t>{1});
        const std::string json = fresh.Run(statusCommand, {"--json"});
        const std::string reason = Field(json, "reason");
        EXPECT_EQ(reason.substr(0, reason.find('|')), expected) << json;
        EXPECT_EQ(Field(json, "executable"), expected.empty() ? "" : executable);
        EXPECT_EQ(Field(json, "unmanaged_processes"), "[]");
        EXPECT_EQ(Field(json, "not_seen"), "[]");
        const std::string sample = expected.empty() ? "record_lost\"} 0\n" : expected + "\"} 1\n";
        EXPECT_THAT(fresh.Run(metricsCommand), HasSubstr("{reason=\"" + sample));
    }
}

// The child is a process beside the command, or what that is like: pid, executable, flags, state and start.
TEST_F(CtlReportTest, TellsACommandFromOtherChildrenOfItsLauncher) {
    for (const auto& c : ReadCases("children.json")) {
        SCOPED_TRACE(c.dump());
        CtlHost fresh;
        fresh.Launch(launcher, command, c.value("executable", "/bin/u"), "u x");
        if (c.contains("child")) {
            const auto& child = c["child"];
            fresh.Start(child[0], launcher, child[1], child[2], child[3], child[4]);
        }
        fresh.Write("/proc/11/cmdline", c.value("arguments", fresh.Read("/proc/11/cmdline")));
        for (int core = 0; const std::string& records : c.value("registries", Lines{})) {
            fresh.Write(fresh.CoreRegistry(core++), records);
        }
        fresh.Write(c.value("cgroup", cwset) + "/cgroup.procs", "11\n12\n");
        machine.affinities[command] = {c.value("core", 1U)};
        ExpectFields(c["fields"]);
    }
}

// An empty text in the place of one that cannot be read would pass for the truth.
TEST_F(CtlReportTest, SaysThatAReadHasFailed) {
    std::string truth;
    const auto fail = [&](const std::string& call, std::size_t before, std::size_t failures) {
        machine.now = std::chrono::hours(1);
        machine.errors[call].assign(before, 0);
        machine.errors[call].insert(machine.errors[call].end(), failures, ENOMEM);
        const std::string told = Status();
        EXPECT_TRUE(told == truth || Field(told, "not_seen") != "[]") << Sentence(call, before, told);
        EXPECT_THAT(told, Not(HasSubstr(R"("reason":"e)"))) << Sentence(call, before);
        for (const std::string& what : Split(Field(told, "what"), '|')) {
            const bool isOfProcess = what.find_first_of("0123456789") == std::string("/proc/").size();
            EXPECT_TRUE(!isOfProcess || Inspect(what.substr(0, what.find(' '))).Exists()) << what;
        }
        return machine.errors[call].size() < failures;
    };
    host.Configure({"ManagedProcessCpuQuotaPercentage=50", "ApplicationGroups=g:w"});
    host.Launch(launcher, command, "/bin/w", "w");
    host.Write(host.allocations, record);
    host.Launch(20, 21, "/bin/Cpuwarden", "w");
    host.Start(21, 20, "/bin/Cpuwarden", host.hasForkedOnly);
    host.Link("/proc/21/fd/3", host.CoreRegistry(0));
    host.Link("/proc/20/root", "../..");
    host.Launch(30, 31, "/bin/v", "v");
    host.Write(host.CoreRegistry(1), "v:31:180000\n");
    host.Write("/proc/locks", LockOf(0, 12));
    machine.affinities[31] = {1};
    machine.files = {{"/proc/11/stat", {}}, {"/proc/31/stat", {}}}; // which kill(2) knows them by
    for (const std::string hierarchy : {"", "/cpuset", "/cpu"}) {
        hierarchy == "/cpuset" ? host.BecomeV1() : void();
        host.Fill(host.cgroups + hierarchy + "/cwset",
                  {"cgroup.procs 31", "11-180000/cgroup.procs 11", "5-5/x/cgroup.procs 7",
                   "11-180000/cpu.stat nr_throttled 2\nthrottled_usec 3500000"});
        truth = Status();
        for (const std::string call : {"open", "openat", "read", "readlinkat", "fstat", "fstatat", "stat",
                                       "lstat", "statx", "opendir", "readdir", "sched_getaffinity"}) {
            for (const std::size_t failures : {1U, 6U}) { // as often as a registry is read
                EXPECT_TRUE(fail(call, 0, failures)) << call << " is not called";
                for (std::size_t before = 1; fail(call, before, failures); ++before) {
                }
            }
            machine.errors[call].clear();
        }
    }
    EXPECT_EQ(Field(truth, "not_seen"), "[]");
}

TEST_F(CtlReportTest, FindsACommandInOneHierarchyOfTwo) {
    host.BecomeV1();
    host.Configure({"ManagedProcessCpuQuotaPercentage=50"});
    host.Launch(launcher, command, "/bin/w", "w");
    host.Write(host.allocations, record);
    host.Write("/sys/fs/cgroup/cpuset/cwset/11-180000/cgroup.procs", "11\n");
    EXPECT_EQ(Seen("reason"), "outside_cgroup");
    EXPECT_THAT(Text(), HasSubstr("\nPID APPLICATION LAUNCHER RUNNING REASON\n11 w 10 30:00 "));
    host.Write("/sys/fs/cgroup/cpu/cwset/11-180000/cgroup.procs", "11\n");
    host.Write("/sys/fs/cgroup/cpu/cwset/11-180000/cpu.stat", "nr_throttled 2\nthrottled_time 3500000000\n");
    ExpectFields({"reason ", "throttled_seconds 3.5"});
    std::filesystem::remove_all(host.OnDisk("/sys/fs/cgroup/cpuset")); // as where it is not mounted
    ExpectFields({"reason ", "what /sys/fs/cgroup/cpuset/cgroup.procs"});
}

TEST_F(CtlReportTest, SortsRecordsLikeALaunch) {
    host.Configure({"ManagedProcessCpuQuotaPercentage=50", "ApplicationGroups=h:w;e:w;g:w;f:w"});
    host.Launch(launcher, command, "/bin/w", "w");
    host.Start(20, 1, "/bin/other");
    host.Start(21, 1, "", host.hasExecuted, "Z");
    host.Start(22, 1, "/usr/bin/Cpuwarden", host.hasForkedOnly);
    host.Start(30, 1, "/bin/w");
    host.Write(host.CoreRegistry(1), "w:30:180000\nnone\n");
    host.Write(host.allocations,
               record + "w:20:180000\nw:21:180000\nw:22:180000\nw:11:6\nw:99:5\n" + record + "w:-1:5\n");
    for (const char* const cgroup : {"/11-180000", "/20-59", "/99-5", "/99-x", "/40-5/a"}) {
        host.MakeCgroup(cwset + cgroup);
    }
    host.Fill(cwset, {"11-180000/cgroup.procs 11", "99-5/cgroup.procs 98\n30"});
    ExpectFields(
        {"reason executable_name|ended|not_yet_executing|pid_reused|ended|ended", "dead_record_count 6",
         "records 1|2", "launcher null|10", R"(groups ["e","f","g","h"]|["e","f","g","h"])",
         "running_seconds 1800|1800", "cpu_seconds 2|2", "throttled_seconds 3.5", "throttled_periods 2",
         "admitted_percent 100", "capacity_percent 300", R"(orphaned_cgroups ["20-59"])", "stray_lines 1",
         "state free|taken|free", R"(unmanaged_processes [{"pid":30,"name":"w","cgroup":"cwset/99-5"}])"});
    ExpectParts(host.Run(metricsCommand),
                {R"(cores{state="free"} 2)", R"(cores{state="taken"} 1)", R"(cores{state="unknown"} 0)",
                 R"(processes{core="",application="w"} 2)", R"(processes{core="1",application="w"} 1)",
                 "capacity_cpus 3", "admitted_cpus 1", "admitted_ratio 0.33",
                 R"(throttled_seconds{application="w"} 3.5)", "not_seen 0\n# EOF\n"},
                "\ncpuwarden_");
    ExpectParts(Text(),
                {"Mode: quota, 50 % each\n", "cwset: CPUs 0-2\n",
                 "Capacity: 300 %, 100 % admitted, room for 4 more\n", "\n1 w e,f,g,h 30 - 30:00 2.00\n",
                 "\n11-180000 w x2 e,f,g,h 11 10 30:00 2.00 3.50\n",
                 "\nREGISTRY APPLICATION PID REASON\nallocations w 20 its executable has another name\n",
                 "\nallocations w 11 another process has the pid\n"});
}

TEST_F(CtlReportTest, TellsWhatALaunchWaitsFor) {
    host.Configure({"ProcessExecutionTimeoutInSeconds=2000"});
    host.Launch(launcher, command, "/usr/bin/Cpuwarden", "w a");
    host.Start(command, launcher, "/usr/bin/Cpuwarden", host.hasForkedOnly);
    host.Link("/proc/11/fd/3", host.CoreRegistry(0));
    host.Link("/proc/11/fd/4", host.CoreRegistry(1));
    host.Link("/proc/11/fd/5", host.allocations);
    const std::string locks =
        "1: -> FLOCK ADVISORY WRITE 9 62:07:1 0 EOF\n" + LockOf(0, 12) + LockOf(1, command);
    host.Write("/proc/locks", locks);
    ExpectFields({R"(waits_for [{"registry":"/tmp/core_pids_0.lock","core":0,"holder":12},)"
                  R"({"registry":"/tmp/cw_allocations.lock","core":null,"holder":null}])",
                  R"(holds [{"registry":"/tmp/core_pids_1.lock","core":1,"holder":11}])",
                  "waiting_seconds 1800", "left_seconds 200"});
    ExpectParts(host.Run(metricsCommand), {"waiting_launches 1\n", "longest_wait_seconds 1800"},
                "\ncpuwarden_");
    ExpectParts(Text(), {"Cores: 3 of 3 free (0-2)\n",
                         "\nLAUNCHER COMMAND WAITED LEFT WAITS FOR HOLDS\n"
                         "10 w a 30:00 03:20 lock of core 0 (held by 12), lock of allocations core 1\n"});
    fs::remove_all(host.OnDisk("/proc/11/fd"));
    fs::create_directory(host.OnDisk("/proc/11/fd"));
    EXPECT_THAT(Text(), HasSubstr(" a free core core 1\n")); // the lock is known by the kernel's list
    host.Write("/proc/locks", "");
    EXPECT_THAT(Text(), HasSubstr(" nothing yet -\n"));
    fs::remove(host.OnDisk("/proc/11/fd"));
    ExpectParts(Text(), {" not known -\n", "\nWHAT WHY\nopen files of waiting launchers: 1 not permitted\n"});
    host.Write("/proc/locks", std::string(1 << 20, '\n') + locks); // of which any user can make as many
    EXPECT_THAT(Seen("why"), EndsWith("|File too large"));
    host.Write("/proc/locks", "");
    fs::create_directories(host.OnDisk("/proc/10/root/tmp"));
    ExpectFields({"waiting []", "what launches with a /tmp of their own: 1"});
}

TEST_F(CtlReportTest, SaysWhatItCouldNotSee) {
    host.Launch(launcher, command, "/bin/w", "w");
    fs::remove(host.OnDisk(host.CoreRegistry(0)));
    ::mkfifo(host.OnDisk(host.CoreRegistry(0)).c_str(), 0600);
    host.Link(host.CoreRegistry(1), "core_pids_2.lock");
    fs::remove(host.OnDisk(host.allocations));
    fs::create_directory(host.OnDisk(host.allocations));
    host.End(1);
    host.Write(host.CoreRegistry(2), "w:9:5\n");
    machine.errors["kill"] = {EPERM};
    ExpectFields({"state unknown|unknown|taken", "verified false", "cores_unknown 2", "not_counted []",
                  "what /tmp/core_pids_0.lock|/tmp/core_pids_1.lock|/tmp/cw_allocations.lock|"
                  "processes of other users|executables of commands: 1|records of commands: 1"});
    machine.errors["kill"] = {EPERM};
    EXPECT_THAT(Seen("why"), StartsWith("is no regular file|is a symbolic link|is no regular file|"));
    machine.errors["kill"] = {EPERM};
    EXPECT_THAT(host.Run(metricsCommand), HasSubstr("\ncpuwarden_not_seen 6\n"));
}

TEST_F(CtlReportTest, JudgesNoneByTheMomentOfTheLook) {
    const auto launch = [&] {
        host.Launch(launcher, command, "/bin/w", "w");
        host.Write(host.CoreRegistry(1), record);
    };
    const auto end = [&] {
        host.End(launcher);
        host.End(command);
        host.Write(host.CoreRegistry(1), "");
    };
    const std::map<std::string, std::function<void()>> cases{
        {"a launch that begins", end},
        {"a command that executes",
         [&] { host.Start(command, launcher, "/usr/bin/Cpuwarden", host.hasForkedOnly); }},
        {"a launcher that executes", [&] { host.Start(launcher, 1, "/bin/sh", host.hasForkedOnly); }}};
    // What the processes are like as they are read, and what happens then.
    const std::string then = "open " + host.CoreRegistry(0);
    machine.affinities[command] = {1};
    for (const auto& [title, before] : cases) {
        SCOPED_TRACE(title);
        launch();
        before();
        host.Write(cwset + "/cgroup.procs", "11\n");
        machine.hooks[then] = launch;
        ExpectFields({"application w", "launcher 10", "reason ", "unmanaged_processes []"});
    }
    machine.hooks[then] = [&] {
        host.End(command);
        host.Write(cwset + "/cgroup.procs", "");
    };
    ExpectFields({"not_counted []", "waiting []"});
    host.Start(command, launcher, "/usr/bin/Cpuwarden", host.hasForkedOnly);
    host.Write(host.CoreRegistry(1), "");
    host.Age(host.CoreRegistry(1));
    machine.hooks["open " + host.allocations] = launch; // after the other registries have been read
    ExpectFields({"not_counted []", "state free|free|free"});
}

TEST_F(CtlReportTest, ReadsARegistryAgainThatIsBeingRewritten) {
    host.Launch(launcher, command, "/bin/w", "w");
    for (const char* const half : {"", "w:11:1"}) {
        host.Write(host.CoreRegistry(1), half);
        machine.onSleep = [&] { host.Write(host.CoreRegistry(1), record); };
        EXPECT_EQ(Seen("state"), "free|taken|free") << half;
        machine.onSleep = [] {};
        host.Write(host.CoreRegistry(1), half);
        const Clock::duration begin = machine.now;
        Status();
        EXPECT_EQ(machine.now - begin, std::chrono::milliseconds(10)); // and given up
        host.Age(host.CoreRegistry(1));                                // nobody is about to write
        Status();
        EXPECT_EQ(machine.now - begin, std::chrono::milliseconds(10));
    }
}

// Two readings of one format must not drift apart.
TEST_F(CtlReportTest, ReadsRecordsAsLaunchersDo) {
    Lines lines = ReadCases("registry.json");
    lines.insert(lines.begin(), std::string(300, 'w') + ":8:180000");
    for (const int pid : {8, 42, 119}) {
        host.Start(pid, 1, pid == 119 ? "/bin/w" : "/opt/Cpuwarden");
        machine.files["/proc/" + std::to_string(pid) + "/stat"]; // which kill(2) knows it by
    }
    host.Configure({"CoreDistribution=w:0,1"});
    host.Write(host.CoreRegistry(0), Joined(lines, "\n") + "\n");
    ExpectFields({"records 5", "stray_lines 10"});
    const Services services = MakeServices();
    const auto logger = std::make_shared<Logger>("");
    CoreManager(std::make_shared<Configuration>(services.fileSystem, logger), services.fileSystem,
                services.processManager, services.systemResources, logger)
        .SelectCoreForProcess("w", In(1s));
    EXPECT_EQ(host.Read(host.CoreRegistry(0)), Joined(Lines(5, "w:119:180000"), "\n") + "\n");
}

TEST_F(CtlReportTest, ReadsProcessesWhateverTheyAreCalled) {
    const std::string fields = " 7 1 1 0 -1 4194368 0 0 0 0 30 12 0 0 20 0 1 0 777 0 0";
    host.Write(cwset + "/cgroup.procs", "5\n7\n8\n9\n");
    host.Write(cwset + "/a/b/cgroup.procs", "6\n");
    host.Fill("/proc", {"5/stat 5 (a) Z () ) S" + fields, "6/stat 6 (w) Z" + fields, "7/stat 7 (w) S 1 2 3",
                        "8/stat", "9/status it has just gone"});
    EXPECT_EQ(Seen("unmanaged_processes"),
              R"([{"pid":5,"name":"a) Z () ","cgroup":"cwset"},{"pid":6,"name":"w","cgroup":"cwset/a/b"}])");
}

} // namespace
