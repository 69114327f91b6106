// SPDX-License-Identifier: Apache-2.0
#include "support/Fakes.hpp"

namespace {

/// All that a configuration says, in one line.
std::string Summary(const Configuration& c) {
    std::string text = (c.ShareCore() ? "share " : "") +
                       std::to_string(c.ManagedProcessCpuQuotaPercentage()) + " " +
                       std::to_string(c.ProcessExecutionTimeout().count()) + " " +
                       std::to_string(c.ProcessShutdownTimeout().count());
    for (const char* name : {"A", "B"}) {
        text += std::string(" ") + name + ":";
        for (const std::uint32_t core : c.CoreAssignmentSchema(name))
            text += std::to_string(core) + ",";
    }
    const std::map<std::string, Lines> groups(c.ApplicationGroups().begin(), c.ApplicationGroups().end());
    for (const auto& [group, applications] : groups)
        text += " " + group + "=" + Joined(applications);
    return text;
}

const std::string defaults = "0 900 5 A: B:";

TEST(Configuration, JudgesEachLine) {
    const std::string execution = "Cpuwarden_ProcessExecutionTimeoutInSeconds";
    const std::string shutdown = "Cpuwarden_ProcessShutdownTimeoutInSeconds";
    const std::string cores = "Cpuwarden_CoreDistribution";
    const std::string groups = "Cpuwarden_ApplicationGroups";
    const std::string misquoted =
        R"(warning: Configuration value has malformed quotes for key: K. Expected format: key="value" or key=value. Ignoring line.)";
    const std::string doubled = "warning: Double '=' found in value for key: K. Ignoring it.";
    const std::string entry = "A:0,x,4294967296,1 ,-1";
    const std::string invalid = "err: " + cores + " - Invalid core ID defined at line: " + entry;
    const std::string outOfRange = "err: " + cores + " - Out of range core ID defined at line: " + entry;
    // clang-format off
    const struct { Lines lines; std::string summary; Lines log; } cases[] = {
        {{"", "# " + execution + "=1", "no assignment", "Other=1", "Cpuwarden_ShareCore = true", "=x"}, defaults, {}},
        {{"Cpuwarden_ShareCore=TRUE"}, "share " + defaults, {}},
        {{"Cpuwarden_ShareCore=\"False\""}, defaults, {}},
        {{"Cpuwarden_ShareCore=Yes\r"}, defaults, {"err: Cpuwarden_ShareCore expects 'true' or 'false'. Got: yes\r. Defaulting to 'false'."}},
        {{"Cpuwarden_ManagedProcessCpuQuotaPercentage= 4294967295"}, "4294967295 900 5 A: B:", {}},
        {{execution + "=30s", shutdown + "=0"}, "0 30 0 A: B:", {}},
        {{execution + "=2147483647", shutdown + "=+7"}, "0 2147483647 7 A: B:", {}},
        {{execution + "=-1"}, defaults, {"err: " + execution + " must be non-negative. Got: -1. Defaulting to 900 seconds."}},
        {{shutdown + "=2147483648"}, defaults, {"err: " + shutdown + " value is out of range. Got: 2147483648. Defaulting to 5 seconds."}},
        {{shutdown + "=\"\""}, defaults, {"err: " + shutdown + " expects a valid integer. Got: . Defaulting to 5 seconds."}},
        // A blank value leaves the key free, a bad one occupies it, known or not.
        {{execution + "= \t", execution + "=7"}, "0 7 5 A: B:", {}},
        {{execution + "=x", execution + "=7"}, defaults, {"err: " + execution + " expects a valid integer. Got: x. Defaulting to 900 seconds.", "warning: Duplicate configuration key found: " + execution + ". Ignoring duplicate entry."}},
        {{"Other=1", "Other=2"}, defaults, {"warning: Duplicate configuration key found: Other. Ignoring duplicate entry."}},
        {{"K=\"", "K=\"a", "K=a\"", "K=\"=b", "K=\"a\"b\""}, defaults, {misquoted, misquoted, misquoted, misquoted}},
        {{"K=a=b", "K=\"a=b\"", "K=a"}, defaults, {doubled, doubled}},
        // A core is assigned to a name, and to a group for each of its members.
        {{cores + "=A:5, 0,;B:2,2;A:3;g:7", groups + "=g:A,B,;h:B;g:x"}, "0 900 5 A:0,3,5,7, B:2,7, g=A|B|x h=B", {}},
        {{cores + "=A:1;B"}, defaults, {"err: " + cores + " - Bad formatting in configuration file at line: B. Missing ':' separator."}},
        {{cores + "=;A:1"}, defaults, {"err: " + cores + " - Bad formatting in configuration file at line: . Missing ':' separator."}},
        {{cores + "=A:1;:2"}, defaults, {"err: " + cores + " - Process name cannot be empty at line: :2"}},
        {{cores + "=A:1;B:"}, defaults, {"err: " + cores + " - Core list cannot be empty at line: B:"}},
        {{cores + "=" + entry + ";B", groups + "=g:B"}, "0 900 5 A: B: g=B", {invalid, outOfRange, invalid, outOfRange}},
        {{groups + "=g"}, defaults, {"err: " + groups + " - Bad formatting in configuration file at line: g. Missing ':' separator."}},
        {{groups + "=:x"}, defaults, {"err: " + groups + " - Group name cannot be empty at line: :x"}},
        {{groups + "=g:"}, defaults, {"err: " + groups + " - Application list cannot be empty in configuration file at line: g:"}},
        {{groups + "=h:x;g:a,,b", cores + "=A:1"}, "0 900 5 A:1, B:", {"err: " + groups + " - Application name cannot be empty in configuration file at line: g:a,,b"}},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(Joined(c.lines));
        Lines log;
        EXPECT_EQ(Summary(*Configured(c.lines, std::make_shared<FakeLogger>(log))), c.summary);
        EXPECT_EQ(log, c.log);
    }
}

TEST(Configuration, RefusesABadQuota) {
    Lines log;
    const std::string key = "Cpuwarden_ManagedProcessCpuQuotaPercentage";
    const std::map<std::string, std::string> cases{
        {"50%", " must be a positive integer with no extra characters. Got: 50%."},
        {"5000000000x", " must be a positive integer with no extra characters. Got: 5000000000x."},
        {"\"\"", " must be a positive integer with no extra characters. Got: ."},
        {"0", " must be greater than 0. Got: 0."},
        {"-1", " value is out of range. Got: -1."},
        {"4294967296", " value is out of range. Got: 4294967296."},
        {"99999999999999999999x", " value is out of range. Got: 99999999999999999999x."},
    };
    for (const auto& [value, reason] : cases) {
        EXPECT_EQ(Failure<Exceptions::XRuntimeError>(
                      [&] { Configured({key + "=" + value}, std::make_shared<FakeLogger>(log)); }),
                  key + reason);
    }
}

} // namespace
