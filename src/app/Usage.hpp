// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/// How the program is called, by the name it was called by.
inline std::string UsageLine(int argc, char** argv) {
    const std::string programName = argc > 0 ? argv[0] : "";
    return "Usage: " + programName + " <command> [args...]";
}
