// SPDX-License-Identifier: Apache-2.0
#include "app/Cpuwarden.hpp"

#include "support/HostTest.hpp"

#include <csignal>
#include <new>
#include <thread>

namespace {

using std::chrono_literals::operator""s;

/// Takes a minute to tell a timeout: a deadline counts from when it has been told.
struct SlowConfiguration : Configuration {
    using Configuration::Configuration;
    std::chrono::seconds ProcessExecutionTimeout() const override { return Slowly(2s); }
    std::chrono::seconds ProcessShutdownTimeout() const override { return Slowly(1s); }
    static std::chrono::seconds Slowly(std::chrono::seconds answer) {
        std::this_thread::sleep_for(60s);
        return answer;
    }
};

const std::string forks = "sleep 60000 ms|fork|";
const std::string waits = forks + "info: /no/w with PID: 42 requesting execution|";
const std::string notFound = "exec /no/w -x|err: execvp failed: No such file or directory|exit 1";

struct CpuwardenTest : HostTest {
    /// The steps of one side of a run, and its exit status.
    std::string RunOf(Lines words, const std::string& setting = "Cpuwarden_CoreDistribution=w:0") const {
        const auto configuration = Configured<SlowConfiguration>({setting});
        Cpuwarden application(configuration, Cores(configuration), fileSystem, logger, processes);
        std::vector<char*> argv;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        int status = 0;
        const std::string steps =
            Outcome([&] { status = application.RunApplication(static_cast<int>(argv.size()), argv.data()); });
        return steps + "|exit " + std::to_string(status);
    }
    std::string Supervised(std::optional<int> ended) const {
        machine.ended = ended;
        return RunOf({"Cpuwarden", "/no/w"});
    }
    std::string Placed(const std::string& setting) const {
        machine.forked = 0;
        return RunOf({"Cpuwarden", "/no/w", "-x"}, setting);
    }
};

TEST_F(CpuwardenTest, EndsAsTheCommandDoesWhereThereIsOne) {
    EXPECT_EQ(RunOf({}), "err: Usage:  <command> [args...]|exit 1");
    EXPECT_EQ(RunOf({"name"}), "err: Usage: name <command> [args...]|exit 1");
    EXPECT_EQ(RunOf({"name", "/not/valid"}), "err: Executable is not a valid file: /not/valid|exit 1");
    EXPECT_EQ(Supervised(3 << 8), waits + "info: /no/w with PID: 42, exited. Exit code: 3|exit 3");
}

TEST_F(CpuwardenTest, StopsTheCommandAtTheDeadline) {
    const std::string stops = waits + "sleep 1000 ms|sleep 1000 ms|"
                                      "err: PID: 42 exceeded timeout, requesting a graceful shutdown...|"
                                      "sleep 60000 ms|kill 42 15|";
    const std::string kills =
        stops + "sleep 1000 ms|warning: PID: 42 did not exit gracefully, sending SIGKILL...|kill 42 9|";
    EXPECT_EQ(Supervised({}), kills + "exit 124");
    machine.errors["kill"] = {0, 0, EPERM};
    EXPECT_EQ(Supervised({}), kills + "err: Failed to kill PID: 42|exit 1");
    machine.hooks["kill 42 15"] = [] { machine.ended = SIGTERM; };
    EXPECT_EQ(Supervised({}), stops + "exit 124");
}

TEST_F(CpuwardenTest, PlacesItselfOnACoreAndExecutes) {
    const std::string places =
        "prctl 1 15|append cwset/cgroup.procs 42|lock core 0 within 2000|write core 0 |"
        "append core 0 w:42:777|unlock core 0|close core 0|"
        "info: Executing: /no/w, PID: 42. Selected core: 0|"
        "info: PID: 42 running on core: 0|pin core 0|";
    EXPECT_EQ(Placed("Cpuwarden_CoreDistribution=w:0"), forks + places + notFound);
    StartProcess(7, "/no/w", "5");
    machine.files["/tmp/core_pids_0.lock"] = {"w:7:5"};
    EXPECT_THAT(Placed("Cpuwarden_CoreDistribution=w:0"),
                EndsWith("|err: Unable to select a core for the child process with PID: 42|exit 1"));
}

TEST_F(CpuwardenTest, PlacesItselfInAQuotaCgroupAloneAndExecutes) {
    const std::string places = "prctl 1 15|lock allocations within 2000|mkdir cwset/42-777|"
                               "write cwset/42-777/cpuset.mems 0|write cwset/42-777/cpuset.cpus 0-2|"
                               "write cwset/42-777/cpu.max 50000 100000|write cwset/42-777/cgroup.procs 42|"
                               "write allocations w:42:777|"
                               "info: PID: 42 assigned to quota cgroup: 42-777 with quota: 50%|"
                               "unlock allocations|close allocations|"
                               "info: Executing: /no/w with PID: 42. Quota: 50%|";
    EXPECT_EQ(Placed("Cpuwarden_ManagedProcessCpuQuotaPercentage=50"), forks + places + notFound);
}

TEST_F(CpuwardenTest, LogsAnyFailureAndEndsWith1) {
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
        machine.hooks = {{"info: /no/w with PID: 42, exited", failure}, {"lock", failure}};
        EXPECT_THAT(Supervised(0), EndsWith("|err: " + text + "|exit 1"));
        EXPECT_THAT(Placed("Cpuwarden_ShareCore=true"), EndsWith("|close core 0|err: " + text + "|exit 1"));
        machine.forked = 42;
    }
    machine.errors["prctl"] = {EINVAL};
    EXPECT_EQ(Placed(""), forks + "prctl 1 15|err: prctl failed: Invalid argument|exit 1");
    machine.forked = -1;
    EXPECT_THAT(Supervised(0), StartsWith(forks + "err: fork failed: "));
}

} // namespace
