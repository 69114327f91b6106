// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "support/CtlHosts.hpp"

#include <fcntl.h>
#include <sys/file.h>

namespace {

const std::string cwset = "/sys/fs/cgroup/cwset";
const std::string registry = "/tmp/core_pids_0.lock";
// Opened to see that launchers can do so, but changed only where they have to be.
const std::string registries = "open /tmp/core_pids_0.lock|open /tmp/core_pids_1.lock|"
                               "open /tmp/core_pids_2.lock|open /tmp/cw_allocations.lock|";
const std::string lock = "open /run/cpuwarden/prepare.lock|flock 6|";

std::string Prepare(CtlHost& host) {
    machine.transcript.clear();
    return host.Run(prepareCommand);
}

std::string ModeOf(const std::string& path) {
    std::ostringstream mode;
    mode << std::oct << static_cast<unsigned>(fs::symlink_status(CtlHost::OnDisk(path)).permissions());
    return mode.str();
}

TEST(CtlPrepare, MakesWhatIsMissing) {
    const auto filling = [](const std::string& cgroup) {
        return "open " + cgroup + "/cpuset.cpus|write 0-2|open " + cgroup + "/cpuset.mems|write 0|";
    };
    const std::string control = "open /sys/fs/cgroup/cgroup.subtree_control|";
    for (const bool isV2 : {true, false}) {
        CtlHost host;
        if (!isV2) {
            host.BecomeV1();
        }
        host.Write("/sys/fs/cgroup/cgroup.subtree_control", "memory\n");
        for (const char* const cgroup :
             {"/sys/fs/cgroup/cwset", "/sys/fs/cgroup/cpuset/cwset", "/sys/fs/cgroup/cpu/cwset", "/tmp"}) {
            fs::remove_all(host.OnDisk(cgroup));
        }
        fs::create_directory(host.OnDisk("/tmp"));
        const std::string made =
            isV2 ? control + "write +cpu|" + control + "write +cpuset|mkdir " + cwset + "|" + filling(cwset)
                 : "mkdir /sys/fs/cgroup/cpuset/cwset|mkdir /sys/fs/cgroup/cpu/cwset|" +
                       filling("/sys/fs/cgroup/cpuset/cwset");
        EXPECT_THAT(Prepare(host), testing::StartsWith("cpuwardenctl: ready for core mode: cgroup " +
                                                       std::string(isV2 ? "v2, " : "v1, ")));
        EXPECT_EQ(Joined(machine.transcript) + "|", "mkdir /run/cpuwarden|" + lock + made + registries);
        EXPECT_EQ(ModeOf(registry), "600");
        host.Write("/sys/fs/cgroup/cgroup.subtree_control", "cpu cpuset\n");
        Prepare(host);
        EXPECT_EQ(Joined(machine.transcript) + "|", lock + registries); // and changes nothing that is well
    }
}

TEST(CtlPrepare, GivesAndTakesTheControllersOfQuotas) {
    CtlHost host;
    const std::string control = "open " + cwset + "/cgroup.subtree_control|";
    host.Configure({"ManagedProcessCpuQuotaPercentage=50"});
    EXPECT_THAT(Prepare(host), testing::StartsWith("cpuwardenctl: ready for quota mode"));
    EXPECT_EQ(Joined(machine.transcript) + "|", "mkdir /run/cpuwarden|" + lock + registries + control +
                                                    "write +cpu|" + control + "write +cpuset|");
    host.Write(cwset + "/cgroup.subtree_control", "cpuset cpu\n");
    host.Configure({});
    const std::string taken = control + "write -cpu|" + control + "write -cpuset|";
    Prepare(host);
    EXPECT_EQ(Joined(machine.transcript) + "|",
              lock + registries + "open /tmp/cw_allocations.lock|flock 6|" + taken);

    // A command that is admitted meanwhile would lose its quota.
    host.Write(cwset + "/cgroup.subtree_control", "cpuset cpu\n");
    machine.hooks["open /tmp/cw_allocations.lock"] = [] {
        CtlHost::Write(cwset + "/5-6/cgroup.procs", "5\n");
    };
    EXPECT_THAT(Prepare(host),
                testing::StartsWith("!no quota is configured, but processes run in quota cgroups"));
    EXPECT_THAT(Joined(machine.transcript), testing::Not(testing::HasSubstr("write")));
    fs::remove_all(host.OnDisk(cwset + "/5-6"));
    machine.hooks.clear();
    {
        const int launcher = ::open((host.OnDisk(host.allocations)).c_str(), O_RDWR);
        ::flock(launcher, LOCK_EX);
        EXPECT_THAT(Prepare(host), testing::StartsWith("!XTimeoutError: a launcher waits for room"));
        EXPECT_THAT(Joined(machine.transcript), testing::Not(testing::HasSubstr("write")));
        ::close(launcher);
    }
    // Whoever planted the registry cannot keep the controllers by its lock.
    host.Link(host.allocations, "elsewhere");
    EXPECT_THAT(Prepare(host),
                testing::StartsWith("cpuwardenctl: /tmp/cw_allocations.lock is a symbolic link"));
    EXPECT_EQ(host.status, 3);
    EXPECT_EQ(Joined(machine.transcript) + "|", lock + registries + taken);
}

TEST(CtlPrepare, TellsWhatToDoWhenTheKernelRefuses) {
    const std::map<int, std::string> cases{
        {EBUSY, "Processes have just come into"},      {EINVAL, "Move all processes with a real-time policy"},
        {ENOENT, "The cgroup has no such controller"}, {EOPNOTSUPP, "The cgroup is threaded"},
        {EPERM, "Run this as root of the host"},       {EIO, "See cgroups(7)"}};
    CtlHost host;
    host.Write("/sys/fs/cgroup/cgroup.subtree_control", "cpu\n");
    for (const auto& [error, remedy] : cases) {
        machine.errors["write"] = {error};
        const std::string outcome = Prepare(host);
        EXPECT_THAT(outcome, testing::StartsWith(
                                 "!cannot write '+cpuset' to /sys/fs/cgroup/cgroup.subtree_control: "));
        EXPECT_THAT(outcome, testing::HasSubstr(". " + remedy));
    }
    host.Write("/sys/fs/cgroup/cgroup.subtree_control", "cpu cpuset\n");
    host.Write(cwset + "/cgroup.subtree_control", "cpu\n");
    machine.errors["write"] = {EBUSY};
    EXPECT_THAT(Prepare(host), testing::HasSubstr(". Remove the cgroups below"));
}

TEST(CtlPrepare, TouchesNoFileOfOthers) {
    const std::string victim = "/tmp/victim";
    const auto write = [] { CtlHost::Write(registry, "w:1:2\n"); };
    const auto link = [&victim] { fs::create_hard_link(CtlHost::OnDisk(victim), CtlHost::OnDisk(registry)); };
    const struct {
        std::string mode;
        std::function<void()> plant;
        std::string outcome;
    } cases[] = {
        {"600", write, "600"},
        {"400", write, "400"},
        {"640", write, "600"},
        {"4600", write, "600"},
        {"644", link, " is a plain file of user "},
        {"644", [] { CtlHost::Link(registry, "victim"); }, " is a symbolic link of user "},
        {"644", [] { fs::create_directory(CtlHost::OnDisk(registry)); }, " is a directory of user "},
        {"644", [] { ::mkfifo(CtlHost::OnDisk(registry).c_str(), 0600); }, " is a pipe of user "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode + c.outcome);
        CtlHost host;
        host.Write(victim, "w:1:2\n");
        fs::remove(host.OnDisk(registry));
        c.plant();
        ::chmod(host.OnDisk(registry).c_str(), static_cast<mode_t>(std::stoul(c.mode, nullptr, 8)));
        const std::string outcome = Prepare(host);
        EXPECT_EQ(host.status, c.outcome.starts_with(" ") ? 3 : 0);
        if (host.status == 0) {
            EXPECT_EQ(ModeOf(registry) + " " + host.Read(registry), c.outcome + " w:1:2\n");
        } else {
            EXPECT_THAT(outcome, testing::StartsWith("cpuwardenctl: " + registry + c.outcome));
            EXPECT_EQ(ModeOf(victim), "644");
        }
    }
}

// Between the look at a file and its opening another one may take its place.
TEST(CtlPrepare, TouchesNoFileThatHasJustTakenThePlace) {
    const std::string victim = "/tmp/victim";
    const struct {
        bool isMissing;
        std::function<void()> plant;
        std::string refusal;
    } cases[] = {
        {true, [] { CtlHost::Write(registry, ""); }, "cannot open "},
        {false, [] { CtlHost::Link(registry, "victim"); }, "cannot open "},
        {false, [&] { fs::create_hard_link(CtlHost::OnDisk(victim), CtlHost::OnDisk(registry)); },
         registry + " is a plain file of user "},
    };
    for (const auto& c : cases) {
        CtlHost host;
        host.Write(victim, "kept");
        ::chmod(host.OnDisk(registry).c_str(), 0644);
        if (c.isMissing) {
            fs::remove(host.OnDisk(registry));
        }
        machine.hooks["open " + registry] = [&] {
            fs::remove(CtlHost::OnDisk(registry));
            c.plant();
        };
        EXPECT_THAT(Prepare(host), testing::StartsWith("cpuwardenctl: " + c.refusal));
        EXPECT_EQ(host.status, 3);
        EXPECT_EQ(ModeOf(victim), "644");
    }
}

TEST(CtlPrepare, HandsItsOwnFilesToTheUserOfTheLaunchers) {
    if (!CtlHost::IsRoot()) {
        GTEST_SKIP() << "only root can make files of other users";
    }
    CtlHost host;
    for (const std::string& path : {cwset, cwset + "/cgroup.procs", host.CoreRegistry(1)}) {
        ASSERT_EQ(::chown(host.OnDisk(path).c_str(), host.otherUser, static_cast<gid_t>(-1)), 0);
    }
    ASSERT_EQ(::chown(host.OnDisk(host.CoreRegistry(2)).c_str(), host.otherUser + 1, static_cast<gid_t>(-1)),
              0);
    fs::remove(host.OnDisk(host.allocations));
    EXPECT_THAT(Prepare(host),
                testing::StartsWith(
                    "cpuwardenctl: /tmp/core_pids_2.lock is a plain file of user 12346, while launchers"));
    EXPECT_EQ(host.status, 3);
    std::string owners;
    for (const std::string& path : {registry, host.CoreRegistry(1), host.CoreRegistry(2), host.allocations}) {
        struct stat status = {};
        ::stat(path.c_str(), &status);
        owners += std::to_string(status.st_uid) + " ";
    }
    EXPECT_EQ(owners, "12345 12345 12346 12345 ");
    const std::string notTheirs = "FAIL user 12345 may not write to " + cwset;
    EXPECT_THAT(host.Run(checkCommand), testing::Not(testing::HasSubstr(notTheirs)));
    ASSERT_EQ(::chown(host.OnDisk(cwset + "/cgroup.procs").c_str(), 0, 0), 0);
    EXPECT_THAT(host.Run(checkCommand), testing::HasSubstr(notTheirs));
}

} // namespace
