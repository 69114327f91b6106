// SPDX-License-Identifier: Apache-2.0
#include "app/Cpuwarden.hpp"

#include "core/CoreManager.hpp"
#include "support/Fakes.hpp"

namespace {

/// Answers as the case says, and writes down what it is asked. The child's side is shown by real runs.
struct Script {
    std::pair<bool, int> waited{true, 3};
    bool stopped = true, killed = true;
    std::function<void()> atFork = [] {};
};

struct ScriptedProcesses : FakeProcesses {
    ScriptedProcesses(const std::shared_ptr<MemoryFileSystem>& files, const Script& s)
        : FakeProcesses(files, std::make_shared<SystemResources>(files)), script(s), transcript(files->transcript) {}
    int Fork() const override { return script.atFork(), 42; }
    std::pair<bool, int> ProcessWait(int, Clock::time_point deadline) const override { return Note("wait", deadline), script.waited; }
    bool ProcessShutdown(int, Clock::time_point deadline) const override { return Note("stop", deadline), script.stopped; }
    bool ProcessKill(int pid) const override { return transcript.push_back("kill " + std::to_string(pid)), script.killed; }
    void Note(const std::string& what, Clock::time_point deadline) const {
        transcript.push_back(what + " for " + std::to_string(std::chrono::round<std::chrono::seconds>(deadline - Clock::now()).count()) + " s");
    }
    const Script& script;
    Lines& transcript;
};

TEST(Cpuwarden, CarriesARunToItsExitStatus) {
    const std::string waits = "info: /bin/w with PID: 42 requesting execution|wait for 900 s|";
    const std::string timesOut = waits + "err: PID: 42 exceeded timeout, requesting a graceful shutdown...|stop for 5 s";
    const std::string kills = timesOut + "|warning: PID: 42 did not exit gracefully, sending SIGKILL...|kill 42";
    const auto failing = [](const auto& error) { return Script{.atFork = [error] { throw error; }}; };
    // clang-format off
    const struct { Lines words; Script script; int status; std::string transcript; } cases[] = {
        {{}, {}, 1, "err: Usage:  <command> [args...]"},
        {{"Cpuwarden", "/not/valid"}, {}, 1, "err: Executable is not a valid file: /not/valid"},
        {{"Cpuwarden", "/bin/w"}, {}, 3, waits + "info: /bin/w with PID: 42, exited. Exit code: 3"},
        {{"Cpuwarden", "/bin/w"}, {.waited = {false, 0}}, 124, timesOut},
        {{"Cpuwarden", "/bin/w"}, {.waited = {false, 0}, .stopped = false}, 124, kills},
        {{"Cpuwarden", "/bin/w"}, {.waited = {false, 0}, .stopped = false, .killed = false}, 1, kills + "|err: Failed to kill PID: 42"},
        {{"Cpuwarden", "w"}, failing(Exceptions::XNullArgument("x")), 1, "err: Invalid argument: x. Reason: cannot be null"},
        {{"Cpuwarden", "w"}, failing(Exceptions::XRuntimeError("r")), 1, "err: r"},
        {{"Cpuwarden", "w"}, failing(Exceptions::XSystemError({EAGAIN, std::system_category()}, "fork failed")), 1, "err: fork failed: Resource temporarily unavailable"},
        {{"Cpuwarden", "w"}, failing(Exceptions::XTimeoutError("t")), 1, "err: Unexpected error: t"},
    };
    // clang-format on
    for (const auto& c : cases) {
        Lines transcript;
        const auto files = std::make_shared<MemoryFileSystem>(transcript);
        const auto logger = std::make_shared<FakeLogger>(transcript);
        const auto configuration = Configured({}, logger);
        const auto processes = std::make_shared<ScriptedProcesses>(files, c.script);
        auto cores = std::make_unique<CoreManager>(configuration, files, processes, std::make_shared<FakeResources>(files), logger);
        Cpuwarden application(configuration, std::move(cores), files, logger, processes);
        Lines words = c.words;
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        EXPECT_EQ(application.RunApplication(static_cast<int>(argv.size()), argv.data()), c.status);
        EXPECT_EQ(Joined(transcript), c.transcript);
    }
}

} // namespace
