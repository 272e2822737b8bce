// Verifications over the protocol, with a verifier that does what the test says.
#include "system/verifier_requests.h"

#include <chrono>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

TEST_F(VerifierRequests, ASinglePropertyIsAnsweredAtOnceAndQueuesNothing) {
    start("--verify " + prepared);
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 481");
    EXPECT_EQ(verify(",IS_HD"), "TRUE - TRUE");
    EXPECT_EQ(service.ask(std::string("JOB_STATUS,") + GUID),
              std::string("FALSE - Error: Invalid job GUID ") + GUID + ".");
    EXPECT_THAT(service.log(),
                HasSubstr("-r xml -report_dst " + service.root().string() + "/ -report_name " + GUID +
                          "-asset.ts.report.xml -duration 20 -out_queue_name "
                          "/job_update_q_0 -in_queue_name /mgr_msg_q_0 -f " +
                          file));
}

TEST_F(VerifierRequests, TheDefaultIsAllInTheQueue) {
    start("--verify " + prepared);
    EXPECT_EQ(verify(""), "TRUE");
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_THAT(service.ask(std::string("JOB_RESULTS,") + GUID),
                StartsWith("TRUE - ENCODING=MPEG2\tRESOLUTION=1920x1080\tRUNTIME=00:00:10:00\t"));
    EXPECT_THAT(service.log(), Not(HasSubstr("-duration")));
}

TEST_F(VerifierRequests, AQueuedVerificationStaysQueuedWhileItsWorkerRuns) {
    const std::string go = service.root() / "go";
    start("--wait-file " + go + " --verify " + prepared);
    EXPECT_EQ(verify(",RUNTIME"), "TRUE");
    EXPECT_EQ(service.ask(std::string("JOB_STATUS,") + GUID), "TRUE - QUEUED");
    EXPECT_EQ(service.ask(std::string("JOB_RESULTS,") + GUID), NO_PROPERTY) << "no report yet";
    std::ofstream(go) << "go";
    service.waitForState(GUID, "COMPLETE");
    EXPECT_EQ(service.ask(std::string("JOB_RESULTS,") + GUID), "TRUE - 00:00:10:00");
}

TEST_F(VerifierRequests, AQueuedVerificationOfAGuidInUseIsLogged) {
    start("--verify " + prepared);
    EXPECT_EQ(verify(",RUNTIME"), "TRUE");
    EXPECT_THAT(service.log(), Not(HasSubstr("is that of job")));
    EXPECT_EQ(verify(",RUNTIME"), "TRUE");
    EXPECT_THAT(service.log(),
                HasSubstr(std::string("[Manager:Warning] GUID ") + GUID + " is that of job 0 ("));
}

TEST_F(VerifierRequests, ABlockingRequestWaitsForTheAnswer) {
    start("--sleep 200 --verify " + prepared);
    EXPECT_EQ(verify(",RUNTIME,BLOCK"), "TRUE - 00:00:10:00");
    EXPECT_EQ(verify(",VALIDATION_ERRORS,BLOCK,GOPLength_FPS24_12;GOPStructure_IBBP"), "TRUE");
    EXPECT_EQ(verify(",VALIDATION_ERRORS,BLOCK,GOPLength_FPS24_12"),
              "TRUE - The GOP structure must be IBBP.\t");
}

TEST_F(VerifierRequests, ForXmlTheAnswerIsTheReportsPath) {
    start("--verify " + prepared);
    EXPECT_EQ(verify(",ALL,XML"), "TRUE - " + reportPath());
    EXPECT_TRUE(std::filesystem::exists(reportPath()));
}

TEST_F(VerifierRequests, ForXmlTheAnswerIsTheReportsPathAlsoWhereTheWorkerFailed) {
    start("--say 7:unreadable --exit 1");
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - " + reportPath());
    EXPECT_FALSE(std::filesystem::exists(reportPath())) << "FALSE says that there need not be one";
    EXPECT_TRUE(
        service.waitForLog("[Manager:Error] Error: Failed to get requested Mpeg Property. unreadable\r\n"))
        << "the reason stands in the log";
}

TEST_F(VerifierRequests, ForXmlTheAnswerIsTheReportsPathAlsoWhereTheWorkerHasWrittenNone) {
    start("");
    EXPECT_EQ(verify(",ALL,XML"), "TRUE - " + reportPath());
    EXPECT_FALSE(std::filesystem::exists(reportPath()));
}

TEST_F(VerifierRequests, ForXmlAReportThatCannotBePutAtItsNameIsAFailure) {
    start("--verify " + prepared);
    std::filesystem::create_directory(reportPath());
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - " + reportPath());
    EXPECT_TRUE(service.waitForLog("[Manager:Error] Error: Failed to get requested Mpeg Property. The report "
                                   "cannot be renamed: errno 21 (Is a directory).\r\n"));
}

TEST_F(VerifierRequests, AnEmptyFifthFieldIsDroppedAndBlockIsNoProperty) {
    start("--verify " + prepared);
    EXPECT_EQ(verify(",,BLOCK"), "FALSE - Error: Invalid Mpeg Property.");
}

TEST_F(VerifierRequests, AFileThatIsNotThereIsNamed) {
    start("--verify " + prepared);
    std::filesystem::remove(file);
    EXPECT_EQ(verify(",VIDEO_PID"), "FALSE - Error: file " + file + " could not be found.");
}

TEST_F(VerifierRequests, WithoutAReportTheAnswerSaysSo) {
    start("");
    EXPECT_EQ(verify(",VIDEO_PID"), NO_PROPERTY);
    EXPECT_EQ(verify(",ALL,BLOCK"), NO_PROPERTY);
}

TEST_F(VerifierRequests, APropertyThatTheReportLacksFails) {
    start("--verify " + prepared);
    EXPECT_EQ(verify(",GOP_LENGTH"), NO_PROPERTY);
}

TEST_F(VerifierRequests, AWorkerThatFailedIsNeverAnsweredTrue) {
    start("--verify " + prepared + " --exit 3");
    EXPECT_EQ(verify(",VIDEO_PID"), "FALSE - 481");
    EXPECT_EQ(verify(",ALL"), "TRUE") << "begun";
    EXPECT_EQ(service.waitForState(GUID, "ERROR"), "TRUE - ERROR");
    EXPECT_THAT(results(), StartsWith("FALSE - ENCODING=MPEG2\tRESOLUTION=1920x1080\t"));
}

TEST_F(VerifierRequests, AQueuedVerificationThatFailedHasNotPassed) {
    start("--say 7:worn --verify " + prepared + " --exit 3");
    EXPECT_EQ(verify(",VALIDATION_ERRORS,NONE,GOPLength_FPS24_12;GOPStructure_IBBP"), "TRUE") << "begun";
    EXPECT_EQ(service.waitForState(GUID, "ERROR"), "TRUE - ERROR");
    EXPECT_EQ(results(), std::string(NO_PROPERTY) + " worn") << "there are no errors in its report";
    EXPECT_THAT(service.log(),
                HasSubstr("[Manager:Error] Error: Failed to get requested Mpeg Property. worn\r\n"));
}

TEST_F(VerifierRequests, ACancelledVerificationThatFailedHasNotPassed) {
    const std::string go = service.root() / "go";
    start("--wait-file " + go + " --say 7:worn --verify " + prepared + " --exit 3");
    EXPECT_EQ(verify(",VALIDATION_ERRORS,NONE,GOPLength_FPS24_12;GOPStructure_IBBP"), "TRUE") << "begun";
    EXPECT_EQ(service.ask(std::string("CAPTURE,JOB_ABORT,") + GUID), "TRUE");
    std::ofstream(go) << "go";
    EXPECT_TRUE(service.waitForLog("ended with exit code 3."));
    EXPECT_TRUE(eventually([&] { return service.children().empty(); }));
    EXPECT_EQ(service.ask(std::string("JOB_STATUS,") + GUID), "TRUE - CANCELLED");
    EXPECT_TRUE(eventually([&] { return results() == std::string(NO_PROPERTY) + " worn"; })) << results();
}

TEST_F(VerifierRequests, ACancelledVerificationThatRanToItsEndIsAnswered) {
    const std::string go = service.root() / "go";
    start("--wait-file " + go + " --say 7:done --verify " + prepared);
    EXPECT_EQ(verify(",RUNTIME"), "TRUE") << "begun";
    EXPECT_EQ(service.ask(std::string("CAPTURE,JOB_ABORT,") + GUID), "TRUE");
    std::ofstream(go) << "go";
    EXPECT_TRUE(service.waitForLog("Job process returned SUCCESS."));
    EXPECT_EQ(service.ask(std::string("JOB_STATUS,") + GUID), "TRUE - CANCELLED");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
}

TEST_F(VerifierRequests, AReportOfAnEarlierJobIsNotTakenForTheAnswer) {
    start("--say 7:unreadable --exit 1");
    std::filesystem::copy_file(prepared, reportPath());
    EXPECT_EQ(verify(",VIDEO_PID"), std::string(NO_PROPERTY) + " unreadable");
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - " + reportPath());
    EXPECT_EQ(verify(",RUNTIME"), "TRUE") << "begun";
    EXPECT_EQ(service.waitForState(GUID, "ERROR"), "TRUE - ERROR");
    EXPECT_EQ(results(), std::string(NO_PROPERTY) + " unreadable");
    EXPECT_EQ(contentOf(reportPath()), contentOf(prepared)) << "somebody may still want it";
}

TEST_F(VerifierRequests, AReportOfAnEarlierJobIsNotTakenForTheAnswerWhileTheVerifierRuns) {
    const std::string go = service.root() / "go";
    start("--wait-file " + go + " --verify " + prepared);
    std::ofstream(reportPath()) << reportOf("99", "00:00:02:00");
    EXPECT_EQ(verify(",RUNTIME"), "TRUE") << "begun";
    EXPECT_EQ(results(), NO_PROPERTY);
    std::ofstream(go) << "go";
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(results(), "TRUE - 00:00:10:00");
}

TEST_F(VerifierRequests, AVerifierThatWritesNothingIsNotAnsweredFromAnEarlierReport) {
    start("");
    std::filesystem::copy_file(prepared, reportPath());
    EXPECT_EQ(verify(",VIDEO_PID"), NO_PROPERTY);
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - " + reportPath());
    EXPECT_TRUE(
        service.waitForLog("[Manager:Error] Error: Failed to get requested Mpeg Property. The verifier "
                           "has written no report; what is there is of an earlier job.\r\n"));
    EXPECT_EQ(verify(",RUNTIME"), "TRUE") << "begun";
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(results(), NO_PROPERTY);
    EXPECT_EQ(verify(",ALL,XML"), "FALSE - " + reportPath()) << "beside a queued one";
    EXPECT_THAT(service.log(), Not(HasSubstr("Give each a GUID of its own"))) << "nothing was replaced";
    EXPECT_EQ(contentOf(reportPath()), contentOf(prepared));
}

TEST_F(VerifierRequests, AFailedWorkerWithoutValidationErrorsSaysWhy) {
    start("--say 7:worn --verify " + prepared + " --exit 3");
    EXPECT_EQ(verify(",VALIDATION_ERRORS,BLOCK,GOPLength_FPS24_12;GOPStructure_IBBP"),
              std::string(NO_PROPERTY) + " worn");
}

TEST_F(VerifierRequests, FailuresAreLogged) {
    service.set("Job", "HEARTBEAT_TIMEOUT_SECS", "1");
    const std::string go = service.root() / "go";
    start("--wait-file " + go);
    EXPECT_EQ(verify(",VIDEO_PID"), "FALSE - Error: Timeout waiting for job to complete.");
    EXPECT_TRUE(service.waitForLog("[Manager:Error] Error: Timeout waiting for job to complete."));
    std::ofstream(go) << "go";
    std::filesystem::remove(file);
    verify(",VIDEO_PID");
    EXPECT_TRUE(service.waitForLog("[JobMgmt:Error] Error: file " + file + " could not be found."));
}

TEST_F(VerifierRequests, TheWorkersReasonReachesTheClient) {
    start("--say 7:unreadable --exit 1");
    EXPECT_EQ(verify(",VIDEO_PID"), std::string(NO_PROPERTY) + " unreadable");
}

TEST_F(VerifierRequests, AVerifierThatIsNotThereFails) {
    service.set("Verifier", "EXE", "/no/such/verifier");
    service.start();
    EXPECT_EQ(verify(",VIDEO_PID"), std::string(NO_PROPERTY) +
                                        " Error: Could not run /no/such/verifier: errno 2 "
                                        "(No such file or directory).");
    EXPECT_THAT(service.log(), HasSubstr("exited with code 255"));
}

TEST_F(VerifierRequests, ASilentVerifierIsATimeout) {
    service.set("Job", "HEARTBEAT_TIMEOUT_SECS", "1");
    const std::string go = service.root() / "go";
    start("--wait-file " + go + " --verify " + prepared);
    EXPECT_EQ(verify(",VIDEO_PID"), "FALSE - Error: Timeout waiting for job to complete.");
    EXPECT_TRUE(service.waitForLog("[Manager:Error] Error: Timeout waiting for job to complete.\r\n"));
    std::ofstream(go) << "go";
}

TEST_F(VerifierRequests, AShutdownDoesNotWaitForAVerification) {
    const std::string go = service.root() / "go";
    start("--wait-file " + go + " --verify " + prepared);
    auto answer = std::async(std::launch::async, [&] { return verify(",VIDEO_PID"); });
    ASSERT_TRUE(service.waitForLog("Launching Job command"));
    const Ended ended = service.stop();
    EXPECT_EQ(ended.code, 0);
    EXPECT_EQ(answer.get(), "FALSE - Error: Timeout waiting for job to complete.");
    std::ofstream(go) << "go";
}

TEST_F(VerifierRequests, OtherClientsAreServedWhileOneWaits) {
    const std::string go = service.root() / "go";
    start("--wait-file " + go + " --verify " + prepared);
    auto answer = std::async(std::launch::async, [&] { return verify(",VIDEO_PID"); });
    ASSERT_TRUE(service.waitForLog("Launching Job command"));
    EXPECT_EQ(service.ask("PING_SERVICE"), "TRUE - ALIVE");
    std::ofstream(go) << "go";
    EXPECT_EQ(answer.get(), "TRUE - 481");
}

TEST_F(VerifierRequests, AVerificationHasNoLog) {
    start("--verify " + prepared);
    verify(",ALL");
    service.waitForState(GUID, "COMPLETE");
    const std::string expected = std::string("FALSE - Error: Invalid job GUID ") + GUID + ".";
    EXPECT_EQ(service.ask(std::string("CAPTURE,JOB_LOGFILENAME,") + GUID), expected);
    EXPECT_EQ(service.ask(std::string("CAPTURE,JOB_LAST_LOG_ENTRIES,") + GUID), expected);
}

} // namespace
