// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "ctl/read/Files.hpp"
#include "support/CtlHosts.hpp"

#include <fcntl.h>
#include <sys/file.h>

namespace {

const std::string cwset = "/sys/fs/cgroup/cwset";
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
}

TEST(CtlPrepare, TouchesNoFileOfOthers) {
    const auto write = [] { CtlHost::Write(registry, "w:1:2\n"); };
    const auto link = [] { CtlHost::Link(registry, "victim"); };
    const auto hardLink = [] { fs::create_hard_link(CtlHost::OnDisk(victim), CtlHost::OnDisk(registry)); };
    // Between the look at a file and its opening another one may take its place.
    enum Moment { before, inPlaceOfNothing, inPlaceOfARegistry };
    const struct {
        Moment moment;
        std::function<void()> plant;
        unsigned mode;
        std::string outcome; // the mode of the registry, or what is said
    } cases[] = {
        {before, write, 0600, "0600"},
        {before, write, 0400, "0400"},
        {before, write, 0640, "0600"},
        {before, write, 04600, "0600"},
        {before, hardLink, 0644, registry + " is a plain file of user "},
        {before, link, 0644, registry + " is a symbolic link of user "},
        {before, [] { CtlHost::Write(registry + "/x", ""); }, 0755, registry + " is a directory of user "},
        {before, [] { ::mkfifo(CtlHost::OnDisk(registry).c_str(), 0600); }, 0644,
         registry + " is a pipe of user "},
        {inPlaceOfNothing, write, 0644, "cannot open "},
        {inPlaceOfARegistry, link, 0644, "cannot open "},
        {inPlaceOfARegistry, hardLink, 0644, registry + " is a plain file of user "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Sentence(c.moment, c.mode, c.outcome));
        CtlHost host;
        host.Write(victim, "kept");
        machine.hooks["open " + (c.moment == before ? "/run/cpuwarden/" : registry)] = [&] {
            fs::remove(host.OnDisk(registry));
            c.plant();
            ::chmod(host.OnDisk(registry).c_str(), c.mode);
        };
        if (c.moment == inPlaceOfNothing) {
            fs::remove(host.OnDisk(registry));
        }
        const std::string outcome = host.Run(prepareCommand);
        const bool isTaken = c.outcome == ModeOf(registry);
        EXPECT_EQ(host.status, isTaken ? 0 : 3);
        EXPECT_THAT(outcome, StartsWith("cpuwardenctl: " + (isTaken ? "" : c.outcome)));
        EXPECT_EQ(isTaken ? host.Read(registry) : ModeOf(victim), isTaken ? "w:1:2\n" : "0644");
    }
}

TEST(CtlPrepare, HandsItsOwnFilesToTheUserOfTheLaunchers) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can make files of other users";
    }
    CtlHost host;
    const auto give = [](const std::string& path, uid_t user) {
        ASSERT_EQ(::chown(CtlHost::OnDisk(path).c_str(), user, static_cast<gid_t>(-1)), 0);
    };
    for (const std::string& path :
         {cwset, cwset + "/cgroup.procs", host.cgroups + "/cgroup.procs", host.CoreRegistry(1)}) {
        give(path, 12345);
    }
    give(host.CoreRegistry(2), 12346);
    fs::remove(host.OnDisk(host.allocations));
    const std::string refusal = " is a plain file of user 12346, while launchers";
    EXPECT_THAT(host.Run(prepareCommand), StartsWith("cpuwardenctl: " + host.CoreRegistry(2) + refusal));
    EXPECT_EQ(host.status, 3);
    std::string owners;
    for (const std::string& path : {registry, host.CoreRegistry(1), host.CoreRegistry(2), host.allocations}) {
        struct stat status = {};
        ::stat(path.c_str(), &status);
        owners += std::to_string(status.st_uid) + " ";
    }
    EXPECT_EQ(owners, "12345 12345 12346 12345 ");
    const std::string notTheirs = "FAIL user 12345 may not write to " + cwset;
    EXPECT_THAT(host.Run(checkCommand), Not(HasSubstr(notTheirs)));
    give(cwset + "/cgroup.procs", 0);
    EXPECT_THAT(host.Run(checkCommand), HasSubstr(notTheirs));
}

} // namespace
