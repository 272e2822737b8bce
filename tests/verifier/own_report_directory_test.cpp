// The directory of a request's own report.
#include "verifier/OwnReportDirectory.h"

#include "foundation/CapturedLog.h"
#include "foundation/ScratchDir.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

using kestrel::OwnReportDirectory;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

class OwnReportDirectoryTest : public testing::Test {
protected:
    ScratchDir directory;
    const std::string prefix = directory.path(".kestrel-1-2-");
};

TEST_F(OwnReportDirectoryTest, IsForItsOwnerOnly) {
    const OwnReportDirectory own(prefix);
    EXPECT_EQ(own.failure(), 0);
    EXPECT_THAT(own.path(), StartsWith(prefix));
    EXPECT_THAT(own.path(), EndsWith("/"));
    EXPECT_EQ(fs::status(own.path()).permissions(), fs::perms::owner_all);
}

TEST_F(OwnReportDirectoryTest, GoesWithAllThatIsInIt) {
    {
        const OwnReportDirectory own(prefix);
        std::ofstream(own.path() + "report.xml") << "new";
        std::ofstream(own.path() + "report.xml.part") << "ne";
    }
    EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST_F(OwnReportDirectoryTest, IsANewOneForEach) {
    const OwnReportDirectory one(prefix);
    const OwnReportDirectory two(prefix);
    EXPECT_EQ(two.failure(), 0) << "a directory that is left over is not in the way";
    EXPECT_NE(one.path(), two.path());
}

TEST_F(OwnReportDirectoryTest, OneThatHasGoneIsNoReasonToComplain) {
    const CapturedLog log;
    {
        const OwnReportDirectory own(prefix);
        fs::remove_all(own.path());
    }
    EXPECT_EQ(log.text(), "");
}

TEST_F(OwnReportDirectoryTest, OneThatCannotBeMadeIsNamed) {
    const CapturedLog log;
    const std::string missing = directory.path("missing/.kestrel-");
    const OwnReportDirectory own(missing);
    EXPECT_EQ(own.failure(), ENOENT);
    EXPECT_EQ(own.path(), "");
    EXPECT_THAT(log.text(), HasSubstr("[JobMgmt:Error] No directory " + missing +
                                      "XXXXXX can be made for a report: errno 2\r\n"));
}

} // namespace
