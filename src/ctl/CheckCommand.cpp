// SPDX-License-Identifier: Apache-2.0
#include "ctl/CheckCommand.hpp"

#include "ctl/Findings.hpp"

#include <algorithm>
#include <cstdio>

namespace {

constexpr int failureStatus = 1;

std::string ToLine(const Finding& finding) {
    const char* const grade = finding.grade == Grade::pass   ? "PASS"
                              : finding.grade == Grade::warn ? "WARN"
                                                             : "FAIL";
    return std::string(grade) + " " + finding.text + "\n";
}

int Run(std::span<const std::string> /*arguments*/, const Services& services) {
    const ConfigurationReading configuration = ReadConfiguration(services);
    const std::vector<Finding> findings = Judge(GatherAll(services, configuration), configuration);
    for (const Finding& finding : findings) {
        std::fputs(ToLine(finding).c_str(), stdout);
    }
    const bool hasFailure = std::any_of(findings.begin(), findings.end(),
                                        [](const Finding& finding) { return finding.grade == Grade::fail; });
    return hasFailure ? failureStatus : 0;
}

} // namespace

const Command checkCommand{.name = "check",
                           .option = "",
                           .summary = "tell whether launches work on this host, changing nothing",
                           .run = Run};
