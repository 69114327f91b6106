// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <vector>

/// Whether `item` is among the items.
template <typename Item>
bool Contains(const std::vector<Item>& items, const Item& item) {
    return std::ranges::find(items, item) != items.end();
}
