// SPDX-License-Identifier: Apache-2.0
// A host in memory, whose time and processes are what a test makes of them. The program under test finds the
// system calls of SystemCalls.cpp before those of the C library.
#pragma once

#include <chrono>
#include <deque>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <sys/statvfs.h>

using Lines = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

/// The words with something between them.
template <typename... Words>
std::string Sentence(const Words&... words) {
    std::ostringstream text;
    ((text << words << ' '), ...);
    return text.str().substr(0, text.str().size() - 1);
}
template <typename Item>
std::string Joined(const std::vector<Item>& items, const char* separator = "|") {
    std::ostringstream text;
    for (const Item& item : items) {
        text << (text.str().empty() ? "" : separator) << item;
    }
    return text.str();
}

struct Host {
    /// The steps that something took on the host, in their order, and what else happens at those that begin
    /// so, or at reads, which are none: "open PATH", "openat PATH" and what fakes of services name.
    Lines transcript;
    std::map<std::string, std::function<void()>> hooks;
    /// The monotonic clock, which moves in sleeps alone; those take no time.
    Clock::duration now = std::chrono::hours(1);
    /// Happens at the end of each sleep.
    std::function<void()> onSleep = [] {};
    /// The errors of the next system calls by that name, or of opening a path for writing by "open PATH"; 0
    /// for one that succeeds. A sleep fails halfway.
    std::map<std::string, std::deque<int>> errors;
    /// How many bytes a read(2) or write(2) moves at most.
    std::size_t mostAtOnce = std::numeric_limits<std::size_t>::max();
    /// Files by path. The processes are those with a /proc/PID/stat.
    std::map<std::string, Lines> files;
    std::set<std::filesystem::path> directories;
    /// What fork(2) returns, and the status of the child once it has ended, see waitpid(2).
    int forked = 42;
    std::optional<int> ended;
    /// Where the files of the host are on the disk, for what does not read them from `files`; empty where its
    /// files are those of the machine.
    std::string folder;
    /// The cores of processes, see sched_getaffinity(2); the others have gone.
    std::map<int, std::set<std::size_t>> affinities;
    /// What statvfs(3) tells of file systems.
    struct statvfs fileSystem = {};

    /// Of copies: a hook may change the hooks, and take steps of its own.
    void Happens(std::string step) const {
        for (const auto& [beginning, hook] : std::map(hooks)) {
            if (step.starts_with(beginning)) {
                hook();
            }
        }
    }
    template <typename... Words>
    void Step(const Words&... words) {
        transcript.push_back(Sentence(words...));
        Happens(transcript.back());
    }
};
inline Host machine;
