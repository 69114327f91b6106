// SPDX-License-Identifier: Apache-2.0
// What must hold for launches to work, decided from facts alone. Preparing stops at the first that does not;
// a check tells all of them.
#pragma once

#include "ctl/decide/Requirement.hpp"
#include "ctl/read/HostFacts.hpp"

#include <vector>

/// What must hold before anything is changed, in the order in which it is to be told.
std::vector<Requirement> RequiredToPrepare(const HostFacts& host, Mode mode);

/// What must hold of the host once it is prepared. Where no launcher starts with the configuration, what
/// depends on it is left out.
std::vector<Requirement> RequiredToLaunch(const HostFacts& host, const ConfigurationReading& configuration);

/// "12 (sleep), 13 (tail) and 4 more".
std::string Listed(const std::vector<Process>& processes);
