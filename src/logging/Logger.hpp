// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/ILogger.hpp"

#include <string>

/// syslog(3) under one identity, with the facility user. The log is the process's only one, so there is at
/// most one Logger at a time. A forked child inherits it; its log messages carry its own pid.
class Logger : public Interfaces::ILogger {
public:
    /// Opens the log under `identity`, or under "Cpuwarden" when that is empty.
    explicit Logger(const std::string& identity);
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
    ~Logger() override;

    void Info(const std::string& message) const override;
    void Warning(const std::string& message) const override;
    void Error(const std::string& message) const override;

private:
    // openlog(3) keeps a pointer to these characters until the log is closed.
    const std::string ident;
};
