// SPDX-License-Identifier: Apache-2.0
#include "app/Cpuwarden.hpp"
#include "support/HostTest.hpp"

#include <syslog.h>

namespace {

struct WiringTest : HostTest {};

TEST_F(WiringTest, NamesTheFirstServiceThatIsMissing) {
    const auto settings = Configured({});
    const auto misses = [](const std::string& name, const auto& construct) {
        EXPECT_EQ(Failure(construct), "Invalid argument: " + name + ". Reason: cannot be null");
    };
    misses("fileSystem", [] { SystemResources(nullptr); });
    misses("fileSystem", [] { Configuration(nullptr, nullptr); });
    misses("logger", [&] { Configuration(fileSystem, nullptr); });
    misses("fileSystem", [] { ProcessManager(nullptr, nullptr); });
    misses("systemResources", [&] { ProcessManager(fileSystem, nullptr); });
    misses("configuration", [] { CoreManager(nullptr, nullptr, nullptr, nullptr, nullptr); });
    misses("fileSystem", [&] { CoreManager(settings, nullptr, nullptr, nullptr, nullptr); });
    misses("processManager", [&] { CoreManager(settings, fileSystem, nullptr, nullptr, nullptr); });
    misses("systemResources", [&] { CoreManager(settings, fileSystem, processes, nullptr, nullptr); });
    misses("logger", [&] { CoreManager(settings, fileSystem, processes, resources, nullptr); });
    misses("configuration", [] { Cpuwarden(nullptr, nullptr, nullptr, nullptr, nullptr); });
    misses("coreManager", [&] { Cpuwarden(settings, nullptr, nullptr, nullptr, nullptr); });
    misses("fileSystem", [&] { Cpuwarden(settings, Cores(settings), nullptr, nullptr, nullptr); });
    misses("logger", [&] { Cpuwarden(settings, Cores(settings), fileSystem, nullptr, nullptr); });
    misses("processManager", [&] { Cpuwarden(settings, Cores(settings), fileSystem, logger, nullptr); });
}

TEST_F(WiringTest, HasALogForRecordsToTheLetter) {
    const std::string opening = Sentence("openlog Cpuwarden", LOG_PID | LOG_CONS, LOG_USER);
    EXPECT_EQ(Outcome([] { Logger("").Info("100 %s"); }), opening + "|info: 100 %s");
}

} // namespace
