// SPDX-License-Identifier: Apache-2.0
#include "ctl/tell/MetricsText.hpp"

#include "ctl/read/Collections.hpp"
#include "ctl/tell/Reasons.hpp"
#include "ctl/tell/Text.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>

namespace {

using Labels = std::vector<std::pair<std::string_view, std::string>>;

std::string LabelValue(const std::string& text) {
    std::string value;
    for (const char character : text) {
        value +=
            character == '"' || character == '\\' ? std::string("\\") + character : std::string(1, character);
    }
    return value;
}

class Exposition {
public:
    void Family(std::string_view name, std::string_view help) {
        family = "cpuwarden_" + std::string(name);
        text += "# HELP " + family + " " + std::string(help) + "\n# TYPE " + family + " gauge\n";
    }
    void Sample(const Labels& labels, const std::string& value) {
        text += family;
        for (const auto& [name, content] : labels) {
            text += (name == labels.front().first ? "{" : ",") + std::string(name) + "=\"" +
                    LabelValue(content) + "\"";
        }
        text += (labels.empty() ? " " : "} ") + value + "\n";
    }
    void Sample(const Labels& labels, std::uint64_t value) { Sample(labels, std::to_string(value)); }
    std::string Finish() { return std::move(text) + "# EOF\n"; }

private:
    std::string family;
    std::string text;
};

/// Names may hold anything; so that nothing of it steers a terminal, control characters are shown as by
/// status. Names that are shown alike count together: no sample may come twice.
std::string ApplicationOf(const LiveCommand& command) {
    return Printable(command.application);
}

std::string Decimal(double value) {
    std::array<char, 32> digits{};
    std::snprintf(digits.data(), digits.size(), "%.6f", value);
    return digits.data();
}

void AddCores(const HostReport& report, Exposition& metrics) {
    metrics.Family("cores", "Cores of the managed cgroup by what their registries say.");
    for (const CoreState state : {CoreState::free, CoreState::taken, CoreState::unknown}) {
        metrics.Sample({{"state", std::string(NameOf(state))}}, report.CountCores(state));
    }
}

void AddProcesses(const HostReport& report, Exposition& metrics) {
    std::map<std::pair<std::string, std::string>, std::uint64_t> counts;
    for (const CoreReport& core : report.cores) {
        for (const LiveCommand& command : core.commands) {
            counts[{std::to_string(core.core), ApplicationOf(command)}] += command.records;
        }
    }
    for (const LiveCommand& command : report.allocations) {
        counts[{"", ApplicationOf(command)}] += command.records;
    }
    metrics.Family("processes", "Commands that count, by core (none with a quota) and application.");
    for (const auto& [key, count] : counts) {
        metrics.Sample({{"core", key.first}, {"application", key.second}}, count);
    }
}

void AddWaiting(const HostReport& report, Exposition& metrics) {
    Milliseconds longest{};
    for (const WaitingLaunch& waiting : report.waiting) {
        longest = std::max(longest, waiting.waiting);
    }
    metrics.Family("waiting_launches", "Launches that wait for a core, for room or for a lock.");
    metrics.Sample({}, report.waiting.size());
    metrics.Family("longest_wait_seconds", "How long the oldest of them has waited.");
    metrics.Sample({}, Decimal(Seconds(longest)));
}

void AddNotCounted(const HostReport& report, Exposition& metrics) {
    metrics.Family("not_counted_processes",
                   "Commands under a launcher that do not count, or not where they run, by reason.");
    for (const NotCountedRow& row : notCountedRows) {
        metrics.Sample({{"reason", std::string(row.name)}},
                       CountOf(report.notCounted,
                               [&row](const NotCounted& command) { return command.reason == row.reason; }));
    }
}

/// With a quota alone, and where it could be read: no value is better than a wrong one.
void AddCapacity(const HostReport& report, Exposition& metrics) {
    if (report.mode != Mode::quota || !report.capacity || !report.areAdmissionsKnown) {
        return;
    }
    const auto capacity = static_cast<double>(*report.capacity);
    const auto admitted = static_cast<double>(report.admitted);
    metrics.Family("capacity_cpus", "CPUs that all quotas together may take.");
    metrics.Sample({}, Decimal(capacity / wholeCpuPercentage));
    metrics.Family("admitted_cpus", "CPUs that the quotas of the admitted commands take.");
    metrics.Sample({}, Decimal(admitted / wholeCpuPercentage));
    metrics.Family("admitted_ratio", "The admitted share of the capacity.");
    metrics.Sample({}, Decimal(admitted / capacity));
}

void AddThrottling(const HostReport& report, Exposition& metrics) {
    std::map<std::string, std::chrono::microseconds> times;
    for (const LiveCommand& command : report.allocations) {
        if (command.throttling) {
            times[ApplicationOf(command)] += command.throttling->time;
        }
    }
    metrics.Family("throttled_seconds",
                   "How long quotas have held up the commands that run now, by application.");
    for (const auto& [application, time] : times) {
        metrics.Sample({{"application", application}}, Decimal(Seconds(time)));
    }
}

void AddBlindSpots(const HostReport& report, Exposition& metrics) {
    metrics.Family("not_seen",
                   "Kinds of things that could not be seen, so that the other counts may be wrong.");
    metrics.Sample({}, report.blindSpots.size());
}

} // namespace

std::string ToOpenMetrics(const HostReport& report) {
    Exposition metrics;
    AddCores(report, metrics);
    AddProcesses(report, metrics);
    AddWaiting(report, metrics);
    AddNotCounted(report, metrics);
    AddCapacity(report, metrics);
    AddThrottling(report, metrics);
    AddBlindSpots(report, metrics);
    return metrics.Finish();
}
