// Daily log files.
#include "foundation/Logger.h"

#include "foundation/ScratchDir.h"

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

// The time that the loggers of these tests see.
std::atomic<std::time_t> fakeNow{0};

std::time_t fakeClock(std::time_t*) {
    return fakeNow;
}

void setLocalTime(int year, int month, int day, int hour, int minute, int second) {
    std::tm local{};
    local.tm_year = year - 1900;
    local.tm_mon = month - 1;
    local.tm_mday = day;
    local.tm_hour = hour;
    local.tm_min = minute;
    local.tm_sec = second;
    local.tm_isdst = -1;
    fakeNow = std::mktime(&local);
}

// The descriptors of this process that are open on a file.
std::vector<int> descriptorsOf(const std::string& path) {
    std::vector<int> found;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        if (fs::read_symlink(entry.path(), error) == path)
            found.push_back(std::stoi(entry.path().filename()));
    }
    return found;
}

class FileLoggerTest : public testing::Test {
protected:
    void SetUp() override { setLocalTime(2026, 11, 15, 17, 8, 49); }

    ScratchDir dir;
};

TEST_F(FileLoggerTest, NameGetsTheDayBeforeItsFirstDot) {
    FileLogger logger(dir.path("KestrelManager.log").c_str(), fakeClock);
    EXPECT_TRUE(logger.isActive());
    EXPECT_TRUE(logger.log("line\r\n"));
    EXPECT_EQ(contentOf(dir.path("KestrelManager-20261115.log")), "line\r\n");
}

TEST_F(FileLoggerTest, UsesTheSystemClockByDefault) {
    const auto today = [] {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        char day[16];
        std::strftime(day, sizeof day, "%Y%m%d", &local);
        return std::string(day);
    };
    const std::string before = today();
    FileLogger logger(dir.path("x.log").c_str());
    const std::string after = today();
    EXPECT_TRUE(fs::exists(dir.path("x-" + before + ".log")) || fs::exists(dir.path("x-" + after + ".log")));
}

TEST_F(FileLoggerTest, WidePathIsTheSame) {
    FileLogger logger(fs::path(dir.path("wide.log")).wstring().c_str(), fakeClock);
    EXPECT_TRUE(logger.log(L"wide line\r\n"));
    EXPECT_EQ(contentOf(dir.path("wide-20261115.log")), "wide line\r\n");
}

TEST_F(FileLoggerTest, FirstDotOfTheWholePathCountsDirectoriesIncluded) {
    FileLogger logger(dir.path("x.y/Manager.log").c_str(), fakeClock);
    EXPECT_TRUE(logger.log("a"));
    EXPECT_EQ(contentOf(dir.path("x-20261115.y/Manager.log")), "a");
    setLocalTime(2026, 11, 16, 0, 0, 0);
    EXPECT_TRUE(logger.log("b"));
    EXPECT_EQ(contentOf(dir.path("x-20261116.y/Manager.log")), "b");
}

TEST_F(FileLoggerTest, PathWithoutADotGetsTheDayAtItsEnd) {
    FileLogger logger(dir.path("manager").c_str(), fakeClock);
    EXPECT_TRUE(logger.log("a"));
    EXPECT_EQ(contentOf(dir.path("manager-20261115")), "a");
}

TEST_F(FileLoggerTest, PercentSignsInThePathArePlain) {
    FileLogger logger(dir.path("%n%s%d.100%d").c_str(), fakeClock);
    EXPECT_TRUE(logger.log("a"));
    EXPECT_EQ(contentOf(dir.path("%n%s%d-20261115.100%d")), "a");
}

TEST_F(FileLoggerTest, MissingDirectoriesAreMade) {
    FileLogger logger(dir.path("a/b/c/x.log").c_str(), fakeClock);
    EXPECT_TRUE(logger.log("a"));
    EXPECT_EQ(contentOf(dir.path("a/b/c/x-20261115.log")), "a");
}

TEST_F(FileLoggerTest, ExistingFileIsContinued) {
    {
        FileLogger logger(dir.path("x.log").c_str(), fakeClock);
        logger.log("first\n");
    }
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    logger.log("second\n");
    EXPECT_EQ(contentOf(dir.path("x-20261115.log")), "first\nsecond\n");
}

TEST_F(FileLoggerTest, LineAfterMidnightGoesToTheNewDaysFileAndTheOldOneIsClosed) {
    setLocalTime(2026, 12, 31, 23, 59, 59);
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    EXPECT_TRUE(logger.log("last\n"));
    ASSERT_EQ(descriptorsOf(dir.path("x-20261231.log")).size(), 1U);

    setLocalTime(2027, 1, 1, 0, 0, 0);
    // Nothing happens at midnight itself, only at the first line after it.
    EXPECT_FALSE(fs::exists(dir.path("x-20270101.log")));
    EXPECT_TRUE(logger.log("first\n"));
    EXPECT_EQ(contentOf(dir.path("x-20261231.log")), "last\n");
    EXPECT_EQ(contentOf(dir.path("x-20270101.log")), "first\n");
    EXPECT_EQ(descriptorsOf(dir.path("x-20261231.log")).size(), 0U);
    EXPECT_EQ(descriptorsOf(dir.path("x-20270101.log")).size(), 1U);
}

TEST_F(FileLoggerTest, WideLineRollsOverToo) {
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    setLocalTime(2026, 11, 16, 0, 0, 1);
    EXPECT_TRUE(logger.log(L"wide\n"));
    EXPECT_EQ(contentOf(dir.path("x-20261116.log")), "wide\n");
    EXPECT_EQ(contentOf(dir.path("x-20261115.log")), "");
}

TEST_F(FileLoggerTest, FileThatCannotBeOpenedIsTriedAgainOnTheNextDay) {
    // A directory in the place of today's file.
    fs::create_directory(dir.path("x-20261115.log"));
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    EXPECT_FALSE(logger.isActive());
    EXPECT_FALSE(logger.log("1"));
    EXPECT_FALSE(logger.log(L"2"));

    // Not on the same day, though it could be opened now.
    fs::remove(dir.path("x-20261115.log"));
    EXPECT_FALSE(logger.log("3"));
    EXPECT_FALSE(fs::exists(dir.path("x-20261115.log")));

    setLocalTime(2026, 11, 16, 0, 0, 0);
    EXPECT_TRUE(logger.log("4"));
    EXPECT_TRUE(logger.isActive());
    EXPECT_EQ(contentOf(dir.path("x-20261116.log")), "4");
}

TEST_F(FileLoggerTest, FileThatCannotBeOpenedAtMidnightStopsTheLog) {
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    EXPECT_TRUE(logger.log("1"));
    fs::create_directory(dir.path("x-20261116.log"));
    setLocalTime(2026, 11, 16, 0, 0, 0);
    EXPECT_FALSE(logger.log("2"));
    EXPECT_FALSE(logger.isActive());
    EXPECT_EQ(contentOf(dir.path("x-20261115.log")), "1");
}

TEST_F(FileLoggerTest, EachLineIsFlushed) {
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    for (const char* expected : {"a", "aa", "aaa"}) {
        EXPECT_TRUE(logger.log("a"));
        EXPECT_EQ(contentOf(dir.path("x-20261115.log")), expected);
    }
}

TEST_F(FileLoggerTest, DescriptorIsClosedOnExec) {
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    const std::vector<int> descriptors = descriptorsOf(dir.path("x-20261115.log"));
    ASSERT_EQ(descriptors.size(), 1U);
    EXPECT_TRUE(::fcntl(descriptors[0], F_GETFD) & FD_CLOEXEC);
}

TEST_F(FileLoggerTest, FullDiskIsReported) {
    fs::create_symlink("/dev/full", dir.path("x-20261115.log"));
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    ASSERT_TRUE(logger.isActive());
    EXPECT_FALSE(logger.log("lost"));
    EXPECT_FALSE(logger.log(L"lost"));
}

TEST_F(FileLoggerTest, ClosedLoggerIsInactive) {
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    logger.close();
    logger.close();
    EXPECT_FALSE(logger.isActive());
    EXPECT_FALSE(logger.log("x"));
    EXPECT_EQ(descriptorsOf(dir.path("x-20261115.log")).size(), 0U);
}

TEST_F(FileLoggerTest, InitOpensAnotherFile) {
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    logger.init(dir.path("sub/other.txt").c_str());
    EXPECT_TRUE(logger.log("there"));
    EXPECT_EQ(contentOf(dir.path("sub/other.txt")), "there");
    EXPECT_EQ(descriptorsOf(dir.path("x-20261115.log")).size(), 0U);
    logger.init(dir.path("").c_str());
    EXPECT_FALSE(logger.log("a directory cannot be opened"));
    logger.init(nullptr);
    EXPECT_FALSE(logger.isActive());
}

TEST_F(FileLoggerTest, SetFilenameHasNoEffect) {
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    logger.setFilename(dir.path("y.log").c_str());
    EXPECT_TRUE(logger.log("a"));
    EXPECT_EQ(contentOf(dir.path("x-20261115.log")), "a");
    EXPECT_FALSE(fs::exists(dir.path("y-20261115.log")));
}

TEST_F(FileLoggerTest, NullLineIsAFailure) {
    FileLogger logger(dir.path("x.log").c_str(), fakeClock);
    EXPECT_FALSE(logger.log(static_cast<const char*>(nullptr)));
}

TEST_F(FileLoggerTest, NobodyElseMayWriteWhateverTheUmask) {
    const auto rightsUnder = [this](mode_t mask, const char* name) {
        const mode_t before = umask(mask);
        const FileLogger logger(dir.path(std::string(name) + ".log").c_str(), fakeClock);
        umask(before);
        struct stat status {};
        EXPECT_EQ(stat(dir.path(std::string(name) + "-20261115.log").c_str(), &status), 0);
        return status.st_mode & 0777U;
    };
    EXPECT_EQ(rightsUnder(0, "open"), 0644U);
    EXPECT_EQ(rightsUnder(077, "closed"), 0600U);
}

} // namespace
