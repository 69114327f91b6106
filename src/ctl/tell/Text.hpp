// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

/// `text` with the bytes of each control character, and each byte that is not UTF-8, shown as "\xHH", so that
/// names from files of other users can neither steer the terminal nor hide in it.
std::string Printable(std::string_view text);

/// How many characters `text`, valid UTF-8, has.
std::size_t Width(std::string_view text);

/// The first `width` characters of `text`, valid UTF-8.
std::string_view Beginning(std::string_view text, std::size_t width);

/// The time as a number of seconds.
constexpr double Seconds(std::chrono::duration<double> time) {
    return time.count();
}
