// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace Interfaces {

/// Log messages for the operator, one complete line each, see syslog(3). None of the operations throws; one
/// that cannot be delivered is lost to the caller.
class ILogger {
public:
    virtual ~ILogger() = default;

    /// Logs `message` at level info, to the letter: a percent sign has no meaning.
    virtual void Info(const std::string& message) const = 0;
    /// Logs `message` at level warning, to the letter.
    virtual void Warning(const std::string& message) const = 0;
    /// Logs `message` at level err, to the letter.
    virtual void Error(const std::string& message) const = 0;
};

} // namespace Interfaces
