// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/Registries.hpp"

/// A record with the registry that it stands in, which has to outlive it.
struct PlacedRecord {
    const Registry* registry;
    const Record* record;
};
