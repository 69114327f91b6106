// SPDX-License-Identifier: Apache-2.0
// What is told of each reason: a row for each; and the names of states and grades.
#pragma once

#include "ctl/decide/Finding.hpp"
#include "ctl/decide/HostReport.hpp"

#include <array>
#include <string>
#include <string_view>

struct NotCountedRow {
    NotCountedReason reason;
    std::string_view name;                             ///< For scripts and metrics; never changes.
    std::string (*explain)(const NotCounted& command); ///< For people.
};

struct DeadRow {
    DeadReason reason;
    std::string_view name; ///< For scripts; never changes.
    std::string_view text; ///< For people.
};

/// All rows, in the order in which metrics have them.
extern const std::array<NotCountedRow, 6> notCountedRows;

const NotCountedRow& RowOf(NotCountedReason reason);
const DeadRow& RowOf(DeadReason reason);

/// Of a core: "free", "taken" or "unknown".
std::string_view NameOf(CoreState state);

/// "PASS", "WARN" or "FAIL".
std::string_view NameOf(Grade grade);
