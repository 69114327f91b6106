// SPDX-License-Identifier: Apache-2.0
#include "filesystem/FileSystem.hpp"

#include "support/Fakes.hpp"

#include <fstream>

namespace {

namespace fs = std::filesystem;

struct FileSystemTest : testing::Test {
    FileSystemTest() {
        std::string pattern = testing::TempDir() + "cpuwarden-XXXXXX";
        directory = ::mkdtemp(pattern.data());
    }
    ~FileSystemTest() override { fs::remove_all(directory); }

    fs::path Write(const std::string& name, const std::string& text, fs::perms mode = fs::perms(0644)) const {
        std::ofstream(directory / name) << text;
        fs::permissions(directory / name, mode);
        return directory / name;
    }

    fs::path directory;
    FileSystem fileSystem;
};

TEST_F(FileSystemTest, CutsTextAtDelimiters) {
    const std::string longLine(1'000'000, 'x');
    const std::map<std::string, Lines> cases{
        {"", {}},           {"\n", {""}},         {"a\n\nb", {"a", "", "b"}},
        {"a\r\n", {"a\r"}}, {"\na\n", {"", "a"}}, {longLine + "\nb\n", {longLine, "b"}}};
    for (const auto& [text, lines] : cases)
        EXPECT_EQ(fileSystem.ReadLines(Write("text", text)), lines);
    EXPECT_EQ(fileSystem.ReadLines(Write("text", "1,2,,3\n"), ','), (Lines{"1", "2", "", "3\n"}));
    EXPECT_EQ(fileSystem.ReadLines(directory), Lines{}); // opens, but cannot be read
}

TEST_F(FileSystemTest, WritesInPlaceAndCreatesNothing) {
    const fs::path file = Write("file", "old text\n"), missing = directory / "missing";
    fs::create_hard_link(file, directory / "same inode");
    fileSystem.WriteLines(file, {"x", ""});
    fileSystem.AppendLines(file, {"z"});
    EXPECT_EQ(fileSystem.ReadLines(directory / "same inode"), (Lines{"x", "", "z"}));
    EXPECT_EQ(Failure([&] { fileSystem.AppendLines(missing, {}); }),
              "Invalid argument: " + missing.string() + ". Reason: The file specified doesn't exist");
    EXPECT_FALSE(fs::exists(missing));
    EXPECT_EQ(Failure([&] { fileSystem.WriteLines(directory, {}); }),
              "Failed to open file: " + directory.string());
    EXPECT_EQ(Failure([&] { fileSystem.AppendLines(directory, {}); }),
              "Failed to append to file: " + directory.string());
    EXPECT_EQ(Failure([&] { fileSystem.WriteLines("/dev/full", {"refused in silence"}); }), "");
}

TEST_F(FileSystemTest, TellsFilesFromDirectoriesAndLinks) {
    fs::create_directories(directory / "full/child");
    fs::create_directory(directory / "empty");
    fs::create_directory_symlink(directory / "empty", directory / "link");
    fs::create_symlink("nowhere", directory / "dangling");
    const fs::path plain = Write("plain", ""), owner = Write("owner", "", fs::perms(0744)),
                   others = Write("others", "", fs::perms(0055));
    for (const fs::path& path : {fs::path("bare-name"), owner})
        EXPECT_TRUE(fileSystem.ValidateExecutable(path)) << path;
    for (const fs::path& path :
         {fs::path(), fs::path("./missing"), directory, directory / "dangling", plain, others})
        EXPECT_FALSE(fileSystem.ValidateExecutable(path)) << path;
    EXPECT_THROW(fileSystem.ValidateExecutable(directory / std::string(300, 'x')), Exceptions::XSystemError);
    EXPECT_THAT(fileSystem.ListSubdirectories(directory),
                testing::UnorderedElementsAre("full", "empty", "link"));
    for (const char* kept : {"full", "link", "plain", "missing"})
        EXPECT_FALSE(fileSystem.TryRemoveEmptyDirectory(directory / kept)) << kept;
    EXPECT_TRUE(fileSystem.TryRemoveEmptyDirectory(directory / "empty"));
    EXPECT_THROW(fileSystem.ReadSymlink(directory / "dangling"), Exceptions::XInvalidArgument);
}

} // namespace
