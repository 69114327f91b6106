// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Launches.hpp"

#include "ctl/read/Collections.hpp"

#include <algorithm>
#include <iterator>
#include <tuple>

namespace {

/// What tells the command from other children, the weakest sign first. Others have no records; nor have they
/// forked from a launcher and not executed yet.
enum class Sign { none, inManagedCgroup, forkedFromLauncher, inOwnCgroup, recorded };

struct Candidate {
    const Process* process;
    Sign sign;
};

bool IsLauncher(const Process& process, uid_t launchers) {
    return process.hasExecuted && !process.hasEnded && IsCalledAsLauncher(process) &&
           (process.user == 0 || process.user == launchers);
}

bool IsOlder(const Process& one, const Process& other) {
    return std::pair(one.startTime, one.pid) < std::pair(other.startTime, other.pid);
}

bool IsRecorded(const Process& process, const RecordedProcesses& recorded) {
    const auto [first, last] = recorded.equal_range(process.pid);
    return std::any_of(first, last, [&](const auto& entry) { return entry.second == process.startTime; });
}

Sign SignOf(const Process& process, const RecordedProcesses& recorded, const ManagedCgroup& cgroup) {
    if (IsRecorded(process, recorded)) {
        return Sign::recorded;
    }
    const std::string* const member = Find(cgroup.cpusetMembers, process.pid);
    if (member != nullptr && *member == QuotaCgroupPath(process.pid, process.startTime)) {
        return Sign::inOwnCgroup;
    }
    if (!process.hasExecuted) {
        return Sign::forkedFromLauncher;
    }
    return member != nullptr ? Sign::inManagedCgroup : Sign::none;
}

/// Of two children with the same sign the one that started last, since a launcher forks once, after it was
/// executed. In the same clock tick that is the one with the higher pid, but for the moment when pids begin
/// anew.
bool SpeaksFor(const Candidate& one, const Candidate& other) {
    return one.sign != other.sign ? one.sign > other.sign : IsOlder(*other.process, *one.process);
}

} // namespace

RecordedProcesses FindRecorded(const std::vector<Registry>& registries) {
    RecordedProcesses recorded;
    for (const Registry& registry : registries) {
        for (const Record& record : registry.records) {
            recorded.emplace(record.pid, record.startTime);
        }
    }
    return recorded;
}

std::vector<Launch> FindLaunches(const Processes& processes, const RecordedProcesses& recorded,
                                 const ManagedCgroup& cgroup) {
    std::unordered_map<int, Candidate> commands;
    for (const auto& [pid, process] : processes) {
        const Process* const parent = Find(processes, process.parent);
        const bool isSubshell = !process.hasExecuted && !IsCalledAsLauncher(process);
        if (process.hasEnded || isSubshell || parent == nullptr || !IsLauncher(*parent, cgroup.facts.owner)) {
            continue;
        }
        const Candidate candidate{.process = &process, .sign = SignOf(process, recorded, cgroup)};
        Candidate& command = commands.emplace(process.parent, candidate).first->second;
        command = SpeaksFor(candidate, command) ? candidate : command;
    }
    std::vector<Launch> launches;
    std::ranges::transform(commands, std::back_inserter(launches), [](const auto& entry) {
        const auto& [launcher, command] = entry;
        return Launch{
            .launcher = launcher, .child = command.process->pid, .isCertain = command.sign != Sign::none};
    });
    std::ranges::sort(launches, [&processes](const Launch& one, const Launch& other) {
        return IsOlder(processes.at(one.launcher), processes.at(other.launcher));
    });
    return launches;
}

bool RunsCommand(const std::vector<std::string>& arguments, const std::vector<std::string>& command) {
    if (command.empty() || arguments.size() < command.size()) {
        return false;
    }
    const auto program = arguments.end() - static_cast<std::ptrdiff_t>(command.size());
    return Basename(*program) == Basename(command.front()) &&
           std::equal(program + 1, arguments.end(), command.begin() + 1);
}
