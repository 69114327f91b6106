// SPDX-License-Identifier: Apache-2.0
// Services over a host in memory.
#pragma once

#include "configuration/Configuration.hpp"
#include "exceptions/Exceptions.hpp"
#include "support/Host.hpp"
#include "system/ProcessManager.hpp"
#include "system/SystemResources.hpp"

#include <regex>
#include <set>

#include <gmock/gmock.h>

inline Interfaces::Deadline In(std::chrono::milliseconds time) {
    return Clock::now() + time;
}

template <typename Item>
std::string Joined(const std::vector<Item>& items) {
    std::ostringstream text;
    for (std::size_t i = 0; i < items.size(); ++i) {
        text << (i == 0 ? "" : "|") << items[i];
    }
    return text.str();
}

/// What `operation` throws, with the type where the text does not tell it.
template <typename Operation>
std::string Failure(const Operation& operation) {
    try {
        operation();
    } catch (const Exceptions::XTimeoutError& error) {
        return std::string("XTimeoutError: ") + error.what();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

/// A step for the transcript, which may fail; else `answer`.
template <typename Answer = bool>
Answer Take(const std::string& step, Answer answer = {}) {
    host.transcript.push_back(step);
    for (const auto& [beginning, failure] : host.failures) {
        if (step.starts_with(beginning)) {
            failure();
        }
    }
    return answer;
}

struct FakeLogger : Interfaces::ILogger {
    void Info(const std::string& message) const override { Take("info: " + message); }
    void Warning(const std::string& message) const override { Take("warning: " + message); }
    void Error(const std::string& message) const override { Take("err: " + message); }
};

/// Files by path. Locks and changes are steps, told with short names of registries and cgroups.
struct MemoryFileSystem : Interfaces::IFileSystem {
    using Path = const std::filesystem::path&;

    bool FileExists(Path path) const override { return files.contains(path.string()); }
    bool ValidateExecutable(Path path) const override { return path != "/not/valid"; }
    bool CreateDirectories(Path path) const override {
        return Change("mkdir", path) && directories.insert(path).second;
    }
    bool TryRemoveEmptyDirectory(Path path) const override {
        return Change("rmdir", path) && directories.erase(path) == 1;
    }
    Lines ListSubdirectories(Path path) const override {
        Lines names;
        for (Path directory : directories) {
            if (directory.parent_path() == path) {
                names.push_back(directory.filename().string());
            }
        }
        return names;
    }
    int FileOpen(Path path) const override {
        files.try_emplace(path.string());
        opened.push_back(path);
        return static_cast<int>(opened.size()) - 1;
    }
    void FileClose(int fd) const override { Change("close", PathOf(fd)); }
    void TryFileLockUntil(int fd, Interfaces::Deadline) const override { Change("lock", PathOf(fd)); }
    void FileUnlock(int fd) const override {
        Change("unlock", PathOf(fd));
        throw Exceptions::XRuntimeError("a failing unlock must go unnoticed");
    }
    Lines ReadLines(Path path) const override { return Existing(path); }
    Lines ReadLines(Path path, char) const override { return Existing(path); }
    void WriteLines(Path path, const Lines& lines) const override {
        Change("write", path, Joined(lines));
        files[path.string()] = lines;
    }
    void AppendLines(Path path, const Lines& lines) const override {
        Change("append", path, Joined(lines));
        Existing(path).insert(files[path.string()].end(), lines.begin(), lines.end());
    }
    std::filesystem::path ReadSymlink(Path path) const override { return Existing(path).at(0); }

    template <typename... Words>
    static bool Change(const std::string& verb, Path path, const Words&... words) {
        std::string name = std::regex_replace(path.string(), std::regex("^/sys/fs/cgroup/"), "");
        name = std::regex_replace(name, std::regex("^/tmp/cw_(allocations)\\.lock$"), "$1");
        name = std::regex_replace(name, std::regex("^/tmp/(core)_pids_(\\d+)\\.lock$"), "$1 $2");
        return Take(Sentence(verb, name, words...), true);
    }
    Path PathOf(int fd) const { return opened.at(static_cast<std::size_t>(fd)); }
    Lines& Existing(Path path) const {
        if (!FileExists(path)) {
            throw Exceptions::XInvalidArgument(path.string(), "The file specified doesn't exist");
        }
        return files[path.string()];
    }

    mutable std::map<std::string, Lines> files;
    mutable std::set<std::filesystem::path> directories;
    mutable std::vector<std::filesystem::path> opened;
};

/// The real configuration of a file with these lines.
template <typename Kind = Configuration>
std::shared_ptr<Kind> Configured(const Lines& lines) {
    const auto fileSystem = std::make_shared<MemoryFileSystem>();
    fileSystem->files["/etc/brindlewax.d/agent.conf"] = lines;
    return std::make_shared<Kind>(fileSystem, std::make_shared<FakeLogger>());
}

/// Real cgroup layout and operations over the files in memory, with cores and processes of the test's choice.
struct FakeResources : SystemResources {
    using SystemResources::SystemResources;
    std::vector<std::uint32_t> GetAvailableCores() const override { return {0, 1, 2}; }
};
struct FakeProcesses : ProcessManager {
    using ProcessManager::ProcessManager;
    bool IsProcessAlive(int pid) const override {
        onProbe();
        return (pid > 0 || ProcessManager::IsProcessAlive(pid)) && running.contains(pid);
    }
    std::filesystem::path GetProcessExecutablePath(int pid) const override { return running.at(pid).first; }
    std::uint64_t GetProcessStartTime(int pid) const override { return running.at(pid).second; }
    int GetCurrentPid() const override { return 42; }

    std::map<int, std::pair<std::string, std::uint64_t>> running{{42, {"/usr/bin/Cpuwarden", 777}}};
    std::function<void()> onProbe = [] {};
};

/// A test on a host of its own.
struct HostTest : testing::Test {
    std::shared_ptr<MemoryFileSystem> fileSystem = std::make_shared<MemoryFileSystem>();

    HostTest() { host = {}; }
    /// What the operation does, and what it throws after that.
    static std::string Outcome(const std::function<void()>& operation) {
        host.transcript.clear();
        const std::string failure = Failure(operation);
        return Joined(host.transcript) + (failure.empty() ? "" : "!" + failure);
    }
};
