// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/read/Services.hpp"

#include <cstddef>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// The reads of a look at the host that failed, while an empty text in their place would pass for the truth:
/// a list would be written over, and commands overlooked.
class FailedReads {
public:
    /// Those that failed alike.
    struct Kind {
        std::string first; ///< The path of the first one.
        std::size_t count{};
    };

    /// Takes note that the path could not be read for this errno(3); not when that is 0 or what was to be
    /// read has gone.
    void Note(const std::string& path, int error);

    const std::map<int, Kind>& ByError() const { return kinds; }
    /// The first one and why it failed; empty when none has.
    const std::string& First() const { return first; }

private:
    std::map<int, Kind> kinds;
    std::string first;
};

/// Whether the errno(3) tells of a file, a process or a cgroup that is not there, or not any more.
bool HasGone(int error);

/// The names of the subdirectories, as IFileSystem lists them, links to directories among them; takes note
/// when they cannot be listed.
std::vector<std::string> ListSubdirectories(const std::filesystem::path& path, FailedReads& failed);

/// The services of this host, which also take note of what they could not read.
Services MakeNotingServices(const std::shared_ptr<FailedReads>& failed);
