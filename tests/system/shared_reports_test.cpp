// Verifications of one file under one GUID: they have one report, and take turns at it.
#include "system/verifier_requests.h"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <thread>
#include <vector>

using namespace kestrel::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
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
    // Verifiers of these options write their report and end when there is go of their kind.
    void startHeldByKind() {
        start("--wait-whole " + goWhole + " --wait-short " + goShort + " --verify " + prepared);
    }
    // Directories that requests have of their own, beside the reports.
    std::vector<std::filesystem::path> ownDirectories() const {
        std::vector<std::filesystem::path> found;
        for (const auto& entry : std::filesystem::directory_iterator(service.root()))
            if (entry.path().filename().string().starts_with(".kestrel-"))
                found.push_back(entry.path());
        return found;
    }
    // A verification that is asked for next finds something else.
    void changeTheFile() const { std::ofstream(prepared) << reportOf("99", "00:00:02:00"); }
    void completeWholeVerification(const char* property = ",RUNTIME") {
        ASSERT_EQ(verify(property), "TRUE");
        ASSERT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    }

    const std::string go = (service.root() / "go").string();
    const std::string goWhole = (service.root() / "go-whole").string();
    const std::string goShort = (service.root() / "go-short").string();
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

TEST_F(SharedReports, OneThatHasWaitedAsksAgainWhetherThereIsAQueuedOne) {
    startHeldByKind();
    auto first = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(1));
    auto queued = verifyBeside(",RUNTIME");
    ASSERT_TRUE(service.waitForLog(",RUNTIME"));
    auto second = verifyBeside(",PCR_PID");
    ASSERT_TRUE(service.waitForLog(",PCR_PID"));
    std::ofstream(goShort) << "go";
    EXPECT_EQ(first.get(), "TRUE - 481");
    EXPECT_EQ(queued.get(), "TRUE");
    EXPECT_EQ(second.get(), "TRUE - 481");
    // Whose turn comes first is open; one that waits has its number before, a queued one when it is queued.
    const std::string log = service.log();
    const std::string command = "Launching Job command";
    const std::size_t launchOfQueued = log.rfind(command, log.find(" -out_queue_name /job_update_q_2 "));
    const std::size_t launchOfSecond = log.rfind(command, log.find(" -out_queue_name /job_update_q_1 "));
    ASSERT_NE(launchOfQueued, launchOfSecond);
    const std::string line = log.substr(launchOfSecond, log.find('\n', launchOfSecond) - launchOfSecond);
    EXPECT_EQ(line.find("/.kestrel-") != std::string::npos, launchOfQueued < launchOfSecond) << line;
    std::ofstream(goWhole) << "go";
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
    changeTheFile();
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 99");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    EXPECT_EQ(verify(",RUNTIME,BLOCK"), "TRUE - 00:00:02:00");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    EXPECT_THAT(ownDirectories(), IsEmpty());
    EXPECT_THAT(service.log(), Not(HasSubstr("Give each a GUID of its own")));
}

TEST_F(SharedReports, AnswersOfAWholeVerificationOutliveAShortOneThatFails) {
    start("--verify " + prepared);
    completeWholeVerification();
    std::filesystem::remove(prepared);
    EXPECT_EQ(verify(",VIDEO_PID"), NO_PROPERTY);
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    EXPECT_THAT(ownDirectories(), IsEmpty());
}

TEST_F(SharedReports, AnswersOfAWholeVerificationAreGivenWhileAShortOneRuns) {
    startHeldByKind();
    std::ofstream(goWhole) << "go";
    completeWholeVerification();
    changeTheFile();
    auto shortOne = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(1));
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    std::ofstream(goShort) << "go";
    EXPECT_EQ(shortOne.get(), "TRUE - 99");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
}

TEST_F(SharedReports, AWholeVerificationThatEndsBesideAShortOneKeepsItsReport) {
    startHeldByKind();
    ASSERT_EQ(verify(",RUNTIME"), "TRUE");
    auto shortOne = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(2));
    std::ofstream(goWhole) << "go";
    ASSERT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    changeTheFile();
    std::ofstream(goShort) << "go";
    EXPECT_EQ(shortOne.get(), "TRUE - 99");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    EXPECT_THAT(service.log(), Not(HasSubstr("Give each a GUID of its own")));
}

TEST_F(SharedReports, AWholeVerificationThatEndsAfterAShortOneKeepsItsReport) {
    startHeldByKind();
    ASSERT_EQ(verify(",RUNTIME"), "TRUE");
    std::ofstream(goShort) << "go";
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 481");
    EXPECT_FALSE(std::filesystem::exists(reportPath())) << "it has none yet";
    EXPECT_EQ(results(), NO_PROPERTY);
    changeTheFile();
    std::ofstream(goWhole) << "go";
    ASSERT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(results(), "TRUE - 00:00:02:00");
}

TEST_F(SharedReports, AWholeVerificationThatHasWrittenAndStillRunsKeepsItsReport) {
    start("--wait-whole " + goWhole + " --wait-short " + goShort + " --verify " + prepared +
          " --wait-whole " + go);
    const std::string written = contentOf(prepared);
    ASSERT_EQ(verify(",RUNTIME"), "TRUE");
    auto shortOne = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(2));
    std::ofstream(goWhole) << "go";
    ASSERT_TRUE(eventually([&] { return contentOf(reportPath()) == written; }));
    changeTheFile();
    std::ofstream(goShort) << "go";
    EXPECT_EQ(shortOne.get(), "TRUE - 99");
    EXPECT_EQ(contentOf(reportPath()), written);
    letGo();
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
}

TEST_F(SharedReports, BesideAWholeVerificationEachRequestHasADirectoryOfItsOwn) {
    startHeldByKind();
    ASSERT_EQ(verify(",RUNTIME"), "TRUE");
    auto one = verifyBeside(",VIDEO_PID");
    auto two = verifyBeside(",PCR_PID");
    ASSERT_TRUE(verifiersRunning(3)) << "they do not wait for one another";
    const auto directories = ownDirectories();
    ASSERT_EQ(directories.size(), 2U);
    for (const auto& directory : directories) {
        EXPECT_EQ(std::filesystem::status(directory).permissions(), std::filesystem::perms::owner_all);
        EXPECT_THAT(service.log(), HasSubstr("-report_dst " + directory.string() + "/ -report_name " + GUID +
                                             "-asset.ts.report.xml -duration 20 "));
    }
    std::ofstream(goShort) << "go";
    EXPECT_EQ(one.get(), "TRUE - 481");
    EXPECT_EQ(two.get(), "TRUE - 481");
    EXPECT_THAT(ownDirectories(), IsEmpty());
    std::ofstream(goWhole) << "go";
}

TEST_F(SharedReports, AnOwnDirectoryGoesAlsoWhenTheVerifierFallsSilent) {
    service.set("Job", "HEARTBEAT_TIMEOUT_SECS", "1");
    startHeldByKind();
    std::ofstream(goWhole) << "go";
    completeWholeVerification();
    EXPECT_EQ(verify(",VIDEO_PID"), "FALSE - Error: Timeout waiting for job to complete.");
    EXPECT_THAT(ownDirectories(), IsEmpty());
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    std::ofstream(goShort) << "go";
}

TEST_F(SharedReports, ResultsAreThoseOfTheOldReportUntilXmlHasANewOne) {
    startHeld();
    letGo();
    completeWholeVerification();
    std::filesystem::remove(go);
    changeTheFile();
    auto xml = verifyBeside(",ALL,XML");
    ASSERT_TRUE(verifiersRunning(1));
    ASSERT_EQ(ownDirectories().size(), 1U);
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    letGo();
    EXPECT_EQ(xml.get(), "TRUE - " + reportPath());
    EXPECT_EQ(results(), "TRUE - 00:00:02:00");
    EXPECT_THAT(ownDirectories(), IsEmpty());
}

TEST_F(SharedReports, NobodyWaitsForTheVerifierOfAnXmlRequest) {
    startHeldByKind();
    auto xml = verifyBeside(",ALL,XML");
    ASSERT_TRUE(verifiersRunning(1));
    auto second = verifyBeside(",ALL,XML");
    ASSERT_TRUE(verifiersRunning(2)) << "another";
    std::ofstream(goShort) << "go";
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 481") << "one without a queued verification";
    EXPECT_EQ(verify(",RUNTIME"), "TRUE") << "a queued one";
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 481") << "one beside it";
    EXPECT_TRUE(verifiersRunning(3));
    std::ofstream(goWhole) << "go";
    EXPECT_EQ(xml.get(), "TRUE - " + reportPath());
    EXPECT_EQ(second.get(), "TRUE - " + reportPath());
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
}

TEST_F(SharedReports, AReportForXmlDoesNotComeBetweenAVerifierAndItsAnswer) {
    startHeldByKind();
    auto shortOne = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(1));
    auto xml = verifyBeside(",ALL,XML");
    ASSERT_TRUE(verifiersRunning(2));
    std::ofstream(goWhole) << "go";
    ASSERT_TRUE(verifiersRunning(1));
    EXPECT_EQ(xml.wait_for(A_WHILE), std::future_status::timeout);
    EXPECT_FALSE(std::filesystem::exists(reportPath()));
    std::filesystem::remove(prepared);
    std::ofstream(goShort) << "go";
    EXPECT_EQ(shortOne.get(), NO_PROPERTY) << "its own verifier has failed";
    EXPECT_EQ(xml.get(), "TRUE - " + reportPath());
    EXPECT_EQ(contentOf(reportPath()), reportOf("481", "00:00:10:00"));
}

TEST_F(SharedReports, AnXmlRequestThatFailsLeavesTheReportOfAQueuedOne) {
    start("--verify " + prepared);
    completeWholeVerification();
    const std::string old = contentOf(reportPath());
    std::filesystem::remove(prepared);
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - " + reportPath());
    EXPECT_EQ(contentOf(reportPath()), old);
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    EXPECT_THAT(service.log(), Not(HasSubstr("Give each a GUID of its own"))) << "nothing was replaced";
    EXPECT_THAT(ownDirectories(), IsEmpty());
}

TEST_F(SharedReports, AnXmlRequestThatFailsLeavesTheReportOfTheOneBefore) {
    start("--verify " + prepared);
    ASSERT_EQ(verify(",ALL,XML"), "TRUE - " + reportPath());
    const std::string old = contentOf(reportPath());
    std::filesystem::remove(prepared);
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - " + reportPath());
    EXPECT_EQ(contentOf(reportPath()), old);
}

TEST_F(SharedReports, AnXmlRequestWhoseVerifierFallsSilentLeavesTheReportOfTheOneBefore) {
    service.set("Job", "HEARTBEAT_TIMEOUT_SECS", "1");
    startHeld();
    std::ofstream(reportPath()) << "old";
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - Error: Timeout waiting for job to complete.");
    EXPECT_EQ(contentOf(reportPath()), "old");
    EXPECT_THAT(ownDirectories(), IsEmpty());
    letGo();
}

TEST_F(SharedReports, AShutdownLeavesNothingOfAnXmlRequestWhoseVerifierRuns) {
    startHeld();
    std::ofstream(reportPath()) << "old";
    auto xml = verifyBeside(",ALL,XML");
    ASSERT_TRUE(verifiersRunning(1));
    ASSERT_EQ(ownDirectories().size(), 1U);
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_EQ(xml.get(), "FALSE - Error: Timeout waiting for job to complete.");
    EXPECT_EQ(contentOf(reportPath()), "old");
    EXPECT_THAT(ownDirectories(), IsEmpty());
    letGo();
}

TEST_F(SharedReports, AShutdownDoesNotCostTheReportOfAnXmlRequestWhoseVerifierHasEnded) {
    startHeldByKind();
    auto shortOne = verifyBeside(",VIDEO_PID");
    ASSERT_TRUE(verifiersRunning(1));
    auto xml = verifyBeside(",ALL,XML");
    ASSERT_TRUE(verifiersRunning(2));
    std::ofstream(goWhole) << "go";
    ASSERT_TRUE(service.waitForLog("Job process returned SUCCESS."));
    EXPECT_EQ(xml.wait_for(A_WHILE), std::future_status::timeout) << "the short one has its turn";
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_EQ(shortOne.get(), "FALSE - Error: Timeout waiting for job to complete.");
    EXPECT_EQ(xml.get(), "TRUE - " + reportPath());
    EXPECT_EQ(contentOf(reportPath()), contentOf(prepared));
    EXPECT_THAT(ownDirectories(), IsEmpty());
    std::ofstream(goShort) << "go";
}

// A GUID may have directories in it; the verifier is told the name behind them.
TEST_F(SharedReports, AGuidWithADirectoryInItDoesNotTouchTheReportOfAnother) {
    const std::filesystem::path reports = service.root() / "reports";
    std::filesystem::create_directory(reports);
    service.setVerifier("--verify " + prepared);
    service.set("Verifier", "REPORT_DIR", reports.string() + "/");
    service.start();
    const std::string old = contentOf(prepared);
    const auto ask = [&](const std::string& rest) {
        return service.ask("GET_MPEG_PROPERTIES,JOB_BEGIN," + rest);
    };
    const std::string others = reports / "x-asset.ts.report.xml";
    ASSERT_EQ(ask("x," + file + ",ALL,XML"), "TRUE - " + others);
    changeTheFile();
    EXPECT_EQ(ask("../x," + file + ",ALL,XML"), "TRUE - " + reports.string() + "/../x-asset.ts.report.xml");
    EXPECT_EQ(contentOf(others), old);
    EXPECT_EQ(contentOf(service.root() / "x-asset.ts.report.xml"), contentOf(prepared));
}

// Beside a queued one such a request has a directory of its own.
TEST_F(SharedReports, AGuidWithADirectoryInItIsNotAnsweredFromTheReportOfAnother) {
    const std::filesystem::path reports = service.root() / "reports";
    std::filesystem::create_directory(reports);
    service.setVerifier("--wait-whole " + goWhole + " --verify " + prepared);
    service.set("Verifier", "REPORT_DIR", reports.string() + "/");
    service.start();
    std::ofstream(reports / "x-asset.ts.report.xml") << reportOf("98", "00:00:01:00");
    const std::string request = "GET_MPEG_PROPERTIES,JOB_BEGIN,../x," + file;
    ASSERT_EQ(service.ask(request + ",RUNTIME"), "TRUE");
    EXPECT_EQ(service.ask(request + ",VIDEO_PID"), "TRUE - 481");
    std::ofstream(goWhole) << "go";
}

TEST_F(SharedReports, TheReportOfAFailedVerifierReplacesNone) {
    start("--verify " + prepared + " --exit 3");
    std::ofstream(reportPath()) << "old";
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - " + reportPath());
    EXPECT_EQ(contentOf(reportPath()), "old");
}

TEST_F(SharedReports, AQueuedOneThatFailsLeavesTheReportOfTheOneBefore) {
    start("--verify " + prepared);
    // Two GUIDs; only their first 32 characters are in the report's name.
    const std::string name = "01234567-89ab-cdef-0123-456789ab";
    const std::string begin = "GET_MPEG_PROPERTIES,JOB_BEGIN," + name;
    ASSERT_EQ(service.ask(begin + "0001," + file + ",RUNTIME"), "TRUE");
    ASSERT_EQ(service.waitForState((name + "0001").c_str(), "COMPLETE"), "TRUE - COMPLETE");
    const std::string report = (service.root() / (name + "-asset.ts.report.xml")).string();
    const std::string old = contentOf(report);
    ASSERT_THAT(old, HasSubstr("00:00:10:00"));
    std::filesystem::remove(prepared);
    ASSERT_EQ(service.ask(begin + "0002," + file + ",RUNTIME"), "TRUE");
    ASSERT_EQ(service.waitForState((name + "0002").c_str(), "ERROR"), "TRUE - ERROR");
    EXPECT_EQ(service.ask("JOB_RESULTS," + name + "0002"), NO_PROPERTY) << "not from the other's report";
    EXPECT_EQ(service.ask("JOB_RESULTS," + name + "0001"), "TRUE - 00:00:10:00");
    EXPECT_EQ(contentOf(report), old);
}

TEST_F(SharedReports, AQueuedOneThatRunsLeavesTheReportOfTheOneBefore) {
    startHeldByKind();
    std::ofstream(goWhole) << "go";
    completeWholeVerification();
    ASSERT_TRUE(verifiersRunning(0));
    std::filesystem::remove(goWhole);
    changeTheFile();
    ASSERT_EQ(verify(",RUNTIME"), "TRUE") << "of the same GUID";
    ASSERT_TRUE(verifiersRunning(1));
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
    std::ofstream(goWhole) << "go";
    ASSERT_TRUE(verifiersRunning(0));
    EXPECT_EQ(results(), "TRUE - 00:00:02:00") << "the new one has its place";
}

TEST_F(SharedReports, ForXmlTheNewReportIsWhatIsFound) {
    start("--verify " + prepared);
    completeWholeVerification();
    const std::string newReport = reportOf("99", "00:00:02:00");
    std::ofstream(prepared) << newReport;
    EXPECT_EQ(verify(",ALL,XML"), "TRUE - " + reportPath());
    EXPECT_EQ(contentOf(reportPath()), newReport);
    EXPECT_THAT(service.log(), HasSubstr("[Manager:Warning] Job 0 " + std::string(GUID) +
                                         " is a verification of this file (COMPLETE), and its report is that "
                                         "of this request too: " +
                                         reportPath() + ". Give each a GUID of its own.\r\n"));
    EXPECT_THAT(ownDirectories(), IsEmpty());
}

TEST_F(SharedReports, WithoutAWholeVerificationTheReportStays) {
    start("--verify " + prepared);
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 481");
    EXPECT_EQ(contentOf(reportPath()), contentOf(prepared));
}

} // namespace
