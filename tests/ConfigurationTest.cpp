// SPDX-License-Identifier: Apache-2.0
#include "support/HostTest.hpp"

namespace {

/// All that a configuration says, in one line.
std::string Summary(const Configuration& c) {
    std::string text = Sentence(c.ShareCore() ? "shared" : "own", c.ManagedProcessCpuQuotaPercentage(),
                                c.ProcessExecutionTimeout().count(), c.ProcessShutdownTimeout().count());
    text += " A:" + Joined(c.CoreAssignmentSchema("A")) + " B:" + Joined(c.CoreAssignmentSchema("B"));
    const std::map<std::string, Lines> groups(c.ApplicationGroups().begin(), c.ApplicationGroups().end());
    for (const auto& [group, applications] : groups) {
        text += " " + group + "=" + Joined(applications);
    }
    return text;
}

struct ConfigurationTest : HostTest {};

// Each case is the lines of a file, what is made of them, and what is logged, a failure behind an exclamation
// mark.
TEST_F(ConfigurationTest, JudgesEachLine) {
    EXPECT_EQ(Summary({fileSystem, logger}), "own 0 900 5 A: B:"); // without a file
    for (const auto& c : ReadCases("configurations.json")) {
        const Lines lines = c["lines"];
        std::string summary = "none";
        EXPECT_EQ(Outcome([&] { summary = Summary(*Configured(lines)); }), Joined(Lines(c["log"])))
            << c.dump();
        EXPECT_EQ(summary, std::string(c["summary"])) << c.dump();
    }
}

} // namespace
