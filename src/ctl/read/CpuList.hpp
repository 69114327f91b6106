// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <set>
#include <string>

using CpuSet = std::set<std::uint32_t>;

/// What quotas and capacities are told in, in percent.
inline constexpr std::uint32_t wholeCpuPercentage = 100;

/// The CPUs or memory nodes in a list such as "0-3,5", see cpuset(7), List format. What is no number is left
/// out: only the kernel writes such lists.
CpuSet ParseCpuList(const std::string& list);

/// The list of these CPUs, with ranges.
std::string ToCpuList(const CpuSet& cpus);

/// Those that both sets have.
CpuSet Intersection(const CpuSet& cpus, const CpuSet& others);

/// Those of the first set that the second lacks.
CpuSet Without(const CpuSet& cpus, const CpuSet& others);
