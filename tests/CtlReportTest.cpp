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
                   "1 1\n1 1 0:1 / / rw\n" + std::to_string(mounted.stx_mnt_id) + " 1 98:7 / / rw\n");
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

// "fields" are names of the report in JSON, each with all its values in the whole of it; "text" are parts of
// the report for people, with single blanks; "metrics" are beginnings of samples, and "no_metrics" what none
// begins with, each without the prefix.
TEST_F(CtlReportTest, TellsWhatIsOnTheHost) {
    for (const auto& c : ReadCases("reports.json", {"fields", "text", "metrics", "no_metrics"})) {
        SCOPED_TRACE(c.dump());
        const CtlHost fresh; // on which the commands of `host` run as well
        fresh.Become(c);
        ExpectFields(c.value("fields", Lines{}));
        ExpectParts(Text(), c.value("text", Lines{}));
        const std::string metrics = host.Run(metricsCommand);
        ExpectParts(metrics, c.value("metrics", Lines{}), "\ncpuwarden_");
        for (const std::string& name : c.value("no_metrics", Lines{})) {
            EXPECT_THAT(metrics, Not(HasSubstr("\ncpuwarden_" + name)));
        }
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
    host.Write(host.CoreRegistry(0), record);
    for (const int error : {EACCES, EPERM, ENAMETOOLONG}) {
        machine.errors["readlinkat"].assign(9, error);
        ExpectFields({"verified false", "what executables of commands: 1"});
    }
    for (const int error : {ENOENT, ESRCH, ENODEV}) { // of those that have gone
        machine.errors["readlinkat"].assign(9, error);
        ExpectFields({"not_seen []"});
    }
    machine.errors.clear();
    fs::remove(host.OnDisk(host.CoreRegistry(0)));
    ::mkfifo(host.OnDisk(host.CoreRegistry(0)).c_str(), 0600);
    host.Link(host.CoreRegistry(1), "core_pids_2.lock");
    fs::remove(host.OnDisk(host.allocations));
    fs::create_directory(host.OnDisk(host.allocations));
    host.End(1);
    host.Write(host.CoreRegistry(2), "w:9:5\nw:8:5\nw:0:5\n");
    machine.files = {{"/proc/0/stat", {}}, {"/proc/9/stat", {}}}; // which kill(2) knows them by
    ExpectFields({"state unknown|unknown|taken", "verified false", "cores_unknown 2", "not_counted []",
                  "what /tmp/core_pids_0.lock|/tmp/core_pids_1.lock|/tmp/cw_allocations.lock|"
                  "processes of other users|executables of commands: 1|records of commands: 1"});
    EXPECT_THAT(Seen("why"), StartsWith("is no regular file|is a symbolic link|is no regular file|"));
    machine.errors["kill"] = {EPERM, EPERM}; // of whoever has the two
    EXPECT_THAT(host.Run(metricsCommand), HasSubstr("\ncpuwarden_not_seen 6\n"));
    EXPECT_THAT(machine.transcript, Not(testing::Contains(StartsWith("kill")))); // by a signal
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
    launch();
    host.MakeCgroup(cwset + "/5-5"); // which is removed when it is about to be read
    machine.hooks = {
        {"openat " + cwset + "/5-5/cgroup.procs", [&] { fs::remove_all(host.OnDisk(cwset + "/5-5")); }}};
    ExpectFields({"reason outside_cgroup", "not_seen []"});
    EXPECT_FALSE(fs::exists(host.OnDisk(cwset + "/5-5")));
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
    host.Write(host.CoreRegistry(0), Joined(lines, "\n")); // of which the last is not ended
    ExpectFields({"records 5", "stray_lines 10"});
    const Services services = MakeServices();
    const auto logger = std::make_shared<Logger>("");
    CoreManager(std::make_shared<Configuration>(services.fileSystem, logger), services.fileSystem,
                services.processManager, services.systemResources, logger)
        .SelectCoreForProcess("w", In(1s));
    EXPECT_EQ(host.Read(host.CoreRegistry(0)), Joined(Lines(5, "w:119:180000"), "\n") + "\n");
}

} // namespace
