// SPDX-License-Identifier: Apache-2.0
#pragma once

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
    std::string path;
    std::optional<std::uint32_t> core{}; ///< None for the registry of allocations.
    std::string problem{};               ///< Why it could not be read; a missing one has no records.
    std::vector<Record> records{};
    std::size_t strayLines = 0; ///< Lines that no launcher takes for a record of a process.
    std::string file{};         ///< "major:minor:inode" as /proc/locks has it; empty for a missing one.
};

/// Reads "name:pid:starttime" as launchers do, see strtoll(3); nothing for a line that is no record. A name
/// longer than a file's can be is none either.
std::optional<Record> ParseRecord(const std::string& line);

/// Reads the registries of these cores and that of the allocations, which comes last, without their locks: a
/// registry that is just being rewritten is read again, for a few milliseconds. Opens neither links nor
/// anything but files, since anybody may have put them there.
std::vector<Registry> ReadRegistries(const std::vector<std::uint32_t>& cores);

/// The same for these registries, of which the paths and the cores are given.
std::vector<Registry> ReadRegistries(std::vector<Registry> registries);
