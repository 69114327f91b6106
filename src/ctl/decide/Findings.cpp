// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Findings.hpp"

#include "configuration/ConfigurationKeys.hpp"
#include "ctl/decide/Preparation.hpp"
#include "ctl/decide/Requirements.hpp"
#include "ctl/read/CpuList.hpp"
#include "ctl/read/Paths.hpp"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

const std::string cpusFile = "/cpuset.cpus";
const std::string runPrepare = " Run cpuwardenctl prepare as root.";

using Findings = std::vector<Finding>;

Finding Pass(const std::string& text) {
    return {.grade = Grade::pass, .text = text};
}

Finding Warn(const std::string& text) {
    return {.grade = Grade::warn, .text = text};
}

Finding Fail(const std::string& text) {
    return {.grade = Grade::fail, .text = text};
}

void Append(Findings& findings, const Findings& others) {
    findings.insert(findings.end(), others.begin(), others.end());
}

/// One line of all that share a finding.
std::string Summed(const std::vector<std::string>& subjects) {
    return subjects.front() +
           (subjects.size() == 1 ? "" : " and " + std::to_string(subjects.size() - 1) + " more like it");
}

// --- The configuration -------------------------------------------------------------------------------------

Findings FindInTimeout(const Interfaces::IConfiguration& configuration) {
    const std::string key = ConfigurationKeys::executionTimeout;
    switch (configuration.ProcessExecutionTimeout().count()) {
    case 0:
        return {Fail(key + " is 0, so that every launch ends before its command is placed. "
                           "Set it to the seconds that a command may run.")};
    case 1:
        return {Warn(key + " is 1, so that even a command that ends at once is reported as 124: "
                           "launchers look once a second. Set it to 2 or more.")};
    default:
        return {};
    }
}

/// Root reads it in any case, and so has to be told what launchers of another user may not.
Findings FindInRights(const HostFacts& host) {
    if (host.mayReadConfiguration) {
        return {};
    }
    const std::string file = Paths::configuration;
    return {Fail("user " + std::to_string(host.Launchers()) + " may not read " + file +
                 ", so that each of his launches ends with 1. Let him read it and pass through its folder: "
                 "chmod o+r " +
                 file + "; chmod o+x " + fs::path(file).parent_path().string())};
}

Findings FindInConfiguration(const ConfigurationReading& reading) {
    const std::string file = Paths::configuration;
    const std::optional<Mode> mode = ModeOf(reading);
    if (!mode) {
        return {Fail("no launcher starts with " + file + ": " + reading.failure + " Correct or remove it.")};
    }
    Findings findings{Pass(file + ", or its absence, configures " + NameOf(*mode) + " mode")};
    if (reading.isDirectory) {
        findings.push_back(Warn(file + " is a directory, so that launchers use the defaults. Remove it, "
                                       "or put the settings into a file of this name."));
    }
    for (const std::string& complaint : reading.complaints) {
        findings.push_back(
            Warn(("launchers say of " + file + ": ").append(complaint).append(" Correct it.")));
    }
    Append(findings, FindInTimeout(*reading.configuration));
    return findings;
}

// --- The user of the launchers -----------------------------------------------------------------------------

Findings FindInOwner(const HostFacts& host) {
    if (!host.managed.exists || host.managed.owner == 0) {
        return {};
    }
    const std::string name =
        host.launchers && !host.launchers->name.empty() ? host.launchers->name : "not in /etc/passwd";
    return {Pass("launchers run as user " + std::to_string(host.managed.owner) + " (" + name +
                 "), who owns " + host.managed.path)};
}

// --- CPUs and memory nodes ---------------------------------------------------------------------------------

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

/// Whether launchers give the program cores of its own: one that the machine lacks voids all of them.
bool HasCores(const HostFacts& host, const ConfigurationReading& reading, const std::string& program) {
    const std::vector<std::uint32_t> cores = reading.configuration->CoreAssignmentSchema(program);
    return !cores.empty() && Without({cores.begin(), cores.end()}, host.cores).empty();
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
    return {
        .grade = hasFirst && !areAssigned ? Grade::fail : Grade::warn,
        .text =
            subject +
            (hasFirst ? "on the first of which each program without cores of its own is placed, and fails. "
                      : "on which a program without cores of its own may be placed, and then fails. ") +
            "Give each program its cores in " + ConfigurationKeys::coreDistribution + ", or " + remedy + "."};
}

Findings FindUnusableCores(const HostFacts& host, const ConfigurationReading& reading, const Cpus& cpus) {
    const std::string file = host.managed.path + cpusFile;
    const CpuSet missing = Intersection(cpus.missing, host.cores);
    const CpuSet offline = Without(host.cores, host.onlineCpus);
    const CpuSet refused = Intersection(cpus.refused, host.cores);
    Findings findings;
    if (!missing.empty()) {
        findings.push_back(JudgeUnusable(host, reading, missing,
                                         file + " lacks the CPUs " + ToCpuList(missing) + " of the machine, ",
                                         "add them"));
    }
    if (!offline.empty()) {
        findings.push_back(JudgeUnusable(
            host, reading, offline, "the CPUs " + ToCpuList(offline) + " are offline, ", "take them online"));
    }
    if (!refused.empty()) {
        findings.push_back(JudgeUnusable(host, reading, refused,
                                         file + " has the CPUs " + ToCpuList(refused) +
                                             ", which the cgroups above it do not let it use, and ",
                                         "give them to " + host.root.path));
    }
    return findings;
}

/// What counts for the capacity though nothing runs there, or the other way round.
Findings FindInCapacity(const HostFacts& host, const Cpus& cpus) {
    Findings findings;
    const std::string file = host.managed.path + cpusFile;
    if (!cpus.missing.empty()) {
        findings.push_back(
            Warn(file + " lacks the CPUs " + ToCpuList(cpus.missing) +
                 " of the machine, which so add nothing to the capacity. Add them, unless that is "
                 "what is wanted."));
    }
    if (!cpus.offline.empty()) {
        findings.push_back(
            Warn(file + " has the CPUs " + ToCpuList(cpus.offline) +
                 ", which are offline but count for the capacity. Take them online, or out of it."));
    }
    if (!cpus.refused.empty()) {
        findings.push_back(
            Warn(file + " has the CPUs " + ToCpuList(cpus.refused) +
                 ", which the cgroups above it do not let it use, but which count for the capacity. "
                 "Give them to " +
                 host.root.path + ", or take them out of it."));
    }
    return findings;
}

Findings FindIsolatedCpus(const HostFacts& host, const CpuSet& usable, Mode mode) {
    const CpuSet isolated = Intersection(usable, host.isolatedCpus);
    if (isolated.empty()) {
        return {};
    }
    const std::string subject = host.managed.path + cpusFile + " has the CPUs " + ToCpuList(isolated) +
                                ", which isolcpus= takes from the scheduler, ";
    if (mode == Mode::quota) {
        return {Warn(subject +
                     "so that they count for the capacity, though no command with a quota runs there. "
                     "Take them out, or boot without isolcpus=.")};
    }
    return {Warn(subject +
                 "and on which a program without cores of its own may be placed. "
                 "Give each program its cores in " +
                 ConfigurationKeys::coreDistribution + ", or boot without isolcpus=.")};
}

Findings FindMissingNodes(const HostFacts& host) {
    const CpuSet missing = Without(host.nodes, ParseCpuList(host.managed.mems.value_or("")));
    if (missing.empty() || host.managed.mems.value_or("").empty()) {
        return {};
    }
    return {Warn(host.managed.path + "/cpuset.mems lacks the memory nodes " + ToCpuList(missing) +
                 " of the machine, whose memory commands do not get. Add them, "
                 "unless that is what is wanted.")};
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
Findings FindGroupsWithoutCores(const Interfaces::IConfiguration& configuration) {
    Findings findings;
    for (const auto& [group, members] : configuration.ApplicationGroups()) {
        const bool haveCores = std::ranges::all_of(members, [&](const std::string& member) {
            return !configuration.CoreAssignmentSchema(member).empty();
        });
        if (!haveCores) {
            findings.push_back(
                Warn(std::string("the group ") + group + " of " + ConfigurationKeys::applicationGroups +
                     " has no cores, so that its processes do not count and may meet on a core. "
                     "Give it cores in " +
                     ConfigurationKeys::coreDistribution + "."));
        }
    }
    return findings;
}

Findings FindInDistribution(const HostFacts& host, const CpuSet& usable,
                            const ConfigurationReading& reading) {
    Findings findings;
    for (const std::string& program : reading.programs) {
        const std::vector<std::uint32_t> cores = reading.configuration->CoreAssignmentSchema(program);
        if (!cores.empty()) {
            findings.push_back(CompareWithCores(host, usable, program, {cores.begin(), cores.end()}));
        }
    }
    Append(findings, FindGroupsWithoutCores(*reading.configuration));
    return findings;
}

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
    Append(findings, FindIsolatedCpus(host, cpus.usable, *mode));
    if (findings.empty()) {
        findings.push_back(Pass(host.managed.path + cpusFile + " has the CPUs " + ToCpuList(cpus.usable) +
                                " of " + ToCpuList(host.onlineCpus)));
    }
    Append(findings, FindMissingNodes(host));
    if (mode == Mode::core) {
        Append(findings, FindInDistribution(host, cpus.usable, reading));
    }
    return findings;
}

// --- Programs ----------------------------------------------------------------------------------------------

/// A record counts while its process runs a file of the recorded name.
Findings FindInPrograms(const HostFacts& host) {
    Findings findings;
    for (const ProgramFacts& program : host.programs) {
        const std::string subject = program.path;
        const std::string realName = fs::path(program.target).filename().string();
        if (!program.interpreter.empty()) {
            findings.push_back(
                Warn(subject + " is a script of " + program.interpreter +
                     ", so that its records never count: launch the interpreter by its real name, "
                     "with the script as its argument, and configure that name."));
        } else if (!program.path.empty() && realName != program.name) {
            findings.push_back(Warn(
                subject + " is a link to a file of another name, so that its records never count: launch " +
                program.target + ", and configure that name."));
        }
    }
    return findings;
}

// --- /tmp --------------------------------------------------------------------------------------------------

/// With protected_regular, /tmp yields no file of another user to an open(2) with O_CREAT, as launchers
/// call it, not even to root.
Grade GradeOf(const HostFacts& host, const FileFacts& file) {
    const uid_t launchers = host.Launchers();
    const std::string& isProtected = host.sysctls.at("protected_regular");
    const bool isOpenToRoot =
        launchers == 0 && S_ISREG(file.mode) && (isProtected == "0" || isProtected == "missing");
    const bool isOwn = file.owner == launchers && (S_ISREG(file.mode) || S_ISLNK(file.mode));
    return isOpenToRoot || isOwn ? Grade::warn : Grade::fail;
}

/// Of a registry that is as it should be otherwise. What a launcher of a user other than the caller may do
/// shows in the permissions, not in the error.
Problem OpenProblem(const HostFacts& host, const Registry& registry) {
    constexpr mode_t usable = S_IRUSR | S_IWUSR;
    const std::string subject = registry.file.path;
    switch (registry.openError) {
    case EROFS:
        return subject + " is mounted read-only, so that launches fail. Unmount it.";
    case EPERM:
        return subject +
               " is immutable or append-only, so that launches fail. Make it a common file: chattr -ia " +
               subject;
    default:
        break;
    }
    if (host.Launchers() != 0 && registry.file.Exists() && (registry.file.mode & usable) != usable) {
        return subject + " has mode " + PermissionsOf(registry.file) +
               ", with which its owner cannot use it, so that launches fail. Set it: chmod 600 " + subject;
    }
    return {};
}

/// What keeps launchers from a registry, or from having it to themselves.
std::optional<Finding> FindInRegistry(const HostFacts& host, const Registry& registry) {
    if (const Problem problem = RegistryProblem(registry.file, host.Launchers())) {
        return Finding{.grade = GradeOf(host, registry.file), .text = *problem};
    }
    const Problem problem = host.temporaryFileSystem.isReadOnly ? Problem{} : OpenProblem(host, registry);
    return problem ? std::optional(Fail(*problem)) : std::nullopt;
}

/// Whether others than its owner have permissions.
bool IsWide(const FileFacts& file, uid_t launchers) {
    return ChangeOf(file, {.preparer = launchers, .former = launchers, .launchers = launchers})
        .takePermissions;
}

/// Launchers of one mode do not open the registries of the other.
std::optional<Finding> FindInRegistry(const HostFacts& host, const Registry& registry,
                                      std::optional<Mode> mode) {
    const Mode user = registry.core ? Mode::core : Mode::quota;
    std::optional<Finding> finding = FindInRegistry(host, registry);
    if (!finding || finding->grade != Grade::fail || !mode || mode == user) {
        return finding;
    }
    return Warn("only in " + NameOf(user) + " mode: " + finding->text);
}

Findings FindInRegistries(const HostFacts& host, std::optional<Mode> mode) {
    Findings findings;
    std::vector<std::string> missing;
    std::vector<std::string> wide;
    std::vector<std::string> changed;
    for (const Registry& registry : host.registries) {
        const FileFacts& file = registry.file;
        if (const std::optional<Finding> finding = FindInRegistry(host, registry, mode)) {
            findings.push_back(*finding);
        } else if (!file.Exists()) {
            missing.push_back(file.path);
        } else if (IsWide(file, host.Launchers())) {
            wide.push_back(file.path + " (" + PermissionsOf(file) + ")");
        }
        if (registry.strayLines > 0 && file.owner == host.Launchers()) {
            changed.push_back(file.path);
        }
    }
    if (!missing.empty()) {
        findings.push_back(Warn(
            Summed(missing) +
            " is missing, so that whoever makes it first decides what launchers meet there." + runPrepare));
    }
    if (!wide.empty()) {
        findings.push_back(
            Warn(Summed(wide) + " lets other users open and lock it, and so hold up launches." + runPrepare));
    }
    if (!changed.empty()) {
        findings.push_back(Warn(Summed(changed) +
                                " has lines other than name:pid:starttime, which the next launcher drops. "
                                "See what else writes to it."));
    }
    if (findings.empty()) {
        findings.push_back(Pass("the " + std::to_string(host.registries.size()) +
                                " registries are there, for user " + std::to_string(host.Launchers()) +
                                " alone"));
    }
    return findings;
}

Findings FindInTemporaryDirectory(const HostFacts& host) {
    Findings findings;
    const FileFacts& directory = host.temporaryDirectory;
    constexpr mode_t writableForAll = S_IWOTH;
    if ((directory.mode & writableForAll) != 0 && (directory.mode & S_ISVTX) == 0) {
        findings.push_back(Warn(directory.path + " has mode " + PermissionsOf(directory) +
                                ", so that any user can remove a registry. Set it: chmod 1777 " +
                                directory.path));
    }
    if (directory.owner != 0 && directory.owner != host.Launchers()) {
        findings.push_back(Warn(directory.path + " belongs to user " + std::to_string(directory.owner) +
                                ", who can remove a registry in spite of the sticky bit. "
                                "Give it back: chown root " +
                                directory.path));
    }
    if (!host.temporaryFileSystem.hasFreeBlock) {
        findings.push_back(Warn(directory.path +
                                " has no free block for users, so that new records may be lost, and launches "
                                "succeed without regard to one another. Free some, see df(1)."));
    }
    if (!host.temporaryFileSystem.hasFreeInode) {
        findings.push_back(Warn(directory.path + " has no free inode, so that a registry that is missing "
                                                 "cannot be made, and launches that need it fail. "
                                                 "Free some, see df(1)."));
    }
    return findings;
}

Finding JudgeSysctl(const HostFacts& host, const std::string& name, const std::string& danger) {
    const std::string& value = host.sysctls.at(name);
    if (value == "0" || value == "missing") {
        return Warn("fs." + name + " is " + value + ", so that " + danger + ". Set it: sysctl -w fs." + name +
                    "=1");
    }
    return Pass("fs." + name + " is " + value);
}

Finding JudgeLog(const HostFacts& host) {
    if (host.logHasListener) {
        return Pass("/dev/log has a listener");
    }
    return Warn("nothing listens at /dev/log, so that all log messages are lost. "
                "Start a syslog daemon or systemd-journald.");
}

} // namespace

std::vector<Finding> Judge(const HostFacts& host, const ConfigurationReading& configuration) {
    Findings findings = FindInConfiguration(configuration);
    Append(findings, FindInRights(host));
    Append(findings, FindInOwner(host));
    for (const Requirement& requirement : RequiredToLaunch(host, configuration)) {
        const Grade grade = requirement.isNeeded ? Grade::fail : Grade::warn;
        findings.push_back(requirement.problem ? Finding{.grade = grade, .text = *requirement.problem}
                                               : Pass(requirement.good));
    }
    Append(findings, FindInCpus(host, configuration));
    if (const Problem warning = AffinityWarning(host)) {
        findings.push_back(Warn(*warning));
    }
    Append(findings, FindInPrograms(host));
    Append(findings, FindInRegistries(host, ModeOf(configuration)));
    Append(findings, FindInTemporaryDirectory(host));
    findings.push_back(
        JudgeSysctl(host, "protected_symlinks",
                    "any user can lead launchers to another file by a link in place of a registry"));
    findings.push_back(
        JudgeSysctl(host, "protected_regular",
                    "any user can make a registry before launchers do, and lock or change it"));
    findings.push_back(JudgeLog(host));
    return findings;
}
