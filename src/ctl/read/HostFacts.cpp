// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/HostFacts.hpp"

#include "ctl/read/Paths.hpp"
#include "ctl/read/Registries.hpp"
#include "filesystem/Split.hpp"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <iterator>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr const char* cpuDirectory = "/sys/devices/system/cpu/";
constexpr const char* nodesWithMemory = "/sys/devices/system/node/has_memory";
constexpr const char* defaultPath = "/bin:/usr/bin"; // as execvp(3) searches without PATH

using Lines = std::vector<std::string>;

/// The lines of a file that may be missing, or vanish meanwhile.
std::optional<Lines> ReadLines(const Services& services, const fs::path& path) {
    try {
        return services.fileSystem->ReadLines(path);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<std::string> ReadLine(const Services& services, const fs::path& path) {
    const std::optional<Lines> lines = ReadLines(services, path);
    if (!lines) {
        return std::nullopt;
    }
    return lines->empty() ? "" : lines->front();
}

/// Of files that bear one name with v2 and another with v1.
std::string ReadEither(const Services& services, const fs::path& one, const fs::path& other) {
    return ReadLine(services, one).value_or(ReadLine(services, other).value_or(""));
}

std::set<std::string> Words(const std::string& text, char delimiter = ' ') {
    const Lines words = Split(text, delimiter);
    return {words.begin(), words.end()};
}

CpuSet ReadCpus(const Services& services, const std::string& path) {
    return ParseCpuList(ReadLine(services, path).value_or(""));
}

int ParseNumber(const std::string& text) {
    int number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

// --- Mounts and controllers --------------------------------------------------------------------------------

std::vector<Mount> GatherMounts(const Services& services) {
    std::vector<Mount> mounts;
    for (const std::string& line : ReadLines(services, "/proc/self/mounts").value_or(Lines{})) {
        const Lines fields = Split(line, ' ');
        constexpr std::size_t fieldsNeeded = 4; // device, directory, type, options
        if (fields.size() >= fieldsNeeded) {
            Mount mount{.directory = fields[1], .words = Words(fields[3], ',')};
            mount.words.insert(fields[2]);
            mounts.push_back(std::move(mount));
        }
    }
    return mounts;
}

std::map<std::string, KernelController> GatherKernelControllers(const Services& services) {
    std::map<std::string, KernelController> controllers;
    for (const std::string& line : ReadLines(services, "/proc/cgroups").value_or(Lines{})) {
        const Lines fields = Split(line, '\t'); // name, hierarchy, cgroups, enabled
        constexpr std::size_t fieldCount = 4;
        if (fields.size() == fieldCount && !line.starts_with('#')) {
            controllers[fields[0]] = {.isTakenByV1 = fields[1] != "0", .isEnabled = fields[3] == "1"};
        }
    }
    return controllers;
}

// --- Cgroups -----------------------------------------------------------------------------------------------

ProcessFacts GatherProcess(const Services& services, const std::string& pid) {
    return {.pid = ParseNumber(pid),
            .name = ReadLine(services, "/proc/" + pid + "/comm").value_or(""),
            .cpus = {}};
}

/// A threaded cgroup does not tell its processes, but its threads, see "Thread mode" in cgroups(7).
std::vector<ProcessFacts> GatherProcesses(const Services& services, const CgroupFacts& cgroup) {
    const fs::path file =
        fs::path(cgroup.path) / (cgroup.type == "threaded" ? "cgroup.threads" : "cgroup.procs");
    std::vector<ProcessFacts> processes;
    for (const std::string& pid : ReadLines(services, file).value_or(Lines{})) {
        processes.push_back(GatherProcess(services, pid));
    }
    return processes;
}

bool MayWrite(const fs::path& path) {
    return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

/// `written` is the file of it that the caller has to write to; the directory itself when it is empty.
CgroupFacts GatherCgroup(const Services& services, const fs::path& path, const std::string& written) {
    CgroupFacts cgroup;
    cgroup.path = path.string();
    cgroup.exists = ReadLines(services, path / "cgroup.procs").has_value();
    cgroup.isWritable = MayWrite(written.empty() ? path : path / written);
    cgroup.owner = Inspect(cgroup.path).owner;
    cgroup.procs = Inspect(cgroup.path + "/cgroup.procs");
    cgroup.type = ReadLine(services, path / "cgroup.type").value_or("");
    cgroup.controllers = Words(ReadLine(services, path / "cgroup.controllers").value_or(""));
    cgroup.childControllers = Words(ReadLine(services, path / "cgroup.subtree_control").value_or(""));
    cgroup.processes = GatherProcesses(services, cgroup);
    cgroup.cpus = ReadLine(services, path / "cpuset.cpus");
    cgroup.mems = ReadLine(services, path / "cpuset.mems");
    cgroup.effectiveCpus =
        ReadEither(services, path / "cpuset.cpus.effective", path / "cpuset.effective_cpus");
    cgroup.effectiveMems =
        ReadEither(services, path / "cpuset.mems.effective", path / "cpuset.effective_mems");
    return cgroup;
}

/// All cgroups below `top`, each after its parent.
std::vector<CgroupFacts> GatherDescendants(const Services& services, const fs::path& top) {
    std::vector<CgroupFacts> descendants;
    std::vector<fs::path> parents{top};
    while (!parents.empty()) {
        const fs::path parent = std::move(parents.back());
        parents.pop_back();
        for (const std::string& name : services.fileSystem->ListSubdirectories(parent)) {
            descendants.push_back(GatherCgroup(services, parent / name, "cgroup.procs"));
            parents.push_back(parent / name);
        }
    }
    return descendants;
}

/// Of the unified hierarchy, from a line such as "0::/user.slice".
std::string CgroupOf(const Services& services, const std::string& pid) {
    constexpr std::string_view unified = "0::";
    for (const std::string& line : ReadLines(services, "/proc/" + pid + "/cgroup").value_or(Lines{})) {
        if (line.starts_with(unified)) {
            return line.substr(unified.size());
        }
    }
    return "";
}

// --- Affinity ----------------------------------------------------------------------------------------------

/// The value of a line such as "Cpus_allowed_list:\t0-3" in /proc/pid/status.
std::optional<std::string> StatusField(const Lines& status, const std::string& name) {
    for (const std::string& line : status) {
        if (line.starts_with(name + ":\t")) {
            return line.substr(name.size() + 2);
        }
    }
    return std::nullopt;
}

/// The CPUs of the first thread that may not use all that are online; none when there is no such thread.
CpuSet AffinityOfItsOwn(const Services& services, const std::string& pid, const CpuSet& online) {
    const fs::path tasks = "/proc/" + pid + "/task";
    for (const std::string& thread : services.fileSystem->ListSubdirectories(tasks)) {
        const Lines status = ReadLines(services, tasks / thread / "status").value_or(Lines{});
        CpuSet allowed = ParseCpuList(StatusField(status, "Cpus_allowed_list").value_or(""));
        // Threads of the kernel have no memory, and keep their CPUs.
        if (StatusField(status, "VmSize") && !Without(online, allowed).empty()) {
            return allowed;
        }
    }
    return {};
}

/// The processes of the root cgroup are not concerned: only its children get another cpuset.
std::vector<ProcessFacts> GatherPinned(const Services& services, const CpuSet& online) {
    std::vector<ProcessFacts> pinned;
    for (const std::string& pid : services.fileSystem->ListSubdirectories("/proc")) {
        if (ParseNumber(pid) == 0 || CgroupOf(services, pid) == "/") {
            continue;
        }
        ProcessFacts process = GatherProcess(services, pid);
        process.cpus = AffinityOfItsOwn(services, pid, online);
        if (!process.cpus.empty()) {
            pinned.push_back(std::move(process));
        }
    }
    return pinned;
}

/// From 6.2 on a process gets back the affinity that it asked for when its cpuset allows it.
bool KeepsAffinity(const Services& services) {
    const std::string release = ReadLine(services, "/proc/sys/kernel/osrelease").value_or("");
    const std::size_t dot = release.find('.');
    const int major = ParseNumber(release);
    const int minor = dot == std::string::npos ? 0 : ParseNumber(release.substr(dot + 1));
    constexpr int keepingMajor = 6;
    constexpr int keepingMinor = 2;
    return major > keepingMajor || (major == keepingMajor && minor >= keepingMinor);
}

// --- The place of the registries ---------------------------------------------------------------------------

/// Some file systems do not count blocks or inodes.
FileSystemFacts GatherFileSystem(const char* path) {
    struct statvfs status = {};
    if (::statvfs(path, &status) != 0) {
        return {};
    }
    return {.isReadOnly = (status.f_flag & ST_RDONLY) != 0,
            .hasFreeBlock = status.f_blocks == 0 || status.f_bavail > 0,
            .hasFreeInode = status.f_files == 0 || status.f_ffree > 0};
}

// --- What only a check looks at ----------------------------------------------------------------------------

/// As launchers open it, which the permissions alone do not tell: the file may be immutable, or append-only.
int OpenError(const FileFacts& file) {
    if (!S_ISREG(file.mode)) {
        return 0;
    }
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    return OpenFile(::open(file.path.c_str(), flags)).IsOpen() ? 0 : errno;
}

/// Files of others are not read: they may have any size.
RegistryFacts GatherRegistry(const std::string& path, uid_t launchers) {
    RegistryFacts registry;
    registry.file = Inspect(path);
    if (registry.file.owner != launchers) {
        return registry;
    }
    registry.openError = OpenError(registry.file);
    if (const std::optional<OpenFile> file = OpenPlainFile(path)) {
        const Lines lines = Split(file->ReadAll(), '\n');
        registry.hasOtherLines = !std::ranges::all_of(
            lines, [](const std::string& line) { return line.empty() || ParseRecord(line).has_value(); });
    }
    return registry;
}

bool IsExecutableFile(const std::string& path) {
    std::error_code error;
    return fs::is_regular_file(path, error) && ::access(path.c_str(), X_OK) == 0;
}

/// The first file that execvp(3) would take for a name without a slash.
std::string FindInPath(const std::string& name) {
    const char* const searched = std::getenv("PATH"); // NOLINT(concurrency-mt-unsafe): there is one thread
    for (const std::string& directory : Split(searched == nullptr ? defaultPath : searched, ':')) {
        std::string path = (directory.empty() ? "." : directory) + "/" + name;
        if (IsExecutableFile(path)) {
            return path;
        }
    }
    return "";
}

/// What follows "#!" in the first line; empty for a program that is no script, see execve(2).
std::string InterpreterOf(const std::string& path) {
    constexpr std::size_t kernelReads = 256; // bytes
    std::error_code error;
    const std::optional<OpenFile> file = OpenPlainFile(fs::canonical(path, error).string());
    const std::string beginning = file ? file->ReadAll(kernelReads) : "";
    if (!beginning.starts_with("#!")) {
        return "";
    }
    const std::string line = beginning.substr(2, beginning.find('\n') - 2);
    const std::size_t begin = line.find_first_not_of(" \t");
    return begin == std::string::npos ? "" : line.substr(begin);
}

ProgramFacts GatherProgram(const std::string& name) {
    ProgramFacts program;
    program.name = name;
    program.path = FindInPath(name);
    if (!program.path.empty()) {
        std::error_code error;
        program.target = fs::canonical(program.path, error).string();
        program.interpreter = InterpreterOf(program.path);
    }
    return program;
}

/// Whether a syslog daemon takes what is sent to /dev/log, asked by connecting alone. Not from
/// /proc/net/unix, which shows the sockets of one network namespace, while all of them share this path, see
/// unix(7).
bool LogHasListener() {
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const OpenFile log(::socket(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/dev/log"};
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): as connect(2) wants it
        if (::connect(log.Descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
            errno == EAGAIN) { // it listens, but is busy
            return true;
        }
    }
    return false;
}

} // namespace

bool IsMountedWith(const HostFacts& host, const std::string& directory, const std::string& word) {
    std::error_code error;
    const fs::path canonical = fs::canonical(directory, error);
    const std::string& resolved = error ? directory : canonical.native();
    // A later mount hides those before it.
    const auto last = std::ranges::find_if(host.mounts.rbegin(), host.mounts.rend(),
                                           [&](const Mount& mount) { return mount.directory == resolved; });
    return last != host.mounts.rend() && last->words.contains(word);
}

HostFacts GatherCgroups(const Services& services) {
    const Interfaces::ISystemResources& resources = *services.systemResources;
    const fs::path managed = resources.GetManagedCpusetCgroupPath(Paths::managedCgroup);
    const fs::path managedCpu = resources.GetManagedCpuCgroupPath(Paths::managedCgroup);
    const std::vector<std::uint32_t> cores = resources.GetAvailableCores();
    HostFacts host;
    host.isV2 = resources.IsCgroupV2();
    host.mounts = GatherMounts(services);
    host.kernelControllers = GatherKernelControllers(services);
    host.root = GatherCgroup(services, managed.parent_path(), "");
    host.managed = GatherCgroup(services, managed, "cgroup.procs");
    if (host.isV2) {
        host.descendants = GatherDescendants(services, managed);
        host.isBelowManaged =
            (CgroupOf(services, "self") + "/").starts_with("/" + std::string(Paths::managedCgroup) + "/");
    } else {
        host.cpuRoot = GatherCgroup(services, managedCpu.parent_path(), "");
        host.managedCpu = GatherCgroup(services, managedCpu, "cgroup.procs");
    }
    host.mayMoveFromRoot = MayWrite(host.root.procs.path);
    host.cores = {cores.begin(), cores.end()};
    host.presentCpus = ReadCpus(services, std::string(cpuDirectory) + "present");
    host.onlineCpus = ReadCpus(services, std::string(cpuDirectory) + "online");
    host.isolatedCpus = ReadCpus(services, std::string(cpuDirectory) + "isolated");
    host.nodes = ReadCpus(services, nodesWithMemory);
    host.keepsAffinity = KeepsAffinity(services);
    if (host.isV2 && !host.root.Controls("cpuset")) {
        host.pinned = GatherPinned(services, host.onlineCpus);
    }
    host.caller = ::geteuid();
    host.temporaryDirectory = Inspect(Paths::temporaryDirectory);
    host.temporaryFileSystem = GatherFileSystem(Paths::temporaryDirectory);
    return host;
}

HostFacts GatherAll(const Services& services, const ConfigurationReading& configuration) {
    HostFacts host = GatherCgroups(services);
    for (const std::string& path : RegistryPaths(host)) {
        host.registries.push_back(GatherRegistry(path, host.Launchers()));
    }
    for (const char* const name : {"protected_symlinks", "protected_regular"}) {
        host.sysctls[name] = ReadLine(services, std::string("/proc/sys/fs/") + name).value_or("missing");
    }
    host.logHasListener = LogHasListener();
    for (const std::string& name : configuration.programs) {
        host.programs.push_back(GatherProgram(name));
    }
    return host;
}

std::vector<std::string> RegistryPaths(const HostFacts& host) {
    CpuSet cores = host.cores;
    cores.insert(host.presentCpus.begin(), host.presentCpus.end()); // for those that go online later
    std::vector<std::string> paths;
    std::ranges::transform(cores, std::back_inserter(paths), Paths::CoreRegistry);
    paths.emplace_back(Paths::allocationRegistry);
    return paths;
}
