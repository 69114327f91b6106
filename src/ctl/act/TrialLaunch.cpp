// SPDX-License-Identifier: Apache-2.0
#include "ctl/act/TrialLaunch.hpp"

#include "ctl/decide/Trial.hpp"
#include "exceptions/Exceptions.hpp"

#include <algorithm>
#include <array>
#include <csignal>
#include <iterator>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds endPollPeriod{20};
constexpr std::chrono::seconds killPatience{2}; // a process in the midst of a device's work takes its time
constexpr int signalExitBase = 128;             // as a shell reports it
constexpr std::size_t mostText = 65536;         // bytes; a few hundred come
constexpr std::string_view endOfText = "\n\n";

struct Pipe {
    OpenFile readEnd;
    OpenFile writeEnd;
};

Pipe MakePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(), "cannot make a pipe"};
    }
    return {OpenFile(ends[0]), OpenFile(ends[1])};
}

/// In the child, where nothing can be reported but by a status.
[[noreturn]] void Execute(std::vector<std::string> words, const Pipe& input, const Pipe& output) {
    std::vector<char*> argv;
    std::ranges::transform(words, std::back_inserter(argv), [](std::string& word) { return word.data(); });
    argv.push_back(nullptr);
    ::setpgid(0, 0);
    if (::dup2(input.readEnd.Descriptor(), STDIN_FILENO) == STDIN_FILENO &&
        ::dup2(output.writeEnd.Descriptor(), STDOUT_FILENO) == STDOUT_FILENO) {
        ::execv(argv.front(), argv.data());
    }
    ::_exit(notExecutedStatus);
}

int ExitStatus(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : signalExitBase + WTERMSIG(status);
}

} // namespace

TrialLaunch::TrialLaunch(const std::vector<std::string>& words) {
    Pipe toCommand = MakePipe();
    Pipe fromCommand = MakePipe();
    const pid_t child = ::fork();
    if (child < 0) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(), "cannot start a process"};
    }
    if (child == 0) {
        Execute(words, toCommand, fromCommand);
    }
    ::setpgid(child, child); // in both, since either may come first
    launcher = child;
    input.emplace(std::move(toCommand.writeEnd));
    output.emplace(std::move(fromCommand.readEnd));
}

// Not the launcher alone: a child that hangs before it has asked the kernel for a signal would outlive it.
// The command leads no group of its own, since it is this program.
TrialLaunch::~TrialLaunch() {
    if (launcher) {
        ::kill(-*launcher, SIGKILL);
        AwaitEnd(killPatience);
    }
}

std::string TrialLaunch::AwaitText(std::chrono::milliseconds patience) const {
    const auto deadline = Clock::now() + patience;
    std::string text;
    std::array<char, 4096> buffer{};
    while (!text.ends_with(endOfText) && text.size() < mostText) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd readable{.fd = output->Descriptor(), .events = POLLIN, .revents = 0};
        if (left.count() <= 0 || ::poll(&readable, 1, static_cast<int>(left.count())) <= 0) {
            break;
        }
        const ssize_t count = ::read(output->Descriptor(), buffer.data(), buffer.size());
        if (count <= 0) {
            break;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
}

std::optional<int> TrialLaunch::AwaitEnd(std::chrono::milliseconds patience) {
    input.reset();
    for (const auto deadline = Clock::now() + patience; Clock::now() < deadline;
         std::this_thread::sleep_for(endPollPeriod)) {
        int status{};
        if (::waitpid(launcher.value(), &status, WNOHANG) == launcher) {
            launcher.reset();
            return ExitStatus(status);
        }
    }
    return std::nullopt;
}
