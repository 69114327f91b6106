// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/CpuList.hpp"
#include "ctl/read/FailedReads.hpp"
#include "ctl/read/Files.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A record of a registry: one process that a launcher placed.
struct Record {
    std::string name;
    int pid;
    std::uint64_t startTime; ///< Clock ticks since boot.
};

/// A registry file as it was found.
struct Registry {
    FileFacts file{};
    std::optional<std::uint32_t> core{}; ///< None for the registry of allocations.
    int openError =
        0; ///< Of one of the launchers' own: the errno(3) of opening it as they do; 0 when that works.
    std::string problem{}; ///< Why it could not be read; a missing one has no records.
    std::vector<Record> records{};
    std::size_t strayLines{}; ///< Lines that no launcher takes for a record of a process.
    std::string lockId{};     ///< "major:minor:inode" as /proc/locks has it; empty for a missing one.
};

/// Reads "name:pid:starttime" as launchers do, see strtoll(3); nothing for a line that is no record.
std::optional<Record> ParseRecord(const std::string& line);

/// The registries of these cores and that of the allocations, which comes last: their paths, not read yet.
std::vector<Registry> ListRegistries(const CpuSet& cores);

/// Whether all that stands in the file, which is open for reading, are records, as far as a registry is read.
bool HoldsOnlyRecords(const OpenFile& file);

/// Reads these registries, of which the paths are given, without their locks: one that is just being
/// rewritten is read again, for a few milliseconds. Opens neither links nor anything but files, since anybody
/// may have put them there. Takes note, where it is told where, of failed reads other than those that are the
/// problem of a registry.
std::vector<Registry> ReadRegistries(std::vector<Registry> registries, FailedReads* failed = nullptr);
