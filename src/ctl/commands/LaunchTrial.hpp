// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/decide/Findings.hpp"

/// Launches this program with the launcher that is installed with it, and tells whether it was placed as
/// configured: as the caller, who has to be the user of the launchers, since a process of root's that became
/// his would leave him root's terminal and environment. What it leaves is log messages, and a record that
/// counts for nobody. Never throws for what a launch meets.
Finding TryLaunch(const HostFacts& host, const ConfigurationReading& reading, const Services& services);
