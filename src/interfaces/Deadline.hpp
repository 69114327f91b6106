// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace Interfaces {

/// When waiting ends, on the clock that no administrator sets: CLOCK_MONOTONIC of clock_gettime(2).
using Deadline = std::chrono::steady_clock::time_point;

} // namespace Interfaces
