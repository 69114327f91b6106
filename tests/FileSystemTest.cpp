// SPDX-License-Identifier: Apache-2.0
#include "filesystem/FileSystem.hpp"

#include "support/HostTest.hpp"

#include <csignal>
#include <fstream>
#include <typeindex>

#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using std::chrono_literals::operator""ms;

/// Works in a folder of its own.
struct FileSystemTest : HostTest {
    FileSystem real;
    std::string folder = testing::TempDir() + "cpuwarden-XXXXXX";

    FileSystemTest() { fs::current_path(::mkdtemp(folder.data())); }
    ~FileSystemTest() override { fs::remove_all(folder); }

    static void Write(const fs::path& name, const std::string& text, fs::perms mode = fs::perms(0644)) {
        std::ofstream(name) << text;
        fs::permissions(name, mode);
    }
};

TEST_F(FileSystemTest, CutsTextAtDelimiters) {
    const std::string longLine(1'000'000, 'x');
    const std::map<std::string, Lines> cases{
        {"", {}},           {"\n", {""}},         {"a\n\nb", {"a", "", "b"}},
        {"a\r\n", {"a\r"}}, {"\na\n", {"", "a"}}, {longLine + "\nb\n", {longLine, "b"}},
    };
    for (const auto& [text, lines] : cases) {
        Write("text", text);
        EXPECT_EQ(real.ReadLines("text"), lines);
    }
    Write("text", "1,2,,3\n");
    EXPECT_EQ(real.ReadLines("text", ','), (Lines{"1", "2", "", "3\n"}));
}

TEST_F(FileSystemTest, ReturnsNoPieceCutOffByAFailedRead) {
    Write("text", std::string(4090, 'x') + "\ny\nz=50");
    machine.errors["read"] = {EINTR, 0, EINTR, EIO};
    EXPECT_EQ(real.ReadLines("text"), (Lines{std::string(4090, 'x'), "y"}));
    machine.errors["read"] = {EINTR};
    EXPECT_EQ(real.ReadLines("text").back(), "z=50");
    machine.errors["read"] = {0, EIO};
    EXPECT_EQ(real.ReadLines("text", ';'), Lines{});
}

TEST_F(FileSystemTest, ReplacesAndAppendsInPlace) {
    machine.mostAtOnce = 1; // also by bits
    Write("file", "old text\n");
    fs::create_hard_link("file", "same inode");
    real.WriteLines("file", {"x", ""});
    EXPECT_EQ(fs::file_size("file"), 3U);
    real.AppendLines("file", {"z"});
    EXPECT_EQ(real.ReadLines("same inode"), (Lines{"x", "", "z"}));
    real.WriteLines("file", {});
    EXPECT_EQ(fs::file_size("file"), 0U);
    real.WriteLines("/dev/full", {"refused in silence"});
}

/// What a reader finds after a rewrite that ends early: the old lines, or the new ones with empty ones.
TEST_F(FileSystemTest, LosesNoLineWhenARewriteEndsEarly) {
    const Lines old{"dead", "live"};
    const std::map<std::string, Lines> cases{
        {"fstat", old}, {"write", old}, {"ftruncate", {"live", "", "", "", "", ""}}};
    for (const auto& [call, left] : cases) {
        Write("file", "dead\nlive\n");
        machine.errors[call] = {EIO};
        real.WriteLines("file", {"live"});
        EXPECT_EQ(real.ReadLines("file"), left) << call;
    }
    Write("file", "dead\nlive\n");
    machine.mostAtOnce = 5; // the new line, and then none of the empty ones
    machine.errors["write"] = {0, EIO};
    real.WriteLines("file", {"live"});
    EXPECT_EQ(real.ReadLines("file"), Lines{"live"});
}

/// With the signal's default action a launcher ends of it.
TEST_F(FileSystemTest, LosesNoLineToALimitOnFileSizes) {
    rlimit unlimited{};
    ::getrlimit(RLIMIT_FSIZE, &unlimited);
    const auto ignored = std::signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t most : {0U, 7U, 9U, 10U}) {
        Write("file", "dead\nlive\n");
        const rlimit limit{most, unlimited.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        real.WriteLines("file", {"live"});
        ::setrlimit(RLIMIT_FSIZE, &unlimited);
        EXPECT_EQ(real.ReadLines("file"), most < 10 ? Lines({"dead", "live"}) : Lines{"live"}) << most;
    }
    std::signal(SIGXFSZ, ignored);
}

TEST_F(FileSystemTest, TellsFilesFromDirectoriesAndLinks) {
    EXPECT_TRUE(real.CreateDirectories("full/child") && real.CreateDirectories("empty"));
    EXPECT_FALSE(real.CreateDirectories("empty"));
    fs::create_symlink("empty", "link");
    fs::create_symlink("nowhere", "dangling");
    Write("plain", "");
    Write("owner", "", fs::perms(0744));
    Write("others", "", fs::perms(0055));
    EXPECT_TRUE(real.ValidateExecutable("bare-name") && real.ValidateExecutable("./owner"));
    for (const char* path : {"", "./missing", "./full", "./dangling", "./plain", "./others"}) {
        EXPECT_FALSE(real.ValidateExecutable(path)) << path;
    }
    EXPECT_THAT(real.ListSubdirectories("."), testing::UnorderedElementsAre("full", "empty", "link"));
    EXPECT_EQ(real.ListSubdirectories("plain"), Lines{});
    EXPECT_EQ(real.ReadSymlink("link"), "empty");
    for (const char* kept : {"full", "link", "plain", "missing"}) {
        EXPECT_FALSE(real.TryRemoveEmptyDirectory(kept)) << kept;
    }
    EXPECT_TRUE(real.TryRemoveEmptyDirectory("empty"));
}

TEST_F(FileSystemTest, OpensARegistryForAllLaunchers) {
    Write("registry", "kept");
    ::umask(0);
    real.FileClose(real.FileOpen("registry"));
    real.FileClose(real.FileOpen("new"));
    ::umask(0022);
    EXPECT_EQ(real.ReadLines("registry"), Lines{"kept"});
    EXPECT_EQ(fs::status("new").permissions(), fs::perms(0644));
}

TEST_F(FileSystemTest, NamesWhatFails) {
    Write("plain", "");
    fs::create_symlink("nowhere", "dangling");
    ::mknod("socket", S_IFSOCK, 0); // exists, and opens for nobody
    const std::string overlong = "./" + std::string(300, 'x');
    const std::string missing = ". Reason: The file specified doesn't exist";
    const std::type_index argument = typeid(Exceptions::XInvalidArgument),
                          file = typeid(Exceptions::XRuntimeError), call = typeid(Exceptions::XSystemError);
    // clang-format off
    const struct { std::type_index type; std::string text; std::function<void()> operation; } cases[] = {
        {call, "Error checking if file: " + overlong + ", exists. Error:", [&] { real.ValidateExecutable(overlong); }},
        {argument, "Invalid argument: dangling" + missing, [&] { real.ReadSymlink("dangling"); }},
        {call, "Failed to read symbolic link: plain. Error: ", [&] { real.ReadSymlink("plain"); }},
        {argument, "Invalid argument: missing" + missing, [&] { real.ReadLines("missing"); }},
        {argument, "Invalid argument: missing" + missing, [&] { real.WriteLines("missing", {}); }},
        {argument, "Invalid argument: missing" + missing, [&] { real.AppendLines("missing", {}); }},
        {file, "Failed to open file: socket", [&] { real.ReadLines("socket"); }},
        {file, "Failed to open file: .", [&] { real.WriteLines(".", {}); }},
        {file, "Failed to append to file: .", [&] { real.AppendLines(".", {}); }},
        {file, "Failed to create directory: plain/x. Error: ", [&] { real.CreateDirectories("plain/x"); }},
        {call, "Failed to open: .: Is a directory", [&] { real.FileOpen("."); }},
        {call, "Failed to lock file descriptor: 999: Bad file descriptor",
            [&] { real.TryFileLockUntil(999, In(1ms)); }},
        {argument, "Invalid argument: deadline. Reason: deadline must be a future time point",
            [&] { real.TryFileLockUntil(0, In(0ms)); }},
    };
    // clang-format on
    for (const auto& [type, text, operation] : cases) {
        try {
            operation();
            ADD_FAILURE() << "does not fail: " << text;
        } catch (const std::exception& error) {
            EXPECT_EQ(std::type_index(typeid(error)), type) << text;
            EXPECT_THAT(error.what(), StartsWith(text));
        }
    }
    EXPECT_FALSE(fs::exists("missing"));
}

/// A lock of flock(2) belongs to an open file description: a second one stands for another process.
struct LockTest : FileSystemTest {
    const int holder = real.FileOpen("lock"); // closed with the test program
    const int fd = real.FileOpen("lock");
    const std::string attempt = "flock " + std::to_string(LOCK_EX | LOCK_NB);

    LockTest() { real.TryFileLockUntil(holder, In(1ms)); }
    std::string Lock() {
        return Outcome([this] { real.TryFileLockUntil(fd, In(200ms)); });
    }
};

TEST_F(LockTest, IsTriedForEvery100MsUntilTheDeadline) {
    EXPECT_EQ(Lock(), attempt + "|sleep 100 ms|" + attempt +
                          "|sleep 100 ms!XTimeoutError: Timeout reached while "
                          "trying to acquire lock on file descriptor: " +
                          std::to_string(fd) + ", errno: 11 (Resource temporarily unavailable)");
}

TEST_F(LockTest, IsTakenOnceFreeAndAfterWholeSleeps) {
    machine.errors["nanosleep"] = {EINTR};
    machine.onSleep = [this] { real.FileUnlock(holder); };
    EXPECT_EQ(Lock(), attempt + "|sleep 50 ms|flock 8|sleep 50 ms|flock 8|" + attempt);
    EXPECT_THROW(real.TryFileLockUntil(holder, In(1ms)), Exceptions::XTimeoutError);
}

} // namespace
