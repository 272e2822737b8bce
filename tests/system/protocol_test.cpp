// The real service over TCP: request words, their answers and the limits of a line.
#include "system/service_under_test.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class Protocol : public testing::Test {
protected:
    void SetUp() override { service.start(); }
    ServiceUnderTest service;
};

TEST_F(Protocol, PingAnswersAlive) {
    EXPECT_EQ(service.ask("PING_SERVICE"), "TRUE - ALIVE");
}

TEST_F(Protocol, LineEndsAndBlanksAroundALineAreCut) {
    EXPECT_EQ(service.ask(" \t PING_SERVICE \r\n"), "TRUE - ALIVE");
}

TEST_F(Protocol, WordsAreCaseSensitive) {
    EXPECT_EQ(service.ask("ping_service"), "FALSE - Unknown message type ping_service");
}

TEST_F(Protocol, AnEmptyLineHasNoType) {
    EXPECT_EQ(service.ask("\r\n"), "FALSE - No type or arguments specified");
    EXPECT_EQ(service.ask(",,,"), "FALSE - No type or arguments specified");
}

TEST_F(Protocol, StatusAndResultsNeedAGuid) {
    EXPECT_EQ(service.ask("JOB_STATUS"), "FALSE - Invalid Job Status Request.  Expected Job GUID.");
    EXPECT_EQ(service.ask("JOB_RESULTS"), "FALSE - Invalid Job Results Request.  Expected Job GUID.");
}

TEST_F(Protocol, AnUnknownGuidIsNamed) {
    EXPECT_EQ(service.ask("JOB_STATUS,beef"), "FALSE - Error: Invalid job GUID beef.");
    EXPECT_EQ(service.ask("JOB_RESULTS,beef"), "FALSE - Error: Invalid job GUID beef.");
    EXPECT_EQ(service.ask("CAPTURE,JOB_ABORT,beef"), "FALSE - Error: Invalid job GUID beef.");
    EXPECT_EQ(service.ask("CAPTURE,JOB_LOGFILENAME,beef"), "FALSE - Error: Invalid job GUID beef.");
    EXPECT_EQ(service.ask("CAPTURE,JOB_LAST_LOG_ENTRIES,beef"), "FALSE - Error: Invalid job GUID beef.");
}

TEST_F(Protocol, ACaptureNeedsACommandAndAGuid) {
    EXPECT_EQ(service.ask("CAPTURE"), "FALSE - Invalid Capture Request.  Expected cmdType, GUID.");
    EXPECT_EQ(service.ask("CAPTURE,JOB_BEGIN"), "FALSE - Invalid Capture Request.  Expected cmdType, GUID.");
    EXPECT_EQ(service.ask("CAPTURE,JOB_BEGIN,1"),
              "FALSE - Invalid Capture Request.  Expected cmdType, GUID, captureJobType, args.");
    EXPECT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,CAPTURE_TAPE_JOB"),
              "FALSE - Invalid Capture Job Type CAPTURE_TAPE_JOB in Capture Request");
}

TEST_F(Protocol, JobTypesThatCaptureCannotMakeAreRefused) {
    EXPECT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,VERIFIER_JOB,Filename=x"),
              "FALSE - Error: Invalid Job Type 9.");
    EXPECT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,COMBINER_JOB,Filename=x"),
              "FALSE - Error: Invalid Job Type 8.");
}

TEST_F(Protocol, AnUnknownCommandTypeIsHandledLikeAValidationWithoutAJobType) {
    EXPECT_EQ(service.ask("CAPTURE,JOB_PAUSE,1"), "FALSE - Error: Invalid Job Type 10.");
}

TEST_F(Protocol, StatusAndResultsOfTheCaptureRequestAreNotAnswered) {
    EXPECT_EQ(service.ask("CAPTURE,JOB_STATUS,1"), "FALSE - Error: Invalid Job Type 10.");
    EXPECT_EQ(service.ask("CAPTURE,JOB_RESULTS,1"), "FALSE - Error: Invalid Job Type 10.");
}

TEST_F(Protocol, DeckRequestsCheckTheirArguments) {
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME"), "FALSE - Invalid VTR Request.  Port argument not specified");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0"), "FALSE - Invalid VTR Request.  Not enough arguments supplied");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Eject"), "FALSE - Invalid VTR Cmd Eject");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,Shuttle"),
              "FALSE - Invalid VTR Shuttle Request.  Speed argument not supplied");
    EXPECT_EQ(service.ask("VTR_CMD,COM1,0,GoTo,0"),
              "FALSE - Invalid VTR GoTo Request.  Timecode not supplied");
    EXPECT_EQ(service.ask("VTR_STATUS,COM1"), "FALSE - ");
}

TEST_F(Protocol, VerifierRequestsNeedAFile) {
    EXPECT_EQ(service.ask("GET_MPEG_PROPERTIES,JOB_BEGIN,1"),
              "FALSE - Invalid Verifier Request.  Expected cmdType, GUID, filename.");
}

TEST_F(Protocol, MoreThanFiftyArgumentsAreRefusedWithTheBound) {
    std::string line = "JOB_STATUS";
    for (int i = 0; i < 50; ++i)
        line += ",a";
    const std::string answer = service.ask(line);
    EXPECT_THAT(answer, StartsWith("FALSE - "));
    EXPECT_THAT(answer, HasSubstr("50"));
}

TEST_F(Protocol, AnArgumentOfThreeHundredBytesIsRefusedWithTheBound) {
    const std::string answer = service.ask("JOB_STATUS," + std::string(300, 'a'));
    EXPECT_THAT(answer, StartsWith("FALSE - "));
    EXPECT_THAT(answer, HasSubstr("300"));
    EXPECT_THAT(service.ask("JOB_STATUS," + std::string(299, 'a')),
                StartsWith("FALSE - Error: Invalid job GUID aaa"));
}

TEST_F(Protocol, ARequestInTwoSegmentsIsTwoRequests) {
    const Connection connection(service.port());
    ASSERT_TRUE(connection.send("PING_"));
    // The first part alone is parsed, answered, and the connection closed.
    EXPECT_EQ(connection.receiveAll(5s), "FALSE - Unknown message type PING_\n");
}

TEST_F(Protocol, TwoLinesInOneSegmentAreOneRequest) {
    EXPECT_EQ(service.ask("PING_SERVICE\nPING_SERVICE\n"),
              "FALSE - Unknown message type PING_SERVICE PING_SERVICE");
}

TEST_F(Protocol, ALineEndInsideARequestForgesNoSecondAnswer) {
    EXPECT_EQ(service.ask("JOB_STATUS,beef\r\nTRUE - COMPLETE\r\n"),
              "FALSE - Error: Invalid job GUID beef  TRUE - COMPLETE.");
    EXPECT_THAT(service.log(), HasSubstr("Received from socket: JOB_STATUS,beef\r\nTRUE - COMPLETE\r\n"))
        << "the log has what came, as it came";
}

TEST_F(Protocol, TheConnectionIsClosedAfterTheAnswer) {
    const Connection connection(service.port());
    ASSERT_TRUE(connection.send("PING_SERVICE"));
    EXPECT_EQ(connection.receiveAll(5s), "TRUE - ALIVE\n");
    connection.send("PING_SERVICE");
    EXPECT_EQ(connection.receiveAll(1s), "");
}

TEST_F(Protocol, ALineOfMoreThanTwoThousandBytesDoesNoHarm) {
    service.ask(std::string(100'000, 'x'));
    EXPECT_EQ(service.ask("PING_SERVICE"), "TRUE - ALIVE");
}

TEST_F(Protocol, BytesThatAreNoTextDoNoHarm) {
    std::string noise;
    for (int i = 0; i < 2'000; ++i)
        noise.push_back(static_cast<char>(i * 37 + i / 256));
    service.ask(noise);
    service.ask(std::string(1'999, '"'));
    service.ask(std::string(1'999, ','));
    EXPECT_EQ(service.ask("PING_SERVICE"), "TRUE - ALIVE");
}

TEST_F(Protocol, ManyClientsThatGoAwayAtOnceLeaveNoDescriptor) {
    service.ask("PING_SERVICE");
    const std::size_t before = service.descriptors();
    for (int i = 0; i < 50; ++i) {
        const Connection connection(service.port());
        connection.send("PING_SERVICE");
    }
    EXPECT_TRUE(eventually([&] { return service.descriptors() <= before; }));
    EXPECT_EQ(service.ask("PING_SERVICE"), "TRUE - ALIVE");
}

TEST(ProtocolSlots, AClientWaitsWhileAllSlotsAreBusyAndIsServedWhenOneFrees) {
    ServiceUnderTest service;
    service.set("WebServicesComm", "NUMBER_OF_SIMULTANEOUS_HANDLES", "1");
    service.start();
    auto silent = std::make_unique<Connection>(service.port());
    ASSERT_TRUE(silent->connected());
    ASSERT_TRUE(service.waitForLog("Number of handles: 1"));

    const Connection waiting(service.port());
    ASSERT_TRUE(waiting.connected());
    ASSERT_TRUE(waiting.send("PING_SERVICE"));
    EXPECT_EQ(waiting.receiveAll(500ms), "");
    silent.reset();
    EXPECT_EQ(waiting.receiveAll(5s), "TRUE - ALIVE\n");
}

} // namespace
