// SPDX-License-Identifier: Apache-2.0
// What launchers and this tool have to agree about. The launcher keeps these to itself, since they never
// change.
#pragma once

#include <cstdint>
#include <string>

namespace Paths {

inline constexpr const char* configuration = "/etc/brindlewax.d/agent.conf";
inline constexpr const char* cgroupMount = "/sys/fs/cgroup";
inline constexpr const char* temporaryDirectory = "/tmp";
inline constexpr const char* managedCgroup = "cwset";
inline constexpr const char* allocationRegistry = "/tmp/cw_allocations.lock";

/// The registry of the commands on this core.
inline std::string CoreRegistry(std::uint32_t core) {
    return "/tmp/core_pids_" + std::to_string(core) + ".lock";
}

} // namespace Paths
