// SPDX-License-Identifier: Apache-2.0
// The names under which the operator sets things, as they also stand in log messages of other components.
#pragma once

namespace ConfigurationKeys {

inline constexpr const char* shareCore = "Cpuwarden_ShareCore";
inline constexpr const char* quotaPercentage = "Cpuwarden_ManagedProcessCpuQuotaPercentage";
inline constexpr const char* executionTimeout = "Cpuwarden_ProcessExecutionTimeoutInSeconds";
inline constexpr const char* shutdownTimeout = "Cpuwarden_ProcessShutdownTimeoutInSeconds";
inline constexpr const char* coreDistribution = "Cpuwarden_CoreDistribution";
inline constexpr const char* applicationGroups = "Cpuwarden_ApplicationGroups";

} // namespace ConfigurationKeys
