// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "ctl/read/CpuList.hpp"
#include "filesystem/Split.hpp"
#include "support/CtlHosts.hpp"

#include <fnmatch.h>

namespace {

const std::string cwset = "/sys/fs/cgroup/cwset";
const std::string cpus = cwset + "/cpuset.cpus";

/// What is wrong, a line each.
Lines Faults(CtlHost& host) {
    std::deque<int>& errors = machine.errors["connect"]; // of a busy syslog daemon that wants streams
    errors.insert(errors.end(), {EPROTOTYPE, EAGAIN});
    return Split(std::regex_replace(host.Run(checkCommand), std::regex("PASS [^\n]*\n"), ""), '\n');
}

/// Each fault begins with the pattern, in this order.
void ExpectFaults(CtlHost& host, const Lines& patterns) {
    const Lines faults = Faults(host);
    const std::string seen = Joined(faults, "\n");
    EXPECT_EQ(faults.size(), patterns.size()) << seen;
    EXPECT_EQ(::fnmatch((Joined(patterns, "*\n") + "*").c_str(), seen.c_str(), FNM_NOESCAPE), 0) << seen;
    EXPECT_EQ(host.status, ("\n" + seen).find("\nFAIL ") == seen.npos ? 0 : 1);
}

TEST(CtlCheck, JudgesTheConfiguration) {
    const std::string quota = "ManagedProcessCpuQuotaPercentage=";
    const std::string timeout = "ProcessExecutionTimeoutInSeconds=";
    // clang-format off
    const std::vector<std::pair<Lines, Lines>> cases{
        {{}, {}},
        {{quota + "300"}, {}},
        {{quota + "301"}, {"FAIL Cpuwarden_ManagedProcessCpuQuotaPercentage is 301, more than the capacity*, 300 %"}},
        {{quota + "\"\""}, {"FAIL no launcher starts with /etc/brindlewax.d/agent.conf: Cpuwarden_ManagedProcess"}},
        {{timeout + "0"}, {"FAIL Cpuwarden_ProcessExecutionTimeoutInSeconds is 0"}},
        {{timeout + "1"}, {"WARN Cpuwarden_ProcessExecutionTimeoutInSeconds is 1"}},
        {{timeout + "2"}, {}},
        {{"CoreDistribution=a:0,2;b:3;c:0,4294967296"}, {"WARN launchers say of /etc/brindlewax.d/agent.conf"}},
        {{"CoreDistribution=\"a:0,2;b:3,4\""}, {"WARN Cpuwarden_CoreDistribution gives b the cores 3-4, which the"}},
        // A member has the cores of its group as well.
        {{"CoreDistribution=g:3;b:0", "ApplicationGroups=g:a,b"},
         {"WARN Cpuwarden_CoreDistribution gives a the cores 3, which the machine",
          "WARN Cpuwarden_CoreDistribution gives b the cores 3, which the machine"}},
        {{"CoreDistribution=g:0;a:1", "ApplicationGroups=g:a,b;h:a,c"}, {"WARN the group h of Cpuwarden_ApplicationGroups has no"}},
    };
    // clang-format on
    for (const auto& [lines, faults] : cases) {
        SCOPED_TRACE(Joined(lines));
        CtlHost host;
        host.Configure(lines);
        host.Write(cwset + "/cgroup.subtree_control", Joined(lines).starts_with(quota) ? "cpu cpuset\n" : "");
        ExpectFaults(host, faults);
    }
    CtlHost host;
    host.Link("/etc/brindlewax.d/agent.conf", "/dev/null");
    ExpectFaults(host, {});
    host.Link("/etc/brindlewax.d/agent.conf", "/dev/zero");
    ExpectFaults(host, {"FAIL no launcher starts with /etc/brindlewax.d/agent.conf: it is no file"});
}

// What keeps launches from working, prepare asks for before it changes anything, or mends it.
TEST(CtlCheck, JudgesTheHost) {
    using Files = std::map<std::string, std::string>;
    const std::string gone = "(gone)";
    const std::string root = "/sys/fs/cgroup/";
    const std::string quota = "ManagedProcessCpuQuotaPercentage=50";
    const std::string children = cwset + "/cgroup.subtree_control";
    const std::string mounts = "/proc/self/mounts";
    const Files v1{{root + "cgroup.controllers", gone}};
    // clang-format off
    // The files are as they are instead.
    const struct { std::string configuration; Files files; Lines faults; bool isRefused; } cases[] = {
        {"", {{mounts, ""}}, {"FAIL /sys/fs/cgroup is no cgroup"}, true},
        {"", {{mounts, "c /sys/fs/cgroup cgroup2 rw 0 0\nt /sys/fs/cgroup tmpfs rw 0 0\n"}}, {"FAIL /sys/fs/cgroup is no cgroup"}, true},
        {"", {{mounts, "c /sys/fs/cgroup cgroup2 nosuid,ro 0 0\n"}}, {"FAIL /sys/fs/cgroup is mounted read-"}, true},
        {"", {{root + "cgroup.controllers", "cpu\n"}}, {"WARN /sys/fs/cgroup/cgroup.controllers lacks the cpus"}, true},
        {"", {{root + "cgroup.controllers", "cpuset\n"}, {"/proc/cgroups", "cpu\t3\t9\t1\n"}},
         {"WARN a hierarchy of cgroup v1 has the cpu controller"}, true},
        {"", {{root + "cgroup.type", "domain\n"}, {root + "cgroup.procs", "1\n"}},
         {"FAIL /sys/fs/cgroup is not the root of all cgroups"}, true},
        {"", {{root + "cgroup.procs", "1\n"}}, {}, false},
        {"", {{cwset, gone}}, {"FAIL " + cwset + " does not exist"}, false},
        {"", {{cpus, gone}, {root + "cgroup.subtree_control", "cpu\n"}}, {"WARN " + cpus + " is gone with the controller"}, false},
        {"", {{cpus, "\n"}, {cwset + "/cpuset.mems", "\n"}},
         {"WARN " + cwset + "/cpuset.mems is empty*all that the cgroups above it have", "WARN " + cpus + " is empty"}, false},
        {quota, {{children, "cpu cpuset\n"}, {cpus, "\n"}, {cwset + "/cpuset.mems", "\n"}},
         {"WARN " + cwset + "/cpuset.mems is empty", "FAIL " + cpus + " is empty, so that no command"}, false},
        {quota, {}, {"FAIL a quota is configured, but the children of " + cwset + " lack"}, false},
        {quota, {{children, "cpu cpuset\n"}, {cwset + "/cgroup.procs", "7\n8\n"}, {"/proc/7/stat", "7 (web) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 0 0"}},
         {"FAIL a quota is configured, and applies only when*: 7 (web), 8 (its name cannot be read)"}, true},
        {"", {{children, "cpu\n"}, {cwset + "/1-2/cgroup.procs", "9\n"}, {cwset + "/1-2/t/cgroup.type", "threaded\n"},
              {cwset + "/1-2/t/cgroup.threads", "9\n"}},
         {"FAIL no quota is configured, but processes run in cgroups with*: 9 ("}, true},
        {"", {{children, "cpu memory pids\n"}}, {"FAIL the children of " + cwset + " have the controllers memory, which"}, false},
        {"", {{children, "pids\n"}}, {}, false},
        {"", {{cwset + "/cgroup.freeze", "1\n"}}, {"FAIL " + cwset + "/cgroup.freeze is 1"}, true},
        {"", {{cwset + "/cgroup.type", "threaded\n"}, {cwset + "/cgroup.max.depth", "0\n"}}, {"WARN " + cwset + " is 'threaded'"}, false},
        {quota, {{cwset + "/cgroup.type", "domain threaded\n"}, {children, "cpu cpuset\n"}}, {"FAIL " + cwset + " is 'domain threaded'"}, true},
        {quota, {{children, "cpu cpuset\n"}, {cwset + "/cgroup.max.depth", "0\n"}}, {"FAIL " + cwset + "/cgroup.max.depth is 0"}, true},
        {quota, {{children, "cpu cpuset\n"}, {cwset + "/cgroup.max.depth", "1\n"}, {root + "cgroup.max.depth", "1\n"}},
         {"FAIL /sys/fs/cgroup/cgroup.max.depth is 1"}, true},
        // The next launch removes an orphan first.
        {quota, {{children, "cpu cpuset\n"}, {cwset + "/cgroup.max.descendants", "2\n"}, {cwset + "/cgroup.stat", "nr_descendants 2\n"},
                 {cwset + "/b/cgroup.type", "domain\n"}, {cwset + "/1-2/cgroup.type", "domain\n"}}, {}, false},
        {quota, {{children, "cpu cpuset\n"}, {cwset + "/cgroup.max.descendants", "1\n"}, {cwset + "/cgroup.stat", "nr_descendants 2\n"},
                 {cwset + "/b/cgroup.type", "domain\n"}, {cwset + "/1-2/cgroup.type", "domain\n"}},
         {"FAIL " + cwset + "/cgroup.max.descendants is 1"}, true},
        {"", {{children, "cpu\n"}, {cwset + "/t/cgroup.type", "threaded\n"}, {cwset + "/t/cgroup.threads", "9\n"}},
         {"WARN no quota is configured, but processes run in cgroups with"}, true},
        // A child beside commands on cores keeps nobody out until it has controllers.
        {"", {{cwset + "/cgroup.type", "domain threaded\n"}, {cwset + "/t/cgroup.type", "threaded\n"},
              {cwset + "/t/cgroup.threads", "9\n"}}, {}, false},
        {quota, {{children, "cpu cpuset\n"}, {cwset + "/1-2/cgroup.type", "domain\n"}, {cwset + "/1-2/u/cgroup.type", "x\n"},
                 {cwset + "/t/cgroup.type", "threaded\n"}}, {"FAIL " + cwset + "/t is 'threaded'"}, true},
        {"CoreDistribution=a:0", {{cpus, "1-2\n"}},
         {"WARN " + cpus + " lacks the CPUs 0 of the machine, on the first", "FAIL Cpuwarden_CoreDistribution gives a the cores 0, on which"}, false},
        // Whatever has no cores of its own gets the first one there is, time and again.
        {"", {{cpus, "1-2\n"}}, {"FAIL " + cpus + " lacks the CPUs 0 of the machine, on the first"}, false},
        {"", {{cpus, "0-1\n"}}, {"WARN " + cpus + " lacks the CPUs 2 of the machine, on which"}, false},
        {"CoreDistribution=a:1;b:3", {{cpus, "1-2\n"}}, {"FAIL " + cpus + " lacks the CPUs 0", "WARN Cpuwarden_CoreDistribution gives b"}, false},
        {"CoreDistribution=a:1", {{cpus, "0-3\n"}, {"/sys/devices/system/cpu/online", "0,2-3\n"}},
         {"WARN the CPUs 1 are offline, on which", "FAIL Cpuwarden_CoreDistribution gives a the cores 1, on which no command"}, false},
        {"", {{"/sys/devices/system/node/has_memory", "0,2\n"}}, {"WARN " + cwset + "/cpuset.mems lacks the memory nodes 2"}, false},
        {"CoreDistribution=a:0", {{"/sys/devices/system/cpu/isolated", "1,9\n"}, {cwset + "/cpuset.cpus.effective", "1-2\n"}},
         {"WARN " + cpus + " has the CPUs 0, which the cgroups above it do not let it use, and on the first",
          "WARN " + cpus + " has the CPUs 1, which isolcpus= takes*may be placed", "FAIL Cpuwarden_CoreDistribution gives a the cores 0"}, false},
        {quota, {{children, "cpu cpuset\n"}, {"/sys/devices/system/cpu/online", "0-1\n"}, {cwset + "/cpuset.cpus.effective", "1\n"}},
         {"WARN " + cpus + " has the CPUs 2, which are offline", "WARN " + cpus + " has the CPUs 0, which the cgroups above*count"}, false},
        {quota, {{children, "cpu cpuset\n"}, {"/sys/devices/system/cpu/online", "0-3\n"}, {"/sys/devices/system/cpu/isolated", "1\n"}},
         {"WARN " + cpus + " lacks the CPUs 3 of*add nothing", "WARN " + cpus + " has the CPUs 1*count for the capacity"}, false},
        {"", v1, {}, false},
        {quota, v1, {}, false},
        {"", {*v1.begin(), {mounts, "c /sys/fs/cgroup/cpuset cgroup rw,cpuset 0 0\n"}},
         {"WARN the cpu hierarchy is not mounted at /sys/fs/cgroup/cpu"}, true},
        {quota, {*v1.begin(), {mounts, "c /sys/fs/cgroup/cpuset cgroup rw,cpuset 0 0\n"}}, {"FAIL the cpu hierarchy"}, true},
        {quota, {*v1.begin(), {root + "cpu/cwset", gone}}, {"WARN /sys/fs/cgroup/cpu/cwset does not exist"}, false},
        {quota, {*v1.begin(), {root + "cpu/cwset/cpu.cfs_quota_us", "25000\n"}, {root + "cpu/cwset/cpu.cfs_period_us", "50000\n"}}, {}, false},
        {quota, {*v1.begin(), {root + "cpu/cwset/cpu.cfs_quota_us", "24999\n"}, {root + "cpu/cwset/cpu.cfs_period_us", "50000\n"}},
         {"FAIL /sys/fs/cgroup/cpu/cwset/cpu.cfs_quota_us limits all commands"}, true},
        {quota, {*v1.begin(), {root + "cpu/cpu.cfs_quota_us", "1\n"}, {root + "cpu/cpu.cfs_period_us", "1000\n"}},
         {"FAIL /sys/fs/cgroup/cpu/cpu.cfs_quota_us limits all commands"}, true},
        {"", {*v1.begin(), {root + "cpuset/cwset/b/cpuset.mem_exclusive", "1\n"}}, {}, false},
        {quota, {*v1.begin(), {root + "cpuset/cwset/b/cpuset.mem_exclusive", "1\n"}},
         {"FAIL /sys/fs/cgroup/cpuset/cwset/b/cpuset.mem_exclusive is 1"}, true},
        {"", {*v1.begin(), {root + "cpuset/cwset/cpuset.cpus", "\n"}}, {"FAIL /sys/fs/cgroup/cpuset/cwset/cpuset.cpus is empty"}, false},
        {"", {*v1.begin(), {root + "cpuset/cwset/cpuset.cpus", "\n"},
              {mounts, "c /sys/fs/cgroup/cpuset cgroup rw,cpuset,cpuset_v2_mode 0 0\nc /sys/fs/cgroup/cpu cgroup cpu 0 0\n"}},
         {"WARN /sys/fs/cgroup/cpuset/cwset/cpuset.cpus is empty"}, false},
        {"", {*v1.begin(), {"/proc/cgroups", "cpuset\t3\t9\t0\ncpu\t4\t9\t1\n"}}, {"FAIL this kernel has no cpuset controller"}, true},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(Joined(c.faults));
        CtlHost host;
        host.Configure({c.configuration});
        if (std::ranges::includes(c.files, v1)) {
            host.BecomeV1();
        }
        for (const auto& [path, text] : c.files) {
            text == gone ? void(fs::remove_all(host.OnDisk(path))) : host.Write(path, text);
        }
        ExpectFaults(host, c.faults);
        machine.transcript.clear();
        machine.hooks["write +cpuset"] = [] { // of the root, after which the kernel makes these anew
            if (machine.transcript.end()[-2] == "open /sys/fs/cgroup/cgroup.subtree_control") {
                CtlHost::Write(cpus, "\n");
            }
        };
        const std::string outcome = host.Run(prepareCommand);
        EXPECT_EQ(outcome.starts_with("!"), c.isRefused) << outcome;
        EXPECT_TRUE(!c.isRefused || Joined(machine.transcript).find("|write") == std::string::npos);
        EXPECT_TRUE(c.isRefused || host.Run(checkCommand).find("FAIL ") == std::string::npos ||
                    Joined(c.faults).find("CPUs") != std::string::npos);
    }
}

TEST(CtlCheck, JudgesProgramsRegistriesAndSettings) {
    CtlHost host;
    host.Configure({"CoreDistribution=real:0;py:1;run:2;gone:0"});
    ::setenv("PATH", "/opt:/bin", 1);
    for (const std::string path : {"/usr/bin/real", "/bin/py3", "/bin/run", "/opt/run"}) {
        host.Write(path, path == "/bin/run" ? "#! /bin/sh -e\x1b\n" : "no script");
        fs::permissions(host.OnDisk(path), fs::perms(path.starts_with("/opt/") ? 0644 : 0755));
    }
    host.Link("/bin/real", "../usr/bin/real");
    host.Link("/bin/py", "py3");
    host.Write("/sys/devices/system/cpu/present", "0-4\n"); // which can go online
    fs::permissions(host.OnDisk(host.CoreRegistry(0)), fs::perms(0644));
    host.Write(host.CoreRegistry(1), "w:7:5\nw:7\n");
    host.Write(host.CoreRegistry(2), "w:7:5\n\n");
    fs::create_hard_link(host.OnDisk(host.allocations), host.OnDisk("/tmp/other"));
    fs::permissions(host.OnDisk("/tmp"), fs::perms(0777));
    host.Write("/proc/sys/fs/protected_symlinks", "0\n");
    fs::remove(host.OnDisk("/proc/sys/fs/protected_regular"));
    machine.errors["connect"] = {ENOENT, ECONNREFUSED};
    ExpectFaults(host, {"WARN /bin/py is a link to a file of another name*: launch /bin/py3,",
                        R"(WARN /bin/run is a script of /bin/sh -e\x1b, so)",
                        "WARN /tmp/cw_allocations.lock is a plain file of*another name beside",
                        "WARN /tmp/core_pids_3.lock and 1 more like it is missing",
                        "WARN /tmp/core_pids_0.lock (0644) lets other users",
                        "WARN /tmp/core_pids_1.lock has lines other than", "WARN /tmp has mode 0777",
                        "WARN fs.protected_symlinks is 0", "WARN fs.protected_regular is missing",
                        "WARN nothing listens at /dev/log"});
    EXPECT_EQ(host.status, 0);
    fs::permissions(host.OnDisk("/tmp"), fs::perms(0755)); // in which no other user can make a file
    EXPECT_THAT(Faults(host), Not(testing::Contains(StartsWith("WARN /tmp has"))));
}

TEST(CtlCheck, JudgesWhetherRegistriesTakeRecords) {
    CtlHost host;
    machine.errors = {{"open " + host.CoreRegistry(0), {EROFS}}, {"open " + host.CoreRegistry(1), {EPERM}}};
    machine.errors["open " + host.allocations] = {EROFS};
    ExpectFaults(host, {"FAIL /tmp/core_pids_0.lock is mounted read-only",
                        "FAIL /tmp/core_pids_1.lock is immutable",
                        "WARN only in quota mode: /tmp/cw_allocations.lock is mounted read-only"});
    machine.fileSystem.f_blocks = machine.fileSystem.f_files = 9; // and none of them is free
    ExpectFaults(host, {"WARN /tmp has no free block", "WARN /tmp has no free inode"});
    machine.fileSystem.f_bavail = machine.fileSystem.f_ffree = 1;
    machine.fileSystem.f_flag = ST_RDONLY;
    ExpectFaults(host, {"FAIL /tmp is mounted read-only"});
}

TEST(CtlCheck, WarnsOfAffinitiesThatAreAboutToBeLost) {
    for (const auto& [release, isLost] : std::map<std::string, bool>{
             {"5.19.0", true}, {"6.1.0-9", true}, {"6.2.0", false}, {"6.10", false}, {"7.0", false}}) {
        CtlHost host;
        host.Write("/proc/sys/kernel/osrelease", release + "\n");
        host.Write("/sys/fs/cgroup/cgroup.subtree_control", "cpu\n");
        const auto start = [&](int pid, const std::string& cgroup, const std::string& status) {
            host.Start(pid, 1, "/bin/w");
            const std::string task = "task/" + std::to_string(pid) + "/status ";
            host.Fill("/proc/" + std::to_string(pid), {"cgroup 1:cpu:/x\n0::" + cgroup, task + status});
        };
        start(5, "/", "VmSize:\t1 kB\nCpus_allowed_list:\t1");
        start(6, "/a", "VmSize:\t1 kB\nCpus_allowed_list:\t0-2");
        start(7, "/a", "VmSize:\t1 kB\nCpus_allowed_list:\t1");
        start(8, "/a", "Cpus_allowed_list:\t1");
        const Lines faults = Faults(host);
        EXPECT_EQ(faults.size(), isLost ? 1U : 0U) << release << Joined(faults);
        EXPECT_TRUE(!isLost || faults.front().ends_with(": 7 (w)")) << Joined(faults);
        EXPECT_EQ(host.Run(prepareCommand).find(": 7 (w)\n") != std::string::npos, isLost);
    }
}

TEST(CtlCheck, ReadsAndWritesCpuLists) {
    const std::map<std::string, std::string> cases{
        {"", ""},    {"3", "3"},   {"0-2,4,6-7", "0-2,4,6-7"}, {"2,1,0", "0-2"},
        {"5-3", ""}, {"x,1", "1"}, {"0-99999999999", "0-8191"}};
    for (const auto& [list, written] : cases) {
        EXPECT_EQ(ToCpuList(ParseCpuList(list)), written) << list;
    }
}

} // namespace
