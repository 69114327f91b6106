// SPDX-License-Identifier: Apache-2.0
// flock [-n] FILE COMMAND [ARGS...]: runs the command while holding the lock of the file, see flock(2); with
// -n ends with 1 when it is taken. The guest's small user space has no such tool.
#include <string_view>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

int main(int argc, char** argv) {
    const bool tryOnly = argc > 1 && std::string_view(argv[1]) == "-n";
    char** words = argv + (tryOnly ? 2 : 1);
    const int fd = ::open(words[0], O_RDWR);
    if (fd < 0 || ::flock(fd, tryOnly ? LOCK_EX | LOCK_NB : LOCK_EX) != 0) {
        return 1;
    }
    ::execvp(words[1], words + 1);
    return 127;
}
