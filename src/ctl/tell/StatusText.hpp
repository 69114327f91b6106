// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/decide/HostReport.hpp"

/// The report as tables for people.
std::string ToText(const HostReport& report);
