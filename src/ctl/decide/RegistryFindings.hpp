// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/decide/Finding.hpp"
#include "ctl/read/HostFacts.hpp"

/// What a check tells of the registries. Launchers of one mode do not open those of the other.
Findings FindInRegistries(const HostFacts& host, std::optional<Mode> mode);

/// What it tells of /tmp, where they are.
Findings FindInTemporaryDirectory(const HostFacts& host);
