// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Trial.hpp"

#include "ctl/decide/PlacedRecord.hpp"
#include "ctl/read/Collections.hpp"
#include "ctl/read/Paths.hpp"

#include <algorithm>

namespace {

const std::string managedCgroup = std::string("/") + Paths::managedCgroup;

using Differences = std::vector<std::string>;

void Compare(Differences& differences, const std::string& what, const std::string& seen,
             const std::string& wanted) {
    if (seen != wanted) {
        differences.push_back(what + " is " + seen + " instead of " + wanted);
    }
}

/// The record of the command.
std::optional<PlacedRecord> FindRecord(const Trial& trial) {
    for (const Registry& registry : trial.registries) {
        const auto record = std::ranges::find_if(
            registry.records, [&trial](const Record& each) { return IsOwnRecord(each, trial); });
        if (record != registry.records.end()) {
            return PlacedRecord{.registry = &registry, .record = &*record};
        }
    }
    return std::nullopt;
}

Differences CompareWithCore(const Place& place, std::uint32_t core) {
    Differences differences;
    Compare(differences, "its cgroup", place.cpusetCgroup, managedCgroup);
    Compare(differences, "its list of cores", ToCpuList(place.affinity), std::to_string(core));
    return differences;
}

Differences CompareWithQuota(const Place& place, const Record& record, std::uint64_t quota) {
    const std::string own = "/" + QuotaCgroupPath(record.pid, record.startTime);
    Differences differences;
    Compare(differences, "its cpuset cgroup", place.cpusetCgroup, own);
    Compare(differences, "its cpu cgroup", place.cpuCgroup, own);
    Compare(differences, "its limit", place.limit ? std::to_string(*place.limit) + " %" : "none",
            std::to_string(quota) + " %");
    return differences;
}

Differences DifferencesOf(const Trial& trial, const std::optional<PlacedRecord>& placed,
                          std::uint64_t quota) {
    if (!placed || placed->registry->core.has_value() != (quota == 0)) {
        return {"it has no record, so that it counts for nobody"};
    }
    return quota == 0 ? CompareWithCore(*trial.place, *placed->registry->core)
                      : CompareWithQuota(*trial.place, *placed->record, quota);
}

Finding JudgePlace(const Trial& trial, std::uint64_t quota) {
    const std::optional<PlacedRecord> placed = FindRecord(trial);
    Differences differences = DifferencesOf(trial, placed, quota);
    Compare(differences, "its launcher's status", trial.status ? std::to_string(*trial.status) : "none", "0");
    if (!differences.empty()) {
        return Fail("a launch was not placed as configured: " + Joined(differences, ", ") +
                    ". Mend what is told above, then run cpuwardenctl prepare as root.");
    }
    const std::string place = quota == 0
                                  ? "on core " + std::to_string(*placed->registry->core)
                                  : "in " + trial.place->cpuCgroup + " at " + std::to_string(quota) + " %";
    return Pass("a launch was placed as configured: " + place);
}

/// With a quota a launch logs its admission while it holds the lock: it has its record, and waits no more.
bool IsAdmitted(const Trial& trial, int pid) {
    return std::ranges::any_of(trial.registries, [&](const Registry& registry) {
        return std::ranges::any_of(registry.records, [&](const Record& record) {
            return record.pid == pid && record.name == trial.application;
        });
    });
}

/// Of a launch that did not come to run its command.
Finding JudgeUnplaced(const Trial& trial) {
    const std::string patience = std::to_string(trialPatience.count()) + " s";
    if (trial.status == notExecutedStatus) {
        return Fail("the launcher beside this program cannot be executed. Install both programs together.");
    }
    if (trial.status) {
        return Fail("a launch ended with " + std::to_string(*trial.status) +
                    " before its command ran. See why: journalctl -t Cpuwarden -n 20");
    }
    const bool waits = trial.waits && !IsAdmitted(trial, trial.waits->pid);
    if (waits && !trial.waits->waitsFor.empty()) {
        return Warn("a launch found no place within " + patience +
                    ", since another launcher waits and holds the lock. See which: cpuwardenctl status");
    }
    if (waits && !trial.waits->holds.empty()) {
        return Warn("a launch found no place within " + patience +
                    ", since the host is full. See of what: cpuwardenctl status");
    }
    return Fail("a launch came to no place within " + patience +
                ", and waits for no other: it hangs. See whether the syslog daemon still reads what "
                "it is sent, and restart it if not.");
}

} // namespace

bool IsOwnRecord(const Record& record, const Trial& trial) {
    return trial.place && record.pid == trial.place->pid && record.startTime == trial.place->startTime &&
           record.name == trial.application;
}

Finding JudgeTrial(const Trial& trial, const Interfaces::IConfiguration& configuration) {
    return trial.place ? JudgePlace(trial, configuration.ManagedProcessCpuQuotaPercentage())
                       : JudgeUnplaced(trial);
}
