// SPDX-License-Identifier: Apache-2.0
#include "ctl/commands/LaunchTrial.hpp"

#include "ctl/act/TrialLaunch.hpp"
#include "ctl/commands/Command.hpp"
#include "ctl/decide/Trial.hpp"
#include "ctl/read/Paths.hpp"
#include "ctl/read/ProcessTable.hpp"
#include "exceptions/Exceptions.hpp"

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr std::chrono::seconds endPatience{5}; // the launcher looks at its command once a second

/// Installed in the same directory, or as sbin and bin are.
fs::path FindLauncher(const fs::path& program) {
    const fs::path folder = program.parent_path();
    for (const fs::path& launcher : {folder / launcherName, folder.parent_path() / "bin" / launcherName}) {
        if (fs::exists(launcher)) {
            return launcher;
        }
    }
    throw Exceptions::XRuntimeError("there is no " + std::string(launcherName) + " beside " +
                                    program.string() + ". Install both programs together.");
}

/// Where the launch waits, when it does.
std::optional<WaitingLaunch> FindWait(int launcher) {
    const HostReport report = MakeReport(TakeSnapshot());
    const auto wait = std::ranges::find(report.waiting, launcher, &WaitingLaunch::launcher);
    return wait == report.waiting.end() ? std::nullopt : std::optional(*wait);
}

/// The next launch with a quota would remove it as well.
void RemoveQuotaCgroup(const Trial& trial, const Services& services) {
    for (const Record& record : trial.registries.back().records) {
        if (IsOwnRecord(record, trial)) {
            services.processManager->RemoveCgroupForManagedProcess(
                Paths::managedCgroup, QuotaCgroupName(record.pid, record.startTime));
        }
    }
}

Trial Try(const HostFacts& host, const Services& services) {
    const fs::path program = fs::read_symlink("/proc/self/exe");
    Trial trial{.application = program.filename().string()};
    TrialLaunch launch({FindLauncher(program).string(), program.string(), std::string(placeCommand.name)});
    trial.place = ParsePlace(launch.AwaitText(trialPatience));
    trial.registries = ReadRegistries(ListRegistries(host.cores));
    if (!trial.place) {
        trial.waits = FindWait(launch.Launcher());
    }
    trial.status = launch.AwaitEnd(trial.waits ? std::chrono::seconds(0) : endPatience);
    if (trial.place && trial.status) {
        RemoveQuotaCgroup(trial, services);
    }
    return trial;
}

} // namespace

Finding TryLaunch(const HostFacts& host, const ConfigurationReading& reading, const Services& services) {
    const std::string launchers = std::to_string(host.Launchers());
    if (host.caller != host.Launchers()) {
        return Fail("no launch was tried, since launchers run as user " + launchers +
                    ". Run this as that user, too.");
    }
    if (!reading.configuration) {
        return Fail("no launch was tried, since none would start. Correct the configuration.");
    }
    try {
        return JudgeTrial(Try(host, services), *reading.configuration);
    } catch (const std::exception& error) {
        return Fail(std::string("no launch was tried: ") + error.what());
    }
}
