// Where a recording may write: locked directories, and what the system says when it may not.
#include "capture/RecordingPlan.h"
#include "capture/captured_log.h"
#include "capture/stream_builder.h"
#include "foundation/ErrorCodes.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using testing::HasSubstr;

namespace {

class RecordingOutput : public testing::Test {
protected:
    TemporaryDirectory m_directory;
    RecordingPlan m_plan;
    RecordingOutput() {
        std::filesystem::create_directories(m_directory.path("main/sub"));
        std::filesystem::create_directories(m_directory.path("mainly"));
        m_plan.mainDirectory = m_directory.path("main");
        m_plan.lockDirectory = true;
    }
    MaybeFailure check(const std::string& output) {
        m_plan.output = output;
        return checkPlan(m_plan);
    }
};

TEST_F(RecordingOutput, ALockedDirectoryMustNotBeLeft) {
    std::filesystem::create_directory_symlink(m_directory.path("mainly"), m_directory.path("main/link"));
    for (const char* outside : {"out.ts", "mainly/out.ts", "main/../out.ts", "main/sub/../../out.ts",
                                "main/link/out.ts", "main/new/../../made/out.ts"}) {
        const auto failed = check(m_directory.path(outside));
        ASSERT_TRUE(failed) << outside;
        EXPECT_EQ(failed->code, kestrel::error::pathNotAllowed) << outside;
        EXPECT_THAT(failed->text, HasSubstr("If default directory is locked, full path is not allowed."));
    }
    EXPECT_FALSE(std::filesystem::exists(m_directory.path("made"))) << "nothing is made outside";
}

TEST_F(RecordingOutput, WithinALockedDirectoryAllIsAllowed) {
    for (const char* inside : {"main/out.ts", "main/sub/out.ts", "main/new/out.ts", "main/sub/../out.ts"})
        EXPECT_FALSE(check(m_directory.path(inside))) << inside;
    m_plan.mainDirectory += "/";
    EXPECT_FALSE(check(m_directory.path("main/out.ts")));
}

TEST_F(RecordingOutput, ADirectoryIsNoFile) {
    for (const char* output : {"main", "main/", "main/new/"}) {
        m_plan.lockDirectory = false;
        const std::string path = m_directory.path(output);
        const auto failed = check(path);
        ASSERT_TRUE(failed) << output;
        EXPECT_EQ(failed->code, kestrel::error::invalidFilename) << output;
        EXPECT_EQ(failed->text, "Error: Invalid filename. (" + path + ")");
    }
    EXPECT_FALSE(std::filesystem::exists(m_directory.path("main/new"))) << "nothing is made";
}

TEST_F(RecordingOutput, ASegmentHasALength) {
    m_plan.mode = CaptureMode::rolling;
    for (const int minutes : {0, -1}) {
        m_plan.rollingMinutes = minutes;
        const auto failed = check(m_directory.path("main/out.ts"));
        ASSERT_TRUE(failed) << minutes;
        EXPECT_EQ(failed->code, kestrel::error::invalidRollingDuration);
    }
    m_plan.rollingMinutes = 1;
    EXPECT_FALSE(check(m_directory.path("main/out.ts")));
}

TEST_F(RecordingOutput, AnUnlockedDirectoryMayBeLeft) {
    m_plan.lockDirectory = false;
    EXPECT_FALSE(check(m_directory.path("out.ts")));
    m_plan.lockDirectory = true;
    m_plan.mainDirectory.clear();
    EXPECT_FALSE(check(m_directory.path("out.ts"))) << "there is none to stay in";
}

// Where a disk is not mounted the directory is not there.
TEST_F(RecordingOutput, ADirectoryThatIsMadeIsTold) {
    const capture_test::CapturedLog log;
    EXPECT_FALSE(check(m_directory.path("main/new/deep/out.ts")));
    EXPECT_THAT(log.text(), HasSubstr("[Capture:Warning] The directory " + m_directory.path("main/new/deep") +
                                      " was not there and has been made\r\n"));
    EXPECT_FALSE(check(m_directory.path("main/new/deep/out.ts")));
    EXPECT_FALSE(check(m_directory.path("main/out.ts")));
    EXPECT_EQ(log.count("has been made"), 1);
}

TEST_F(RecordingOutput, WhyADirectoryCannotBeMadeIsSaid) {
    std::ofstream(m_directory.path("main/file")) << "x";
    const auto failed = check(m_directory.path("main/file/deep/out.ts"));
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, kestrel::error::outputFileNotOpened);
    EXPECT_THAT(failed->text, HasSubstr("main/file/deep: Not a directory (errno 20)"));
}

} // namespace
