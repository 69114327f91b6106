// SPDX-License-Identifier: Apache-2.0
#include "ctl/decide/Findings.hpp"

#include "configuration/ConfigurationKeys.hpp"
#include "ctl/decide/CpuFindings.hpp"
#include "ctl/decide/Preparation.hpp"
#include "ctl/decide/RegistryFindings.hpp"
#include "ctl/decide/Requirements.hpp"
#include "ctl/read/Collections.hpp"
#include "ctl/read/Paths.hpp"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

// --- The configuration -------------------------------------------------------------------------------------

Findings FindInTimeout(const Interfaces::IConfiguration& configuration) {
    Findings findings;
    const std::string key = ConfigurationKeys::executionTimeout;
    const auto seconds = configuration.ProcessExecutionTimeout().count();
    if (seconds == 0) {
        findings.push_back(Fail(key + " is 0, so that every launch ends before its command is placed. "
                                      "Set it to the seconds that a command may run."));
    }
    WarnIf(findings, seconds == 1,
           key + " is 1, so that even a command that ends at once is reported as 124: "
                 "launchers look once a second. Set it to 2 or more.");
    return findings;
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
    WarnIf(findings, reading.isDirectory,
           file + " is a directory, so that launchers use the defaults. Remove it, "
                  "or put the settings into a file of this name.");
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

// --- Programs ----------------------------------------------------------------------------------------------

/// A record counts while its process runs a file of the recorded name.
Findings FindInPrograms(const HostFacts& host) {
    Findings findings;
    for (const ProgramFacts& program : host.programs) {
        const std::string& path = program.path;
        const std::string realName = fs::path(program.target).filename().string();
        if (!program.interpreter.empty()) {
            findings.push_back(
                Warn(path + " is a script of " + program.interpreter +
                     ", so that its records never count: launch the interpreter by its real name, "
                     "with the script as its argument, and configure that name."));
        } else if (!path.empty() && realName != program.name) {
            findings.push_back(
                Warn(path + " is a link to a file of another name, so that its records never count: launch " +
                     program.target + ", and configure that name."));
        }
    }
    return findings;
}

// --- Sysctls and the log -----------------------------------------------------------------------------------

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

Findings Judge(const HostFacts& host, const ConfigurationReading& configuration) {
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
