// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/FailedReads.hpp"

#include "filesystem/FileSystem.hpp"

#include <cerrno>
#include <system_error>
#include <utility>

namespace {

/// Notes what the system calls of a scope leave in errno, also when an exception ends it: a call that
/// succeeds leaves it alone.
class ErrnoWatch {
public:
    ErrnoWatch(FailedReads& noted, const std::filesystem::path& watched) : failed(noted), path(watched) {
        errno = 0;
    }
    ErrnoWatch(const ErrnoWatch&) = delete;
    ErrnoWatch& operator=(const ErrnoWatch&) = delete;
    ~ErrnoWatch() { failed.Note(path.string(), errno); }

private:
    FailedReads& failed;
    const std::filesystem::path& path;
};

/// That of launchers, which takes what it cannot read for empty, and says so to nobody.
class NotingFileSystem : public FileSystem {
public:
    explicit NotingFileSystem(std::shared_ptr<FailedReads> noted) : failed(std::move(noted)) {}

    bool FileExists(const std::filesystem::path& path) const override {
        const ErrnoWatch watch(*failed, path);
        return FileSystem::FileExists(path);
    }
    std::vector<std::string> ListSubdirectories(const std::filesystem::path& path) const override {
        return ::ListSubdirectories(path, *failed);
    }
    using FileSystem::ReadLines; // which leads to this one
    std::vector<std::string> ReadLines(const std::filesystem::path& path, char delimiter) const override {
        const ErrnoWatch watch(*failed, path);
        return FileSystem::ReadLines(path, delimiter);
    }

private:
    std::shared_ptr<FailedReads> failed;
};

} // namespace

bool HasGone(int error) {
    return error == ENOENT || error == ESRCH || error == ENODEV;
}

void FailedReads::Note(const std::string& path, int error) {
    if (error == 0 || HasGone(error)) {
        return;
    }
    if (kinds.empty()) {
        first = path + ": " + std::generic_category().message(error);
    }
    Kind& kind = kinds.try_emplace(error, Kind{.first = path}).first->second;
    ++kind.count;
}

std::vector<std::string> ListSubdirectories(const std::filesystem::path& path, FailedReads& failed) {
    const ErrnoWatch watch(failed, path);
    return FileSystem().ListSubdirectories(path);
}

Services MakeNotingServices(const std::shared_ptr<FailedReads>& failed) {
    return MakeServices(std::make_shared<NotingFileSystem>(failed));
}
