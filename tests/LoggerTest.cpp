// SPDX-License-Identifier: Apache-2.0
#include "support/HostTest.hpp"

#include <syslog.h>

namespace {

TEST_F(HostTest, HasALogForRecordsToTheLetter) {
    const std::string opening = Sentence("openlog Cpuwarden", LOG_PID | LOG_CONS, LOG_USER);
    EXPECT_EQ(Outcome([] { Logger("").Info("100 %s"); }), opening + "|info: 100 %s");
}

} // namespace
