// SPDX-License-Identifier: Apache-2.0
// cpuwardenctl COMMAND: prepares a host for launchers, checks it, and shows who sits where.
//
// Exit statuses:
//     0   done; with check: nothing keeps launches from working
//     1   not done, for the reason on standard error; with check: something does
//     2   the call was wrong
//     3   with prepare: done, but for a registry that launchers cannot use
#include "ctl/commands/Command.hpp"
#include "ctl/tell/Text.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <vector>

namespace {

constexpr int failureStatus = 1;
constexpr int wrongCallStatus = 2;
constexpr std::size_t synopsisWidth = 22; // characters; as many as the longest has

constexpr std::array commands{&prepareCommand, &checkCommand, &statusCommand, &metricsCommand};

void Print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
}

int Fail(const std::string& reason, int status) {
    std::fputs(("cpuwardenctl: " + reason + "\n").c_str(), stderr);
    return status;
}

std::string Synopsis(const Command& command) {
    return std::string(command.name) + (command.option.empty() ? "" : " [" + std::string(command.option)) +
           (command.value.empty() ? "" : " " + std::string(command.value)) +
           (command.option.empty() ? "" : "]");
}

std::string Help() {
    std::string text = "Usage: cpuwardenctl COMMAND\n\n";
    for (const Command* const command : commands) {
        std::string synopsis = Synopsis(*command);
        synopsis.resize(std::max(synopsis.size(), synopsisWidth), ' ');
        text.append("  ").append(synopsis).append("  ").append(command->summary).append("\n");
    }
    return text + "\ncpuwardenctl(8) tells more.\n";
}

/// Says how to call instead.
int WrongCall(const std::string& reason) {
    std::string usage = "\nUsage: cpuwardenctl ";
    for (const Command* const command : commands) {
        usage += (command == commands.front() ? "" : " | ") + Synopsis(*command);
    }
    return Fail(reason + usage + " | --help | --version", wrongCallStatus);
}

int Run(const Command& command, std::span<const std::string> arguments) {
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (command.option.empty() || *argument != command.option) {
            return WrongCall(std::string(command.name) + " takes no '" + Printable(*argument) + "'.");
        }
        if (!command.value.empty() && ++argument == arguments.end()) {
            return WrongCall(std::string(command.option) + " needs a " + std::string(command.value) + ".");
        }
    }
    return command.run(arguments, MakeServices());
}

int Main(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        return WrongCall("no command was given.");
    }
    const std::string& word = arguments.front();
    if (arguments.size() == 1 && word == "--help") {
        Print(Help());
        return 0;
    }
    if (arguments.size() == 1 && word == "--version") {
        Print("cpuwardenctl " CPUWARDEN_VERSION "\n");
        return 0;
    }
    if (arguments.size() == 1 && word == placeCommand.name) {
        return placeCommand.run({}, MakeServices());
    }
    const auto* const found =
        std::ranges::find_if(commands, [&word](const Command* command) { return command->name == word; });
    return found == commands.end() ? WrongCall("there is no command '" + Printable(word) + "'.")
                                   : Run(**found, std::span(arguments).subspan(1));
}

/// What was printed has to arrive. A long text is written at once, after which fflush(3) has nothing left to
/// fail on, so ferror(3) is asked as well.
int Finish(int status) {
    const bool hasArrived = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    return hasArrived ? status : Fail("cannot write to standard output.", failureStatus);
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Finish(Main({argv + std::min(argc, 1), argv + argc}));
    } catch (const std::exception& error) {
        return Fail(Printable(error.what()), failureStatus);
    }
}
