// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/Files.hpp"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

/// One launch for real, of a command that writes a text to its standard output and then waits for the end of
/// its standard input. Both are in a process group of their own, of which nothing is left when this object is
/// gone.
class TrialLaunch {
public:
    /// Starts the launcher with the command, as the caller. Throws Exceptions::XSystemError when there can be
    /// no process for it.
    explicit TrialLaunch(const std::vector<std::string>& words);
    TrialLaunch(const TrialLaunch&) = delete;
    TrialLaunch& operator=(const TrialLaunch&) = delete;
    /// Kills the launcher and its command, and waits for the end of the launcher, for two seconds at most.
    ~TrialLaunch();

    int Launcher() const { return launcher.value(); }

    /// What the command has written once that ends in an empty line; what there is of it when the command or
    /// the time has ended.
    std::string AwaitText(std::chrono::milliseconds patience) const;

    /// Lets the command end, and returns the launcher's exit status as a shell tells it; nothing when it has
    /// not ended within `patience`.
    std::optional<int> AwaitEnd(std::chrono::milliseconds patience);

private:
    std::optional<OpenFile> input;
    std::optional<OpenFile> output;
    std::optional<int> launcher; ///< None once it has ended.
};
