// SPDX-License-Identifier: Apache-2.0
#include "ctl/PrepareCommand.hpp"

namespace {

int Run(std::span<const std::string> /*arguments*/, const Services& /*services*/) {
    return 0;
}

} // namespace

const Command prepareCommand{.name = "prepare",
                             .option = "",
                             .summary = "make the managed cgroup and the registries ready for launchers",
                             .run = Run};
