// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/CpuFindings.hpp"

#include "configuration/ConfigurationKeys.hpp"
#include "ctl/decide/HierarchyRequirements.hpp"
#include "ctl/read/Collections.hpp"
#include "ctl/read/CpuList.hpp"

#include <algorithm>

namespace {

const std::string cpusFile = "/cpuset.cpus";

/// The CPUs of the managed cgroup by what keeps its commands from them.
struct Cpus {
    CpuSet usable;
    CpuSet missing; ///< It lacks them.
    CpuSet offline;
    CpuSet refused; ///< The cgroups above do not let it use them.
};

/// A cgroup without a list of its own may use what those above it have.
Cpus SortCpus(const HostFacts& host) {
    const CpuSet own = ParseCpuList(host.managed.cpus.value_or(""));
    const CpuSet effective = ParseCpuList(host.managed.effectiveCpus);
    Cpus cpus{
        .usable = host.onlineCpus, .missing = {}, .offline = Without(own, host.onlineCpus), .refused = {}};
    if (!own.empty()) {
        cpus.missing = Without(host.onlineCpus, own);
        cpus.usable = Intersection(own, host.onlineCpus);
    }
    if (!effective.empty()) {
        cpus.refused = Without(cpus.usable, effective);
        cpus.usable = Intersection(cpus.usable, effective);
    }
    return cpus;
}

CpuSet CoresOf(const ConfigurationReading& reading, const std::string& program) {
    const std::vector<std::uint32_t> cores = reading.configuration->CoreAssignmentSchema(program);
    return {cores.begin(), cores.end()};
}

/// Whether launchers give the program cores of its own: one that the machine lacks voids all of them.
bool HasCores(const HostFacts& host, const ConfigurationReading& reading, const std::string& program) {
    const CpuSet cores = CoresOf(reading, program);
    return !cores.empty() && Without(cores, host.cores).empty();
}

/// Launchers choose a core all the same on which no command can run. Always the first one: as its launch
/// fails, that core stays free, and the least loaded.
Finding JudgeUnusable(const HostFacts& host, const ConfigurationReading& reading, const CpuSet& cores,
                      const std::string& subject, const std::string& remedy) {
    const bool areAssigned =
        !reading.programs.empty() && std::ranges::all_of(reading.programs, [&](const std::string& program) {
            return HasCores(host, reading, program);
        });
    const bool hasFirst = cores.contains(*host.cores.begin());
    const std::string consequence =
        hasFirst ? " on the first of which each program without cores of its own is placed, and fails."
                 : " on which a program without cores of its own may be placed, and then fails.";
    return {.grade = hasFirst && !areAssigned ? Grade::fail : Grade::warn,
            .text = subject + consequence + " Give each program its cores in " +
                    ConfigurationKeys::coreDistribution + ", or " + remedy + "."};
}

Findings FindUnusableCores(const HostFacts& host, const ConfigurationReading& reading, const Cpus& cpus) {
    const std::string file = host.managed.path + cpusFile;
    const CpuSet missing = Intersection(cpus.missing, host.cores);
    const CpuSet offline = Without(host.cores, host.onlineCpus);
    const CpuSet refused = Intersection(cpus.refused, host.cores);
    Findings findings;
    if (!missing.empty()) {
        findings.push_back(JudgeUnusable(host, reading, missing,
                                         file + " lacks the CPUs " + ToCpuList(missing) + " of the machine,",
                                         "add them"));
    }
    if (!offline.empty()) {
        findings.push_back(JudgeUnusable(
            host, reading, offline, "the CPUs " + ToCpuList(offline) + " are offline,", "take them online"));
    }
    if (!refused.empty()) {
        findings.push_back(JudgeUnusable(host, reading, refused,
                                         file + " has the CPUs " + ToCpuList(refused) +
                                             ", which the cgroups above it do not let it use, and",
                                         "give them to " + host.root.path));
    }
    return findings;
}

/// What counts for the capacity though nothing runs there, or the other way round.
Findings FindInCapacity(const HostFacts& host, const Cpus& cpus) {
    const std::string file = host.managed.path + cpusFile;
    Findings findings;
    WarnIf(findings, !cpus.missing.empty(),
           file + " lacks the CPUs " + ToCpuList(cpus.missing) +
               " of the machine, which so add nothing to the capacity. Add them, unless that is "
               "what is wanted.");
    WarnIf(findings, !cpus.offline.empty(),
           file + " has the CPUs " + ToCpuList(cpus.offline) +
               ", which are offline but count for the capacity. Take them online, or out of it.");
    WarnIf(findings, !cpus.refused.empty(),
           file + " has the CPUs " + ToCpuList(cpus.refused) +
               ", which the cgroups above it do not let it use, but which count for the capacity. "
               "Give them to " +
               host.root.path + ", or take them out of it.");
    return findings;
}

void WarnOfIsolatedCpus(Findings& findings, const HostFacts& host, const CpuSet& usable, Mode mode) {
    const CpuSet isolated = Intersection(usable, host.isolatedCpus);
    if (isolated.empty()) {
        return;
    }
    const std::string subject = host.managed.path + cpusFile + " has the CPUs " + ToCpuList(isolated);
    if (mode == Mode::quota) {
        findings.push_back(
            Warn(subject +
                 ", which isolcpus= takes from the scheduler, so that they count for the capacity, though no "
                 "command with a quota runs there. Take them out, or boot without isolcpus=."));
    } else {
        findings.push_back(Warn(subject +
                                ", which isolcpus= takes from the scheduler, and on which a program without "
                                "cores of its own may be placed. Give each program its cores in " +
                                ConfigurationKeys::coreDistribution + ", or boot without isolcpus=."));
    }
}

void WarnOfMissingNodes(Findings& findings, const HostFacts& host) {
    const std::string list = host.managed.mems.value_or("");
    const CpuSet missing = Without(host.nodes, ParseCpuList(list));
    WarnIf(findings, !list.empty() && !missing.empty(),
           host.managed.path + "/cpuset.mems lacks the memory nodes " + ToCpuList(missing) +
               " of the machine, whose memory commands do not get. Add them, "
               "unless that is what is wanted.");
}

/// As launchers read it: one core that the machine lacks voids all cores of that program.
Finding CompareWithCores(const HostFacts& host, const CpuSet& usable, const std::string& program,
                         const CpuSet& assigned) {
    const std::string subject = std::string(ConfigurationKeys::coreDistribution) + " gives " + program;
    const CpuSet unknown = Without(assigned, host.cores);
    if (!unknown.empty()) {
        return Warn(subject + " the cores " + ToCpuList(unknown) +
                    ", which the machine lacks, so that launchers ignore all its cores. Choose others.");
    }
    const CpuSet outside = Without(assigned, usable);
    if (!outside.empty()) {
        const std::string core = std::to_string(*outside.begin());
        return Fail(subject + " the cores " + ToCpuList(outside) + ", on which no command in " +
                    host.managed.path +
                    " can run, so that launches end with \"Failed to set CPU affinity on core: " + core +
                    "\". Choose others, or let it use them.");
    }
    return Pass(subject + " cores that are there: " + ToCpuList(assigned));
}

/// Members of a group without cores count nothing, so that exclusive ones get the same core.
void WarnOfGroupsWithoutCores(Findings& findings, const Interfaces::IConfiguration& configuration) {
    for (const auto& [group, members] : configuration.ApplicationGroups()) {
        const bool haveCores = std::ranges::all_of(members, [&](const std::string& member) {
            return !configuration.CoreAssignmentSchema(member).empty();
        });
        WarnIf(findings, !haveCores,
               std::string("the group ") + group + " of " + ConfigurationKeys::applicationGroups +
                   " has no cores, so that its processes do not count and may meet on a core. "
                   "Give it cores in " +
                   ConfigurationKeys::coreDistribution + ".");
    }
}

Findings FindInDistribution(const HostFacts& host, const CpuSet& usable,
                            const ConfigurationReading& reading) {
    Findings findings;
    for (const std::string& program : reading.programs) {
        const CpuSet cores = CoresOf(reading, program);
        if (!cores.empty()) {
            findings.push_back(CompareWithCores(host, usable, program, cores));
        }
    }
    WarnOfGroupsWithoutCores(findings, *reading.configuration);
    return findings;
}

} // namespace

Findings FindInCpus(const HostFacts& host, const ConfigurationReading& reading) {
    const std::optional<Mode> mode = ModeOf(reading);
    const std::string list = host.managed.cpus.value_or("");
    if (!host.managed.exists || !mode ||
        (list.empty() && (mode == Mode::quota || !InheritsEmptyLists(host)))) {
        return {}; // which is told by what is required
    }
    const Cpus cpus = SortCpus(host);
    Findings findings =
        mode == Mode::quota ? FindInCapacity(host, cpus) : FindUnusableCores(host, reading, cpus);
    WarnOfIsolatedCpus(findings, host, cpus.usable, *mode);
    if (findings.empty()) {
        findings.push_back(Pass(host.managed.path + cpusFile + " has the CPUs " + ToCpuList(cpus.usable) +
                                " of " + ToCpuList(host.onlineCpus)));
    }
    WarnOfMissingNodes(findings, host);
    if (mode == Mode::core) {
        Append(findings, FindInDistribution(host, cpus.usable, reading));
    }
    return findings;
}
