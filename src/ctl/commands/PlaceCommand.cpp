// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/Command.hpp"
#include "ctl/read/Place.hpp"

#include <cstdio>

namespace {

/// Stays until its standard input ends, so that whoever launched it can look at it.
int ShowPlace(std::span<const std::string> /*arguments*/, const Services& services) {
    std::fputs(ToText(ReadOwnPlace(*services.systemResources)).c_str(), stdout);
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}

} // namespace

const Command placeCommand{
    .name = "place", .option = "", .summary = "tell where this process has been placed", .run = ShowPlace};
