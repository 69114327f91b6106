// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/decide/Finding.hpp"
#include "ctl/read/HostFacts.hpp"

/// What a check tells of CPUs, memory nodes, and the cores that the configuration gives to programs.
Findings FindInCpus(const HostFacts& host, const ConfigurationReading& reading);
