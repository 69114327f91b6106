// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/decide/Findings.hpp"

/// Launches this program with the launcher that is installed with it, as the owner of the managed cgroup, and
/// tells whether it was placed as configured. Throws Exceptions::XRuntimeError when the caller may not, or
/// there is no launcher. What it leaves is log messages, and a record that counts for nobody.
Finding TryLaunch(const HostFacts& host, const ConfigurationReading& reading, const Services& services);
