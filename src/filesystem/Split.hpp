// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

/// Cuts `text` into pieces as a stream read up to a delimiter does: a delimiter at the very end adds no empty
/// piece, two in a row do, and an empty text has no piece.
inline std::vector<std::string> Split(std::string_view text, char delimiter) {
    std::vector<std::string> pieces;
    pieces.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), delimiter)) + 1);
    while (!text.empty()) {
        const std::string_view piece = text.substr(0, text.find(delimiter));
        pieces.emplace_back(piece);
        text.remove_prefix(std::min(piece.size() + 1, text.size()));
    }
    return pieces;
}
