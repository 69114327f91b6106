// SPDX-License-Identifier: Apache-2.0
#include "app/Cpuwarden.hpp"
#include "app/CpuwardenFactory.hpp"
#include "support/HostTest.hpp"

#include <syslog.h>

namespace {

struct WiringTest : HostTest {
    /// What a constructor misses that is given none of its services, then the first, the first two and so on.
    static std::string Missing(const std::function<void(int)>& construct) {
        const std::regex text("Invalid argument: (.*). Reason: cannot be null");
        Lines names;
        while (true) {
            try {
                construct(static_cast<int>(names.size()));
                return Joined(names);
            } catch (const Exceptions::XNullArgument& error) {
                names.push_back(std::regex_replace(error.what(), text, "$1"));
            }
        }
    }
};

TEST_F(WiringTest, NamesTheFirstServiceThatIsMissing) {
    const auto settings = Configured({});
    EXPECT_EQ(Missing([&](int given) { SystemResources(given > 0 ? fileSystem : nullptr); }), "fileSystem");
    EXPECT_EQ(Missing([&](int given) {
                  Configuration(given > 0 ? fileSystem : nullptr, given > 1 ? logger : nullptr);
              }),
              "fileSystem|logger");
    EXPECT_EQ(Missing([&](int given) {
                  ProcessManager(given > 0 ? fileSystem : nullptr, given > 1 ? resources : nullptr);
              }),
              "fileSystem|systemResources");
    EXPECT_EQ(Missing([&](int given) {
                  CoreManager(given > 0 ? settings : nullptr, given > 1 ? fileSystem : nullptr,
                              given > 2 ? processes : nullptr, given > 3 ? resources : nullptr,
                              given > 4 ? logger : nullptr);
              }),
              "configuration|fileSystem|processManager|systemResources|logger");
    EXPECT_EQ(Missing([&](int given) {
                  Cpuwarden(given > 0 ? settings : nullptr, given > 1 ? Cores(settings) : nullptr,
                            given > 2 ? fileSystem : nullptr, given > 3 ? logger : nullptr,
                            given > 4 ? processes : nullptr);
              }),
              "configuration|coreManager|fileSystem|logger|processManager");
}

/// With the configuration of this host, whatever it says.
TEST_F(WiringTest, RunsWithTheServicesOfTheHostAndALogToTheLetter) {
    std::string name = "Cpuwarden", command = "/no/such/command %s";
    char* argv[] = {name.data(), command.data()};
    const std::string steps = Outcome([&] { CpuwardenFactory().Create()->RunApplication(2, argv); });
    EXPECT_THAT(steps,
                testing::StartsWith(Sentence("openlog Cpuwarden", LOG_PID | LOG_CONS, LOG_USER) + "|"));
    EXPECT_THAT(steps, testing::EndsWith("|err: Executable is not a valid file: " + command));
}

} // namespace
