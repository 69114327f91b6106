// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/decide/HostReport.hpp"

/// The report as one JSON document (RFC 8259) in ASCII, its fields as cpuwardenctl(8) lists them: none of
/// them ever goes or changes its meaning.
std::string ToJson(const HostReport& report);
