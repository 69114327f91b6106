// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "ctl/decide/HostReport.hpp"
#include "ctl/tell/MetricsText.hpp"

#include <cstdio>

namespace {

int PrintMetrics(std::span<const std::string> /*arguments*/, const Services& /*services*/) {
    const HostReport report = MakeReport(TakeSnapshot());
    std::fputs(ToOpenMetrics(report).c_str(), stdout);
    return 0;
}

} // namespace

const Command metricsCommand{
    .name = "metrics", .option = "", .summary = "print the counts as OpenMetrics text", .run = PrintMetrics};
