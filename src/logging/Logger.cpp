// SPDX-License-Identifier: Apache-2.0
#include "logging/Logger.hpp"

#include <ctime>

#include <syslog.h>

namespace {

constexpr const char* defaultIdentity = "Cpuwarden";

} // namespace

Logger::Logger(const std::string& identity) : ident(identity.empty() ? defaultIdentity : identity) {
    // Records carry local time. Read here, before the fork, the time zone is read once for both processes,
    // and not while the child is being placed; see tzset(3).
    ::tzset();
    ::openlog(ident.c_str(), LOG_PID | LOG_CONS, LOG_USER);
}

Logger::~Logger() {
    ::closelog();
}

void Logger::Info(const std::string& message) const {
    ::syslog(LOG_INFO, "%s", message.c_str());
}

void Logger::Warning(const std::string& message) const {
    ::syslog(LOG_WARNING, "%s", message.c_str());
}

void Logger::Error(const std::string& message) const {
    ::syslog(LOG_ERR, "%s", message.c_str());
}
