// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/ProcessTable.hpp"

#include "ctl/read/Fields.hpp"
#include "ctl/read/Find.hpp"
#include "exceptions/Exceptions.hpp"
#include "filesystem/Split.hpp"

#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

namespace {

constexpr const char* launcherName = "Cpuwarden";

// Fields of /proc/pid/stat, counted from 1 as in proc(5).
constexpr std::size_t stateField = 3;
constexpr std::size_t parentField = 4;
constexpr std::size_t flagsField = 9;
constexpr std::size_t userTimeField = 14;
constexpr std::size_t systemTimeField = 15;
constexpr std::size_t startTimeField = 22;

// Of the flags, which the kernel has kept as they are since before cgroups.
constexpr std::uint64_t forkedWithoutExec = 0x40;
constexpr std::uint64_t kernelThread = 0x200000;

constexpr std::size_t mostCores = 8192; // as many as a kernel for x86-64 can be built for

/// The fields of a stat file from the third on. The second, the name in parentheses, may hold blanks and
/// parentheses itself, but none of those after it does.
class StatFields {
public:
    explicit StatFields(std::string_view afterName) : fields(Words(afterName)) {}
    bool AreComplete() const { return fields.size() > startTimeField - stateField; }
    std::string_view Text(std::size_t field) const { return fields[field - stateField]; }
    std::uint64_t Number(std::size_t field) const {
        return ParseNumber<std::uint64_t>(Text(field)).value_or(0);
    }

private:
    std::vector<std::string_view> fields;
};

struct Stat {
    Process process;
    bool isKernelThread;
};

std::optional<Stat> ParseStat(int pid, const std::string& text) {
    const std::size_t opening = text.find('(');
    const std::size_t closing = text.rfind(") ");
    if (closing == std::string::npos || opening >= closing) {
        return std::nullopt;
    }
    const StatFields fields(std::string_view(text).substr(closing + 2));
    if (!fields.AreComplete()) {
        return std::nullopt;
    }
    Process process;
    process.pid = pid;
    process.parent = ParseNumber<int>(fields.Text(parentField)).value_or(0);
    process.commandName = text.substr(opening + 1, closing - opening - 1);
    process.hasEnded = fields.Text(stateField) == "Z" || fields.Text(stateField) == "X";
    process.hasExecuted = (fields.Number(flagsField) & forkedWithoutExec) == 0;
    process.startTime = fields.Number(startTimeField);
    process.cpuTime = fields.Number(userTimeField) + fields.Number(systemTimeField);
    return Stat{.process = std::move(process),
                .isKernelThread = (fields.Number(flagsField) & kernelThread) != 0};
}

/// Of the file itself, without leading the caller to what others may have put behind it.
std::optional<struct stat> LookAt(int folder, const std::string& path) {
    struct stat status = {};
    const bool isThere = ::fstatat(folder, path.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0;
    return isThere ? std::optional(status) : std::nullopt;
}

/// The directory of a process belongs to that user whatever the process does; the files in it do not when the
/// process may not be dumped, see proc(5). One that has gone is nobody's.
uid_t EffectiveUser(const OpenFile& folder, const std::string& pid) {
    constexpr auto nobody = static_cast<uid_t>(-1);
    const std::optional<struct stat> status = LookAt(folder.Descriptor(), pid);
    return status ? status->st_uid : nobody;
}

/// The names in a folder that are numbers.
std::vector<int> ListNumbers(const OpenFile& folder) {
    std::vector<int> numbers;
    const int fd = ::openat(folder.Descriptor(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(fd < 0 ? nullptr : ::fdopendir(fd), ::closedir);
    while (const dirent* entry = entries ? ::readdir(entries.get()) : nullptr) {
        if (const auto number = ParseNumber<int>(static_cast<const char*>(entry->d_name))) {
            numbers.push_back(*number);
        }
    }
    return numbers;
}

bool IsCalledAsLauncher(const Process& process) {
    if (!process.hasExecuted || process.hasEnded) {
        return false;
    }
    const std::string& name = process.executable ? *process.executable : process.commandName;
    const std::string basename = Basename(name);
    // One whose program was replaced by an upgrade runs on.
    return basename == launcherName || basename == std::string(launcherName) + deletedSuffix;
}

bool IsLauncher(const Process& process, uid_t launchers) {
    return IsCalledAsLauncher(process) && (process.user == 0 || process.user == launchers);
}

bool IsOlder(const Process& one, const Process& other) {
    return std::pair(one.startTime, one.pid) < std::pair(other.startTime, other.pid);
}

} // namespace

std::string Basename(const std::string& path) {
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0: all of a text without a slash
}

std::vector<Launch> FindLaunches(const Processes& processes, uid_t launchers) {
    std::unordered_map<int, const Process*> commands;
    for (const auto& [pid, process] : processes) {
        const Process* const parent = Find(processes, process.parent);
        if (process.hasEnded || parent == nullptr || !IsLauncher(*parent, launchers)) {
            continue;
        }
        const Process*& command = commands.emplace(process.parent, &process).first->second;
        command = IsOlder(process, *command) ? &process : command;
    }
    std::vector<Launch> launches;
    launches.reserve(commands.size());
    for (const auto& [launcher, command] : commands) {
        launches.push_back({.launcher = launcher, .child = command->pid});
    }
    std::ranges::sort(launches, [&processes](const Launch& one, const Launch& other) {
        return IsOlder(processes.at(one.launcher), processes.at(other.launcher));
    });
    return launches;
}

ProcessTable::ProcessTable(const std::string& root) : folder(OpenDirectory(root)) {
    if (!folder.IsOpen()) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(), "Failed to open: " + root};
    }
}

std::vector<int> ProcessTable::ListPids() const {
    return ListNumbers(folder);
}

Processes ProcessTable::ReadAll() const {
    const std::vector<int> pids = ListPids();
    Processes processes;
    processes.reserve(pids.size());
    for (const int pid : pids) {
        if (std::optional<Process> process = Read(pid)) {
            processes.emplace(pid, *std::move(process));
        }
    }
    return processes;
}

std::optional<Process> ProcessTable::Read(int pid) const {
    const std::string own = std::to_string(pid);
    const std::optional<std::string> text = ReadAtOnce(own + "/stat", folder.Descriptor());
    std::optional<Stat> stat = text ? ParseStat(pid, *text) : std::nullopt;
    if (!stat) {
        return std::nullopt;
    }
    if (!stat->isKernelThread && !stat->process.hasEnded) {
        stat->process.executable = ReadLink(own + "/exe", folder.Descriptor());
        if (!stat->process.executable && errno != EACCES && errno != EPERM) {
            stat->process.executable = "";
        }
        if (IsCalledAsLauncher(stat->process)) {
            stat->process.user = EffectiveUser(folder, own);
        }
    }
    return std::move(stat->process);
}

std::vector<std::string> ProcessTable::ReadCommandLine(int pid) const {
    return Split(ReadAtOnce(std::to_string(pid) + "/cmdline", folder.Descriptor()).value_or(""), '\0');
}

std::optional<std::vector<std::string>> ProcessTable::ReadOpenFiles(int pid) const {
    const OpenFile descriptors = OpenDirectory(std::to_string(pid) + "/fd", folder.Descriptor());
    if (!descriptors.IsOpen()) {
        return std::nullopt;
    }
    std::vector<std::string> files;
    for (const int number : ListNumbers(descriptors)) {
        if (std::optional<std::string> file = ReadLink(std::to_string(number), descriptors.Descriptor())) {
            files.push_back(*std::move(file));
        }
    }
    return files;
}

bool ProcessTable::HasOtherTmp(int pid) const {
    const auto own = LookAt(AT_FDCWD, "/tmp");
    const auto other = LookAt(folder.Descriptor(), std::to_string(pid) + "/root/tmp");
    return own && other && std::pair(own->st_dev, own->st_ino) != std::pair(other->st_dev, other->st_ino);
}

std::unordered_map<std::string, int> ProcessTable::ReadLockHolders() const {
    std::unordered_map<std::string, int> holders;
    // "1: FLOCK  ADVISORY  WRITE 812 fe:00:4711 0 EOF"; one that waits has "->" instead of the kind.
    constexpr std::size_t kindWord = 1;
    constexpr std::size_t pidWord = 4;
    constexpr std::size_t fileWord = 5;
    for (const std::string& line : Split(ReadKernelFile("locks", folder.Descriptor()).value_or(""), '\n')) {
        const std::vector<std::string_view> words = Words(line);
        if (words.size() > fileWord && words[kindWord] == "FLOCK") {
            holders.emplace(words[fileWord], ParseNumber<int>(words[pidWord]).value_or(0));
        }
    }
    return holders;
}

CpuSet ReadAffinity(int pid) {
    CpuSet cores;
    const std::unique_ptr<cpu_set_t, void (*)(cpu_set_t*)> set(
        CPU_ALLOC(mostCores), [](cpu_set_t* allocated) { CPU_FREE(allocated); });
    const std::size_t size = CPU_ALLOC_SIZE(mostCores);
    if (!set || ::sched_getaffinity(pid, size, set.get()) != 0) {
        return cores;
    }
    const auto count = static_cast<std::size_t>(CPU_COUNT_S(size, set.get()));
    for (std::uint32_t core = 0; cores.size() < count; ++core) {
        if (CPU_ISSET_S(core, size, set.get())) {
            cores.insert(cores.end(), core);
        }
    }
    return cores;
}
