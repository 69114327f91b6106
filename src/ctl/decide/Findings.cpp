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

// --- CPUs and memory nodes ---------------------------------------------------------------------------------

/// What `managed` lacks of the machine. In core mode launchers may choose such a core all the same.
Findings FindMissingCpus(const HostFacts& host, const CpuSet& managed, Mode mode) {
    const CpuSet missing = Without(host.onlineCpus, managed);
    if (missing.empty()) {
        return {};
    }
    const std::string subject =
        host.managed.path + cpusFile + " lacks the CPUs " + ToCpuList(missing) + " of the machine, ";
    if (mode == Mode::quota) {
        return {
            Warn(subject + "which so add nothing to the capacity. Add them, unless that is what is wanted.")};
    }
    return {Warn(subject +
                 "on which a program without cores of its own may be placed, and then fails. "
                 "Give each program its cores in " +
                 ConfigurationKeys::coreDistribution + ", or add them.")};
}

Findings FindIsolatedCpus(const HostFacts& host, const CpuSet& managed, Mode mode) {
    const CpuSet isolated = Intersection(managed, host.isolatedCpus);
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

/// What the kernel lets processes use, which an ancestor or an offline CPU narrows.
Findings FindIneffectiveCpus(const HostFacts& host, const CpuSet& managed) {
    Findings findings;
    const std::string file = host.managed.path + cpusFile;
    const CpuSet offline = Without(managed, host.onlineCpus);
    if (!offline.empty()) {
        findings.push_back(
            Warn(file + " has the CPUs " + ToCpuList(offline) +
                 ", which are offline but count for the capacity. Take them online, or out of it."));
    }
    const CpuSet refused = Without(Without(managed, offline), ParseCpuList(host.managed.effectiveCpus));
    if (!refused.empty() && !host.managed.effectiveCpus.empty()) {
        findings.push_back(
            Warn(file + " has the CPUs " + ToCpuList(refused) +
                 ", which the cgroups above it do not let it use, but which count for the capacity. "
                 "Give them to " +
                 host.root.path + ", or take them out of it."));
    }
    return findings;
}

Findings FindMissingNodes(const HostFacts& host) {
    const CpuSet missing = Without(host.nodes, ParseCpuList(host.managed.mems.value_or("")));
    if (missing.empty()) {
        return {};
    }
    return {Warn(host.managed.path + "/cpuset.mems lacks the memory nodes " + ToCpuList(missing) +
                 " of the machine, whose memory commands do not get. Add them, "
                 "unless that is what is wanted.")};
}

Finding CompareWithCapacity(const HostFacts& host, const CpuSet& managed, std::uint64_t quota) {
    const std::uint64_t capacity = std::uint64_t{wholeCpuPercentage} * managed.size();
    if (quota > capacity) {
        return Fail(std::string(ConfigurationKeys::quotaPercentage) + " is " + std::to_string(quota) +
                    ", more than the capacity of " + host.managed.path + cpusFile + ", " +
                    std::to_string(capacity) + " %, so that every launch fails. Lower it, or add CPUs.");
    }
    return Pass(std::to_string(capacity / quota) + " commands at " + std::to_string(quota) +
                " % fit the capacity of " + std::to_string(capacity) + " %, and leave " +
                std::to_string(capacity % quota) + " %");
}

/// As launchers read it: one core that the machine lacks voids all cores of that program.
Finding CompareWithCores(const HostFacts& host, const CpuSet& managed, const std::string& program,
                         const CpuSet& assigned) {
    const std::string subject = std::string(ConfigurationKeys::coreDistribution) + " gives " + program;
    const CpuSet unknown = Without(assigned, host.cores);
    if (!unknown.empty()) {
        return Warn(subject + " the cores " + ToCpuList(unknown) +
                    ", which the machine lacks, so that launchers ignore all its cores. Choose others.");
    }
    const CpuSet outside = Without(assigned, managed);
    if (!outside.empty()) {
        const std::string core = std::to_string(*outside.begin());
        return Fail(subject + " the cores " + ToCpuList(outside) + ", which " + host.managed.path + cpusFile +
                    " lacks, so that launches end with \"Failed to set CPU affinity on core: " + core +
                    "\". Choose others, or add them.");
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

Findings FindInDistribution(const HostFacts& host, const CpuSet& managed,
                            const ConfigurationReading& reading) {
    Findings findings;
    for (const std::string& program : reading.programs) {
        const std::vector<std::uint32_t> cores = reading.configuration->CoreAssignmentSchema(program);
        if (!cores.empty()) {
            findings.push_back(CompareWithCores(host, managed, program, {cores.begin(), cores.end()}));
        }
    }
    Append(findings, FindGroupsWithoutCores(*reading.configuration));
    return findings;
}

Findings FindInCpus(const HostFacts& host, const ConfigurationReading& reading) {
    const CpuSet managed = ParseCpuList(host.managed.cpus.value_or(""));
    const std::optional<Mode> mode = ModeOf(reading);
    if (managed.empty() || !mode) {
        return {};
    }
    Findings findings = FindMissingCpus(host, managed, *mode);
    Append(findings, FindIsolatedCpus(host, managed, *mode));
    Append(findings, FindIneffectiveCpus(host, managed));
    if (findings.empty()) {
        findings.push_back(Pass(host.managed.path + cpusFile + " has the CPUs " + ToCpuList(managed) +
                                " of " + ToCpuList(host.onlineCpus)));
    }
    Append(findings, FindMissingNodes(host));
    if (mode == Mode::quota) {
        findings.push_back(
            CompareWithCapacity(host, managed, reading.configuration->ManagedProcessCpuQuotaPercentage()));
    } else {
        Append(findings, FindInDistribution(host, managed, reading));
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

Findings FindInRegistries(const HostFacts& host) {
    Findings findings;
    std::vector<std::string> missing;
    std::vector<std::string> wide;
    std::vector<std::string> changed;
    for (const Registry& registry : host.registries) {
        const FileFacts& file = registry.file;
        if (const std::optional<Finding> finding = FindInRegistry(host, registry)) {
            findings.push_back(*finding);
        } else if (!file.Exists()) {
            missing.push_back(file.path);
        } else if (ChangeOf(file, host.Launchers(), host.Launchers()).takePermissions) {
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
    for (const Requirement& requirement : RequiredToLaunch(host, ModeOf(configuration))) {
        findings.push_back(requirement.problem ? Fail(*requirement.problem) : Pass(requirement.good));
    }
    Append(findings, FindInCpus(host, configuration));
    if (const Problem warning = AffinityWarning(host)) {
        findings.push_back(Warn(*warning));
    }
    Append(findings, FindInPrograms(host));
    Append(findings, FindInRegistries(host));
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
