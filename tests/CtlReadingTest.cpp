// SPDX-License-Identifier: Apache-2.0
#include "ctl/read/Cgroups.hpp"
#include "ctl/read/ProcessTable.hpp"
#include "ctl/read/Registries.hpp"
#include "support/HostTest.hpp"

#include <fstream>

#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;

struct CtlReadingTest : testing::Test {
    fs::path folder;

    CtlReadingTest() {
        std::string pattern = testing::TempDir() + "cpuwardenctl-XXXXXX";
        folder = ::mkdtemp(pattern.data());
    }
    ~CtlReadingTest() override { fs::remove_all(folder); }

    void Write(const std::string& name, const std::string& text) const {
        fs::create_directories((folder / name).parent_path());
        std::ofstream(folder / name) << text;
    }
    Registry Read(const std::string& name) const {
        return ReadRegistries({{.file = {.path = folder / name}}}).front();
    }
};

TEST_F(CtlReadingTest, OpensNothingButFiles) {
    Write("file", "w:1:2\n");
    fs::create_symlink("file", folder / "link");
    fs::create_directory(folder / "directory");
    ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(Read("file").records.size(), 1U);
    EXPECT_EQ(Read("link").problem, "is a symbolic link");
    EXPECT_EQ(Read("directory").problem, "is no regular file");
    EXPECT_EQ(Read("pipe").problem, "is no regular file");
    EXPECT_EQ(Read("missing").problem, "");
    EXPECT_EQ(Read("missing").lockId, "");
}

TEST_F(CtlReadingTest, ReadsProcessesWhateverTheyAreCalled) {
    const std::string fields = " 7 1 1 0 -1 4194368 0 0 0 0 30 12 0 0 20 0 1 0 777 0 0";
    Write("5/stat", "5 (a) Z (\n) ) S" + fields);
    fs::create_symlink("/bin/w (deleted)", folder / "5/exe");
    Write("6/stat", "6 (w) Z" + fields);
    Write("7/stat", "7 (w) S 1 2 3");
    Write("8/stat", "");
    Write("9/status", "it has just gone");
    Write("x/stat", "5 (w) S" + fields);
    const Processes processes = ProcessTable(folder).ReadAll();
    ASSERT_EQ(processes.size(), 2U);
    const Process& process = processes.at(5);
    EXPECT_EQ(process.commandName, "a) Z (\n) ");
    EXPECT_EQ(process.parent, 7);
    EXPECT_EQ(process.startTime, 777U);
    EXPECT_EQ(process.cpuTime, 42U);
    EXPECT_EQ(process.executable, "/bin/w (deleted)");
    EXPECT_FALSE(process.hasExecuted);
    EXPECT_FALSE(process.hasEnded);
    EXPECT_TRUE(processes.at(6).hasEnded);
    EXPECT_FALSE(ProcessTable(folder).ReadOpenFiles(9));
}

} // namespace
