// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Registries.hpp"

#include "ctl/read/Collections.hpp"
#include "ctl/read/Fields.hpp"
#include "ctl/read/Paths.hpp"
#include "filesystem/Split.hpp"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_map>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

// A launcher rewrites a registry within microseconds, in an exclusive wait every 50 ms.
constexpr int readings = 6;
constexpr std::chrono::milliseconds rereadPause{2};
constexpr std::chrono::milliseconds settledAge{100};
// Bytes; where a host is not prepared anybody may write more. Of the longest names it holds 7,000 records.
constexpr std::size_t registryLimit = 2UL << 20UL;

std::chrono::nanoseconds Time(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::chrono::nanoseconds Now() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return Time(now);
}

bool IsUnchanged(const struct stat& before, const struct stat& after) {
    return before.st_size == after.st_size && Time(before.st_mtim) == Time(after.st_mtim);
}

/// Whether nobody was in the middle of rewriting the file: a launcher's text ends with a newline, and an
/// empty file is the first half of a rewrite by a launcher of version 1.0, which truncated it first, unless
/// it has been empty for longer than that takes.
bool IsSettled(const std::string& text, const struct stat& before, const struct stat& after) {
    return IsUnchanged(before, after) && (text.ends_with('\n') || Now() - Time(after.st_mtim) > settledAge);
}

/// A launcher that was ended before it had cut the file leaves empty lines at its end.
void TakeRecords(const std::string& text, Registry& registry) {
    registry.records.clear();
    registry.strayLines = 0;
    const std::size_t end = text.find_last_not_of('\n') + 1; // npos + 1 is 0
    for (const std::string& line : Split(std::string_view(text).substr(0, end), '\n')) {
        if (std::optional<Record> record = ParseRecord(line)) {
            registry.records.push_back(*std::move(record));
        } else {
            ++registry.strayLines;
        }
    }
}

struct Device {
    unsigned major;
    unsigned minor;
};

std::optional<Device> ParseDevice(std::string_view text) {
    const std::vector<std::string> numbers = Split(text, ':');
    const auto major = ParseNumber<unsigned>(numbers.front());
    const auto minor = ParseNumber<unsigned>(numbers.back());
    return major && minor ? std::optional(Device{.major = *major, .minor = *minor}) : std::nullopt;
}

void Note(FailedReads* failed, const std::string& path, int error) {
    if (failed != nullptr) {
        failed->Note(path, error);
    }
}

/// The device of each mounted file system by the id of the mount, see /proc/pid/mountinfo in proc(5).
using MountedDevices = std::unordered_map<std::uint64_t, Device>;

MountedDevices ReadMountedDevices(FailedReads* failed) {
    constexpr const char* file = "/proc/self/mountinfo";
    MountedDevices devices;
    // "36 35 98:0 / /tmp rw ..."
    constexpr std::size_t mountWord = 0;
    constexpr std::size_t deviceWord = 2;
    const std::optional<std::string> text = ReadKernelFile(file);
    Note(failed, file, text ? 0 : errno);
    for (const std::string& line : Split(text.value_or(""), '\n')) {
        const std::vector<std::string_view> words = Words(line);
        if (words.size() <= deviceWord) {
            continue;
        }
        const auto mount = ParseNumber<std::uint64_t>(words[mountWord]);
        const std::optional<Device> device = ParseDevice(words[deviceWord]);
        if (mount && device) {
            devices.emplace(*mount, *device);
        }
    }
    return devices;
}

/// Where the lock of the file shows in /proc/locks: by the device of its file system, while that of stat(2)
/// is another one for each subvolume of btrfs.
std::string LockId(const std::string& path, const MountedDevices& devices, FailedReads* failed) {
    struct statx status = {};
    constexpr int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    if (::statx(AT_FDCWD, path.c_str(), flags, STATX_INO | STATX_MNT_ID, &status) != 0) {
        Note(failed, path, errno);
        return "";
    }
    const Device* const mounted = Find(devices, status.stx_mnt_id);
    const Device device =
        mounted != nullptr ? *mounted : Device{.major = status.stx_dev_major, .minor = status.stx_dev_minor};
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%02x:%02x:%ju", device.major, device.minor,
                  static_cast<std::uintmax_t>(status.stx_ino));
    return text.data();
}

/// Reads the registry once and says whether that will do.
bool ReadOnce(Registry& registry) {
    const auto [file, refusal] = OpenPlainFile(registry.file.path);
    registry.problem = refusal;
    if (!file.IsOpen()) {
        return true;
    }
    struct stat before = {};
    ::fstat(file.Descriptor(), &before);
    std::string text = file.ReadAll(registryLimit);
    const int error = errno;
    if (error != 0) {
        registry.problem = std::generic_category().message(error);
    } else if (text.size() >= registryLimit) {
        registry.problem = "is too long, only its beginning was read";
    }
    if (!registry.problem.empty()) {
        text.erase(text.rfind('\n') + 1); // npos + 1 is 0: no line is whole
    }
    struct stat after = {};
    ::fstat(file.Descriptor(), &after);
    TakeRecords(text, registry);
    return error == 0 && IsSettled(text, before, after);
}

} // namespace

std::optional<Record> ParseRecord(const std::string& line) {
    const std::size_t pidColon = line.find(':');
    const std::size_t startTimeColon =
        pidColon == std::string::npos ? pidColon : line.find(':', pidColon + 1);
    if (startTimeColon == std::string::npos) {
        return std::nullopt;
    }
    const char* const pidField = line.c_str() + pidColon + 1;
    const char* const startTimeField = line.c_str() + startTimeColon + 1;
    char* pidEnd = nullptr;
    char* startTimeEnd = nullptr;
    errno = 0;
    // Not with std::stoll, whose exceptions take seconds when all of a long file is garbage.
    const long long pid = std::strtoll(pidField, &pidEnd, 10);
    const unsigned long long startTime = std::strtoull(startTimeField, &startTimeEnd, 10);
    if (errno != 0 || pidEnd == pidField || startTimeEnd == startTimeField) {
        return std::nullopt;
    }
    return Record{.name = line.substr(0, pidColon), .pid = static_cast<int>(pid), .startTime = startTime};
}

std::vector<Registry> ListRegistries(const CpuSet& cores) {
    std::vector<Registry> registries;
    for (const std::uint32_t core : cores) {
        registries.push_back({.file = {.path = Paths::CoreRegistry(core)}, .core = core});
    }
    registries.push_back({.file = {.path = Paths::allocationRegistry}});
    return registries;
}

bool HoldsOnlyRecords(const OpenFile& file) {
    const std::string text = file.ReadAll(registryLimit);
    Registry registry;
    TakeRecords(text, registry);
    return errno == 0 && text.size() < registryLimit && registry.strayLines == 0;
}

std::vector<Registry> ReadRegistries(std::vector<Registry> registries, FailedReads* failed) {
    const MountedDevices devices = ReadMountedDevices(failed);
    std::vector<Registry*> unsettled;
    for (Registry& registry : registries) {
        registry.file = Inspect(registry.file.path);
        registry.lockId = LockId(registry.file.path, devices, failed);
        unsettled.push_back(&registry);
    }
    for (int reading = 0; reading < readings && !unsettled.empty(); ++reading) {
        if (reading > 0) {
            std::this_thread::sleep_for(rereadPause);
        }
        std::erase_if(unsettled, [](Registry* registry) { return ReadOnce(*registry); });
    }
    return registries;
}
