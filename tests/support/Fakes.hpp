// SPDX-License-Identifier: Apache-2.0
// A host in memory. Everything that happens on it, in its order, is a line of the transcript.
#pragma once

#include "configuration/Configuration.hpp"
#include "exceptions/Exceptions.hpp"
#include "interfaces/IFileSystem.hpp"
#include "interfaces/ILogger.hpp"
#include "system/ProcessManager.hpp"
#include "system/SystemResources.hpp"

#include <functional>
#include <map>
#include <set>

#include <gmock/gmock.h>
#include <unistd.h>

using Lines = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

inline Clock::time_point In(std::chrono::milliseconds time) {
    return Clock::now() + time;
}

inline std::string Joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += (text.empty() ? "" : "|") + line;
    return text;
}

/// What `operation` throws, if it is an Error.
template <typename Error = std::exception, typename Operation>
std::string Failure(const Operation& operation) {
    try {
        operation();
    } catch (const Error& error) {
        return error.what();
    }
    return "";
}

struct FakeLogger : Interfaces::ILogger {
    explicit FakeLogger(Lines& records) : transcript(records) {}
    void Info(const std::string& message) const override { transcript.push_back("info: " + message); }
    void Warning(const std::string& message) const override { transcript.push_back("warning: " + message); }
    void Error(const std::string& message) const override { transcript.push_back("err: " + message); }
    Lines& transcript;
};

/// Files by path. Locks and changes go to the transcript.
struct MemoryFileSystem : Interfaces::IFileSystem {
    using Path = std::filesystem::path;
    using Files = std::map<std::string, Lines>;
    explicit MemoryFileSystem(Lines& events, Files content = {})
        : files(std::move(content)), transcript(events) {}

    bool FileExists(const Path& path) const override { return files.contains(path.string()); }
    bool ValidateExecutable(const Path& path) const override { return path != "/not/valid"; }
    bool CreateDirectories(const Path& path) const override {
        return Note("mkdir ", path), directories.insert(path.string()).second;
    }
    bool TryRemoveEmptyDirectory(const Path& path) const override {
        return Note("rmdir ", path), directories.erase(path.string()) == 1;
    }
    Lines ListSubdirectories(const Path& path) const override {
        Lines names;
        for (const Path directory : directories)
            if (directory.parent_path() == path)
                names.push_back(directory.filename().string());
        return names;
    }
    int FileOpen(const Path& path) const override {
        files.try_emplace(path.string());
        opened.push_back(path.filename().string());
        return static_cast<int>(opened.size()) - 1;
    }
    void FileClose(int fd) const override { Note("close ", opened.at(static_cast<std::size_t>(fd))); }
    void TryFileLockUntil(int fd, Clock::time_point) const override {
        if (opened.at(static_cast<std::size_t>(fd)) == unlockable)
            throw Exceptions::XTimeoutError("no lock");
        Note("lock ", opened.back());
    }
    void FileUnlock(int fd) const override {
        Note("unlock ", opened.at(static_cast<std::size_t>(fd)));
        throw Exceptions::XRuntimeError("a failing unlock must go unnoticed");
    }
    Lines ReadLines(const Path& path) const override { return Existing(path); }
    Lines ReadLines(const Path& path, char) const override { return Existing(path); }
    void WriteLines(const Path& path, const Lines& lines) const override {
        Note("write ", path, " " + Joined(lines));
        files[path.string()] = lines;
    }
    void AppendLines(const Path& path, const Lines& lines) const override {
        Note("append ", path, " " + Joined(lines));
        Existing(path).insert(files[path.string()].end(), lines.begin(), lines.end());
    }
    Path ReadSymlink(const Path& path) const override { return Existing(path).at(0); }

    void Note(const std::string& what, const Path& path, const std::string& more = "") const {
        transcript.push_back(what + path.string() + more);
    }
    Lines& Existing(const Path& path) const {
        if (!FileExists(path))
            throw Exceptions::XInvalidArgument(path.string(), "The file specified doesn't exist");
        return files[path.string()];
    }

    mutable Files files;
    mutable std::set<std::string> directories;
    std::string unlockable;
    Lines& transcript;
    mutable Lines opened;
};

/// The real configuration of a file with these lines.
inline std::shared_ptr<Configuration> Configured(Lines lines,
                                                 const std::shared_ptr<Interfaces::ILogger>& logger) {
    static Lines unused;
    return std::make_shared<Configuration>(
        std::make_shared<MemoryFileSystem>(
            unused, MemoryFileSystem::Files{{"/etc/brindlewax.d/agent.conf", std::move(lines)}}),
        logger);
}

/// Real cgroup layout and operations over the files in memory, with cores and processes of the test's choice.
struct FakeResources : SystemResources {
    using SystemResources::SystemResources;
    std::vector<std::uint32_t> GetAvailableCores() const override { return available; }
    std::vector<std::uint32_t> available{0, 1, 2};
};
struct FakeProcesses : ProcessManager {
    using ProcessManager::ProcessManager;
    bool IsProcessAlive(int pid) const override {
        onProbe();
        return ProcessManager::IsProcessAlive(pid > 0 ? ::getpid() : pid) && running.contains(pid);
    }
    std::filesystem::path GetProcessExecutablePath(int pid) const override { return running.at(pid).first; }
    std::uint64_t GetProcessStartTime(int pid) const override { return running.at(pid).second; }
    int GetCurrentPid() const override { return 42; }

    std::map<int, std::pair<std::string, std::uint64_t>> running{{42, {"/usr/bin/Cpuwarden", 777}}};
    std::function<void()> onProbe = [] {};
};
