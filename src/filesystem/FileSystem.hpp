// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "interfaces/IFileSystem.hpp"

/// The host's file system. Stateless.
class FileSystem : public Interfaces::IFileSystem {
public:
    bool FileExists(const std::filesystem::path& path) const override;
    bool ValidateExecutable(const std::filesystem::path& path) const override;
    bool CreateDirectories(const std::filesystem::path& path) const override;
    bool TryRemoveEmptyDirectory(const std::filesystem::path& path) const override;
    std::vector<std::string> ListSubdirectories(const std::filesystem::path& path) const override;
    int FileOpen(const std::filesystem::path& path) const override;
    void FileClose(int fd) const override;
    void TryFileLockUntil(int fd, Interfaces::Deadline deadline) const override;
    void FileUnlock(int fd) const override;
    std::vector<std::string> ReadLines(const std::filesystem::path& path) const override;
    std::vector<std::string> ReadLines(const std::filesystem::path& path, char delimiter) const override;
    void WriteLines(const std::filesystem::path& path, const std::vector<std::string>& lines) const override;
    void AppendLines(const std::filesystem::path& path, const std::vector<std::string>& lines) const override;
    std::filesystem::path ReadSymlink(const std::filesystem::path& path) const override;

private:
    void RequireFile(const std::filesystem::path& path) const;
};
