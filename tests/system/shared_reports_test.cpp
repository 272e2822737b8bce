// Verifications of one file under one GUID: they have one report, and take turns at it.
#include "system/verifier_requests.h"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <thread>

using namespace kestrel::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::Pair;

namespace {

// How long something that must not happen is waited for.
constexpr auto A_WHILE = 300ms;

class SharedReports : public VerifierRequests {
protected:
    // Verifiers of these options write their report and end when there is go.
    void startHeld() { start("--verify " + prepared + " --wait-file " + go); }
    void letGo() const { std::ofstream(go) << "go"; }
    std::future<std::string> verifyBeside(const std::string& rest) {
        return std::async(std::launch::async, [this, rest] { return verify(rest); });
    }
    bool verifiersRunning(std::size_t count, std::chrono::milliseconds limit = 10s) const {
        return eventually([&] { return service.children().size() == count; }, limit);
    }
    // Files beside the reports that only the service can have left.
    std::size_t setAside() const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(service.root()))
            count += entry.path().filename().string().starts_with(".kestrel-") ? 1 : 0;
        return count;
    }
    void completeWholeVerification(const char* property = ",RUNTIME") {
        ASSERT_EQ(verify(property), "TRUE");
        ASSERT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    }

    const std::string go = (service.root() / "go").string();
};

TEST_F(SharedReports, OneAfterTheOtherIsWritten) {
    startHeld();
    auto first = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(1));
    auto second = verifyBeside(",PCR_PID");
    EXPECT_FALSE(verifiersRunning(2, A_WHILE)) << "the second would remove the report of the first";
    letGo();
    EXPECT_EQ(first.get(), "TRUE - 481");
    EXPECT_EQ(second.get(), "TRUE - 481");
}

TEST_F(SharedReports, ManyClientsAllGetTheirAnswers) {
    start("--verify " + prepared + " --sleep 20");
    std::map<std::string, int> answers;
    std::mutex mutex;
    {
        std::vector<std::jthread> clients;
        for (const char* property : {",VIDEO_PID", ",PCR_PID", ",VIDEO_PID", ",PCR_PID"})
            clients.emplace_back([&, property] {
                for (int i = 0; i < 8; ++i) {
                    const std::string answer = verify(property);
                    const std::scoped_lock lock(mutex);
                    ++answers[answer];
                }
            });
    }
    EXPECT_THAT(answers, ElementsAre(Pair("TRUE - 481", 32)));
}

TEST_F(SharedReports, ReportsOfOtherNamesDoNotWait) {
    startHeld();
    auto first = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(1));
    auto second = std::async(std::launch::async, [this] {
        return service.ask("GET_MPEG_PROPERTIES,JOB_BEGIN,beef," + file + ",VIDEO_PID");
    });
    EXPECT_TRUE(verifiersRunning(2));
    letGo();
    EXPECT_EQ(first.get(), "TRUE - 481");
    EXPECT_EQ(second.get(), "TRUE - 481");
}

TEST_F(SharedReports, AQueuedOneBeginsWhenTheReportOfTheOneBeforeHasBeenRead) {
    startHeld();
    auto first = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(1));
    auto second = verifyBeside(",RUNTIME");
    EXPECT_FALSE(verifiersRunning(2, A_WHILE));
    letGo();
    EXPECT_EQ(first.get(), "TRUE - 481");
    EXPECT_EQ(second.get(), "TRUE");
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
}

TEST_F(SharedReports, AShutdownWaitsForNobody) {
    startHeld();
    auto first = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(1));
    auto second = verifyBeside(",PCR_PID");
    ASSERT_TRUE(service.waitForLog(",PCR_PID"));
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_EQ(first.get(), "FALSE - Error: Timeout waiting for job to complete.");
    EXPECT_EQ(second.get(), "FALSE - Error: Timeout waiting for job to complete.");
    letGo();
}

TEST_F(SharedReports, AnswersOfAWholeVerificationOutliveAShortOne) {
    start("--verify " + prepared);
    completeWholeVerification();
    std::ofstream(prepared) << reportOf("99", "00:00:02:00");
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 99");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    EXPECT_EQ(verify(",RUNTIME,BLOCK"), "TRUE - 00:00:02:00");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    EXPECT_EQ(setAside(), 0U);
    EXPECT_THAT(service.log(), Not(HasSubstr("Give each a GUID of its own")));
}

TEST_F(SharedReports, AnswersOfAWholeVerificationOutliveAShortOneThatFails) {
    start("--verify " + prepared);
    completeWholeVerification();
    std::filesystem::remove(prepared);
    EXPECT_EQ(verify(",VIDEO_PID"), NO_PROPERTY);
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    EXPECT_EQ(setAside(), 0U);
}

TEST_F(SharedReports, AnswersOfAWholeVerificationAreNotReadFromTheReportOfAnother) {
    startHeld();
    letGo();
    completeWholeVerification();
    std::filesystem::remove(go);
    std::ofstream(prepared) << reportOf("99", "00:00:02:00");
    auto shortOne = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(eventually([&] { return contentOf(reportPath()).find("99") != std::string::npos; }));
    auto whole = std::async(std::launch::async, [this] { return results(); });
    EXPECT_EQ(whole.wait_for(A_WHILE), std::future_status::timeout);
    letGo();
    EXPECT_EQ(shortOne.get(), "TRUE - 99");
    EXPECT_EQ(whole.get(), "TRUE - 00:00:10:00");
}

TEST_F(SharedReports, AWholeVerificationThatStillRunsKeepsWhatItHasWritten) {
    startHeld();
    ASSERT_EQ(verify(",RUNTIME"), "TRUE");
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(reportPath()); }));
    std::ofstream(prepared) << reportOf("99", "00:00:02:00");
    auto shortOne = verifyBeside(",VIDEO_PID");
    EXPECT_TRUE(service.waitForLog("[Manager:Warning] Job 0 " + std::string(GUID) +
                                   " is a verification of this file (QUEUED), and its report is that of this "
                                   "request too: " +
                                   reportPath() + ". Give each a GUID of its own.\r\n"));
    ASSERT_TRUE(verifiersRunning(2));
    letGo();
    EXPECT_EQ(shortOne.get(), "TRUE - 99");
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
}

TEST_F(SharedReports, ForXmlTheNewReportIsWhatIsFound) {
    start("--verify " + prepared);
    completeWholeVerification();
    const std::string newReport = reportOf("99", "00:00:02:00");
    std::ofstream(prepared) << newReport;
    EXPECT_EQ(verify(",ALL,XML"), "TRUE - " + reportPath());
    EXPECT_EQ(contentOf(reportPath()), newReport);
    EXPECT_THAT(service.log(), HasSubstr("is a verification of this file (COMPLETE), and its report is"));
    EXPECT_EQ(setAside(), 0U);
}

TEST_F(SharedReports, WithoutAWholeVerificationTheReportStays) {
    start("--verify " + prepared);
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 481");
    EXPECT_EQ(contentOf(reportPath()), contentOf(prepared));
}

} // namespace
