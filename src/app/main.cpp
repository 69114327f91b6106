// SPDX-License-Identifier: Apache-2.0
// Cpuwarden <command> [args...]: launches the command as a child, placed among the managed processes of the
// host, and ends with its exit status.
#include "app/CpuwardenFactory.hpp"
#include "app/Usage.hpp"
#include "logging/Logger.hpp"

#include <cstdio>
#include <exception>
#include <string>

namespace {

constexpr int failureStatus = 1;

int Fail(const std::string& text) {
    std::fputs((text + "\n").c_str(), stderr);
    return failureStatus;
}

/// Says why the services could not be built. Their logger has gone with them.
int FailToStart(const std::exception& error) {
    Logger("").Error(error.what());
    return Fail(std::string("Cpuwarden: ") + error.what());
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return Fail(UsageLine(argc, argv));
    }
    CpuwardenFactory factory;
    std::unique_ptr<Interfaces::ICpuwarden> application;
    try {
        application = factory.Create();
    } catch (const std::exception& error) {
        return FailToStart(error);
    }
    return application->RunApplication(argc, argv);
}
