// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

/// What is wrong and, after it, the remedy; nothing when all is well.
using Problem = std::optional<std::string>;

/// The remedy for all that preparing mends.
inline const std::string runPrepare = "Run cpuwardenctl prepare as root.";

struct Requirement {
    std::string good; ///< What to say when it holds.
    Problem problem;
    /// Whether launches fail or are not placed as configured without it; otherwise they only lose by it.
    bool isNeeded = true;
};

inline Requirement Require(bool holds, const std::string& good, const std::string& problem) {
    return {.good = good, .problem = holds ? std::nullopt : std::optional(problem)};
}
