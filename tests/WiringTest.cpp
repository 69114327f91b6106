// SPDX-License-Identifier: Apache-2.0
#include "app/Cpuwarden.hpp"
#include "app/CpuwardenFactory.hpp"
#include "support/HostTest.hpp"

#include <syslog.h>

namespace {

using WiringTest = HostTest;

/// What a constructor misses that is given none of its services, then the first, the first two and so on.
template <typename Kind, typename... Services>
std::string Missing(const Services&... services) {
    const std::regex text("Invalid argument: (.*). Reason: cannot be null");
    Lines names;
    for (std::size_t given = 0; given < sizeof...(services); ++given) {
        std::size_t position = 0;
        const auto next = [&](const auto& service) {
            if constexpr (std::is_invocable_v<decltype(service)>) { // makes one, for its only owner
                return position++ < given ? service() : nullptr;
            } else {
                return position++ < given ? service : nullptr;
            }
        };
        const std::string failure = Failure([&] { Kind{next(services)...}; }); // braces keep the order
        names.push_back(std::regex_replace(failure, text, "$1"));
    }
    return Joined(names);
}

TEST_F(WiringTest, NamesTheFirstServiceThatIsMissing) {
    const auto settings = Configured({});
    EXPECT_EQ(Missing<SystemResources>(fileSystem), "fileSystem");
    EXPECT_EQ(Missing<Configuration>(fileSystem, logger), "fileSystem|logger");
    EXPECT_EQ(Missing<ProcessManager>(fileSystem, resources), "fileSystem|systemResources");
    EXPECT_EQ(Missing<CoreManager>(settings, fileSystem, processes, resources, logger),
              "configuration|fileSystem|processManager|systemResources|logger");
    EXPECT_EQ(Missing<Cpuwarden>(
                  settings, [&] { return Cores(settings); }, fileSystem, logger, processes),
              "configuration|coreManager|fileSystem|logger|processManager");
}

/// With the configuration of this host, whatever it says.
TEST_F(WiringTest, RunsWithTheServicesOfTheHostAndALogToTheLetter) {
    std::string name = "Cpuwarden", command = "/no/such/command %s";
    char* argv[] = {name.data(), command.data()};
    const std::string steps = Outcome([&] { CpuwardenFactory().Create()->RunApplication(2, argv); });
    EXPECT_THAT(steps, StartsWith(Sentence("openlog Cpuwarden", LOG_PID | LOG_CONS, LOG_USER) + "|"));
    EXPECT_THAT(steps, EndsWith("|err: Executable is not a valid file: " + command));
}

} // namespace
