// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "ctl/tell/Text.hpp"
#include "filesystem/Split.hpp"
#include "support/CtlHosts.hpp"

namespace {

// A sequence that clears the screen, one in C1, quotes, and what is no UTF-8.
const std::string evil = "\x1b[2J\xc2\x9b\"\\\x0e\xff\xed\xa0\x80\xc0\xaf\xf4\x90\x80\x80";

TEST(CtlOutput, LetsNoNameSteerTheTerminal) {
    CtlHost host;
    host.Configure(
        {"ManagedProcessCpuQuotaPercentage=50", "ShareCore=" + evil, "CoreDistribution=" + evil + ":0"});
    host.Launch(10, 11, "/bin/" + evil, evil);
    host.Launch(20, 21, "/bin/x\n" + evil, evil);
    host.Launch(30, 31, "/bin/w", evil);
    host.Start(31, 30, "/usr/bin/Cpuwarden", host.hasForkedOnly);
    host.Write(host.allocations, evil + ":11:180000\n" + evil + ":11:7\n");
    host.Write("/sys/fs/cgroup/cwset/" + evil + "/cgroup.procs", "40\n");
    host.Write("/proc/40/stat",
               "40 (" + evil + std::regex_replace(host.Read("/proc/1/stat"), std::regex("^1 .w"), ""));
    host.Write(host.CoreRegistry(1), evil + ":40:180000\n");
    host.Link("/proc/40/exe", "/bin/" + evil);
    host.Write(host.CoreRegistry(2), R"(\x1b:41:180000)"
                                     "\n\x1b:42:180000\n");
    host.Start(41, 1, R"(/bin/\x1b)");
    host.Start(42, 1, "/bin/\x1b");
    const std::string text = host.Run(statusCommand);
    const std::string json = host.Run(statusCommand, {"--json"});
    const std::string metrics = host.Run(metricsCommand);
    const std::string all = text + json + metrics + host.Run(checkCommand);
    EXPECT_EQ(std::regex_replace(all, std::regex("[\n -~]"), ""), "");
    const std::string shown = R"(\x1b[2J\xc2\x9b"\\x0e\xff\xed\xa0\x80\xc0\xaf\xf4\x90\x80\x80)";
    EXPECT_EQ(Printable(evil), shown);
    EXPECT_EQ(Printable("gr\xc3\xb6\xc3\x9f \xe2\x80\xae\xff!\xf0\x9f\x90\xa7\xe2\x80"),
              "gr\xc3\xb6\xc3\x9f \\xe2\\x80\\xae\\xff!\xf0\x9f\x90\xa7\\xe2\\x80");
    EXPECT_THAT(json, HasSubstr(R"("name":"\u001b[2J\u009b\"\\\u000e\ufffd)"));
    EXPECT_THAT(metrics, HasSubstr(R"(application="\\x1b[2J\\xc2\\x9b\"\\\\x0e)"));
    EXPECT_THAT(metrics, HasSubstr(R"({core="2",application="\\x1b"} 2)")); // no sample twice
}

TEST(CtlOutput, ListsNoMoreThanCanBeRead) {
    CtlHost host;
    const std::string longest = "y" + std::string(39, 'x');
    host.Write(host.CoreRegistry(0), Joined(Lines(1500, "w:99:5"), "\n") + "\n");
    host.Write(host.CoreRegistry(1), longest + ":50:180000\n" + longest + "x:51:180000\n");
    host.Start(50, 1, "/bin/" + longest);
    host.Start(51, 1, "/bin/" + longest + "x");
    const std::string words(16384, 'y');
    host.Launch(20, 21, "/bin/Cpuwarden", words.substr(10));
    host.Launch(30, 31, "/bin/Cpuwarden", words.substr(11));
    host.Start(21, 20, "/bin/Cpuwarden", host.hasForkedOnly);
    host.Start(31, 30, "/bin/Cpuwarden", host.hasForkedOnly);
    machine.now += std::chrono::hours(25) + std::chrono::milliseconds(40);
    const std::string json = host.Run(statusCommand, {"--json"});
    EXPECT_EQ(Field(json, "dead_record_count"), "1500");
    EXPECT_EQ(Split(Field(json, "reason"), '|'), Lines(1000, "ended"));
    for (const std::size_t cut : {10UL, 11UL}) {
        EXPECT_THAT(json, HasSubstr(":\"" + words.substr(cut) + '"'));
    }
    EXPECT_EQ(Field(json, "command_cut"), "true|false");
    const std::string text = host.Run(statusCommand);
    EXPECT_THAT(text, HasSubstr("\nand 1490 more\n"));
    EXPECT_THAT(text, HasSubstr("\n1     " + longest + "  -      50   -         1-01:30:00  2.00\n"));
    EXPECT_THAT(text, HasSubstr("\n1     " + longest.substr(0, 37) + "...  -      51   "));
}

} // namespace
