// SPDX-License-Identifier: Apache-2.0
// Files of the kernel, in /proc and /sys: they may go at any time, but never make a reader wait.
#pragma once

#include "ctl/read/FileFacts.hpp"

#include <optional>
#include <string>

/// Opens a directory, relative to another one; what is returned may be closed, see openat(2).
OpenFile OpenDirectory(const OpenFile& folder, const std::string& path);
/// The same with an absolute path.
OpenFile OpenDirectory(const std::string& path);

/// The text of a file, with `path` relative to `folder`; nothing when it cannot be opened. An error of
/// reading ends the text, as for a process that ends meanwhile.
std::optional<std::string> ReadKernelFile(const OpenFile& folder, const std::string& path);
/// The same with an absolute path.
std::optional<std::string> ReadKernelFile(const std::string& path);

/// The text of a file that the kernel makes as a whole, as it does stat files, and not line by line: read
/// with half of the system calls.
std::optional<std::string> ReadKernelRecord(const OpenFile& folder, const std::string& path);

/// Where the symbolic link leads, see readlinkat(2). Nothing, with errno set, when that cannot be read.
std::optional<std::string> ReadLink(const OpenFile& folder, const std::string& path);
