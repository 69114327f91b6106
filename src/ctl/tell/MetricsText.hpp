// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/decide/HostReport.hpp"

/// The counts of the report as OpenMetrics text. All of them are gauges, since what they count comes and
/// goes, so that the text is valid in the older format of the textfile collector too, to which its last line
/// is a comment.
std::string ToOpenMetrics(const HostReport& report);
