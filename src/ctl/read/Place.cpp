// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Place.hpp"

#include "ctl/read/Cgroups.hpp"
#include "ctl/read/Fields.hpp"
#include "ctl/read/Files.hpp"
#include "ctl/read/Paths.hpp"
#include "ctl/read/ProcessTable.hpp"
#include "filesystem/Split.hpp"

#include <algorithm>
#include <filesystem>

#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char* noValue = "-"; // no cgroup or limit is written so

/// From a line such as "4:cpu,cpuacct:/cwset" with v1, or "0::/cwset" with v2.
std::string CgroupOf(const std::vector<std::string>& lines, const std::string& controller) {
    for (const std::string& line : lines) {
        const std::vector<std::string> fields = Split(line, ':');
        constexpr std::size_t fieldCount = 3;
        if (fields.size() >= fieldCount && std::ranges::count(Split(fields[1], ','), controller) > 0) {
            return line.substr(fields[0].size() + fields[1].size() + 2);
        }
    }
    return UnifiedCgroupOf(lines);
}

/// Of one cgroup, "50000 100000" in cpu.max or in two files with v1; "max" and -1 are none.
std::optional<std::uint64_t> LimitOf(const fs::path& cgroup) {
    const auto line = [&cgroup](const char* file) {
        return ReadKernelLine((cgroup / file).string()).value_or("");
    };
    const std::string unified = line("cpu.max");
    const std::string text =
        unified.empty() ? line("cpu.cfs_quota_us") + " " + line("cpu.cfs_period_us") : unified;
    const std::vector<std::string_view> words = Words(text);
    if (words.size() != 2) {
        return std::nullopt;
    }
    const auto quota = ParseNumber<std::uint64_t>(words[0]);
    const auto period = ParseNumber<std::uint64_t>(words[1]);
    return quota && period > 0U ? std::optional(*quota * wholeCpuPercentage / *period) : std::nullopt;
}

std::optional<std::uint64_t> SmallestLimit(const fs::path& hierarchy, const std::string& cgroup) {
    std::optional<std::uint64_t> smallest;
    for (fs::path path = fs::path(cgroup).relative_path(); !path.empty(); path = path.parent_path()) {
        const std::optional<std::uint64_t> limit = LimitOf(hierarchy / path);
        smallest = limit && smallest ? std::min(limit, smallest) : (limit ? limit : smallest);
    }
    return smallest;
}

std::string OrNoValue(const std::string& text) {
    return text.empty() ? noValue : text;
}

} // namespace

Place ReadOwnPlace(const Interfaces::ISystemResources& systemResources) {
    const std::vector<std::string> cgroups = ReadKernelLines("/proc/self/cgroup");
    const fs::path cpuHierarchy = systemResources.GetManagedCpuCgroupPath(Paths::managedCgroup).parent_path();
    Place place;
    place.pid = ::getpid();
    place.startTime = ProcessTable().Read(place.pid).value_or(Process{}).startTime;
    place.cpusetCgroup = CgroupOf(cgroups, "cpuset");
    place.cpuCgroup = CgroupOf(cgroups, "cpu");
    place.affinity = ReadAffinity(place.pid);
    place.limit = SmallestLimit(cpuHierarchy, place.cpuCgroup);
    return place;
}

std::string ToText(const Place& place) {
    return std::to_string(place.pid) + "\n" + std::to_string(place.startTime) + "\n" +
           OrNoValue(place.cpusetCgroup) + "\n" + OrNoValue(place.cpuCgroup) + "\n" +
           OrNoValue(ToCpuList(place.affinity)) + "\n" +
           (place.limit ? std::to_string(*place.limit) : noValue) + "\n\n";
}

std::optional<Place> ParsePlace(const std::string& text) {
    const std::vector<std::string> lines = Split(text, '\n');
    constexpr std::size_t lineCount = 7;
    if (lines.size() != lineCount) {
        return std::nullopt;
    }
    const auto pid = ParseNumber<int>(lines[0]);
    const auto startTime = ParseNumber<std::uint64_t>(lines[1]);
    if (!pid || !startTime) {
        return std::nullopt;
    }
    return Place{.pid = *pid,
                 .startTime = *startTime,
                 .cpusetCgroup = lines[2],
                 .cpuCgroup = lines[3],
                 .affinity = ParseCpuList(lines[4]),
                 .limit = ParseNumber<std::uint64_t>(lines[5])};
}
