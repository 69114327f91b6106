// SPDX-License-Identifier: Apache-2.0
#include "ctl/tell/Reasons.hpp"

#include "ctl/read/CpuList.hpp"
#include "ctl/tell/Text.hpp"

#include <algorithm>

namespace {

std::string CoreOf(const NotCounted& command) {
    return std::to_string(command.registeredCore.value_or(0));
}

constexpr std::array<DeadRow, 4> deadRows{
    {{DeadReason::ended, "ended", "ended"},
     {DeadReason::pidReused, "pid_reused", "another process has the pid"},
     {DeadReason::executableName, "executable_name", "its executable has another name"},
     {DeadReason::notYetExecuting, "not_yet_executing", "does not execute yet"}}};

} // namespace

constexpr std::array<NotCountedRow, 6> notCountedRows{
    {{NotCountedReason::executableName, "executable_name",
      [](const NotCounted& command) {
          return "its executable is " + Printable(command.executable) + ": launch that by its own name";
      }},
     {NotCountedReason::nameWithColon, "name_with_colon",
      [](const NotCounted& /*command*/) { return std::string("no record can hold a name with a colon"); }},
     {NotCountedReason::recordLost, "record_lost",
      [](const NotCounted& /*command*/) { return std::string("its record was lost"); }},
     {NotCountedReason::otherCore, "other_core",
      [](const NotCounted& command) {
          return "registered on core " + CoreOf(command) + ", runs on " + ToCpuList(command.affinity);
      }},
     {NotCountedReason::outsideCgroup, "outside_cgroup",
      [](const NotCounted& command) {
          return "is not in " + command.expectedCgroup + " as the log says" +
                 (command.cgroup.empty() ? "" : ", but in " + Printable(command.cgroup));
      }},
     {NotCountedReason::coreNotAssigned, "core_not_assigned",
      [](const NotCounted& command) { return "its groups have no core " + CoreOf(command); }}}};

namespace {

/// Whether each reason stands where its number leads.
template <typename Rows>
constexpr bool AreInOrder(const Rows& rows) {
    std::size_t number{};
    return std::ranges::all_of(
        rows, [&](const auto& row) { return static_cast<std::size_t>(row.reason) == number++; });
}
static_assert(AreInOrder(notCountedRows) && AreInOrder(deadRows));

} // namespace

const NotCountedRow& RowOf(NotCountedReason reason) {
    return notCountedRows.at(static_cast<std::size_t>(reason));
}

const DeadRow& RowOf(DeadReason reason) {
    return deadRows.at(static_cast<std::size_t>(reason));
}

std::string_view NameOf(CoreState state) {
    switch (state) {
    case CoreState::free:
        return "free";
    case CoreState::taken:
        return "taken";
    case CoreState::unknown:
        break;
    }
    return "unknown";
}

std::string_view NameOf(Grade grade) {
    switch (grade) {
    case Grade::pass:
        return "PASS";
    case Grade::warn:
        return "WARN";
    case Grade::fail:
        break;
    }
    return "FAIL";
}
