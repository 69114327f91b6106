// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "configuration/Configuration.hpp"
#include "core/CoreManager.hpp"
#include "exceptions/Exceptions.hpp"
#include "logging/Logger.hpp"
#include "support/Host.hpp"
#include "system/ProcessManager.hpp"
#include "system/SystemResources.hpp"

#include <fstream>
#include <regex>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

using testing::EndsWith, testing::HasSubstr, testing::MatchesRegex, testing::Not, testing::StartsWith;

inline const std::string root = "/sys/fs/cgroup/";
inline const std::string cwset = root + "cwset";

/// The cases in a file of the folder cases/. Where keys are given, a case may have these, those of a host,
/// and "what" it is.
inline nlohmann::json ReadCases(const std::string& file, const std::set<std::string>& keys = {}) {
    const std::set<std::string> ofHosts{"what",      "configuration", "version", "cgroups",   "launches",
                                        "processes", "files",         "links",   "affinities"};
    std::ostringstream text;
    text << std::ifstream(CASES + file).rdbuf();
    nlohmann::json cases = nlohmann::json::parse(text.str());
    for (const auto& c : cases) {
        for (const auto& [key, value] : c.items()) {
            EXPECT_TRUE(keys.empty() || keys.contains(key) || ofHosts.contains(key)) << key << " in " << file;
        }
    }
    return cases;
}

inline Interfaces::Deadline In(std::chrono::milliseconds time) {
    return Clock::now() + time;
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

/// The files of the host. Locks and changes are steps, told with short names of registries and cgroups.
struct MemoryFileSystem : Interfaces::IFileSystem {
    using Path = const std::filesystem::path&;

    bool FileExists(Path path) const override { return machine.files.contains(path.string()); }
    bool ValidateExecutable(Path path) const override { return path != "/not/valid"; }
    bool CreateDirectories(Path path) const override {
        Change("mkdir", path);
        return machine.directories.insert(path).second;
    }
    bool TryRemoveEmptyDirectory(Path path) const override {
        Change("rmdir", path);
        return machine.directories.erase(path) == 1;
    }
    Lines ListSubdirectories(Path path) const override {
        Lines names;
        for (const std::filesystem::path& directory : machine.directories) {
            if (directory.parent_path() == path) {
                names.push_back(directory.filename().string());
            }
        }
        return names;
    }
    int FileOpen(Path path) const override {
        machine.files.try_emplace(path.string());
        opened.push_back(path.string());
        return static_cast<int>(opened.size()) - 1;
    }
    void FileClose(int fd) const override { Change("close", opened.at(static_cast<std::size_t>(fd))); }
    void TryFileLockUntil(int fd, Interfaces::Deadline deadline) const override {
        const auto time = std::chrono::round<std::chrono::milliseconds>(deadline - Clock::now());
        Change("lock", opened.at(static_cast<std::size_t>(fd)), "within", time.count());
    }
    void FileUnlock(int fd) const override {
        Change("unlock", opened.at(static_cast<std::size_t>(fd)));
        throw Exceptions::XRuntimeError("a failing unlock must go unnoticed");
    }
    Lines ReadLines(Path path) const override { return Existing(path); }
    Lines ReadLines(Path path, char) const override { return Existing(path); }
    void WriteLines(Path path, const Lines& lines) const override {
        Change("write", path, Joined(lines));
        machine.files[path.string()] = lines;
    }
    void AppendLines(Path path, const Lines& lines) const override {
        Change("append", path, Joined(lines));
        Existing(path).insert(machine.files[path.string()].end(), lines.begin(), lines.end());
    }
    std::filesystem::path ReadSymlink(Path path) const override { return Existing(path).at(0); }

private:
    template <typename... Words>
    static void Change(const std::string& verb, Path path, const Words&... words) {
        std::string name = std::regex_replace(path.string(), std::regex("^/sys/fs/cgroup/"), "");
        name = std::regex_replace(name, std::regex("^/tmp/cw_(allocations)\\.lock$"), "$1");
        name = std::regex_replace(name, std::regex("^/tmp/(core)_pids_(\\d+)\\.lock$"), "$1 $2");
        machine.Step(verb, name, words...);
    }
    static Lines& Existing(Path path) {
        machine.Happens("read " + path.string());
        if (!machine.files.contains(path.string())) {
            throw Exceptions::XInvalidArgument(path.string(), "The file specified doesn't exist");
        }
        return machine.files[path.string()];
    }

    mutable Lines opened;
};

/// A test on a host of its own with cgroup v2, and the real services over its files.
struct HostTest : testing::Test {
    const std::shared_ptr<MemoryFileSystem> fileSystem = std::make_shared<MemoryFileSystem>();
    const std::shared_ptr<Logger> logger = std::make_shared<Logger>("");
    const std::shared_ptr<SystemResources> resources = std::make_shared<SystemResources>(fileSystem);
    const std::shared_ptr<ProcessManager> processes = std::make_shared<ProcessManager>(fileSystem, resources);

    HostTest() {
        machine = {};
        machine.files = {{"/sys/fs/cgroup/cgroup.controllers", {}},
                         {"/sys/fs/cgroup/cwset/cgroup.procs", {}},
                         {"/sys/fs/cgroup/cwset/cpuset.cpus", {"0-2", "no list"}},
                         {"/sys/fs/cgroup/cwset/cpuset.mems", {"0", "no list"}}};
        StartProcess(42, "/opt/Cpuwarden", "777");
    }
    ~HostTest() override { machine = {}; }

    static void StartProcess(int pid, const std::string& executable, const std::string& startTime) {
        const std::string folder = "/proc/" + std::to_string(pid);
        machine.files[folder + "/exe"] = {executable};
        machine.files[folder + "/stat"] = Lines(21, "0");
        machine.files[folder + "/stat"].push_back(startTime);
    }
    template <typename Kind = Configuration>
    std::shared_ptr<Kind> Configured(const Lines& settings) const {
        machine.files["/etc/brindlewax.d/agent.conf"] = settings;
        return std::make_shared<Kind>(fileSystem, logger);
    }
    std::unique_ptr<CoreManager> Cores(const std::shared_ptr<Configuration>& configuration) const {
        return std::make_unique<CoreManager>(configuration, fileSystem, processes, resources, logger);
    }
    /// The steps of the operation, and what it throws after them.
    static std::string Outcome(const std::function<void()>& operation) {
        machine.transcript.clear();
        const std::string failure = Failure(operation);
        return Joined(machine.transcript) + (failure.empty() ? "" : "!" + failure);
    }
};
