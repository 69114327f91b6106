// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/ManagedTree.hpp"

#include <algorithm>
#include <filesystem>

#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

void KeepFirst(std::string& kept, const std::string& text) {
    kept = kept.empty() ? text : kept;
}

/// Adds the cgroup and the files in it, and returns its children.
std::vector<std::string> AddCgroup(ManagedTree& tree, const ProcessTable& table, const std::string& path) {
    std::vector<std::string> children;
    tree.files.push_back(Inspect(path));
    std::error_code error;
    for (auto entry = fs::directory_iterator(path, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        const FileFacts file = Inspect(entry->path());
        if (S_ISDIR(file.mode)) {
            children.push_back(file.path);
        } else if (file.Exists()) {
            tree.files.push_back(file);
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        KeepFirst(tree.unread, path + ": " + error.message());
    }
    CgroupFacts cgroup = ReadCgroup(path);
    const std::vector<Process> processes = ReadProcesses(table, cgroup);
    tree.processes.insert(tree.processes.end(), processes.begin(), processes.end());
    KeepFirst(tree.unread, cgroup.unread);
    return children;
}

} // namespace

ManagedTree GatherManagedTree(const HostFacts& host) {
    const ProcessTable table;
    ManagedTree tree;
    std::vector<std::string> paths;
    if (host.managedCpu.exists) {
        paths.push_back(host.managedCpu.path);
    }
    paths.push_back(host.managed.path);
    while (!paths.empty()) {
        const std::string path = std::move(paths.back());
        paths.pop_back();
        const std::vector<std::string> children = AddCgroup(tree, table, path);
        paths.insert(paths.end(), children.begin(), children.end());
    }
    std::ranges::reverse(tree.files);
    return tree;
}

std::vector<Process> GatherRecorded(const HostFacts& host) {
    const ProcessTable table;
    std::vector<Process> recorded;
    for (const Registry& registry : ReadRegistries(ListRegistries(host))) {
        if (registry.file.owner != 0 && registry.file.owner != host.Launchers()) {
            continue; // of a stranger, who may write anything
        }
        for (const Record& record : registry.records) {
            const std::optional<Process> process = table.Read(record.pid);
            if (process && process->startTime == record.startTime && !process->hasEnded) {
                recorded.push_back(*process);
            }
        }
    }
    return recorded;
}
