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

void TakeAll(const std::vector<Step>& steps) {
    for (const Step& step : steps) {
        Take(step);
    }
}

/// Makes all that can be made, even beside one that cannot: else whoever makes one first, or uses up all
/// inodes, would keep the host from being prepared. Returns whether launchers can use all of them.
bool MakeRegistries(const HostFacts& host) {
    bool areAllMade = true;
    for (const Registry& registry : ListRegistries(host)) {
        if (const Problem refusal = MakeRegistry(registry.file.path, host.Launchers())) {
            Say(stderr, *refusal);
            areAllMade = false;
        }
    }
    return areAllMade;
}

/// No command may be admitted between the look for those in quota cgroups and the withdrawal of their
/// controllers, with which it would lose its quota silently.
void PrepareChildren(const Services& services, const HostFacts& host, Mode mode) {
    if (mode == Mode::quota || StepsToChildren(host, mode).empty()) {
        TakeAll(StepsToChildren(host, mode));
        return;
    }
    const std::optional<OpenFile> lock = LockAllocations(*services.fileSystem, host.Launchers());
    TakeAll(StepsToChildren(FitHost(services, mode), mode));
}

std::string Ready(const HostFacts& host, Mode mode) {
    return "ready for " + NameOf(mode) + " mode: cgroup " + (host.isV2 ? "v2, " : "v1, ") +
           host.managed.path + (host.isV2 ? "" : " and " + host.managedCpu.path) + ", CPUs " +
           host.managed.cpus.value_or("") + ", memory nodes " + host.managed.mems.value_or("");
}

int Run(std::span<const std::string> /*arguments*/, const Services& services) {
    ::umask(cgroupsForAllToRead);
    const ConfigurationReading configuration = UsableConfiguration(services);
    const Mode mode = *ModeOf(configuration);
    FitHost(services, mode); // which tells a container or another user more than the refusal of a lock
    const OpenFile lock = LockPreparing(*services.fileSystem);
    const HostFacts unprepared = FitHost(services, mode);
    if (const Problem warning = AffinityWarning(unprepared)) {
        Say(stdout, *warning);
    }
    TakeAll(StepsToManagedCgroup(unprepared));
    const HostFacts host = GatherCgroups(services);
    const bool areAllMade = MakeRegistries(host);
    PrepareChildren(services, host, mode);
    Demand(RequiredToLaunch(GatherCgroups(services), configuration));
    if (!areAllMade) {
        return unusableRegistryStatus;
    }
    Say(stdout, Ready(host, mode));
    return 0;
}

} // namespace

const Command prepareCommand{.name = "prepare",
                             .option = "",
                             .summary = "make the managed cgroup and the registries ready for launchers",
                             .run = Run};
