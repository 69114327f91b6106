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

const std::string defaults = "own 0 900 5 A: B:";
const std::string share = "Cpuwarden_ShareCore";
const std::string quota = "Cpuwarden_ManagedProcessCpuQuotaPercentage";
const std::string execution = "Cpuwarden_ProcessExecutionTimeoutInSeconds";
const std::string shutdown = "Cpuwarden_ProcessShutdownTimeoutInSeconds";
const std::string cores = "Cpuwarden_CoreDistribution";
const std::string groups = "Cpuwarden_ApplicationGroups";

TEST_F(ConfigurationTest, JudgesEachLine) {
    const std::string noNumber = " must be a positive integer with no extra characters. Got: ";
    const std::string to900 = ". Defaulting to 900 seconds.", to5 = ". Defaulting to 5 seconds.";
    const std::string duplicate = "warning: Duplicate configuration key found: ",
                      ignored = ". Ignoring duplicate entry.";
    const std::string misquoted =
        "warning: Configuration value has malformed quotes for key: K. Expected format: "
        "key=\"value\" or key=value. Ignoring line.";
    const std::string doubled = "warning: Double '=' found in value for key: K. Ignoring it.";
    const std::string entry = "A:0,x,4294967296,1 ,-1";
    const std::string invalid = "err: " + cores + " - Invalid core ID defined at line: " + entry;
    const std::string outOfRange = "err: " + cores + " - Out of range core ID defined at line: " + entry;
    const std::string inFile = " cannot be empty in configuration file at line: ";
    const std::string format = " - Bad formatting in configuration file at line: ",
                      colon = ". Missing ':' separator.";
    // clang-format off
    const struct { Lines lines; std::string summary; Lines log; } cases[] = {
        {{"", "# " + execution + "=1", "no assignment", "Other=1", share + " = true", "=x"}, defaults, {}},
        {{share + "=TRUE"}, "shared 0 900 5 A: B:", {}},
        {{share + "=\"False\""}, defaults, {}},
        {{share + "=Yes\r"}, defaults, {"err: " + share + " expects 'true' or 'false'. Got: yes\r. Defaulting to 'false'."}},
        {{quota + "= 4294967295"}, "own 4294967295 900 5 A: B:", {}},
        {{quota + "=50%"}, "none", {"!" + quota + noNumber + "50%."}},
        {{quota + "=5000000000x"}, "none", {"!" + quota + noNumber + "5000000000x."}},
        {{quota + "=\"\""}, "none", {"!" + quota + noNumber + "."}},
        {{quota + "=0"}, "none", {"!" + quota + " must be greater than 0. Got: 0."}},
        {{quota + "=-1"}, "none", {"!" + quota + " value is out of range. Got: -1."}},
        {{quota + "=4294967296"}, "none", {"!" + quota + " value is out of range. Got: 4294967296."}},
        {{quota + "=99999999999999999999x"}, "none", {"!" + quota + " value is out of range. Got: 99999999999999999999x."}},
        {{execution + "=30s", shutdown + "=0"}, "own 0 30 0 A: B:", {}},
        {{execution + "=2147483647", shutdown + "=+7"}, "own 0 2147483647 7 A: B:", {}},
        {{execution + "=-1"}, defaults, {"err: " + execution + " must be non-negative. Got: -1" + to900}},
        {{shutdown + "=2147483648"}, defaults, {"err: " + shutdown + " value is out of range. Got: 2147483648" + to5}},
        {{shutdown + "=\"\""}, defaults, {"err: " + shutdown + " expects a valid integer. Got: " + to5}},
        // A blank value leaves the key free, a bad one occupies it, known or not.
        {{shutdown + "= \t", shutdown + "=7"}, "own 0 900 7 A: B:", {}},
        {{execution + "=x", execution + "=7"}, defaults,
            {"err: " + execution + " expects a valid integer. Got: x" + to900, duplicate + execution + ignored}},
        {{"Other=1", "Other=2"}, defaults, {duplicate + "Other" + ignored}},
        {{"K=\"", "K=\"a", "K=a\"", "K=\"=b", "K=\"a\"b\""}, defaults, {misquoted, misquoted, misquoted, misquoted}},
        {{"K=a=b", "K=\"a=b\"", "K=a"}, defaults, {doubled, doubled}},
        // A core is assigned to a name, and to a group for each of its members.
        {{cores + "=A:5, 0,;B:2,2;A:3;g:7", groups + "=g:A,B,;h:B;g:x"}, "own 0 900 5 A:0|3|5|7 B:2|7 g=A|B|x h=B", {}},
        {{cores + "=A:1;B"}, defaults, {"err: " + cores + format + "B" + colon}},
        {{cores + "=;A:1"}, defaults, {"err: " + cores + format + colon}},
        {{cores + "=A:1;:2"}, defaults, {"err: " + cores + " - Process name cannot be empty at line: :2"}},
        {{cores + "=A:1;B:"}, defaults, {"err: " + cores + " - Core list cannot be empty at line: B:"}},
        {{cores + "=" + entry + ";B", groups + "=g:B"}, defaults + " g=B", {invalid, outOfRange, invalid, outOfRange}},
        {{groups + "=g"}, defaults, {"err: " + groups + format + "g" + colon}},
        {{groups + "=:x"}, defaults, {"err: " + groups + " - Group name cannot be empty at line: :x"}},
        {{groups + "=g:"}, defaults, {"err: " + groups + " - Application list" + inFile + "g:"}},
        {{groups + "=h:x;g:a,,b", cores + "=A:1"}, "own 0 900 5 A:1 B:",
            {"err: " + groups + " - Application name" + inFile + "g:a,,b"}},
    };
    // clang-format on
    EXPECT_EQ(Summary({fileSystem, logger}), defaults); // without a file
    for (const auto& c : cases) {
        std::string summary = "none";
        EXPECT_EQ(Outcome([&] { summary = Summary(*Configured(c.lines)); }), Joined(c.log))
            << Joined(c.lines);
        EXPECT_EQ(summary, c.summary) << Joined(c.lines);
    }
}

} // namespace
