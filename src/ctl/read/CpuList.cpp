// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/CpuList.hpp"

#include "filesystem/Split.hpp"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace {

constexpr std::uint32_t cpuLimit = 8192; // as many as a kernel can be built for

/// The number at the beginning of `text`, or the limit when there is none.
std::uint32_t ParseCpu(std::string_view text) {
    std::uint32_t cpu = cpuLimit;
    std::from_chars(text.data(), text.data() + text.size(), cpu);
    return cpu;
}

} // namespace

CpuSet ParseCpuList(const std::string& list) {
    CpuSet cpus;
    for (const std::string& entry : Split(list, ',')) {
        const std::size_t dash = entry.find('-');
        const std::uint32_t first = ParseCpu(entry);
        const std::uint32_t last =
            dash == std::string::npos ? first : ParseCpu(std::string_view(entry).substr(dash + 1));
        for (std::uint32_t cpu = first; cpu <= last && cpu < cpuLimit; ++cpu) {
            cpus.insert(cpu);
        }
    }
    return cpus;
}

std::string ToCpuList(const CpuSet& cpus) {
    std::string list;
    for (auto first = cpus.begin(); first != cpus.end();) {
        auto last = first;
        auto next = std::next(first);
        while (next != cpus.end() && *next == *last + 1) {
            last = next++;
        }
        list += (list.empty() ? "" : ",") + std::to_string(*first) +
                (first == last ? "" : "-" + std::to_string(*last));
        first = next;
    }
    return list;
}

CpuSet Intersection(const CpuSet& cpus, const CpuSet& others) {
    CpuSet both;
    std::ranges::set_intersection(cpus, others, std::inserter(both, both.end()));
    return both;
}

CpuSet Without(const CpuSet& cpus, const CpuSet& others) {
    CpuSet left;
    std::ranges::set_difference(cpus, others, std::inserter(left, left.end()));
    return left;
}
