// SPDX-License-Identifier: Apache-2.0
#include "ctl/tell/StatusJson.hpp"

#include "ctl/read/Paths.hpp"
#include "ctl/tell/JsonWriter.hpp"

#include <algorithm>
#include <span>

namespace {

// Anybody may write records where a host is not prepared.
constexpr std::size_t mostDeadRecords = 1000;

template <typename Items, typename Write>
void List(JsonWriter& json, std::string_view name, const Items& items, const Write& write) {
    json.Key(name);
    json.Array([&] {
        for (const auto& item : items) {
            write(json, item);
        }
    });
}

void WriteText(JsonWriter& json, const std::string& text) {
    json.Value(text);
}

std::string RegistryPath(const std::optional<std::uint32_t>& core) {
    return core ? Paths::CoreRegistry(*core) : Paths::allocationRegistry;
}

template <typename Reason, std::size_t count>
std::string_view NameOf(Reason reason, const std::array<std::pair<Reason, std::string_view>, count>& names) {
    const auto* const found = std::find_if(names.begin(), names.end(),
                                           [reason](const auto& entry) { return entry.first == reason; });
    return found->second;
}

void WriteLiveCommand(JsonWriter& json, const LiveCommand& command) {
    json.Object([&] {
        json.Member("application", command.application);
        List(json, "groups", command.groups, WriteText);
        json.Member("pid", command.pid);
        json.Member("launcher", command.launcher);
        json.Member("running_seconds", command.running);
        json.Member("cpu_seconds", command.cpuTime);
        json.Member("records", command.records);
        json.Member("verified", command.isVerified);
        if (!command.cgroup.empty()) {
            json.Member("cgroup", command.cgroup);
            const auto& throttling = command.throttling;
            json.Member("throttled_periods", throttling ? std::optional(throttling->periods) : std::nullopt);
            json.Member("throttled_seconds", throttling ? std::optional(throttling->time) : std::nullopt);
        }
    });
}

std::string_view StateName(CoreState state) {
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

void WriteCore(JsonWriter& json, const CoreReport& core) {
    json.Object([&] {
        json.Member("core", core.core);
        json.Member("state", StateName(core.state));
        json.Member("managed", core.isManaged);
        List(json, "commands", core.commands, WriteLiveCommand);
    });
}

void WriteLock(JsonWriter& json, const RegistryLock& lock) {
    json.Object([&] {
        json.Member("registry", RegistryPath(lock.core));
        json.Member("core", lock.core);
        json.Member("holder", lock.holder);
    });
}

void WriteWaiting(JsonWriter& json, const WaitingLaunch& waiting) {
    json.Object([&] {
        json.Member("launcher", waiting.launcher);
        json.Member("pid", waiting.pid);
        json.Member("command", waiting.command);
        json.Member("waiting_seconds", waiting.waiting);
        json.Member("left_seconds", waiting.left);
        List(json, "waits_for", waiting.waitsFor, WriteLock);
        List(json, "holds", waiting.holds, WriteLock);
        json.Member("files_known", waiting.areFilesKnown);
    });
}

void WriteNotCounted(JsonWriter& json, const NotCounted& command) {
    json.Object([&] {
        json.Member("reason", NameOf(command.reason, notCountedReasons));
        json.Member("application", command.application);
        json.Member("pid", command.pid);
        json.Member("launcher", command.launcher);
        json.Member("running_seconds", command.running);
        json.Member("executable", command.executable);
        json.Member("registered_core", command.registeredCore);
        List(json, "affinity", command.affinity,
             [](JsonWriter& writer, std::uint32_t core) { writer.Value(core); });
        json.Member("cgroup", command.cgroup);
        json.Member("expected_cgroup", command.expectedCgroup);
    });
}

void WriteDeadRecord(JsonWriter& json, const DeadRecord& dead) {
    json.Object([&] {
        json.Member("registry", RegistryPath(dead.core));
        json.Member("core", dead.core);
        json.Member("application", dead.record.name);
        json.Member("pid", dead.record.pid);
        json.Member("start_time", dead.record.startTime);
        json.Member("reason", NameOf(dead.reason, deadReasons));
    });
}

void WriteUnmanaged(JsonWriter& json, const UnmanagedProcess& process) {
    json.Object([&] {
        json.Member("pid", process.pid);
        json.Member("name", process.name);
        json.Member("cgroup", process.cgroup);
    });
}

void WriteBlindSpot(JsonWriter& json, const BlindSpot& spot) {
    json.Object([&] {
        json.Member("what", spot.what);
        json.Member("why", spot.why);
    });
}

void WriteSettings(JsonWriter& json, const HostReport& report) {
    json.Member("failure", report.failure);
    List(json, "complaints", report.complaints, WriteText);
    const bool isConfigured = !report.failure;
    const char* const mode = report.quota == 0 ? "core" : "quota";
    json.Member("mode", isConfigured ? std::optional(mode) : std::nullopt);
    json.Member("shares_cores", isConfigured ? std::optional(report.sharesCores) : std::nullopt);
    json.Member("quota_percent", report.quota == 0 ? std::nullopt : std::optional(report.quota));
    json.Member("cwset_exists", report.cgroupExists);
    json.Member("cwset_cpus", report.cpus);
    json.Member("capacity_percent", report.capacity);
    const bool isAdmissionKnown = report.quota > 0 && report.areAdmissionsKnown;
    json.Member("admitted_percent", isAdmissionKnown ? std::optional(report.admitted) : std::nullopt);
    json.Member("cores_free", report.CountCores(CoreState::free));
    json.Member("cores_taken", report.CountCores(CoreState::taken));
    json.Member("cores_unknown", report.CountCores(CoreState::unknown));
}

} // namespace

std::string ToJson(const HostReport& report) {
    const std::span dead(report.deadRecords);
    JsonWriter json;
    json.Object([&] {
        WriteSettings(json, report);
        List(json, "cores", report.cores, WriteCore);
        List(json, "allocations", report.allocations, WriteLiveCommand);
        List(json, "waiting", report.waiting, WriteWaiting);
        List(json, "not_counted", report.notCounted, WriteNotCounted);
        json.Member("dead_record_count", dead.size());
        List(json, "dead_records", dead.first(std::min(dead.size(), mostDeadRecords)), WriteDeadRecord);
        json.Member("stray_lines", report.strayLines);
        List(json, "orphaned_cgroups", report.orphanedCgroups, WriteText);
        List(json, "unmanaged_processes", report.unmanaged, WriteUnmanaged);
        List(json, "not_seen", report.blindSpots, WriteBlindSpot);
    });
    return json.Text() + "\n";
}
