// SPDX-License-Identifier: Apache-2.0
#include "ctl/tell/StatusJson.hpp"

#include "ctl/read/Paths.hpp"
#include "ctl/tell/Reasons.hpp"
#include "ctl/tell/Text.hpp"

#include <algorithm>
#include <span>

#include <nlohmann/json.hpp>

namespace {

using Json = nlohmann::ordered_json;

// Anybody may write records where a host is not prepared.
constexpr std::size_t mostDeadRecords = 1000;

std::string RegistryPath(const std::optional<std::uint32_t>& core) {
    return core ? Paths::CoreRegistry(*core) : Paths::allocationRegistry;
}

template <typename Value>
Json OrNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json();
}

template <typename Items, typename ToValue>
Json List(const Items& items, const ToValue& toValue) {
    Json list = Json::array();
    for (const auto& item : items) {
        list.push_back(toValue(item));
    }
    return list;
}

Json OfLiveCommand(const LiveCommand& command) {
    Json json{{"application", command.application},
              {"groups", command.groups},
              {"pid", command.pid},
              {"launcher", OrNull(command.launcher)},
              {"running_seconds", Seconds(command.running)},
              {"cpu_seconds", Seconds(command.cpuTime)},
              {"records", command.records},
              {"verified", command.isVerified}};
    if (!command.cgroup.empty()) {
        const std::optional<Throttling>& throttling = command.throttling;
        json["cgroup"] = command.cgroup;
        json["throttled_periods"] = throttling ? Json(throttling->periods) : Json();
        json["throttled_seconds"] = throttling ? Json(Seconds(throttling->time)) : Json();
    }
    return json;
}

Json OfCore(const CoreReport& core) {
    return {{"core", core.core},
            {"state", NameOf(core.state)},
            {"managed", core.isManaged},
            {"commands", List(core.commands, OfLiveCommand)}};
}

Json OfLock(const RegistryLock& lock) {
    return {
        {"registry", RegistryPath(lock.core)}, {"core", OrNull(lock.core)}, {"holder", OrNull(lock.holder)}};
}

Json OfWaiting(const WaitingLaunch& waiting) {
    return {{"launcher", waiting.launcher},
            {"pid", waiting.pid},
            {"command", waiting.command},
            {"command_cut", waiting.isCommandCut},
            {"waiting_seconds", Seconds(waiting.waiting)},
            {"left_seconds", waiting.left ? Json(Seconds(*waiting.left)) : Json()},
            {"waits_for", List(waiting.waitsFor, OfLock)},
            {"holds", List(waiting.holds, OfLock)},
            {"files_known", waiting.areFilesKnown}};
}

Json OfNotCounted(const NotCounted& command) {
    return {{"reason", RowOf(command.reason).name},
            {"application", command.application},
            {"pid", command.pid},
            {"launcher", command.launcher},
            {"running_seconds", Seconds(command.running)},
            {"executable", command.executable},
            {"registered_core", OrNull(command.registeredCore)},
            {"affinity", command.affinity},
            {"cgroup", command.cgroup},
            {"expected_cgroup", command.expectedCgroup}};
}

Json OfDeadRecord(const DeadRecord& dead) {
    return {{"registry", RegistryPath(dead.core)}, {"core", OrNull(dead.core)},
            {"application", dead.record.name},     {"pid", dead.record.pid},
            {"start_time", dead.record.startTime}, {"reason", RowOf(dead.reason).name}};
}

Json OfUnmanaged(const UnmanagedProcess& process) {
    return {{"pid", process.pid}, {"name", process.name}, {"cgroup", process.cgroup}};
}

Json OfBlindSpot(const BlindSpot& spot) {
    return {{"what", spot.what}, {"why", spot.why}};
}

Json OfReport(const HostReport& report) {
    const std::span dead(report.deadRecords);
    const bool isQuota = report.mode == Mode::quota;
    return {{"failure", OrNull(report.failure)},
            {"complaints", report.complaints},
            {"mode", report.mode ? Json(NameOf(*report.mode)) : Json()},
            {"shares_cores", report.mode ? Json(report.sharesCores) : Json()},
            {"quota_percent", isQuota ? Json(report.quota) : Json()},
            {"cwset_exists", report.cgroupExists},
            {"cwset_cpus", report.cpus},
            {"capacity_percent", OrNull(report.capacity)},
            {"admitted_percent", isQuota && report.areAdmissionsKnown ? Json(report.admitted) : Json()},
            {"cores_free", report.CountCores(CoreState::free)},
            {"cores_taken", report.CountCores(CoreState::taken)},
            {"cores_unknown", report.CountCores(CoreState::unknown)},
            {"cores", List(report.cores, OfCore)},
            {"allocations", List(report.allocations, OfLiveCommand)},
            {"waiting", List(report.waiting, OfWaiting)},
            {"not_counted", List(report.notCounted, OfNotCounted)},
            {"dead_record_count", dead.size()},
            {"dead_records", List(dead.first(std::min(dead.size(), mostDeadRecords)), OfDeadRecord)},
            {"stray_lines", report.strayLines},
            {"orphaned_cgroups", report.orphanedCgroups},
            {"unmanaged_processes", List(report.unmanaged, OfUnmanaged)},
            {"not_seen", List(report.blindSpots, OfBlindSpot)}};
}

} // namespace

std::string ToJson(const HostReport& report) {
    constexpr int onOneLine = -1;
    constexpr bool inAscii = true;
    // Names from elsewhere need not be UTF-8: a sequence that is none becomes U+FFFD.
    return OfReport(report).dump(onOneLine, ' ', inAscii, Json::error_handler_t::replace) + "\n";
}
