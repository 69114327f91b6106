// SPDX-License-Identifier: Apache-2.0
#include "app/Cpuwarden.hpp"

#include "support/Fakes.hpp"

#include <new>
#include <thread>

namespace {

using std::chrono_literals::operator""s;

/// What the run is told by the services it asks.
struct Answers {
    int forked = 42; // 0 in the child
    std::pair<bool, int> waited{true, 3};
    bool stopped = true, killed = true;
    int core = 0;
};

std::string Until(Interfaces::Deadline deadline) {
    return Sentence("for", (deadline - Clock::now()) / 1s, "s");
}

struct ScriptedProcesses : FakeProcesses {
    explicit ScriptedProcesses(const Answers& a, const std::shared_ptr<MemoryFileSystem>& files)
        : FakeProcesses(files, std::make_shared<SystemResources>(files)), answers(a) {}
    int Fork() const override { return Take("fork", answers.forked); }
    void PreventOrphanProcess() const override { Take("die with the parent"); }
    void MoveProcessToCgroup(int pid, const std::string& name) const override {
        Take(Sentence("move", pid, name));
    }
    void Execute(const std::string& command, const Lines& arguments) const override {
        Take(Sentence("execute", command, Joined(arguments)));
    }
    std::pair<bool, int> ProcessWait(int pid, Interfaces::Deadline deadline) const override {
        return Take(Sentence("wait", pid, Until(deadline)), answers.waited);
    }
    bool ProcessShutdown(int pid, Interfaces::Deadline deadline) const override {
        return Take(Sentence("stop", pid, Until(deadline)), answers.stopped);
    }
    bool ProcessKill(int pid) const override { return Take(Sentence("kill", pid), answers.killed); }
    const Answers& answers;
};

struct ScriptedCores : Interfaces::ICoreManager {
    explicit ScriptedCores(const Answers& a) : answers(a) {}
    int SelectCoreForProcess(const std::string& name, Interfaces::Deadline deadline) const override {
        return Take(Sentence("select", name, Until(deadline)), answers.core);
    }
    void AssignQuotaCgroupForProcess(const std::string& name, int pid, std::uint64_t startTime,
                                     const std::string& cgroup,
                                     Interfaces::Deadline deadline) const override {
        Take(Sentence("assign", name, pid, startTime, cgroup, Until(deadline)));
    }
    void SetAffinity(std::uint32_t core) const override { Take(Sentence("pin", core)); }
    const Answers& answers;
};

/// Takes a minute to tell a timeout: a deadline counts from when it has been told.
struct SlowConfiguration : Configuration {
    using Configuration::Configuration;
    std::chrono::seconds ProcessExecutionTimeout() const override { return Slowly(900s); }
    std::chrono::seconds ProcessShutdownTimeout() const override { return Slowly(5s); }
    static std::chrono::seconds Slowly(std::chrono::seconds answer) {
        std::this_thread::sleep_for(60s);
        return answer;
    }
};

const Lines command{"Cpuwarden", "/bin/w", "a", "b"};
const Lines quota{"Cpuwarden_ManagedProcessCpuQuotaPercentage=50"};
const std::string forks = "sleep 60000 ms|fork|";

struct CpuwardenTest : HostTest {
    /// What one side of a run does, and its exit status.
    std::string RunOf(Lines words, const Answers& answers = {}, const Lines& settings = {}) {
        Cpuwarden application(
            Configured<SlowConfiguration>(settings), std::make_unique<ScriptedCores>(answers), fileSystem,
            std::make_shared<FakeLogger>(), std::make_shared<ScriptedProcesses>(answers, fileSystem));
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        int status = 0;
        const std::string steps =
            Outcome([&] { status = application.RunApplication(static_cast<int>(argv.size()), argv.data()); });
        return steps + "|exit " + std::to_string(status);
    }
};

TEST_F(CpuwardenTest, StartsNothingThatIsNoCommand) {
    EXPECT_EQ(RunOf({}), "err: Usage:  <command> [args...]|exit 1");
    EXPECT_EQ(RunOf({"name"}), "err: Usage: name <command> [args...]|exit 1");
    EXPECT_EQ(RunOf({"name", "/not/valid"}), "err: Executable is not a valid file: /not/valid|exit 1");
}

TEST_F(CpuwardenTest, SupervisesTheCommandToItsEnd) {
    const std::string waits = forks + "info: /bin/w with PID: 42 requesting execution|wait 42 for 900 s|";
    const std::string stops = waits + "err: PID: 42 exceeded timeout, requesting a graceful shutdown...|"
                                      "sleep 60000 ms|stop 42 for 5 s|";
    const std::string kills = stops + "warning: PID: 42 did not exit gracefully, sending SIGKILL...|kill 42|";
    EXPECT_EQ(RunOf(command), waits + "info: /bin/w with PID: 42, exited. Exit code: 3|exit 3");
    EXPECT_EQ(RunOf(command, {.waited = {true, 137}}),
              waits + "info: /bin/w with PID: 42, exited. Exit code: 137|exit 137");
    EXPECT_EQ(RunOf(command, {.waited = {false, 0}}), stops + "exit 124");
    EXPECT_EQ(RunOf(command, {.waited = {false, 0}, .stopped = false}), kills + "exit 124");
    EXPECT_EQ(RunOf(command, {.waited = {false, 0}, .stopped = false, .killed = false}),
              kills + "err: Failed to kill PID: 42|exit 1");
}

TEST_F(CpuwardenTest, PlacesTheChildBeforeItExecutes) {
    const std::string moves = forks + "die with the parent|move 42 cwset|select /bin/w for 900 s|";
    EXPECT_EQ(RunOf(command, {.forked = 0}),
              moves + "info: Executing: /bin/w, PID: 42. Selected core: 0|info: PID: 42 running on core: 0|"
                      "pin 0|execute /bin/w a|b|exit 0");
    EXPECT_EQ(RunOf(command, {.forked = 0, .core = -1}),
              moves + "err: Unable to select a core for the child process with PID: 42|exit 1");
    EXPECT_EQ(RunOf(command, {.forked = 0}, quota),
              forks + "die with the parent|assign /bin/w 42 777 cwset for 900 s|"
                      "info: Executing: /bin/w with PID: 42. Quota: 50%|execute /bin/w a|b|exit 0");
}

TEST_F(CpuwardenTest, LogsWhicheverStepFailsAndEndsWith1) {
    const std::error_code error(EAGAIN, std::system_category());
    const std::map<std::string, std::function<void()>> failures{
        {"Invalid argument: pid. Reason: r", [] { throw Exceptions::XInvalidArgument("pid", "r"); }},
        {"Invalid argument: pid. Reason: cannot be null", [] { throw Exceptions::XNullArgument("pid"); }},
        {"text", [] { throw Exceptions::XRuntimeError("text"); }},
        {"text: " + error.message(), [error] { throw Exceptions::XSystemError(error, "text"); }},
        {"Unexpected error: late", [] { throw Exceptions::XTimeoutError("late"); }},
        {"Unexpected error: std::bad_alloc", [] { throw std::bad_alloc(); }},
    };
    for (const auto& [text, failure] : failures) {
        const auto isLast = testing::EndsWith("|err: " + text + "|exit 1");
        host.failures = {{"wait", failure}, {"select", failure}, {"assign", failure}};
        EXPECT_THAT(RunOf(command), isLast);
        EXPECT_THAT(RunOf(command, {.forked = 0}), isLast);
        EXPECT_THAT(RunOf(command, {.forked = 0}, quota), isLast);
        host.failures = {{"fork", failure}};
        EXPECT_EQ(RunOf(command), forks + "err: " + text + "|exit 1");
    }
}

} // namespace
