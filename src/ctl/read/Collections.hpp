// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the map has for the key; null where it has nothing.
template <typename Map>
const typename Map::mapped_type* Find(const Map& map, const typename Map::key_type& key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}

/// A copy of that; nothing where it has nothing.
template <typename Map>
std::optional<typename Map::mapped_type> ValueOf(const Map& map, const typename Map::key_type& key) {
    const auto* const value = Find(map, key);
    return value == nullptr ? std::nullopt : std::optional(*value);
}

template <typename Items, typename Predicate>
std::size_t CountOf(const Items& items, const Predicate& predicate) {
    return static_cast<std::size_t>(std::count_if(items.begin(), items.end(), predicate));
}

template <typename Item>
void Append(std::vector<Item>& items, const std::vector<Item>& others) {
    items.insert(items.end(), others.begin(), others.end());
}

/// The words with the separator between them.
inline std::string Joined(const std::vector<std::string>& words, std::string_view separator) {
    std::string text;
    for (const std::string& word : words) {
        text.append(text.empty() ? "" : separator).append(word);
    }
    return text;
}
