// SPDX-License-Identifier: Apache-2.0
#include "ctl/CheckCommand.hpp"

namespace {

int Run(std::span<const std::string> /*arguments*/, const Services& /*services*/) {
    return 0;
}

} // namespace

const Command checkCommand{.name = "check",
                           .option = "",
                           .summary = "tell whether launches work on this host, changing nothing",
                           .run = Run};
