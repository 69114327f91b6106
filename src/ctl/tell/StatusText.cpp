// SPDX-License-Identifier: Apache-2.0
#include "ctl/tell/StatusText.hpp"

#include "ctl/read/Collections.hpp"
#include "ctl/tell/Reasons.hpp"
#include "ctl/tell/Text.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>
#include <span>

namespace {

using Row = std::vector<std::string>;

constexpr std::size_t widestName = 40; // characters
constexpr std::size_t mostListed = 10; // of things whose number is what matters
constexpr const char* nothing = "-";

/// A name from elsewhere as it may be shown, cut where it would tear the table.
std::string Name(const std::string& name) {
    const std::string cut = "...";
    const std::string whole = Printable(name);
    return Width(whole) <= widestName ? whole : std::string(Beginning(whole, widestName - cut.size())) + cut;
}

std::string OrNothing(const std::string& text) {
    return text.empty() ? nothing : text;
}

std::string TwoDigits(std::chrono::seconds::rep number) {
    constexpr std::chrono::seconds::rep base = 10;
    return (number < base ? "0" : "") + std::to_string(number);
}

/// Days, hours, minutes and seconds as ps(1) shows them.
std::string Elapsed(Milliseconds time) {
    using std::chrono::duration_cast;
    const auto days = duration_cast<std::chrono::days>(time);
    const std::chrono::hh_mm_ss rest(duration_cast<std::chrono::seconds>(time - days));
    std::string text = days.count() > 0 ? std::to_string(days.count()) + "-" : "";
    if (time >= std::chrono::hours(1)) {
        text += TwoDigits(rest.hours().count()) + ":";
    }
    return text + TwoDigits(rest.minutes().count()) + ":" + TwoDigits(rest.seconds().count());
}

std::string SecondsText(std::chrono::microseconds time) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.2f", Seconds(time));
    return text.data();
}

std::string CpuListOf(const std::vector<CoreReport>& cores, CoreState state) {
    CpuSet matching;
    for (const CoreReport& core : cores) {
        if (core.isManaged && core.state == state) {
            matching.insert(core.core);
        }
    }
    return ToCpuList(matching);
}

/// Columns as wide as their widest cell; the first row is the heading.
std::string Table(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], Width(row[column]));
        }
    }
    std::string text;
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            const bool isLast = column + 1 == row.size();
            text += row[column];
            text += isLast ? "\n" : std::string(widths[column] - Width(row[column]) + 2, ' ');
        }
    }
    return text;
}

template <typename Items, typename ToRow>
std::string Section(const std::string& title, Row heading, const Items& items, const ToRow& toRow,
                    std::size_t most = SIZE_MAX) {
    if (items.empty()) {
        return "";
    }
    std::vector<Row> rows{std::move(heading)};
    const auto shown = std::span(items).first(std::min(items.size(), most));
    std::ranges::transform(shown, std::back_inserter(rows), toRow);
    const std::size_t left = items.size() - shown.size();
    return "\n" + title + ": " + std::to_string(items.size()) + "\n" + Table(rows) +
           (left == 0 ? "" : "and " + std::to_string(left) + " more\n");
}

std::string GroupsOf(const LiveCommand& command) {
    return OrNothing(Name(Joined(command.groups, ",")));
}

std::string ApplicationCell(const LiveCommand& command) {
    return Name(command.application) + (command.records > 1 ? " x" + std::to_string(command.records) : "") +
           (command.isVerified ? "" : " ?");
}

std::string LauncherOf(const LiveCommand& command) {
    return command.launcher ? std::to_string(*command.launcher) : nothing;
}

Row RowOf(std::string place, const LiveCommand& command) {
    return {std::move(place),
            ApplicationCell(command),
            GroupsOf(command),
            std::to_string(command.pid),
            LauncherOf(command),
            Elapsed(command.running),
            SecondsText(command.cpuTime)};
}

std::string CoresSection(const HostReport& report) {
    std::vector<Row> rows{{"CORE", "APPLICATION", "GROUP", "PID", "LAUNCHER", "RUNNING", "CPU SECONDS"}};
    for (const CoreReport& core : report.cores) {
        const std::string place = std::to_string(core.core) + (core.isManaged ? "" : " (not in cwset)");
        for (const LiveCommand& command : core.commands) {
            rows.push_back(RowOf(place, command));
        }
    }
    return rows.size() == 1 ? "" : "\n" + Table(rows);
}

std::string AllocationsSection(const HostReport& report) {
    std::vector<Row> rows{{"QUOTA CGROUP", "APPLICATION", "GROUP", "PID", "LAUNCHER", "RUNNING",
                           "CPU SECONDS", "THROTTLED SECONDS"}};
    for (const LiveCommand& command : report.allocations) {
        rows.push_back(RowOf(command.cgroup, command));
        const auto& throttling = command.throttling;
        rows.back().push_back(throttling ? SecondsText(throttling->time) : nothing);
    }
    return rows.size() == 1 ? "" : "\n" + Table(rows);
}

std::string RegistryName(const std::optional<std::uint32_t>& core) {
    return core ? "core " + std::to_string(*core) : "allocations";
}

std::string HoldingsOf(const WaitingLaunch& waiting) {
    CpuSet cores;
    bool holdsAllocations{};
    for (const RegistryLock& lock : waiting.holds) {
        if (lock.core) {
            cores.insert(*lock.core);
        } else {
            holdsAllocations = true;
        }
    }
    const std::string list = cores.empty() ? "" : "core " + ToCpuList(cores);
    return OrNothing(holdsAllocations ? RegistryName(std::nullopt) : list);
}

std::string DescribeLock(const RegistryLock& lock) {
    return "lock of " + RegistryName(lock.core) +
           (lock.holder ? " (held by " + std::to_string(*lock.holder) + ")" : "");
}

std::string PurposeOf(const WaitingLaunch& waiting) {
    if (!waiting.waitsFor.empty()) {
        std::vector<std::string> locks;
        std::ranges::transform(waiting.waitsFor, std::back_inserter(locks), DescribeLock);
        return Joined(locks, ", ");
    }
    if (!waiting.holds.empty()) {
        return waiting.holds.front().core ? "a free core" : "room";
    }
    return waiting.areFilesKnown ? "nothing yet" : "not known";
}

std::string WaitingSection(const HostReport& report) {
    return Section("Waiting", {"LAUNCHER", "COMMAND", "WAITED", "LEFT", "WAITS FOR", "HOLDS"}, report.waiting,
                   [](const WaitingLaunch& waiting) {
                       return Row{std::to_string(waiting.launcher),
                                  Name(waiting.command),
                                  Elapsed(waiting.waiting),
                                  waiting.left ? Elapsed(*waiting.left) : nothing,
                                  PurposeOf(waiting),
                                  HoldingsOf(waiting)};
                   });
}

std::string NotCountedSection(const HostReport& report) {
    return Section("Do not count", {"PID", "APPLICATION", "LAUNCHER", "RUNNING", "REASON"}, report.notCounted,
                   [](const NotCounted& command) {
                       return Row{std::to_string(command.pid), Name(command.application),
                                  std::to_string(command.launcher), Elapsed(command.running),
                                  RowOf(command.reason).explain(command)};
                   });
}

std::string DeadRecordsSection(const HostReport& report) {
    return Section(
        "Dead records, dropped by the next launch that reads them",
        {"REGISTRY", "APPLICATION", "PID", "REASON"}, report.deadRecords,
        [](const DeadRecord& dead) {
            return Row{RegistryName(dead.core), Name(dead.record.name), std::to_string(dead.record.pid),
                       std::string(RowOf(dead.reason).text)};
        },
        mostListed);
}

std::string OrphansSection(const HostReport& report) {
    return Section(
        "Orphaned quota cgroups, removed by the next launch with a quota", {"QUOTA CGROUP"},
        report.orphanedCgroups, [](const std::string& cgroup) { return Row{cgroup}; }, mostListed);
}

std::string UnmanagedSection(const HostReport& report) {
    return Section(
        "In cwset without a launcher", {"PID", "NAME", "CGROUP"}, report.unmanaged,
        [](const UnmanagedProcess& process) {
            return Row{std::to_string(process.pid), Name(process.name), Name(process.cgroup)};
        },
        mostListed);
}

std::string BlindSpotsSection(const HostReport& report) {
    const auto row = [](const BlindSpot& spot) { return Row{Printable(spot.what), Printable(spot.why)}; };
    return Section("Not seen", {"WHAT", "WHY"}, report.blindSpots, row, mostListed);
}

std::string DescribeMode(const HostReport& report) {
    if (!report.mode) {
        return "none, no launcher starts: " + Printable(report.failure.value_or(""));
    }
    if (report.mode == Mode::quota) {
        return "quota, " + std::to_string(report.quota) + " % each";
    }
    return report.sharesCores ? "core, shared" : "core, exclusive";
}

std::string CoresLine(const HostReport& report) {
    const std::size_t free = report.CountCores(CoreState::free);
    const std::size_t unknown = report.CountCores(CoreState::unknown);
    const std::size_t all = free + unknown + report.CountCores(CoreState::taken);
    return std::to_string(free) + " of " + std::to_string(all) + " free" +
           (free == 0 ? "" : " (" + CpuListOf(report.cores, CoreState::free) + ")") +
           (unknown == 0 ? "" : ", not known: " + CpuListOf(report.cores, CoreState::unknown));
}

std::string CapacityLine(const HostReport& report) {
    if (!report.capacity) {
        return "not known, cwset has no CPUs of its own";
    }
    const std::string capacity = std::to_string(*report.capacity) + " %, ";
    if (!report.areAdmissionsKnown) {
        return capacity + "admissions not known";
    }
    const std::uint64_t left = *report.capacity - std::min(*report.capacity, report.admitted);
    return capacity + std::to_string(report.admitted) + " % admitted, room for " +
           std::to_string(left / report.quota) + " more";
}

std::string Summary(const HostReport& report) {
    std::string text = "Mode:      " + DescribeMode(report) + "\n";
    for (const std::string& complaint : report.complaints) {
        text += "           " + Printable(complaint) + "\n";
    }
    text += "cwset:     " +
            (report.cgroupExists ? "CPUs " + OrNothing(Printable(report.cpus))
                                 : "missing, no launch works: run cpuwardenctl prepare") +
            "\n";
    return text +
           (report.mode == Mode::quota ? "Capacity:  " + CapacityLine(report)
                                       : "Cores:     " + CoresLine(report)) +
           "\n";
}

} // namespace

std::string ToText(const HostReport& report) {
    return Summary(report) + CoresSection(report) + AllocationsSection(report) + WaitingSection(report) +
           NotCountedSection(report) + DeadRecordsSection(report) + OrphansSection(report) +
           UnmanagedSection(report) + BlindSpotsSection(report) +
           (report.strayLines == 0
                ? ""
                : "\nLines of registries that are no records: " + std::to_string(report.strayLines) + "\n");
}
