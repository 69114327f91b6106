// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Findings.hpp"
#include "ctl/decide/Requirements.hpp"
#include "ctl/tell/Text.hpp"
#include "support/CtlHosts.hpp"
#include "support/HostTest.hpp"

#include <cerrno>

#include <sys/stat.h>

namespace {

const std::string configurationFile = "/etc/brindlewax.d/agent.conf";

ConfigurationReading Read(const Lines& lines) {
    machine.files = {{configurationFile, lines}};
    return ReadConfiguration({std::make_shared<MemoryFileSystem>(), nullptr, nullptr});
}

/// What is wrong, a line each.
Lines Faults(const HostFacts& host, const ConfigurationReading& configuration) {
    Lines faults;
    for (const Finding& finding : Judge(host, configuration)) {
        if (finding.grade != Grade::pass) {
            faults.push_back((finding.grade == Grade::warn ? "WARN " : "FAIL ") + finding.text);
        }
    }
    return faults;
}

/// Each fault begins as expected, in this order.
void ExpectFaults(const Lines& seen, const Lines& expected) {
    ASSERT_EQ(seen.size(), expected.size()) << Joined(seen);
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].substr(0, expected[i].size()), expected[i]);
    }
}

const std::string distribution = "Cpuwarden_CoreDistribution=";
const std::string groups = "Cpuwarden_ApplicationGroups=";
const std::string quota = "Cpuwarden_ManagedProcessCpuQuotaPercentage=";
const std::string timeout = "Cpuwarden_ProcessExecutionTimeoutInSeconds=";

TEST(CtlCheck, JudgesTheConfiguration) {
    // clang-format off
    const struct {
        Lines lines;
        Lines faults;
    } cases[] = {
        {{}, {}},
        {{quota + "400"}, {}},
        {{quota + "401"}, {"FAIL Cpuwarden_ManagedProcessCpuQuotaPercentage is 401, more than the capacity"}},
        {{quota + "\"\""}, {"FAIL no launcher starts with " + configurationFile + ": Cpuwarden_ManagedProcessCpuQuota"}},
        {{timeout + "0"}, {"FAIL Cpuwarden_ProcessExecutionTimeoutInSeconds is 0"}},
        {{timeout + "1"}, {"WARN Cpuwarden_ProcessExecutionTimeoutInSeconds is 1"}},
        {{timeout + "2"}, {}},
        {{distribution + "a:0,3;b:4;c:0,4294967296"}, {"WARN launchers say of " + configurationFile}},
        {{distribution + "\"a:0,3;b:4,5\""}, {"WARN Cpuwarden_CoreDistribution gives b the cores 4-5, which the machine"}},
        // A member has the cores of its group as well.
        {{distribution + "g:4;b:0", groups + "g:a,b"},
         {"WARN Cpuwarden_CoreDistribution gives a the cores 4, which the machine",
          "WARN Cpuwarden_CoreDistribution gives b the cores 4, which the machine"}},
        {{distribution + "g:0;a:1", groups + "g:a,b;h:a,c"}, {"WARN the group h of Cpuwarden_ApplicationGroups has no"}},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(Joined(c.lines));
        const bool isQuota = !c.lines.empty() && c.lines.front().starts_with(quota);
        HostFacts host = isQuota ? PreparedV1() : PreparedV2();
        ExpectFaults(Faults(host, Read(c.lines)), c.faults);
    }
}

TEST(CtlCheck, JudgesTheHost) {
    const std::string cpus = "/sys/fs/cgroup/cwset/cpuset.cpus";
    // clang-format off
    const struct {
        std::string what;
        Lines lines;
        void (*spoil)(HostFacts& host);
        Lines faults;
    } cases[] = {
        {"nothing", {}, [](HostFacts&) {}, {}},
        {"another user's cgroup, not handed over whole",
         {},
         [](HostFacts& host) {
             host.managed.owner = 1000;
             host.root.procs.owner = 1000;
             for (Registry& registry : host.registries) {
                 registry.file.owner = 1000;
             }
         },
         {"FAIL user 1000 may not write to /sys/fs/cgroup/cwset/cgroup.procs"}},
        {"narrowed",
         {distribution + "a:1"},
         [](HostFacts& host) { host.managed.cpus = "2-3"; },
         {"WARN " + cpus + " lacks the CPUs 0-1 of the machine, on which",
          "FAIL Cpuwarden_CoreDistribution gives a the cores 1,"}},
        {"a link and a script",
         {},
         [](HostFacts& host) {
             host.programs = {{"real", "/bin/real", "/usr/bin/real", ""},
                              {"missing", "", "", ""},
                              {"py", "/bin/py", "/bin/py3", ""},
                              {"run", "/bin/run", "/bin/run", "/bin/sh -e"}};
         },
         {"WARN /bin/py is a link to a file of another name, so that its records never count: launch "
          "/bin/py3,",
          "WARN /bin/run is a script of /bin/sh -e, so"}},
        {"registries",
         {},
         [](HostFacts& host) {
             host.registries[0].file = {"/tmp/core_pids_0.lock", S_IFIFO | 0600, 0, 1};
             host.registries[1].file.mode = 0;
             host.registries[2].file.mode = S_IFREG | 0644;
             host.registries[3].strayLines = 1;
             host.registries[4].file.owner = 7;
         },
         {"FAIL /tmp/core_pids_0.lock is a pipe of user 0",
          "FAIL /tmp/cw_allocations.lock is a plain file of user 7", "WARN /tmp/core_pids_1.lock is missing",
          "WARN /tmp/core_pids_2.lock (0644) lets other users",
          "WARN /tmp/core_pids_3.lock has lines other than"}},
        {"a read-only /tmp",
         {},
         [](HostFacts& host) {
             host.temporaryFileSystem.isReadOnly = true;
             host.registries[0].openError = EROFS;
         },
         {"FAIL /tmp is mounted read-only"}},
        {"a full /tmp",
         {},
         [](HostFacts& host) { host.temporaryFileSystem = {false, false, false}; },
         {"WARN /tmp has no free block", "WARN /tmp has no free inode"}},
        {"registries that cannot be written",
         {},
         [](HostFacts& host) {
             host.managed.owner = host.managed.procs.owner = host.root.procs.owner = 1000;
             for (Registry& registry : host.registries) {
                 registry.file.owner = 1000;
             }
             host.registries[0].openError = EROFS;
             host.registries[1].openError = EPERM;
             host.registries[2].file.mode = S_IFREG | 0400;
             host.registries[3].openError = EACCES; // of a caller who is no launcher
         },
         {"FAIL /tmp/core_pids_0.lock is mounted read-only", "FAIL /tmp/core_pids_1.lock is immutable",
          "FAIL /tmp/core_pids_2.lock has mode 0400"}},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        HostFacts host = PreparedV2();
        c.spoil(host);
        ExpectFaults(Faults(host, Read(c.lines)), c.faults);
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
