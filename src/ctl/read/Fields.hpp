// SPDX-License-Identifier: Apache-2.0
// Fields of the kernel's text files. Without streams, which are slow and add half a megabyte to a static
// program.
#pragma once

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <vector>

/// The number that the whole text is; nothing when it is anything else.
template <typename Number>
std::optional<Number> ParseNumber(std::string_view text) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

/// The words of a line, between any number of blanks and tabs.
inline std::vector<std::string_view> Words(std::string_view line) {
    constexpr std::string_view blanks = " \t";
    std::vector<std::string_view> words;
    std::size_t begin = line.find_first_not_of(blanks);
    while (begin != std::string_view::npos) {
        const std::size_t end = std::min(line.size(), line.find_first_of(blanks, begin));
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(blanks, end);
    }
    return words;
}
