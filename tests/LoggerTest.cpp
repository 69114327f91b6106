// SPDX-License-Identifier: Apache-2.0
#include "logging/Logger.hpp"

#include "support/Fakes.hpp"

namespace {

struct LoggerTest : HostTest {};

TEST_F(LoggerTest, SendsRecordsToTheLetterUnderOneIdentity) {
    const std::string records = Outcome([] {
        const Logger logger("");
        logger.Info("100 %s");
        logger.Warning("w");
        logger.Error("");
    });
    // LOG_PID | LOG_CONS, LOG_USER, and the levels info, warning and err
    EXPECT_EQ(records, "openlog Cpuwarden 3 8|syslog 6 %s 100 %s|syslog 4 %s w|syslog 3 %s |closelog");
}

} // namespace
