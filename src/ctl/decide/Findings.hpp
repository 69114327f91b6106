// SPDX-License-Identifier: Apache-2.0
// What a check tells, decided from facts alone.
#pragma once

#include "ctl/read/HostFacts.hpp"

#include <string>
#include <vector>

enum class Grade {
    pass, ///< All is well.
    warn, ///< Launches work, but something does not apply, or is less safe than it could be.
    fail, ///< Launches fail, or commands run outside their cgroup or without their quota.
};

struct Finding {
    Grade grade;
    std::string text; ///< What was found and, unless all is well, the remedy.

    bool operator==(const Finding&) const = default;
};

/// All findings about a host and its configuration, in the order in which they are printed.
std::vector<Finding> Judge(const HostFacts& host, const ConfigurationReading& configuration);
