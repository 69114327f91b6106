// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/ICpuwardenFactory.hpp"

/// Wires the one instance of each service. Stateless: the application it returns alone holds the graph.
class CpuwardenFactory : public Interfaces::ICpuwardenFactory {
public:
    std::unique_ptr<Interfaces::ICpuwarden> Create() override;
};
