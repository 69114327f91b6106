// SPDX-License-Identifier: Apache-2.0
// What the launcher computes, over files and processes in memory, whose own part is in the figures too.
#include "configuration/Configuration.hpp"
#include "core/CoreManager.hpp"
#include "system/ProcessManager.hpp"
#include "system/SystemResources.hpp"

#include <map>

#include <benchmark/benchmark.h>

namespace {

using Lines = std::vector<std::string>;

constexpr const char* configurationFile = "/etc/brindlewax.d/agent.conf";
const std::vector<std::uint32_t> cores{0, 1, 2};

struct MemoryFileSystem : Interfaces::IFileSystem {
    using Path = const std::filesystem::path&;

    bool FileExists(Path path) const override { return files.contains(path.string()); }
    bool ValidateExecutable(Path) const override { return true; }
    bool CreateDirectories(Path) const override { return true; }
    bool TryRemoveEmptyDirectory(Path) const override { return true; }
    Lines ListSubdirectories(Path) const override { return {}; }
    int FileOpen(Path) const override { return 0; }
    void FileClose(int) const override {}
    void TryFileLockUntil(int, Interfaces::Deadline) const override {}
    void FileUnlock(int) const override {}
    Lines ReadLines(Path path) const override { return files.at(path.string()); }
    Lines ReadLines(Path path, char) const override { return ReadLines(path); }
    void WriteLines(Path path, const Lines& lines) const override { files[path.string()] = lines; }
    void AppendLines(Path path, const Lines& lines) const override {
        files[path.string()].insert(files[path.string()].end(), lines.begin(), lines.end());
    }
    std::filesystem::path ReadSymlink(Path) const override { return {}; }

    mutable std::map<std::string, Lines> files;
};

struct Machine : SystemResources {
    using SystemResources::SystemResources;
    std::vector<std::uint32_t> GetAvailableCores() const override { return cores; }
};

/// On which all recorded processes run the recorded program.
struct Workers : ProcessManager {
    using ProcessManager::ProcessManager;
    bool IsProcessAlive(int) const override { return true; }
    std::filesystem::path GetProcessExecutablePath(int) const override { return "/usr/bin/worker"; }
    std::uint64_t GetProcessStartTime(int) const override { return 1; }
};

struct QuietLogger : Interfaces::ILogger {
    void Info(const std::string&) const override {}
    void Warning(const std::string&) const override {}
    void Error(const std::string&) const override {}
};

constexpr int configurationLines = 1000;
constexpr int assignedPrograms = 100;

Lines ConfigurationText() {
    std::string distribution = "Cpuwarden_CoreDistribution=";
    std::string groups = "Cpuwarden_ApplicationGroups=";
    for (int program = 0; program < assignedPrograms; ++program) {
        const std::string id = std::to_string(program);
        distribution.append("program").append(id).append(":0,1,2;");
        groups.append("group").append(id).append(":first").append(id).append(",second").append(id).append(
            ";");
    }
    distribution.pop_back();
    groups.pop_back();
    Lines lines;
    for (int line = 0; line < configurationLines - 5; ++line) {
        lines.push_back(line % 5 == 0
                            ? "# A line of comment."
                            : "Agent_Setting" + std::to_string(line) + "=\"a value of some length\"");
    }
    lines.insert(lines.end(), {"Cpuwarden_ShareCore=true", "Cpuwarden_ProcessExecutionTimeoutInSeconds=60",
                               "Cpuwarden_ProcessShutdownTimeoutInSeconds=\"5\"", distribution, groups});
    return lines;
}

void ParseConfiguration(benchmark::State& state) {
    const auto fileSystem = std::make_shared<MemoryFileSystem>();
    fileSystem->files[configurationFile] = ConfigurationText();
    const auto logger = std::make_shared<QuietLogger>();
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(Configuration(fileSystem, logger));
    }
}
BENCHMARK(ParseConfiguration)->Unit(benchmark::kMicrosecond);

/// Records of that many workers, spread over the cores.
std::map<std::string, Lines> Registries(int workers) {
    constexpr int firstPid = 1000;
    std::map<std::string, Lines> registries;
    for (const std::uint32_t core : cores) {
        registries["/tmp/core_pids_" + std::to_string(core) + ".lock"];
    }
    auto registry = registries.begin();
    for (int pid = firstPid; pid < firstPid + workers; ++pid) {
        registry->second.push_back("worker:" + std::to_string(pid) + ":1");
        registry = std::next(registry) == registries.end() ? registries.begin() : std::next(registry);
    }
    return registries;
}

void SelectCore(benchmark::State& state) {
    const auto fileSystem = std::make_shared<MemoryFileSystem>();
    const auto resources = std::make_shared<Machine>(fileSystem);
    const auto processes = std::make_shared<Workers>(fileSystem, resources);
    const auto logger = std::make_shared<QuietLogger>();
    fileSystem->files[configurationFile] = {"Cpuwarden_ShareCore=true"};
    const auto configuration = std::make_shared<Configuration>(fileSystem, logger);
    const CoreManager manager(configuration, fileSystem, processes, resources, logger);
    const std::map<std::string, Lines> registries = Registries(static_cast<int>(state.range()));
    for ([[maybe_unused]] auto iteration : state) {
        state.PauseTiming();
        fileSystem->files = registries;
        state.ResumeTiming();
        benchmark::DoNotOptimize(manager.SelectCoreForProcess(
            "/usr/bin/worker", std::chrono::steady_clock::now() + std::chrono::hours(1)));
    }
}
BENCHMARK(SelectCore)->Arg(0)->Arg(4096)->Unit(benchmark::kMicrosecond);

} // namespace
