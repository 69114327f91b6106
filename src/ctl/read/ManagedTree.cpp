// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/ManagedTree.hpp"

#include "ctl/read/Collections.hpp"

#include <algorithm>
#include <filesystem>

#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

/// Adds the cgroup and the files in it.
void AddCgroup(ManagedTree& tree, const ProcessTable& table, const std::string& path) {
    tree.files.push_back(Inspect(path));
    std::error_code error;
    for (auto entry = fs::directory_iterator(path, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
        const FileFacts file = Inspect(entry->path());
        if (S_ISREG(file.mode)) { // no link, through which chmod(2) would reach another file
            tree.files.push_back(file);
        }
    }
    tree.failedReads.Note(path, error.value());
    const CgroupFacts cgroup = ReadCgroup(path, tree.failedReads);
    Append(tree.processes, ReadProcesses(table, cgroup, tree.failedReads));
}

} // namespace

ManagedTree GatherManagedTree(const HostFacts& host) {
    const ProcessTable table;
    ManagedTree tree;
    for (const CgroupFacts* const top : {&host.managed, &host.managedCpu}) {
        if (top->exists) {
            WalkCgroups(top->path, tree.failedReads,
                        [&](const std::string& path) { AddCgroup(tree, table, path); });
        }
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
