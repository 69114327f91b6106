// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ctl/commands/Command.hpp"
#include "ctl/read/Files.hpp"
#include "support/HostTest.hpp"

#include <cerrno>
#include <fstream>

#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

/// A prepared host with cgroup v2, three cores and no quota, an hour after its boot, whose files lie in a
/// folder. The commands of cpuwardenctl find them where those of a real one are.
struct CtlHost {
    static constexpr unsigned hasExecuted = 0;
    static constexpr unsigned hasForkedOnly = 0x40;

    const std::string cgroups = "/sys/fs/cgroup";
    const std::string allocations = "/tmp/cw_allocations.lock";
    int status = 0; ///< The exit status of the command that was run last.

    CtlHost() {
        machine = {};
        machine.folder = ::mkdtemp(folder.data());
        fs::permissions(folder, fs::perms(0711)); // for what is asked as another user
        Fill("/proc", {"self/mounts cgroup2 /sys/fs/cgroup cgroup2 rw,nosuid 0 0", "self/cgroup 0::/",
                       "cgroups cpuset\t0\t9\t1\ncpu\t0\t9\t1", "sys/kernel/osrelease 6.1.0-9-amd64",
                       "sys/fs/protected_symlinks 1", "sys/fs/protected_regular 2"});
        Fill("/sys/devices/system",
             {"cpu/present 0-2", "cpu/online 0-2", "cpu/isolated ", "node/has_memory 0"});
        MakeCgroup(cgroups);
        Write(cgroups + "/cgroup.subtree_control", "cpuset cpu\n");
        fs::remove(OnDisk(cgroups + "/cgroup.type"));
        MakeCgroup(cgroups + "/cwset");
        Fill(cgroups + "/cwset", {"cpuset.cpus 0-2", "cpuset.mems 0"});
        fs::create_directories(OnDisk("/run"));
        for (const std::string& registry : {CoreRegistry(0), CoreRegistry(1), CoreRegistry(2), allocations}) {
            Write(registry, "");
            Age(registry);
            fs::permissions(OnDisk(registry), fs::perms(0600));
        }
        fs::permissions(OnDisk("/tmp"), fs::perms(01777));
        Start(1, 0, "/sbin/init");
        for (const char* const name : {"", "/cpuset", "/cpu"}) {
            const std::string path = cgroups + name + "/cwset";
            machine.hooks["mkdir " + path] = [path] { MakeCgroup(path); };
        }
        machine.hooks["write +"] = machine.hooks["write -"] = ChangeControllers;
    }
    CtlHost(const CtlHost&) = delete;
    CtlHost& operator=(const CtlHost&) = delete;
    ~CtlHost() {
        machine = {};
        fs::remove_all(folder);
    }

    static std::string OnDisk(const std::string& path) { return machine.folder + path; }
    static std::string CoreRegistry(int core) { return "/tmp/core_pids_" + std::to_string(core) + ".lock"; }

    static void Write(const std::string& path, const std::string& text) {
        const Lines steps = machine.transcript; // to which this does not belong
        fs::create_directories(fs::path(OnDisk(path)).parent_path());
        std::ofstream(OnDisk(path)) << text;
        machine.transcript = steps;
    }
    /// Each of the files is a path in the folder, and its line behind a blank where it is not without any.
    static void Fill(const std::string& folder, const Lines& files) {
        for (const std::string& file : files) {
            const std::size_t end = file.find(' ');
            Write(folder + "/" + file.substr(0, end), end == file.npos ? "" : file.substr(end + 1) + "\n");
        }
    }
    static std::string Read(const std::string& path) {
        std::ostringstream text;
        text << std::ifstream(OnDisk(path)).rdbuf();
        return text.str();
    }
    static void Link(const std::string& path, const std::string& target) {
        fs::create_directories(fs::path(OnDisk(path)).parent_path());
        fs::remove(OnDisk(path));
        fs::create_symlink(target, OnDisk(path));
    }
    /// Makes the file older than any rewriting takes.
    static void Age(const std::string& path) {
        fs::last_write_time(OnDisk(path), fs::file_time_type::clock::now() - std::chrono::seconds(1));
    }
    void Configure(const Lines& settings) const {
        Write("/etc/brindlewax.d/agent.conf", "Cpuwarden_" + Joined(settings, "\nCpuwarden_") + "\n");
    }

    /// The files that the kernel makes in a cgroup below one with both controllers.
    static void MakeCgroup(const std::string& path) {
        Fill(path,
             {"cgroup.controllers cpuset cpu memory", "cgroup.subtree_control ", "cgroup.type domain",
              "cgroup.procs", "cpuset.cpus ", "cpuset.mems ", "cpuset.cpus.effective 0-2",
              "cpuset.mems.effective 0", "cpu.stat usage_usec 9\nnr_throttled 2\nthrottled_usec 3500000"});
    }
    /// What the kernel makes of a change of controllers that it takes, in place of the file that is written.
    static void ChangeControllers() {
        const std::deque<int>& errors = machine.errors["write"];
        const std::string file = machine.transcript.end()[-2].substr(std::string("open ").size());
        const std::string change = machine.transcript.back().substr(std::string("write ").size());
        std::string text = std::regex_replace(Read(file), std::regex("\\b" + change.substr(1) + "\\s"), "");
        if (errors.empty() || errors.front() == 0) {
            fs::remove(OnDisk(file));
            Write(file, change[0] == '+' ? change.substr(1) + " " + text : text);
        }
    }
    /// With two hierarchies, and the same facts otherwise.
    void BecomeV1() const {
        fs::remove_all(OnDisk(cgroups));
        Fill("/proc", {"self/mounts cgroup /sys/fs/cgroup/cpuset cgroup rw,cpuset 0 0\n"
                       "cgroup /sys/fs/cgroup/cpu cgroup rw,cpu 0 0",
                       "cgroups cpuset\t3\t9\t1\ncpu\t4\t9\t1"});
        for (const char* const name : {"/cpuset", "/cpu", "/cpuset/cwset", "/cpu/cwset"}) {
            Fill(cgroups + name, {"cgroup.procs", "cpuset.cpus 0-2", "cpuset.mems 0",
                                  "cpuset.effective_cpus 0-2", "cpuset.effective_mems 0"});
        }
    }

    /// A process, since 30 minutes after boot as a rule, in ticks of 10 ms.
    static void Start(int pid, int parent, const std::string& executable, unsigned flags = hasExecuted,
                      const std::string& state = "S", int startTime = 180000) {
        const std::string folder = "/proc/" + std::to_string(pid);
        Write(folder + "/stat", Sentence(pid, "(w)", state, parent, 1, 1, 0, -1, flags, 0, 0, 0, 0, 150, 50,
                                         0, 0, 20, 0, 1, 0, startTime, 0, 0));
        Link(folder + "/exe", executable.empty() ? "none" : executable);
    }
    static void End(int pid) { fs::remove_all(OnDisk("/proc/" + std::to_string(pid))); }
    /// The launcher of the command, with the words that it was given.
    static void Launch(int launcher, int command, const std::string& executable, const std::string& words) {
        Start(launcher, 1, "/usr/bin/Cpuwarden");
        Start(command, launcher, executable);
        std::string line = "Cpuwarden " + words + " ";
        std::ranges::replace(line, ' ', '\0');
        Write("/proc/" + std::to_string(launcher) + "/cmdline", line);
        Write("/proc/" + std::to_string(command) + "/cmdline", line.substr(line.find('\0') + 1));
    }

    /// Makes of this host what a case says, in this order: its "configuration", of which the first key is
    /// without its prefix; that it is of "version" 1; "cgroups" with all the files that v2 makes in them;
    /// "launches", each with the arguments of Launch(); "processes", with those of Start() by name, of which
    /// "pid" and "executable" have to be given; "files" with all their text, in the order of their paths, of
    /// which null is one that is gone, and may come again as a directory; "links", relative ones; and
    /// "affinities" of processes, without which a process has gone for sched_getaffinity(2).
    void Become(const nlohmann::json& c) const {
        Configure({c.value("configuration", "")});
        if (c.value("version", 2) == 1) {
            BecomeV1();
        }
        for (const auto& cgroup : c.value("cgroups", Lines{})) {
            MakeCgroup(cgroup);
        }
        for (const auto& launch : c.value("launches", std::vector<nlohmann::json>{})) {
            Launch(launch[0], launch[1], launch[2], launch[3]);
        }
        for (const auto& process : c.value("processes", std::vector<nlohmann::json>{})) {
            Start(process.at("pid"), process.value("parent", 1), process.at("executable"),
                  process.value("flags", hasExecuted), process.value("state", "S"),
                  process.value("start", 180000));
        }
        for (const auto& [path, content] : c.value("files", std::map<std::string, nlohmann::json>{})) {
            content.is_null() ? void(fs::remove_all(OnDisk(path))) : Write(path, content);
        }
        for (const auto& [path, target] : c.value("links", std::map<std::string, std::string>{})) {
            Link(path, target);
        }
        for (const auto& [pid, cores] :
             c.value("affinities", std::map<std::string, std::set<std::size_t>>{})) {
            machine.affinities[std::stoi(pid)] = cores;
        }
    }

    /// What the command prints, and what it throws after it.
    std::string Run(const Command& command, const Lines& arguments = {}) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const std::string failure = Failure([&] { status = command.run(arguments, MakeServices()); });
        const std::string text =
            testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr();
        return text + (failure.empty() ? "" : "!" + failure);
    }

    std::string folder = testing::TempDir() + "cpuwardenctl-XXXXXX";
};

/// All values of that name in the text in JSON, numbers in their shortest form.
inline std::string Field(const std::string& json, const std::string& name) {
    const std::regex field("\"" + name + R"re(":(\[[^\]]*\]|"((?:[^"\\]|\\.)*)"|([0-9.]+)|[a-z]+))re");
    Lines values;
    for (std::sregex_iterator match(json.begin(), json.end(), field), end; match != end; ++match) {
        const auto& part = *match;
        values.push_back(part[3].matched ? Sentence(std::stod(part[3]))
                                         : part[part[2].matched ? 2 : 1].str());
    }
    return Joined(values);
}
