// SPDX-License-Identifier: Apache-2.0
// The calls of the C library that a test decides about. The program under test finds the definitions of
// SystemCalls.cpp before those of the C library.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

using Lines = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

/// The state of the host that one test runs on.
struct Host {
    /// What happens, in its order: sleeps, attempts at locks, signals, records, steps of the fakes.
    Lines transcript;
    /// The monotonic clock, which moves in sleeps alone; those take no time.
    Clock::duration now = std::chrono::hours(1);
    /// Happens at the end of each sleep.
    std::function<void()> onSleep = [] {};
    /// The errors of the next system calls by that name, 0 for one that succeeds. A sleep fails halfway.
    std::map<std::string, std::deque<int>> errors;
    /// What happens at the steps of the fakes that begin so.
    std::map<std::string, std::function<void()>> failures;
};
inline Host host;

/// The words with blanks between them.
template <typename... Words>
std::string Sentence(const Words&... words) {
    std::ostringstream text;
    ((text << words << ' '), ...);
    return text.str().substr(0, text.str().size() - 1);
}
