// SPDX-License-Identifier: Apache-2.0
#pragma once

/// What the map has for the key; null where it has nothing.
template <typename Map>
const typename Map::mapped_type* Find(const Map& map, const typename Map::key_type& key) {
    const auto found = map.find(key);
    return found == map.end() ? nullptr : &found->second;
}
