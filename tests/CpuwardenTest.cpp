// SPDX-License-Identifier: Apache-2.0
#include "app/Cpuwarden.hpp"

#include "support/Fakes.hpp"

namespace {

/// Answers as the case says, and writes down what it is asked.
struct Script {
    int forked = 42;
    std::pair<bool, int> waited{true, 3};
    bool stopped = true, killed = true;
    std::uint32_t quota = 0;
    int core = 1;
    std::function<void()> atFork = [] {};
    mutable Lines transcript = {};

    void Note(const std::string& what, std::int64_t pid, const std::string& more = "") const { transcript.push_back(what + std::to_string(pid) + more); }
    void Note(const std::string& what, int pid, Clock::time_point deadline) const {
        Note(what, pid, " for " + std::to_string(std::chrono::round<std::chrono::seconds>(deadline - Clock::now()).count()) + " s");
    }
};

struct ScriptedProcesses : FakeProcesses {
    ScriptedProcesses(const std::shared_ptr<MemoryFileSystem>& files, const Script& s)
        : FakeProcesses(files, std::make_shared<SystemResources>(files)), script(s) {}
    int Fork() const override { return script.atFork(), script.forked; }
    void PreventOrphanProcess() const override { script.transcript.emplace_back("bind to parent"); }
    void MoveProcessToCgroup(int pid, const std::string& name) const override { script.Note("move ", pid, " " + name); }
    void Execute(const std::string& command, const Lines& words) const override { script.transcript.push_back("execute " + command + " " + Joined(words)); }
    std::pair<bool, int> ProcessWait(int pid, Clock::time_point deadline) const override { return script.Note("wait ", pid, deadline), script.waited; }
    bool ProcessShutdown(int pid, Clock::time_point deadline) const override { return script.Note("stop ", pid, deadline), script.stopped; }
    bool ProcessKill(int pid) const override { return script.Note("kill ", pid), script.killed; }
    const Script& script;
};

struct ScriptedCores : Interfaces::ICoreManager {
    explicit ScriptedCores(const Script& s) : script(s) {}
    int SelectCoreForProcess(const std::string& name, Clock::time_point deadline) const override { return script.Note(name + " ", 0, deadline), script.core; }
    void AssignQuotaCgroupForProcess(const std::string& name, int pid, std::uint64_t start, const std::string& cgroup, Clock::time_point) const override {
        script.Note("assign " + name + " ", pid, " " + std::to_string(start) + " " + cgroup);
    }
    void SetAffinity(std::uint32_t core) const override { script.Note("pin to ", core); }
    const Script& script;
};

TEST(Cpuwarden, CarriesARunToItsExitStatus) {
    const std::string waits = "info: /bin/w with PID: 42 requesting execution|wait 42 for 60 s|";
    const std::string timesOut = waits + "err: PID: 42 exceeded timeout, requesting a graceful shutdown...|stop 42 for 5 s";
    const std::string kills = timesOut + "|warning: PID: 42 did not exit gracefully, sending SIGKILL...|kill 42";
    const auto failing = [](const auto& error) { return Script{.atFork = [error] { throw error; }}; };
    // clang-format off
    const struct { Lines words; Script script; int status; std::string transcript; } cases[] = {
        {{"Cpuwarden"}, {}, 1, "err: Usage: Cpuwarden <command> [args...]"},
        {{}, {}, 1, "err: Usage:  <command> [args...]"},
        {{"Cpuwarden", "/not/valid"}, {}, 1, "err: Executable is not a valid file: /not/valid"},
        {{"Cpuwarden", "/bin/w"}, {}, 3, waits + "info: /bin/w with PID: 42, exited. Exit code: 3"},
        {{"Cpuwarden", "/bin/w"}, {.waited = {false, 0}}, 124, timesOut},
        {{"Cpuwarden", "/bin/w"}, {.waited = {false, 0}, .stopped = false}, 124, kills},
        {{"Cpuwarden", "/bin/w"}, {.waited = {false, 0}, .stopped = false, .killed = false}, 1, kills + "|err: Failed to kill PID: 42"},
        {{"Cpuwarden", "/bin/w", "a", "b"}, {.forked = 0}, 0, "bind to parent|move 42 cwset|/bin/w 0 for 60 s|info: Executing: /bin/w, PID: 42. Selected core: 1|info: PID: 42 running on core: 1|pin to 1|execute /bin/w a|b"},
        {{"Cpuwarden", "/bin/w"}, {.forked = 0, .core = -1}, 1, "bind to parent|move 42 cwset|/bin/w 0 for 60 s|err: Unable to select a core for the child process with PID: 42"},
        {{"Cpuwarden", "w"}, {.forked = 0, .quota = 50}, 0, "bind to parent|assign w 42 777 cwset|info: Executing: w with PID: 42. Quota: 50%|execute w "},
        {{"Cpuwarden", "w"}, failing(Exceptions::XNullArgument("x")), 1, "err: Invalid argument: x. Reason: cannot be null"},
        {{"Cpuwarden", "w"}, failing(Exceptions::XRuntimeError("r")), 1, "err: r"},
        {{"Cpuwarden", "w"}, failing(Exceptions::XSystemError({EAGAIN, std::system_category()}, "fork failed")), 1, "err: fork failed: Resource temporarily unavailable"},
        {{"Cpuwarden", "w"}, failing(Exceptions::XTimeoutError("t")), 1, "err: Unexpected error: t"},
    };
    // clang-format on
    for (const auto& c : cases) {
        const auto files = std::make_shared<MemoryFileSystem>(c.script.transcript);
        const auto configuration = std::make_shared<FakeConfiguration>();
        configuration->quota = c.script.quota;
        Cpuwarden application(configuration, std::make_unique<ScriptedCores>(c.script), files, std::make_shared<FakeLogger>(c.script.transcript),
                              std::make_shared<ScriptedProcesses>(files, c.script));
        Lines words = c.words;
        std::vector<char*> argv;
        for (std::string& word : words) argv.push_back(word.data());
        EXPECT_EQ(application.RunApplication(static_cast<int>(argv.size()), argv.data()), c.status);
        EXPECT_EQ(Joined(c.script.transcript), c.transcript);
    }
}

} // namespace
