// SPDX-License-Identifier: Apache-2.0
// What a launch on trial showed, and whether that is what the configuration asks for.
#pragma once

#include "ctl/decide/Finding.hpp"
#include "ctl/decide/HostReport.hpp"
#include "ctl/read/Place.hpp"

#include <chrono>

/// How long a launch on trial may look for its place.
inline constexpr std::chrono::seconds trialPatience{5};

/// What the launcher's process ends with where the launcher could not be executed, as in a shell.
inline constexpr int notExecutedStatus = 127;

/// What was seen of a launch on trial.
struct Trial {
    std::string application{};
    std::optional<Place> place{};         ///< As the command told it; none when it did not run in time.
    std::vector<Registry> registries{};   ///< While the command ran, or after it should have.
    std::optional<WaitingLaunch> waits{}; ///< Where it still waited for its place then.
    std::optional<int> status{};          ///< Of the launcher; none when it had to be ended.
};

/// Whether a launcher that placed the command wrote the record.
bool IsOwnRecord(const Record& record, const Trial& trial);

/// One finding, the same for a launch that was placed as configured wherever that is.
Finding JudgeTrial(const Trial& trial, const Interfaces::IConfiguration& configuration);
