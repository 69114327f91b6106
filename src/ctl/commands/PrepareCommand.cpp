// SPDX-License-Identifier: Apache-2.0
#include "ctl/act/HostChanges.hpp"
#include "ctl/commands/Command.hpp"
#include "ctl/decide/Preparation.hpp"
#include "ctl/decide/Requirements.hpp"
#include "ctl/read/HostFacts.hpp"
#include "ctl/read/Paths.hpp"
#include "ctl/tell/Text.hpp"
#include "exceptions/Exceptions.hpp"

#include <cstdio>

#include <sys/stat.h>

namespace {

constexpr int unusableRegistryStatus = 3; // the unit takes it for a success
constexpr mode_t cgroupsForAllToRead = 022;

void Say(std::FILE* stream, const std::string& text) {
    std::fputs(("cpuwardenctl: " + Printable(text) + "\n").c_str(), stream);
}

ConfigurationReading UsableConfiguration(const Services& services) {
    ConfigurationReading reading = ReadConfiguration(services);
    if (!reading.configuration) {
        throw Exceptions::XRuntimeError(std::string("no launcher starts with ") + Paths::configuration +
                                        ": " + reading.failure +
                                        " Correct or remove it, then run this again.");
    }
    return reading;
}

void Demand(const std::vector<Requirement>& requirements) {
    for (const Requirement& requirement : requirements) {
        if (requirement.problem && requirement.isNeeded) {
            throw Exceptions::XRuntimeError(*requirement.problem);
        }
    }
}

/// The host, which is fit to be prepared.
HostFacts FitHost(const Services& services, Mode mode) {
    HostFacts host = GatherCgroups(services);
    Demand(RequiredToPrepare(host, mode));
    return host;
}

/// Makes all that can be made, even beside one that cannot: else whoever makes one first, or uses up all
/// inodes, would keep the host from being prepared. Returns whether launchers can use all of them.
bool MakeRegistries(const HostFacts& host, const Owners& owners) {
    bool areAllMade = true;
    for (const Registry& registry : ListRegistries(host)) {
        if (const Problem refusal = MakeRegistry(registry.file.path, owners)) {
            Say(stderr, *refusal);
            areAllMade = false;
        }
    }
    return areAllMade;
}

/// No command may be admitted between the look for those in quota cgroups and the withdrawal of their
/// controllers, with which it would lose its quota silently.
void PrepareChildren(const Services& services, const HostFacts& host, Mode mode, uid_t launchers,
                     Changes& changes) {
    if (mode == Mode::quota || StepsToChildren(host, mode).empty()) {
        changes.Make(StepsToChildren(host, mode));
        return;
    }
    const std::optional<OpenFile> lock = LockAllocations(*services.fileSystem, launchers);
    changes.Make(StepsToChildren(FitHost(services, mode), mode));
}

/// The user whom the caller wants the launchers to run as; nothing where that stays as it is.
std::optional<User> WantedOwner(std::span<const std::string> arguments) {
    if (arguments.empty()) {
        return std::nullopt;
    }
    std::optional<User> user = FindUser(arguments.back());
    if (!user) {
        throw Exceptions::XRuntimeError("there is no user '" + arguments.back() +
                                        "' in /etc/passwd. Give his number, see id(1).");
    }
    return user;
}

/// Whose the launchers are, and to whom they go.
Owners OwnersOf(const HostFacts& host, const std::optional<User>& wanted) {
    return {.preparer = host.caller,
            .former = host.Launchers(),
            .launchers = wanted ? wanted->id : host.Launchers()};
}

/// Where the launchers' user changes: the locks of the registries of the former one. As long as they live, no
/// launcher of his can place a command, and none of his runs. None where there was no user before, since
/// there is no managed cgroup, where he stays the same, or where none of the registries is his.
std::vector<OpenFile> AwaitHandOver(const Services& services, const HostFacts& host, const Owners& owners) {
    if (!host.managed.exists || owners.former == owners.launchers) {
        return {};
    }
    std::vector<OpenFile> locks = LockRegistries(*services.fileSystem, ListRegistries(host), owners.former);
    if (const Problem problem =
            HandOverProblem(host, GatherManagedTree(host), GatherRecorded(host), owners.launchers)) {
        throw Exceptions::XRuntimeError(*problem);
    }
    return locks;
}

void MakeManagedCgroup(const HostFacts& host, Changes& changes) {
    if (const Problem warning = AffinityWarning(host)) {
        Say(stdout, *warning);
    }
    changes.Make(StepsToManagedCgroup(host));
}

/// Returns whether launchers can use all registries. Making these may replace the files whose locks a
/// hand-over holds, so the children come first, without PrepareChildren, which would wait in vain for one of
/// these locks, see flock(2). Where none is held, the registry of allocations has to be there first to be
/// locked.
bool MakeRegistriesAndChildren(const Services& services, const HostFacts& host, Mode mode,
                               const Owners& owners, bool isLocked, Changes& changes) {
    if (isLocked) {
        changes.Make(StepsToChildren(host, mode));
        return MakeRegistries(host, owners);
    }
    const bool areAllMade = MakeRegistries(host, owners);
    PrepareChildren(services, host, mode, owners.launchers, changes);
    return areAllMade;
}

/// The former owner may make cgroups in those that are still his.
void Give(const HostFacts& host, uid_t owner, Changes& changes) {
    constexpr int mostRounds = 5;
    std::vector<Step> steps = StepsToOwner(host, GatherManagedTree(host), owner);
    for (int round = 0; round < mostRounds && !steps.empty(); ++round) {
        changes.Make(steps);
        steps = StepsToOwner(host, GatherManagedTree(host), owner);
    }
}

std::string Ready(const HostFacts& host, Mode mode, uid_t launchers) {
    return "ready for " + NameOf(mode) + " mode: cgroup " + (host.isV2 ? "v2, " : "v1, ") +
           host.managed.path + (host.isV2 ? "" : " and " + host.managedCpu.path) + ", CPUs " +
           host.managed.cpus.value_or("") + ", memory nodes " + host.managed.mems.value_or("") +
           (launchers == 0 ? "" : ", launchers of user " + std::to_string(launchers));
}

// The owner of the managed cgroup comes last, since from him the next run knows whose the rest was.
int PrepareHost(std::span<const std::string> arguments, const Services& services) {
    ::umask(cgroupsForAllToRead);
    const std::optional<User> wanted = WantedOwner(arguments);
    const ConfigurationReading configuration = UsableConfiguration(services);
    const Mode mode = *ModeOf(configuration);
    FitHost(services, mode); // which tells a container or another user more than the refusal of a lock
    const OpenFile lock = LockPreparing(*services.fileSystem);
    const HostFacts unprepared = FitHost(services, mode);
    const Owners owners = OwnersOf(unprepared, wanted);
    const std::vector<OpenFile> locks = AwaitHandOver(services, unprepared, owners);
    Changes changes;
    MakeManagedCgroup(unprepared, changes);
    const HostFacts host = GatherCgroups(services);
    const bool isLocked = !locks.empty();
    const bool areAllMade = MakeRegistriesAndChildren(services, host, mode, owners, isLocked, changes);
    if (wanted) {
        Give(host, wanted->id, changes);
    }
    Demand(RequiredToLaunch(GatherCgroups(services), configuration));
    changes.Keep();
    if (areAllMade) {
        Say(stdout, Ready(host, mode, owners.launchers));
    }
    return areAllMade ? 0 : unusableRegistryStatus;
}

} // namespace

const Command prepareCommand{.name = "prepare",
                             .option = "--owner",
                             .value = "USER",
                             .summary = "make the managed cgroup and the registries ready for launchers",
                             .run = PrepareHost};
