// SPDX-License-Identifier: Apache-2.0
// Every failure of the launcher is one of the types below, and each type fixes how its text is composed.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Exceptions {

/// Bad content of a file or configuration value, or a core or cgroup that cannot be used.
class XRuntimeError : public std::runtime_error {
public:
    explicit XRuntimeError(const std::string& message) : std::runtime_error(message) {}
    ~XRuntimeError() override = default;
};

/// A deadline passed while waiting for a lock. Deliberately no XRuntimeError: whoever treats a failed step as
/// "skip this one" must not swallow the end of the run's time.
class XTimeoutError : public std::runtime_error {
public:
    explicit XTimeoutError(const std::string& message) : std::runtime_error(message) {}
    ~XTimeoutError() override = default;
};

/// A bad value of the argument `name`. Running out of memory while the text is built ends the process.
class XInvalidArgument : public std::invalid_argument {
public:
    XInvalidArgument(const std::string& name, const std::string& reason) noexcept
        : std::invalid_argument("Invalid argument: " + name + ". Reason: " + reason) {}
    ~XInvalidArgument() override = default;
};

/// A service missing among a constructor's arguments; `name` is the service's, such as "fileSystem".
class XNullArgument : public XInvalidArgument {
public:
    explicit XNullArgument(const std::string& name) noexcept : XInvalidArgument(name, "cannot be null") {}
    ~XNullArgument() override = default;
};

/// A failed system call or standard file-system operation; its text ends in the description of `code`.
class XSystemError : public std::system_error {
public:
    XSystemError(std::error_code code, const std::string& message) : std::system_error(code, message) {}
    ~XSystemError() override = default;
};

/// The calling thread's errno(3) as an error code. Throwers write `XSystemError{LastSystemError(), text}`
/// with braces: they evaluate from left to right, so building the text cannot change errno first.
inline std::error_code LastSystemError() noexcept {
    return {errno, std::system_category()};
}

/// Throws XNullArgument with `name` when a service handed to a constructor is missing.
template <typename Handle>
void RequireNotNull(const Handle& service, const char* name) {
    if (!service) {
        throw XNullArgument(name);
    }
}

/// Runs `steps` and returns their result. An XInvalidArgument or XRuntimeError of theirs becomes one
/// XRuntimeError that reads `failure`, ". Reason: " and the text caught; everything else passes through.
template <typename Steps>
auto WithReason(const std::string& failure, const Steps& steps) {
    try {
        return steps();
    } catch (const XInvalidArgument& reason) {
        throw XRuntimeError(failure + ". Reason: " + reason.what());
    } catch (const XRuntimeError& reason) {
        throw XRuntimeError(failure + ". Reason: " + reason.what());
    }
}

} // namespace Exceptions
