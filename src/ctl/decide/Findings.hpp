// SPDX-License-Identifier: Apache-2.0
// What a check tells, decided from facts alone.
#pragma once

#include "ctl/decide/Finding.hpp"
#include "ctl/read/HostFacts.hpp"

/// All findings about a host and its configuration, in the order in which they are printed.
Findings Judge(const HostFacts& host, const ConfigurationReading& configuration);
