// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/HostSnapshot.hpp"

#include <chrono>

using Milliseconds = std::chrono::milliseconds;

/// A command whose record is live, so that launchers count it.
struct LiveCommand {
    std::string application;
    std::vector<std::string> groups{}; ///< The application groups that list it, sorted.
    int pid{};
    std::optional<int> launcher{};
    Milliseconds running{};
    Milliseconds cpuTime{};
    std::uint64_t records = 1; ///< Equal lines, each of which counts.
    bool isVerified{};         ///< False when its executable may not be seen.
    std::string cgroup{};      ///< The name of its quota cgroup; empty for one on a core.
    std::optional<Throttling> throttling{};
};

enum class CoreState { free, taken, unknown };

struct CoreReport {
    std::uint32_t core{};
    CoreState state{};
    bool isManaged{}; ///< Whether the managed cgroup has it.
    std::vector<LiveCommand> commands{};
};

/// Registries are those of cores, or that of the allocations where there is no core.
struct RegistryLock {
    std::optional<std::uint32_t> core{};
    std::optional<int> holder{};
};

struct WaitingLaunch {
    int launcher{};
    int pid{}; ///< The launcher's child, which becomes the command.
    std::string command{};
    bool isCommandCut{};
    Milliseconds waiting{};
    /// Until its deadline, as far as the configuration is still the same.
    std::optional<Milliseconds> left{};
    /// Locks that it has not got yet. When there are none, but it holds some, it waits for room.
    std::vector<RegistryLock> waitsFor{};
    std::vector<RegistryLock> holds{};
    bool areFilesKnown{};
};

/// Why a command that runs under a launcher does not count, or not where it runs. What is told of it is in
/// tell/Reasons.hpp.
enum class NotCountedReason {
    executableName,
    nameWithColon,
    recordLost,
    otherCore,
    outsideCgroup,
    coreNotAssigned
};

struct NotCounted {
    NotCountedReason reason{};
    std::string application{};
    int pid{};
    int launcher{};
    Milliseconds running{};
    std::string executable{};
    std::optional<std::uint32_t> registeredCore{};
    CpuSet affinity{};
    std::string cgroup{}; ///< Where it is, in the cpuset hierarchy; empty when outside the managed cgroup.
    std::string expectedCgroup{};
};

enum class DeadReason { ended, pidReused, executableName, notYetExecuting };

/// A record that the next launch drops.
struct DeadRecord {
    std::optional<std::uint32_t> core{};
    Record record;
    DeadReason reason{};
};

/// A process at or below the managed cgroup that descends from no launcher.
struct UnmanagedProcess {
    int pid{};
    std::string name{};
    std::string cgroup{};
};

/// What could not be seen, so that the report may be wrong there.
struct BlindSpot {
    std::string what;
    std::string why;
};

struct HostReport {
    std::optional<Mode> mode{};           ///< None when no launcher starts with this configuration.
    std::optional<std::string> failure{}; ///< Why none starts.
    std::vector<std::string> complaints{};
    std::uint32_t quota{}; ///< In quota mode: percent of one CPU for each command.
    bool sharesCores{};
    bool cgroupExists{};
    std::string cpus{};
    std::optional<std::uint64_t> capacity{}; ///< Percent of one CPU.
    std::uint64_t admitted{};                ///< What records that count take of it.
    bool areAdmissionsKnown{};
    std::vector<CoreReport> cores{};
    std::vector<LiveCommand> allocations{};
    std::vector<WaitingLaunch> waiting{};
    std::vector<NotCounted> notCounted{};
    std::vector<DeadRecord> deadRecords{};
    std::uint64_t strayLines{}; ///< Lines of registries that are no records.
    std::vector<std::string> orphanedCgroups{};
    std::vector<UnmanagedProcess> unmanaged{};
    std::vector<BlindSpot> blindSpots{};

    std::size_t CountCores(CoreState state) const;
};

/// Judges what was seen by the rules that launchers go by.
HostReport MakeReport(const HostSnapshot& snapshot);
