// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/HostFacts.hpp"

#include "ctl/read/Fields.hpp"
#include "ctl/read/Paths.hpp"
#include "ctl/read/Users.hpp"
#include "filesystem/Split.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <utility>

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

CpuSet ReadCpus(const std::string& path) {
    return ParseCpuList(ReadKernelLine(path).value_or(""));
}

// --- Mounts and controllers --------------------------------------------------------------------------------

std::vector<Mount> GatherMounts() {
    std::vector<Mount> mounts;
    for (const std::string& line : ReadKernelLines("/proc/self/mounts")) {
        const std::vector<std::string> fields = Split(line, ' '); // the device may be empty
        constexpr std::size_t fieldsNeeded = 4;                   // device, directory, type, options
        if (fields.size() >= fieldsNeeded) {
            const std::vector<std::string> options = Split(fields[3], ',');
            Mount mount{.directory = fields[1], .words = {options.begin(), options.end()}};
            mount.words.insert(fields[2]);
            mounts.push_back(std::move(mount));
        }
    }
    return mounts;
}

std::map<std::string, KernelController> GatherKernelControllers() {
    std::map<std::string, KernelController> controllers;
    for (const std::string& line : ReadKernelLines("/proc/cgroups")) {
        const std::vector<std::string_view> fields = Words(line); // name, hierarchy, cgroups, enabled
        constexpr std::size_t fieldCount = 4;
        if (fields.size() == fieldCount && !line.starts_with('#')) {
            controllers[std::string(fields[0])] = {.isTakenByV1 = fields[1] != "0",
                                                   .isEnabled = fields[3] == "1"};
        }
    }
    return controllers;
}

/// Those of these paths that are links, with where they lead.
std::map<std::string, std::string> GatherLinks(const std::vector<std::string>& paths) {
    std::map<std::string, std::string> links;
    for (const std::string& path : paths) {
        std::error_code error;
        const std::string target = fs::canonical(path, error).string();
        if (!error && target != path) {
            links[path] = target;
        }
    }
    return links;
}

// --- Cgroups -----------------------------------------------------------------------------------------------

bool MayWrite(const fs::path& path) {
    return ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0;
}

std::optional<std::uint64_t> ReadNumber(const std::string& path) {
    return ParseNumber<std::uint64_t>(ReadKernelLine(path).value_or(""));
}

bool IsOne(const std::string& path) {
    return ReadNumber(path) == 1U;
}

std::uint64_t CountDescendants(const std::string& path) {
    for (const std::string& line : ReadKernelLines(path + "/cgroup.stat")) {
        const std::vector<std::string_view> words = Words(line);
        if (words.size() == 2 && words[0] == "nr_descendants") {
            return ParseNumber<std::uint64_t>(words[1]).value_or(0);
        }
    }
    return 0;
}

/// A text such as "-1" or "max" is no number, and no bound.
CgroupBounds ReadBounds(const std::string& path) {
    CgroupBounds bounds{.hasCpusAlone = IsOne(path + "/cpuset.cpu_exclusive"),
                        .hasMemsAlone = IsOne(path + "/cpuset.mem_exclusive"),
                        .isFrozen = IsOne(path + "/cgroup.freeze"),
                        .mostDescendants = ReadNumber(path + "/cgroup.max.descendants"),
                        .mostDepth = ReadNumber(path + "/cgroup.max.depth"),
                        .descendants = CountDescendants(path)};
    const std::optional<std::uint64_t> limit = ReadNumber(path + "/cpu.cfs_quota_us");
    const std::optional<std::uint64_t> period = ReadNumber(path + "/cpu.cfs_period_us");
    if (limit && period > 0U) {
        bounds.cpuRatio = CpuRatio(*limit, *period);
    }
    return bounds;
}

CgroupFacts GatherCgroup(const ProcessTable& table, const fs::path& path, FailedReads& failed) {
    CgroupFacts cgroup = ReadCgroup(path, failed);
    cgroup.processes = ReadProcesses(table, cgroup, failed);
    cgroup.bounds = ReadBounds(path);
    return cgroup;
}

/// In the unified hierarchy.
std::string CgroupOf(const std::string& pid) {
    return UnifiedCgroupOf(ReadKernelLines("/proc/" + pid + "/cgroup"));
}

// --- Affinity ----------------------------------------------------------------------------------------------

/// The value of a line such as "Cpus_allowed_list:\t0-3" in /proc/pid/status.
std::optional<std::string> StatusField(const std::vector<std::string>& status, const std::string& name) {
    for (const std::string& line : status) {
        if (line.starts_with(name + ":\t")) {
            return line.substr(name.size() + 2);
        }
    }
    return std::nullopt;
}

/// Whether one of its threads may not use all CPUs that are online. Threads of the kernel have no memory, and
/// keep their CPUs.
bool HasAffinityOfItsOwn(const Services& services, const std::string& pid, const CpuSet& online) {
    const std::string tasks = "/proc/" + pid + "/task";
    const std::vector<std::string> threads = services.fileSystem->ListSubdirectories(tasks);
    return std::ranges::any_of(threads, [&](const std::string& thread) {
        const std::vector<std::string> status = ReadKernelLines(tasks + "/" + thread + "/status");
        const CpuSet allowed = ParseCpuList(StatusField(status, "Cpus_allowed_list").value_or(""));
        return StatusField(status, "VmSize") && !allowed.empty() && !Without(online, allowed).empty();
    });
}

/// The processes of the root cgroup are not concerned: only its children get another cpuset.
std::vector<Process> GatherPinned(const Services& services, const ProcessTable& table, const CpuSet& online) {
    std::vector<Process> pinned;
    for (const int pid : table.ListPids()) {
        const std::string name = std::to_string(pid);
        if (CgroupOf(name) != "/" && HasAffinityOfItsOwn(services, name, online)) {
            pinned.push_back(table.Read(pid).value_or(Process{.pid = pid}));
        }
    }
    return pinned;
}

/// From 6.2 on a process gets back the affinity that it asked for when its cpuset allows it.
bool KeepsAffinity() {
    const std::string release = ReadKernelLine("/proc/sys/kernel/osrelease").value_or("");
    const std::vector<int> firstKeeping{6, 2};
    std::vector<int> version;
    for (const std::string& part : Split(release, '.')) { // such as "2-rc1"
        const std::string digits = part.substr(0, part.find_first_not_of("0123456789"));
        version.push_back(ParseNumber<int>(digits).value_or(0));
    }
    return version >= firstKeeping;
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
    const bool isOpen = OpenFile(::open(file.path.c_str(), O_RDWR | guardedFlags)).IsOpen();
    return isOpen ? 0 : errno;
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
    const Opening opening = OpenPlainFile(fs::canonical(path, error).string());
    const std::string beginning = opening.file.IsOpen() ? opening.file.ReadAll(kernelReads) : "";
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

/// What the launchers' user may do, which root has to ask for him.
void GatherRights(HostFacts& host) {
    for (CgroupFacts* const cgroup : {&host.root, &host.managed, &host.managedCpu}) {
        cgroup->isOpenToLaunchers = MayAccess(*host.launchers, cgroup->procs.path, W_OK);
    }
    host.mayReadConfiguration = MayAccess(*host.launchers, Paths::configuration, R_OK);
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

HostFacts GatherCgroups(const Services& services) {
    const Interfaces::ISystemResources& resources = *services.systemResources;
    const fs::path managed = resources.GetManagedCpusetCgroupPath(Paths::managedCgroup);
    const fs::path managedCpu = resources.GetManagedCpuCgroupPath(Paths::managedCgroup);
    const std::vector<std::uint32_t> cores = resources.GetAvailableCores();
    const ProcessTable table;
    HostFacts host;
    host.isV2 = resources.IsCgroupV2();
    host.mounts = GatherMounts();
    host.kernelControllers = GatherKernelControllers();
    host.root = GatherCgroup(table, managed.parent_path(), host.failedReads);
    if (host.isV2) {
        host.isBelowManaged =
            (CgroupOf("self") + "/").starts_with("/" + std::string(Paths::managedCgroup) + "/");
    } else {
        host.cpuRoot = GatherCgroup(table, managedCpu.parent_path(), host.failedReads);
        host.managedCpu = GatherCgroup(table, managedCpu, host.failedReads);
    }
    WalkCgroups(managed, host.failedReads, [&](const std::string& path) {
        host.descendants.push_back(GatherCgroup(table, path, host.failedReads));
    });
    host.managed = std::move(host.descendants.front());
    host.descendants.erase(host.descendants.begin());
    host.root.isWritable = MayWrite(host.root.path);
    host.cpuRoot.isWritable = MayWrite(host.cpuRoot.path);
    host.managed.isWritable = MayWrite(host.managed.procs.path);
    host.managedCpu.isWritable = MayWrite(host.managedCpu.procs.path);
    host.links = GatherLinks({Paths::cgroupMount, host.root.path, host.cpuRoot.path});
    host.mayMoveFromRoot = MayWrite(host.root.procs.path);
    host.cores = {cores.begin(), cores.end()};
    host.presentCpus = ReadCpus(std::string(cpuDirectory) + "present");
    host.onlineCpus = ReadCpus(std::string(cpuDirectory) + "online");
    host.isolatedCpus = ReadCpus(std::string(cpuDirectory) + "isolated");
    host.nodes = ReadCpus(nodesWithMemory);
    host.keepsAffinity = KeepsAffinity();
    if (host.isV2 && !host.root.Controls("cpuset")) {
        host.pinned = GatherPinned(services, table, host.onlineCpus);
    }
    host.caller = ::geteuid();
    host.temporaryDirectory = Inspect(Paths::temporaryDirectory);
    host.temporaryFileSystem = GatherFileSystem(Paths::temporaryDirectory);
    return host;
}

HostFacts GatherAll(const Services& services, const ConfigurationReading& configuration) {
    HostFacts host = GatherCgroups(services);
    host.launchers = UserOf(host.Launchers());
    if (host.caller == 0 && host.caller != host.Launchers()) {
        GatherRights(host);
    }
    host.registries = ReadRegistries(ListRegistries(host));
    for (Registry& registry : host.registries) {
        if (registry.file.owner == host.Launchers() && S_ISREG(registry.file.mode)) {
            registry.openError = OpenError(registry.file);
        }
    }
    for (const char* const name : {"protected_symlinks", "protected_regular"}) {
        host.sysctls[name] = ReadKernelLine(std::string("/proc/sys/fs/") + name).value_or("missing");
    }
    host.logHasListener = LogHasListener();
    for (const std::string& name : configuration.programs) {
        host.programs.push_back(GatherProgram(name));
    }
    return host;
}

std::vector<Registry> ListRegistries(const HostFacts& host) {
    CpuSet cores = host.cores;
    cores.insert(host.presentCpus.begin(), host.presentCpus.end()); // for those that go online later
    return ListRegistries(cores);
}
