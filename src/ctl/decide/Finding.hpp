// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

enum class Grade {
    pass, ///< All is well.
    warn, ///< Launches work, but something does not apply, or is less safe than it could be.
    fail, ///< Launches fail, or commands run outside their cgroup or without their quota.
};

struct Finding {
    Grade grade;
    std::string text; ///< What was found and, unless all is well, the remedy.
};

inline Finding Pass(const std::string& text) {
    return {.grade = Grade::pass, .text = text};
}
inline Finding Warn(const std::string& text) {
    return {.grade = Grade::warn, .text = text};
}
inline Finding Fail(const std::string& text) {
    return {.grade = Grade::fail, .text = text};
}

using Findings = std::vector<Finding>;

/// The text is made in any case, so it has to come from values that are there even when it is not so.
inline void WarnIf(Findings& findings, bool isSo, const std::string& text) {
    if (isSo) {
        findings.push_back(Warn(text));
    }
}
