// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/ProcessTable.hpp"

#include "ctl/read/Fields.hpp"
#include "ctl/read/Paths.hpp"
#include "exceptions/Exceptions.hpp"
#include "filesystem/Split.hpp"

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>

namespace {

constexpr const char* procMount = "/proc";

// Bytes. Of a list that is read page by page the kernel counts anew up to where the last page ended, so that
// the time grows with the square of its length; any user can hold a million locks.
constexpr std::size_t locksLimit = 1UL << 20UL;

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
    const std::size_t closing = text.rfind(") ");
    const std::size_t opening = std::string_view(text).substr(0, closing).find('(');
    if (closing == std::string::npos || opening == std::string::npos) {
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

/// Of the file itself, without leading the caller to what others may have put behind it. Nothing, with errno
/// set, when it cannot be looked at.
std::optional<struct stat> LookAt(int folder, const std::string& path) {
    struct stat status = {};
    const bool isThere = ::fstatat(folder, path.c_str(), &status, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT) == 0;
    return isThere ? std::optional(status) : std::nullopt;
}

/// The names in a folder that are numbers, up to the first error, which errno then tells; it is 0 without
/// one.
std::vector<int> ListNumbers(const OpenFile& folder) {
    std::vector<int> numbers;
    OpenFile opened = OpenDirectory(".", folder.Descriptor());
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(
        opened.IsOpen() ? ::fdopendir(opened.Descriptor()) : nullptr, ::closedir);
    if (!entries) {
        return numbers;
    }
    opened.Release();
    errno = 0;
    while (const dirent* entry = ::readdir(entries.get())) {
        if (const auto number = ParseNumber<int>(static_cast<const char*>(entry->d_name))) {
            numbers.push_back(*number);
        }
    }
    return numbers;
}

} // namespace

std::string Basename(const std::string& path) {
    return path.substr(path.rfind('/') + 1); // npos + 1 is 0: all of a text without a slash
}

bool IsCalledAsLauncher(const Process& process) {
    const std::string& name = process.executable ? *process.executable : process.commandName;
    // One whose program was replaced by an upgrade runs on.
    return name == launcherName || name == std::string(launcherName) + deletedSuffix;
}

ProcessTable::ProcessTable(FailedReads* noted) : failed(noted), folder(OpenDirectory(procMount)) {
    if (!folder.IsOpen()) {
        throw Exceptions::XSystemError{Exceptions::LastSystemError(),
                                       std::string("Failed to open: ") + procMount};
    }
}

void ProcessTable::Note(const std::string& path, int error) const {
    if (failed != nullptr) {
        failed->Note(std::string(procMount) + "/" + path, error);
    }
}

std::vector<int> ProcessTable::ListPids() const {
    std::vector<int> pids = ListNumbers(folder);
    Note("", errno);
    return pids;
}

Processes ProcessTable::ReadAll() const {
    const std::vector<int> pids = ListPids();
    Processes processes;
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
    if (!text) {
        Note(own + "/stat", errno);
        return std::nullopt;
    }
    std::optional<Stat> stat = ParseStat(pid, *text);
    if (!stat) {
        return std::nullopt;
    }
    if (!stat->isKernelThread && !stat->process.hasEnded) {
        // Not the path, of which any user can make 4 KB for each of thousands of processes.
        const std::optional<std::string> path = ReadExecutablePath(own);
        stat->process.executable = path ? std::optional(Basename(*path)) : std::nullopt;
        if (IsCalledAsLauncher(stat->process)) {
            stat->process.user = ReadEffectiveUser(own);
        }
    }
    return std::move(stat->process);
}

std::optional<std::string> ProcessTable::ReadExecutablePath(const std::string& own) const {
    std::optional<std::string> path = ReadLink(own + "/exe", folder.Descriptor());
    const int error = path ? 0 : errno;
    // The last is of a path that is too long for readlink(2), as any user can make one.
    if (error == EACCES || error == EPERM || error == ENAMETOOLONG) {
        return std::nullopt; // told where it matters
    }
    Note(own + "/exe", error);
    return HasGone(error) ? "" : path;
}

/// The directory of a process belongs to that user whatever the process does; the files in it do not when the
/// process may not be dumped, see proc(5). One that has gone is nobody's.
uid_t ProcessTable::ReadEffectiveUser(const std::string& own) const {
    constexpr auto nobody = static_cast<uid_t>(-1);
    const std::optional<struct stat> status = LookAt(folder.Descriptor(), own);
    Note(own, status ? 0 : errno);
    return status ? status->st_uid : nobody;
}

std::string ProcessTable::ReadExecutable(int pid) const {
    return ReadExecutablePath(std::to_string(pid)).value_or("");
}

CommandLine ProcessTable::ReadCommandLine(int pid) const {
    const std::string path = std::to_string(pid) + "/cmdline";
    std::optional<std::string> text = ReadKernelFile(path, folder.Descriptor(), commandLineLimit + 1);
    Note(path, text ? 0 : errno);
    CommandLine line;
    if (text) {
        line.isCut = text->size() > commandLineLimit;
        line.words = Split(std::string_view(*text).substr(0, commandLineLimit), '\0');
    }
    return line;
}

std::optional<std::vector<std::string>> ProcessTable::ReadOpenFiles(int pid) const {
    const std::string path = std::to_string(pid) + "/fd";
    const OpenFile descriptors = OpenDirectory(path, folder.Descriptor());
    if (!descriptors.IsOpen()) {
        const int error = errno;
        Note(path, error == EACCES ? 0 : error); // told where it matters
        return std::nullopt;
    }
    std::vector<std::string> files;
    const std::vector<int> numbers = ListNumbers(descriptors);
    Note(path, errno);
    for (const int number : numbers) {
        std::optional<std::string> file = ReadLink(std::to_string(number), descriptors.Descriptor());
        Note(path, file ? 0 : errno);
        if (file) {
            files.push_back(*std::move(file));
        }
    }
    return files;
}

bool ProcessTable::HasOtherTmp(int pid) const {
    const std::string path = std::to_string(pid) + "/root" + Paths::temporaryDirectory;
    const auto own = LookAt(AT_FDCWD, Paths::temporaryDirectory);
    Note("self/root/tmp", own ? 0 : errno);
    const auto other = LookAt(folder.Descriptor(), path);
    Note(path, other ? 0 : errno);
    return own && other && std::pair(own->st_dev, own->st_ino) != std::pair(other->st_dev, other->st_ino);
}

CpuSet ProcessTable::ReadCores(int pid) const {
    errno = 0;
    CpuSet cores = ReadAffinity(pid);
    Note(std::to_string(pid) + " (its affinity)", cores.empty() ? errno : 0);
    return cores;
}

std::unordered_map<std::string, int> ProcessTable::ReadLockHolders() const {
    constexpr const char* file = "locks";
    std::string text = ReadKernelFile(file, folder.Descriptor(), locksLimit).value_or("");
    Note(file, errno);
    if (text.size() >= locksLimit) {
        Note(file, EFBIG);
        text.erase(text.rfind('\n') + 1); // npos + 1 is 0
    }
    std::unordered_map<std::string, int> holders;
    // "1: FLOCK  ADVISORY  WRITE 812 fe:00:4711 0 EOF"; one that waits has "->" instead of the kind.
    constexpr std::size_t kindWord = 1;
    constexpr std::size_t pidWord = 4;
    constexpr std::size_t fileWord = 5;
    for (const std::string& line : Split(text, '\n')) {
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
