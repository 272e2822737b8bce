// A finished report while another of its name is written.
#include "verifier/KeptReport.h"

#include "foundation/CapturedLog.h"
#include "foundation/ScratchDir.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using kestrel::KeptReport;
using testing::HasSubstr;

namespace {

class KeptReportTest : public testing::Test {
protected:
    ScratchDir directory;
    const std::string report = directory.path("report.xml");
    const std::string aside = directory.path(".aside");
};

TEST_F(KeptReportTest, ComesBackInPlaceOfTheNewOne) {
    (void)directory.file("report.xml", "old");
    {
        const KeptReport kept(report, aside);
        EXPECT_TRUE(kept.kept());
        EXPECT_FALSE(std::filesystem::exists(report));
        (void)directory.file("report.xml", "new");
    }
    EXPECT_EQ(contentOf(report), "old");
    EXPECT_FALSE(std::filesystem::exists(aside));
}

TEST_F(KeptReportTest, ComesBackWhereNoNewOneWasWritten) {
    (void)directory.file("report.xml", "old");
    { const KeptReport kept(report, aside); }
    EXPECT_EQ(contentOf(report), "old");
}

TEST_F(KeptReportTest, WhereThereWasNoneTheNewOneGoes) {
    {
        const KeptReport kept(report, aside);
        EXPECT_FALSE(kept.kept());
        (void)directory.file("report.xml", "new");
    }
    EXPECT_FALSE(std::filesystem::exists(report));
}

TEST_F(KeptReportTest, AReportOfItsOwnThatHasComeMeanwhileIsLeft) {
    {
        KeptReport kept(report, aside);
        (void)directory.file("report.xml", "its own");
        kept.leaveNew();
    }
    EXPECT_EQ(contentOf(report), "its own");
}

TEST_F(KeptReportTest, OneThatCannotBeSetAsideIsRemovedWithAWarning) {
    const CapturedLog log;
    const KeptReport kept(directory.file("b.xml", "old"), directory.path(std::string(300, 'a')));
    EXPECT_FALSE(kept.kept());
    EXPECT_FALSE(std::filesystem::exists(directory.path("b.xml")));
    EXPECT_THAT(log.text(), HasSubstr("[JobMgmt:Warning] The report " + directory.path("b.xml") +
                                      " cannot be set aside: errno 36\r\n"));
}

TEST_F(KeptReportTest, OneThatCannotBePutBackIsNamed) {
    const CapturedLog log;
    (void)directory.file("report.xml", "old");
    {
        const KeptReport kept(report, aside);
        std::filesystem::create_directory(report);
    }
    EXPECT_THAT(log.text(), HasSubstr("[JobMgmt:Error] The report " + report +
                                      " cannot be put back: errno 21; it is " + aside + "\r\n"));
    EXPECT_EQ(contentOf(aside), "old");
}

} // namespace
