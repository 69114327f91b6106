// SPDX-License-Identifier: Apache-2.0
// What the launcher computes, over files and processes in memory, whose own part is in the figures too.
#include "configuration/Configuration.hpp"
#include "core/CoreManager.hpp"
#include "support/Fakes.hpp"

#include <benchmark/benchmark.h>

namespace {

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
    Lines transcript;
    const auto fileSystem = std::make_shared<MemoryFileSystem>(
        transcript, MemoryFileSystem::Files{{"/etc/brindlewax.d/agent.conf", ConfigurationText()}});
    const auto logger = std::make_shared<QuietLogger>();
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(Configuration(fileSystem, logger));
    }
}
BENCHMARK(ParseConfiguration)->Unit(benchmark::kMicrosecond);

void SelectCore(benchmark::State& state) {
    constexpr int firstPid = 1000;
    Lines transcript;
    const auto fileSystem = std::make_shared<MemoryFileSystem>(transcript);
    const auto resources = std::make_shared<FakeResources>(fileSystem);
    const auto processes = std::make_shared<FakeProcesses>(fileSystem, resources);
    const auto logger = std::make_shared<QuietLogger>();
    const auto configuration = Configured({"Cpuwarden_ShareCore=true"}, logger);
    std::map<std::string, Lines> registries;
    for (const std::uint32_t core : resources->available) {
        registries["/tmp/core_pids_" + std::to_string(core) + ".lock"];
    }
    auto registry = registries.begin();
    for (int pid = firstPid; pid < firstPid + static_cast<int>(state.range()); ++pid) {
        processes->running[pid] = {"/usr/bin/worker", 1};
        registry->second.push_back("worker:" + std::to_string(pid) + ":1");
        registry = std::next(registry) == registries.end() ? registries.begin() : std::next(registry);
    }
    const CoreManager manager(configuration, fileSystem, processes, resources, logger);
    for ([[maybe_unused]] auto iteration : state) {
        state.PauseTiming();
        fileSystem->files = registries;
        transcript.clear();
        fileSystem->opened.clear();
        state.ResumeTiming();
        benchmark::DoNotOptimize(manager.SelectCoreForProcess("/usr/bin/worker", In(std::chrono::hours(1))));
    }
}
BENCHMARK(SelectCore)->Arg(0)->Arg(4096)->Unit(benchmark::kMicrosecond);

} // namespace
