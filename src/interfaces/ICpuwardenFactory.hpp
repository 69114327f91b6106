// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/ICpuwarden.hpp"

#include <memory>

namespace Interfaces {

/// Builds the application with everything it needs.
class ICpuwardenFactory {
public:
    virtual ~ICpuwardenFactory() = default;

    /// The application, owned by the caller; it alone keeps its services alive. An exception of a service's
    /// constructor, such as a rejected configuration value, passes through unchanged.
    virtual std::unique_ptr<ICpuwarden> Create() = 0;
};

} // namespace Interfaces
