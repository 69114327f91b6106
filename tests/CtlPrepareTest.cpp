// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "support/CtlHosts.hpp"

#include <fcntl.h>
#include <sys/file.h>

namespace {

const std::string control = "/sys/fs/cgroup/cgroup.subtree_control";
const std::string registry = "/tmp/core_pids_0.lock";
const std::string victim = "/tmp/victim";

/// What it says begins so. Of the steps, the lock of the run is "lock", and "registries" that all are opened
/// to see that launchers can do so.
void ExpectRun(CtlHost& host, const std::string& outcome, const testing::Matcher<std::string>& steps) {
    machine.transcript.clear();
    EXPECT_THAT(host.Run(prepareCommand), StartsWith(outcome));
    const std::regex lock(R"(open /run/cpuwarden/prepare\.lock\|flock 6)");
    const std::regex registries(R"((open /tmp/core_pids_[012]\.lock\|){3}open /tmp/cw_allocations.lock)");
    const std::string told = std::regex_replace(Joined(machine.transcript), lock, "lock");
    EXPECT_THAT(std::regex_replace(told, registries, "registries"), steps);
}

std::string Writing(const std::string& file, const std::string& text) {
    return "|open " + file + "|write " + text;
}

std::string ModeOf(const std::string& path) {
    return PermissionsOf(Inspect(path));
}

TEST(CtlPrepare, MakesWhatIsMissing) {
    const std::string cpuset = "/sys/fs/cgroup/cpuset/cwset";
    const std::string cpu = "/sys/fs/cgroup/cpu/cwset";
    for (const bool isV2 : {true, false}) {
        CtlHost host;
        if (!isV2) {
            host.BecomeV1();
        }
        host.Write(control, "memory\n");
        for (const std::string& path : {cwset, cpuset, cpu, host.CoreRegistry(0), host.allocations}) {
            fs::remove_all(host.OnDisk(path));
        }
        const std::string& filled = isV2 ? cwset : cpuset;
        const std::string made =
            isV2 ? Writing(control, "+cpu") + Writing(control, "+cpuset") + "|mkdir " + cwset
                 : "|mkdir " + cpuset + "|mkdir " + cpu;
        ExpectRun(host, std::string("cpuwardenctl: ready for core mode: cgroup ") + (isV2 ? "v2, " : "v1, "),
                  "mkdir /run/cpuwarden|lock" + made + Writing(filled + "/cpuset.cpus", "0-2") +
                      Writing(filled + "/cpuset.mems", "0") + "|registries");
        EXPECT_EQ(ModeOf(registry), "0600");
        ExpectRun(host, "", "lock|registries"); // and changes nothing that is well
    }
}

TEST(CtlPrepare, GivesAndTakesTheControllersOfQuotas) {
    CtlHost host;
    const std::string children = cwset + "/cgroup.subtree_control";
    const std::string taken = Writing(children, "-cpu") + Writing(children, "-cpuset");
    const auto takesNone = Not(HasSubstr("write"));
    host.Configure({"ManagedProcessCpuQuotaPercentage=50"});
    ExpectRun(host, "cpuwardenctl: ready for quota mode",
              "mkdir /run/cpuwarden|lock|registries" + Writing(children, "+cpu") +
                  Writing(children, "+cpuset"));
    host.Configure({});
    host.Write(children, "cpuset cpu pids\n"); // which keep processes out, too
    ExpectRun(host, "",
              "lock|registries|open /tmp/cw_allocations.lock|flock 6" + taken + Writing(children, "-pids"));

    // A command that is admitted meanwhile would lose its quota.
    host.Write(children, "cpuset cpu\n");
    machine.hooks["open " + host.allocations] = [] { CtlHost::Write(cwset + "/5-6/cgroup.procs", "5\n"); };
    ExpectRun(host, "!no quota is configured, but processes run in cgroups with controllers", takesNone);
    fs::remove_all(host.OnDisk(cwset + "/5-6"));
    machine.hooks.erase("open " + host.allocations);
    const int launcher = ::open(host.OnDisk(host.allocations).c_str(), O_RDWR);
    ::flock(launcher, LOCK_EX);
    ExpectRun(host, "!XTimeoutError: a launcher waits for room", takesNone);
    ::close(launcher);
    // Whoever planted the registry cannot keep the controllers by its lock.
    host.Link(host.allocations, "elsewhere");
    ExpectRun(host, "cpuwardenctl: /tmp/cw_allocations.lock is a symbolic link", "lock|registries" + taken);
    EXPECT_EQ(host.status, 3);
}

TEST(CtlPrepare, TellsWhatToDoWhenTheKernelRefuses) {
    CtlHost host;
    const auto refuses = [&](int error, const std::string& remedy) {
        machine.errors["write"] = {error};
        const std::string text = "!cannot write '\\+cpuset' to [^:]*: [^.]*\\. " + remedy + "[^!]*";
        EXPECT_THAT(host.Run(prepareCommand), MatchesRegex(text));
    };
    host.Write(control, "cpu\n");
    refuses(EBUSY, "Processes have just come into");
    refuses(EINVAL, "Move all processes with a real-time policy");
    refuses(ENOENT, "The cgroup has no such controller");
    refuses(EOPNOTSUPP, "The cgroup is threaded");
    refuses(EPERM, "Run this as root of the host");
    refuses(EIO, "See cgroups\\(7\\)");
    host.Write(control, "cpu cpuset\n");
    host.Write(cwset + "/cgroup.subtree_control", "cpu\n");
    machine.errors["write"] = {EBUSY};
    EXPECT_THAT(host.Run(prepareCommand), HasSubstr(". Remove the cgroups below"));
    machine.errors["open /run/cpuwarden/prepare.lock"] = {EACCES};
    EXPECT_THAT(host.Run(prepareCommand), HasSubstr("!cannot open /run/cpuwarden/prepare.lock: Permission"));
}

TEST(CtlPrepare, TakesBackWhatItBeganWhenALaterStepIsRefused) {
    const std::string children = cwset + "/cgroup.subtree_control";
    CtlHost host;
    host.Write(control, "\n");
    fs::remove_all(host.OnDisk(cwset));
    machine.hooks["mkdir " + cwset] = [] {
        CtlHost::MakeCgroup(cwset);
        machine.errors["write"] = {0, EINVAL}; // of the memory nodes
    };
    ExpectRun(host, "!cannot write '0' to " + cwset,
              EndsWith(Writing(cwset + "/cpuset.cpus", "\n") + "|rmdir " + cwset +
                       Writing(control, "-cpuset") + Writing(control, "-cpu")));
    machine.hooks.clear();
    host.MakeCgroup(cwset);
    host.Fill(cwset, {"cpuset.cpus 0-2", "cpuset.mems 0", "cgroup.subtree_control cpu cpuset"});
    host.Write(control, "cpu cpuset\n");
    machine.hooks["write -cpuset"] = [] { machine.errors["write"] = {EBUSY}; };
    ExpectRun(host, "!cannot write '-cpuset'", EndsWith(Writing(children, "+cpu")));
    machine.hooks.clear();
    // What cannot be taken away stays, and harms no command on cores.
    host.Write(children, "cpu cpuset\n");
    host.Write(cwset + "/batch/cgroup.subtree_control", "cpu cpuset\n");
    ExpectRun(host, "cpuwardenctl: ready", "lock|registries");
}

TEST(CtlPrepare, TakesNothingThatCannotBeReadForEmpty) {
    for (const bool isV2 : {true, false}) {
        CtlHost host; // which stays as it is
        host.Write(cwset + "/cgroup.subtree_control", "cpu cpuset\n");
        host.Write(cwset + "/5-6/cgroup.procs", "5\n"); // for which prepare refuses
        if (!isV2) {
            host.BecomeV1();
        }
        for (const std::string call : {"read", "openat", "opendir", "readdir"}) {
            bool hasFailed = true;
            for (std::size_t calls = 0; hasFailed; ++calls) {
                machine.errors[call].assign(calls, 0);
                machine.errors[call].push_back(EMFILE);
                const std::string outcome = host.Run(prepareCommand);
                hasFailed = machine.errors[call].empty();
                EXPECT_THAT(machine.transcript, Not(testing::Contains(StartsWith("write"))))
                    << calls << outcome;
            }
        }
    }
    CtlHost host;
    host.BecomeV1();
    host.Fill("/sys/fs/cgroup/cpuset", {"cpuset.cpus ", "cwset/cpuset.cpus "});
    EXPECT_THAT(host.Run(prepareCommand), StartsWith("!/sys/fs/cgroup/cpuset has no CPUs"));
}

void Plant(const std::string& what, unsigned mode) {
    const std::string path = CtlHost::OnDisk(registry);
    fs::remove(path);
    if (what == "a link") {
        CtlHost::Link(registry, "victim");
    } else if (what == "another name of a file") {
        fs::create_hard_link(CtlHost::OnDisk(victim), path);
    } else if (what == "a pipe") {
        ::mkfifo(path.c_str(), 0600);
    } else {
        CtlHost::Write(registry + (what == "a directory" ? "/x" : ""), "w:1:2\n");
    }
    ::chmod(path.c_str(), mode);
}

// Something is planted before prepare looks, or after that, before it opens the file, "in_place_of" nothing
// or a registry. The "outcome" is the mode that it has then, or what is said of it; a link or another name
// leads to the victim.
TEST(CtlPrepare, TouchesNoFileOfOthers) {
    for (const auto& c : ReadCases("planted.json", {"in_place_of", "planted", "mode", "outcome"})) {
        SCOPED_TRACE(c.dump());
        const std::string outcome = c["outcome"];
        if (outcome == "0400" && ::geteuid() != 0) {
            continue; // others cannot open it
        }
        CtlHost host;
        host.Write(victim, "kept");
        if (c["in_place_of"] == "nothing") {
            fs::remove(host.OnDisk(registry));
        }
        machine.hooks["open " + (c["in_place_of"] == "" ? "/run/cpuwarden/" : registry)] = [&] {
            Plant(c["planted"], static_cast<unsigned>(std::stoul(c["mode"].get<std::string>(), nullptr, 8)));
        };
        const std::string said = host.Run(prepareCommand);
        const bool isTaken = outcome == ModeOf(registry);
        EXPECT_EQ(host.status, isTaken ? 0 : 3);
        EXPECT_THAT(said, StartsWith("cpuwardenctl: " + (isTaken ? "" : outcome)));
        EXPECT_EQ(isTaken ? host.Read(registry) : ModeOf(victim), isTaken ? "w:1:2\n" : "0644");
    }
}

TEST(CtlPrepare, HandsTheHostOverToAnotherUser) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give files to others";
    }
    CtlHost host;
    host.Write("/etc/passwd", "root:x:0:0::/:\nbatch:x:12345:777::/:\n");
    host.Fill(
        "", {cwset + "/1-2/cpu.max", cwset + "/cgroup.threads", cwset + "/tasks", registry + " w:5:180000"});
    host.Link(cwset + "/link", "../../../../etc");
    const Lines paths{"/etc/passwd",          "/sys/fs/cgroup/cgroup.procs", cwset,   cwset + "/cgroup.procs",
                      cwset + "/cpuset.cpus", cwset + "/1-2/cpu.max",        registry};
    /// What it says, and whose these are then: "b" for batch and "r" for root.
    const auto prepare = [&](const std::string& user) {
        std::string outcome = host.Run(prepareCommand, user.empty() ? Lines{} : Lines{"--owner", user}) + " ";
        for (const std::string& path : paths) {
            const uid_t owner = Inspect(path).owner;
            outcome += owner == 0 ? "r" : owner == 12345 ? "b" : "?";
        }
        return outcome;
    };
    EXPECT_THAT(prepare("x"), StartsWith("!there is no user 'x' in /etc/passwd"));
    host.Start(5, 1, "/bin/w");
    host.Write(cwset + "/1-2/cgroup.procs", "5\n6\n");
    EXPECT_THAT(prepare("batch"), MatchesRegex("!commands of user 0 run, .*: 5 \\(w\\), 6 \\(.* rrrrrrr"));
    host.Write(cwset + "/1-2/cgroup.procs", "6\n");
    ASSERT_EQ(::chown(host.OnDisk(registry).c_str(), 12346, 0), 0); // who may have written anything
    EXPECT_THAT(prepare("batch"), MatchesRegex("!commands of user 0 run, .*: 6 \\(.* rrrrrr\\?"));
    host.Write(host.CoreRegistry(1), "w:5:180000\n");
    EXPECT_THAT(prepare("batch"), MatchesRegex("!commands of user 0 run, .*: 5 \\(w\\), 6 \\(.* rrrrrr\\?"));
    host.Write(host.CoreRegistry(1), "");
    ASSERT_EQ(::chown(host.OnDisk(registry).c_str(), 0, 0), 0);
    EXPECT_THAT(prepare("0"), EndsWith(" rrrrrrr"));
    host.End(5);
    host.Write(cwset + "/1-2/cgroup.procs", "");
    const int launcher = ::open(host.OnDisk(host.allocations).c_str(), O_RDWR);
    ::flock(launcher, LOCK_EX);
    EXPECT_THAT(prepare("batch"), MatchesRegex("!XTimeoutError: somebody holds the lock of .* rrrrrrr"));
    ::close(launcher);
    host.Write(cwset + "/cgroup.subtree_control", "cpu\n");
    bool isLocked = false; // so that no launcher can place a command meanwhile
    machine.hooks["write -cpu"] = [&] {
        const OpenFile other(::open(registry.c_str(), O_RDWR));
        isLocked = ::flock(other.Descriptor(), LOCK_EX | LOCK_NB) != 0;
    };
    machine.errors["fchownat"] = {0, ENOENT, ENODEV, EPERM}; // some have gone meanwhile
    EXPECT_THAT(prepare("batch"), MatchesRegex("!cannot give .* to user 12345: Op.* rrrrrrb"));
    EXPECT_TRUE(isLocked);
    EXPECT_THAT(prepare("batch"), EndsWith("launchers of user 12345\n rbbbrbb"));
    EXPECT_EQ(host.Read(registry), "w:5:180000\n");
    EXPECT_EQ(Inspect(cwset + "/cgroup.threads").owner, 12345U);
    EXPECT_EQ(Inspect(cwset + "/tasks").owner, 12345U);
    // Without the option he stays: what is root's becomes his, and what is another's does not.
    fs::remove(host.OnDisk(registry));
    ASSERT_EQ(::chown(host.OnDisk(host.allocations).c_str(), 0, 0), 0);
    ASSERT_EQ(::chown(host.OnDisk(host.CoreRegistry(2)).c_str(), 12346, 0), 0);
    EXPECT_THAT(prepare(""), MatchesRegex("cpuwardenctl: " + host.CoreRegistry(2) +
                                          " is a plain file of user 12346, while launchers .* rbbbrbb"));
    EXPECT_EQ(host.status, 3);
    EXPECT_EQ(Inspect(host.OnDisk(host.allocations)).owner, 12345U);
    fs::remove(host.OnDisk(host.CoreRegistry(2)));
    host.Write(host.CoreRegistry(2), "moved here\n"); // from where only root could read it
    EXPECT_THAT(prepare(""), HasSubstr(host.CoreRegistry(2) + " has lines other than records, so that"));
    EXPECT_EQ(Inspect(host.OnDisk(host.CoreRegistry(2))).owner, 0U);
    fs::remove(host.OnDisk(host.CoreRegistry(2)));
    EXPECT_THAT(prepare(""), EndsWith(" rbbbrbb"));
    EXPECT_THAT(host.Run(checkCommand), Not(HasSubstr("FAIL")));
    // What he may have left open, or to himself.
    fs::permissions(host.OnDisk(cwset + "/cgroup.procs"), fs::perms(0666));
    host.Write(registry, "w:5:180000\n");
    fs::permissions(host.OnDisk(registry), fs::perms(0640));
    machine.errors["fchmod"] = {EPERM};
    EXPECT_THAT(prepare(""), StartsWith("!cannot narrow the permissions of " + registry));
    machine.errors["fchmodat"] = {EPERM};
    EXPECT_THAT(prepare("12346"), StartsWith("!cannot give /sys/fs/cgroup/cgroup.procs to"));
    EXPECT_THAT(prepare("12346"), EndsWith(" r???r??"));
    EXPECT_EQ(host.Read(registry) + ModeOf(cwset + "/cgroup.procs") + ModeOf(registry), "06440600");
    EXPECT_THAT(prepare("root"), EndsWith(" rrrrrrr"));
}

TEST(CtlCheck, TellsRootWhatTheUserOfTheLaunchersMayDo) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can ask for others";
    }
    CtlHost host;
    host.Configure({});
    host.Write("/etc/passwd", "root:x:0:0::/:\nbatch:x:12345:777::/:\n");
    host.Write("/etc/group", "own:x:777:\nothers:x:778:root\nhis:x:779:root,batch\n");
    EXPECT_THAT(host.Run(checkCommand), testing::AllOf(HasSubstr("\nPASS fs.protected_symlinks is 1\n"),
                                                       HasSubstr("\nPASS /sys/fs/cgroup has cgroup v2\n"),
                                                       Not(HasSubstr("PASS launchers run as user"))));
    fs::permissions(host.OnDisk(host.CoreRegistry(1)), fs::perms(0)); // which root passes over
    ASSERT_EQ(::chown(host.OnDisk(registry).c_str(), 12346, 0), 0);
    EXPECT_THAT(host.Run(checkCommand), HasSubstr("FAIL " + registry + " is a plain file of user 12346"));
    EXPECT_THAT(host.Run(checkCommand), Not(HasSubstr(host.CoreRegistry(1))));
    host.Write("/proc/sys/fs/protected_regular", "0\n"); // with which root may use it
    EXPECT_THAT(host.Run(checkCommand), HasSubstr("WARN " + registry + " is a plain file of user 12346"));
    ASSERT_EQ(::chown(host.OnDisk(cwset).c_str(), 12345, 0), 0);
    host.Launch(10, 11, "/bin/w", "w"); // by root, who may still
    EXPECT_THAT(host.Run(statusCommand, {"--json"}), HasSubstr(R"("launcher":10,)"));
    const std::string rootProcs = "/sys/fs/cgroup/cgroup.procs";
    const std::string conf = "/etc/brindlewax.d/agent.conf";
    const struct {
        gid_t group;
        unsigned mode;
        bool may;
    } cases[] = {
        {777, 0664, true}, {778, 0664, false}, {779, 0664, true}, {779, 0646, false}, {778, 0646, true}};
    for (const auto& c : cases) {
        for (const std::string& path : {cwset + "/cgroup.procs", rootProcs, conf}) {
            ASSERT_EQ(::chown(host.OnDisk(path).c_str(), 0, c.group), 0);
            // To read is asked for one place of the mode up.
            fs::permissions(host.OnDisk(path), fs::perms(path == conf ? (c.mode & 022) << 1 : c.mode));
        }
        const std::string findings = host.Run(checkCommand);
        EXPECT_THAT(findings, HasSubstr("PASS launchers run as user 12345 (batch)"));
        for (const std::string& right : {"write to " + cwset, "write to " + rootProcs, "read " + conf}) {
            EXPECT_EQ(findings.find("FAIL user 12345 may not " + right) == findings.npos, c.may)
                << c.group << right << findings;
        }
    }
    fs::permissions(host.OnDisk(fs::path(conf).parent_path()), fs::perms(0700));
    EXPECT_THAT(host.Run(checkCommand), HasSubstr("FAIL user 12345 may not read " + conf));
    EXPECT_THAT(host.Run(checkCommand),
                Not(testing::AnyOf(HasSubstr("may not write"), HasSubstr("WARN /tmp"))));
    ASSERT_EQ(::chown(host.OnDisk("/tmp").c_str(), 12346, 0), 0);
    EXPECT_THAT(host.Run(checkCommand), HasSubstr("WARN /tmp belongs to user 12346"));
    fs::permissions(host.OnDisk(fs::path(conf).parent_path()), fs::perms(0755));
    fs::permissions(host.OnDisk(rootProcs), fs::perms(0600));
    for (const std::string cgroup : {"/", "/cwset/x", "/cwset", "/cwsets"}) { // where he runs it himself
        host.Write("/proc/self/cgroup", "0::" + cgroup + "\n");
        ASSERT_EQ(::seteuid(12345), 0);
        const bool mayMove =
            host.Run(checkCommand).find("may not write to " + rootProcs) == std::string::npos;
        ASSERT_EQ(::seteuid(0), 0);
        EXPECT_EQ(mayMove, cgroup == "/cwset" || cgroup == "/cwset/x") << cgroup;
    }
    host.BecomeV1();
    host.Configure({"ManagedProcessCpuQuotaPercentage=50"});
    ASSERT_EQ(::chown(host.OnDisk("/sys/fs/cgroup/cpuset/cwset").c_str(), 12345, 0), 0);
    fs::remove_all(host.OnDisk("/sys/fs/cgroup/cpu/cwset")); // which a launcher of root would make
    EXPECT_THAT(host.Run(checkCommand), HasSubstr("FAIL /sys/fs/cgroup/cpu/cwset does not exist"));
}

} // namespace
