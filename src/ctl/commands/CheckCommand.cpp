// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "ctl/commands/LaunchTrial.hpp"
#include "ctl/decide/Findings.hpp"
#include "ctl/tell/Reasons.hpp"
#include "ctl/tell/Text.hpp"

#include <algorithm>
#include <cstdio>

namespace {

constexpr int failureStatus = 1;

/// Findings name files, cgroups, programs and processes, which others may have named.
std::string ToLine(const Finding& finding) {
    return std::string(NameOf(finding.grade)) + " " + Printable(finding.text) + "\n";
}

int CheckHost(std::span<const std::string> arguments, const Services& services) {
    const ConfigurationReading configuration = ReadConfiguration(services);
    const HostFacts host = GatherAll(services, configuration);
    Findings findings = Judge(host, configuration);
    if (!arguments.empty()) {
        findings.push_back(TryLaunch(host, configuration, services));
    }
    for (const Finding& finding : findings) {
        std::fputs(ToLine(finding).c_str(), stdout);
    }
    const bool hasFailure =
        std::ranges::any_of(findings, [](const Finding& finding) { return finding.grade == Grade::fail; });
    return hasFailure ? failureStatus : 0;
}

} // namespace

const Command checkCommand{.name = "check",
                           .option = "--launch",
                           .summary =
                               "tell whether launches work on this host; with --launch, by one for real",
                           .run = CheckHost};
