// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "ctl/read/CpuList.hpp"
#include "filesystem/Split.hpp"
#include "support/CtlHosts.hpp"

#include <fnmatch.h>

namespace {

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

TEST(CtlCheck, TakesTheEmptyDeviceForAnEmptyConfiguration) {
    CtlHost host;
    host.Link("/etc/brindlewax.d/agent.conf", "/dev/null");
    ExpectFaults(host, {});
    host.Link("/etc/brindlewax.d/agent.conf", "/dev/zero");
    ExpectFaults(host, {"FAIL no launcher starts with /etc/brindlewax.d/agent.conf: it is no file"});
}

// What keeps launches from working, prepare asks for before it changes anything, or mends it. "faults" are
// all lines of check but PASS in their order, as patterns of fnmatch(3) for their beginnings. "refused" says
// whether prepare ends by an exception, before it writes anything; "lasting", why a FAIL is left after one
// that does not.
TEST(CtlCheck, JudgesTheHost) {
    for (const auto& c : ReadCases("hosts.json", {"faults", "refused", "lasting"})) {
        SCOPED_TRACE(c.dump());
        const Lines faults = c.at("faults");
        const bool isRefused = c.at("refused");
        CtlHost host;
        host.Become(c);
        ExpectFaults(host, faults);
        machine.transcript.clear();
        machine.hooks["write +cpuset"] = [] { // of the root, after which the kernel makes these anew
            if (machine.transcript.end()[-2] == "open /sys/fs/cgroup/cgroup.subtree_control") {
                CtlHost::Write(cpus, "\n");
            }
        };
        const std::string outcome = host.Run(prepareCommand);
        EXPECT_EQ(outcome.starts_with("!"), isRefused) << outcome;
        EXPECT_TRUE(!isRefused || Joined(machine.transcript).find("|write") == std::string::npos);
        const bool isFit = isRefused || host.Run(checkCommand).find("FAIL ") == std::string::npos;
        EXPECT_NE(isFit, c.contains("lasting"));
    }
}

TEST(CtlCheck, JudgesProgramsRegistriesAndSettings) {
    CtlHost host;
    host.Configure({R"(CoreDistribution="py:1;real:0;run:2;gone:0")"});
    ::setenv("PATH", ":/opt:/bin", 1); // the first is where one is
    for (const std::string path : {"/py", "/usr/bin/real", "/bin/py3", "/bin/run", "/opt/run"}) {
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
    ::unsetenv("PATH");
    host.Link("/usr/bin/gone", "real");
    EXPECT_THAT(Faults(host), testing::Contains(StartsWith("WARN /usr/bin/gone is a link")));
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
    machine.errors["statvfs"] = {EIO}; // of which nothing is told
    ExpectFaults(host, {});
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
        host.Write("/sys/fs/cgroup/cgroup.subtree_control", "cpu cpuset\n");
        EXPECT_EQ(Faults(host), Lines{}); // which are lost already
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
