// SPDX-License-Identifier: Apache-2.0
#include "ctl/StatusCommand.hpp"

namespace {

int Run(std::span<const std::string> /*arguments*/, const Services& /*services*/) {
    return 0;
}

} // namespace

const Command statusCommand{.name = "status",
                            .option = "--json",
                            .summary = "show who holds which core, who waits, and who does not count",
                            .run = Run};
