// Questions to the file system.
#include "foundation/FileUtil.h"
#include "foundation/ScratchDir.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t unknown = std::numeric_limits<std::uint64_t>::max();

TEST(CreateDir, MakesEveryDirectoryThatEndsBeforeASlash) {
    const ScratchDir dir;
    cFileUtil::CreateDir(dir.path("x/y/z").c_str());
    EXPECT_TRUE(fs::is_directory(dir.path("x")));
    EXPECT_TRUE(fs::is_directory(dir.path("x/y")));
    EXPECT_FALSE(fs::exists(dir.path("x/y/z")));
}

TEST(CreateDir, TrailingSlashMakesTheLastComponentToo) {
    const ScratchDir dir;
    cFileUtil::CreateDir(dir.path("x/y/z/").c_str());
    EXPECT_TRUE(fs::is_directory(dir.path("x/y/z")));
}

TEST(CreateDir, DoubledSlashesMakeNoEmptyNames) {
    const ScratchDir dir;
    cFileUtil::CreateDir(dir.path("/x//y///z/file").c_str());
    EXPECT_TRUE(fs::is_directory(dir.path("x/y/z")));
    EXPECT_FALSE(fs::exists(dir.path("x/y/z/file")));
}

TEST(CreateDir, RelativePathStartsAtTheWorkingDirectory) {
    const ScratchDir dir;
    const fs::path before = fs::current_path();
    fs::current_path(dir.path(""));
    cFileUtil::CreateDir("a/b/c");
    fs::current_path(before);
    EXPECT_TRUE(fs::is_directory(dir.path("a/b")));
    EXPECT_FALSE(fs::exists(dir.path("a/b/c")));
}

TEST(CreateDir, ModeIs0777LessTheUmask) {
    const ScratchDir dir;
    const mode_t before = ::umask(0027);
    cFileUtil::CreateDir(dir.path("x/").c_str());
    ::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat(dir.path("x").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0750u);
}

TEST(CreateDir, StopsAtTheFirstThatCannotBeMade) {
    const ScratchDir dir;
    const std::string file = dir.file("plain", "text");
    cFileUtil::CreateDir((file + "/x/y/").c_str());
    EXPECT_EQ(contentOf(file), "text");
    cFileUtil::CreateDir("/proc/kestrel/x/");
    EXPECT_FALSE(fs::exists("/proc/kestrel"));
}

TEST(CreateDir, PathsWithoutANameMakeNothing) {
    for (const char* path : {"", "/", "//", "name"})
        cFileUtil::CreateDir(path);
    cFileUtil::CreateDir(nullptr);
    EXPECT_FALSE(fs::exists("name"));
}

TEST(CreateDir, SeveralThreadsMayMakeTheSamePath) {
    const ScratchDir dir;
    for (int round = 0; round < 20; ++round) {
        const std::string path = dir.path(std::to_string(round) + "/a/b/c/d/");
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 4; ++i)
                threads.emplace_back([&] {
                    cFileUtil::CreateDir(path.c_str());
                    EXPECT_TRUE(fs::is_directory(path)) << path;
                });
        }
    }
}

TEST(FileUtil, StrippedFilenameHoldsNoSlash) {
    EXPECT_TRUE(cFileUtil::IsStrippedFilename("a.ts"));
    EXPECT_TRUE(cFileUtil::IsStrippedFilename(""));
    EXPECT_TRUE(cFileUtil::IsStrippedFilename(nullptr));
    EXPECT_FALSE(cFileUtil::IsStrippedFilename("/a.ts"));
    EXPECT_FALSE(cFileUtil::IsStrippedFilename("a/"));
    EXPECT_FALSE(cFileUtil::IsStrippedFilename("./a.ts"));
}

TEST(FileUtil, FilesAndDirectoriesExist) {
    const ScratchDir dir;
    EXPECT_TRUE(cFileUtil::FileExists(dir.file("a.ts", "x").c_str()));
    EXPECT_TRUE(cFileUtil::FileExists(dir.path("").c_str()));
    EXPECT_FALSE(cFileUtil::FileExists(dir.path("missing").c_str()));
    EXPECT_FALSE(cFileUtil::FileExists(""));
    EXPECT_FALSE(cFileUtil::FileExists(nullptr));
}

TEST(FileUtil, OnlyDirectoriesAreDirectories) {
    const ScratchDir dir;
    EXPECT_TRUE(cFileUtil::IsDirectory(dir.path("").c_str()));
    EXPECT_FALSE(cFileUtil::IsDirectory(dir.file("a.ts", "x").c_str()));
    EXPECT_FALSE(cFileUtil::IsDirectory(dir.path("missing").c_str()));
    EXPECT_FALSE(cFileUtil::IsDirectory("/dev/null"));
    EXPECT_TRUE(cFileUtil::FileExists("/dev/null"));
    EXPECT_FALSE(cFileUtil::IsDirectory(nullptr));
}

TEST(FileUtil, SizeIsInBytesAndTheFlagHasNoEffect) {
    const ScratchDir dir;
    const std::string file = dir.file("a.ts", "12345");
    EXPECT_EQ(cFileUtil::GetFilesizeBytes(file.c_str(), true), 5);
    EXPECT_EQ(cFileUtil::GetFilesizeBytes(file.c_str(), false), 5);
    EXPECT_EQ(cFileUtil::GetFilesizeBytes(dir.path("missing").c_str(), true), 0);
    EXPECT_EQ(cFileUtil::GetFilesizeBytes(nullptr, true), 0);
}

TEST(FileUtil, SizeBeyond4GigabytesIsExact) {
    const ScratchDir dir;
    const std::string file = dir.file("large.ts", "");
    fs::resize_file(file, 5'000'000'001);
    EXPECT_EQ(cFileUtil::GetFilesizeBytes(file.c_str(), false), 5'000'000'001);
}

TEST(FileUtil, AvailableSpaceIsThatOfTheDirectoryPart) {
    // A file system with a fixed size of its own, so that nobody else changes the number meanwhile.
    struct statvfs status {};
    ASSERT_EQ(::statvfs("/dev", &status), 0);
    const std::uint64_t expected = std::uint64_t{status.f_bfree} * status.f_frsize;
    EXPECT_EQ(cFileUtil::GetAvailSpace("/dev"), expected);
    EXPECT_EQ(cFileUtil::GetAvailSpace("/dev/missing.ts"), expected);
    EXPECT_EQ(cFileUtil::GetAvailSpace("/proc/missing.ts"), 0u);
}

TEST(FileUtil, AvailableSpaceCountsTheBlocksReservedForTheSuperuser) {
    constexpr std::uint64_t leastReserve = std::uint64_t{64} << 20;
    const ScratchDir scratch;
    for (const std::string& directory : {scratch.path(""), std::string("/"), std::string("/home")}) {
        struct statvfs status {};
        if (::statvfs(directory.c_str(), &status) != 0)
            continue;
        const std::uint64_t reserve = std::uint64_t{status.f_bfree - status.f_bavail} * status.f_frsize;
        if (reserve < leastReserve)
            continue;
        // Half the reserve is left to what others write or delete meanwhile.
        const std::uint64_t without = std::uint64_t{status.f_bavail} * status.f_frsize;
        EXPECT_GT(cFileUtil::GetAvailSpace(directory.c_str()), without + reserve / 2) << directory;
        EXPECT_LT(cFileUtil::GetAvailSpace(directory.c_str()), without + reserve / 2 * 3) << directory;
        return;
    }
    GTEST_SKIP() << "no file system with a reserve";
}

TEST(FileUtil, AvailableSpaceOfAFileBelowTheRootIsThatOfTheRoot) {
    EXPECT_NE(cFileUtil::GetAvailSpace("/missing.ts"), unknown);
}

TEST(FileUtil, SpaceOfAFileSystemThatCannotBeQueriedPasses) {
    const ScratchDir dir;
    // Without a dot the last component counts as a directory.
    EXPECT_EQ(cFileUtil::GetAvailSpace(dir.path("missing").c_str()), unknown);
    EXPECT_EQ(cFileUtil::GetAvailSpace(""), unknown);
    EXPECT_EQ(cFileUtil::GetAvailSpace(nullptr), unknown);
    EXPECT_TRUE(
        cFileUtil::CheckAvailSpace(std::numeric_limits<unsigned long>::max(), dir.path("missing").c_str()));
}

TEST(FileUtil, CheckComparesWithTheFreeSpace) {
    const ScratchDir dir;
    EXPECT_TRUE(cFileUtil::CheckAvailSpace(0, dir.path("a.ts").c_str()));
    EXPECT_FALSE(
        cFileUtil::CheckAvailSpace(std::numeric_limits<unsigned long>::max(), dir.path("a.ts").c_str()));
    EXPECT_TRUE(cFileUtil::CheckAvailSpace(0, "/proc/a.ts"));
    EXPECT_FALSE(cFileUtil::CheckAvailSpace(1, "/proc/a.ts"));
}

} // namespace
