// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/Services.hpp"

#include <span>
#include <string>
#include <string_view>

/// One thing that cpuwardenctl does.
struct Command {
    std::string_view name;
    std::string_view option;  ///< The only one that it takes; empty when it takes none.
    std::string_view value{}; ///< What has to follow the option, as the usage names it.
    std::string_view summary;

    /// Writes its result to standard output and returns the exit status. `arguments` has nothing but the
    /// option with its value. Throws what the services throw; the text then goes to standard error and the
    /// status is 1.
    int (*run)(std::span<const std::string> arguments, const Services& services);
};

extern const Command prepareCommand;
extern const Command checkCommand;
extern const Command statusCommand;
extern const Command metricsCommand;
/// What `check --launch` launches; not for operators.
extern const Command placeCommand;
