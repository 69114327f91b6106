// SPDX-License-Identifier: Apache-2.0
#include "ctl/MetricsCommand.hpp"

namespace {

int Run(std::span<const std::string> /*arguments*/, const Services& /*services*/) {
    return 0;
}

} // namespace

const Command metricsCommand{
    .name = "metrics", .option = "", .summary = "print the counts as OpenMetrics text", .run = Run};
