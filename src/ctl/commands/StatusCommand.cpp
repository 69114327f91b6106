// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "ctl/decide/HostReport.hpp"
#include "ctl/tell/StatusJson.hpp"
#include "ctl/tell/StatusText.hpp"

#include <cstdio>

namespace {

int ShowStatus(std::span<const std::string> arguments, const Services& /*services*/) {
    const HostReport report = MakeReport(TakeSnapshot());
    const std::string text = arguments.empty() ? ToText(report) : ToJson(report);
    std::fputs(text.c_str(), stdout);
    return 0;
}

} // namespace

const Command statusCommand{.name = "status",
                            .option = "--json",
                            .summary = "show who holds which core, who waits, and who does not count",
                            .run = ShowStatus};
