// From a request line to the answer line.
#include "foundation/StringUtil.h"
#include "jobs/CaptureJob.h"
#include "service/CMessageProcessor.h"
#include "service/RequestMessages.h"
#include "service_directories.h"

#include <gmock/gmock.h>
#include <thread>
#include <vector>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr const char* GOOD_FIELDS = "CAPTURE_MANUAL_JOB,Filename=a,EncoderIp=127.0.0.1";

class MessageProcessorTest : public ServiceDirectories {
protected:
    std::string answer(const std::string& line, int size = 2000) {
        std::vector<char> out(static_cast<std::size_t>(size) + 1, 'x');
        std::string copy = line;
        EXPECT_TRUE(processor.process(copy.data(), out.data(), size));
        EXPECT_EQ(out.back(), 'x') << "nothing is written behind the buffer";
        if (size == 0)
            return "";
        return out.data();
    }

    CaptureJob* queuedJob() {
        CaptureJob* const job =
            CManagerLib::GetInstance()->jobQueue().AddCaptureManualJob(CaptureManualJob());
        job->setGuid("cafe");
        job->setLogDir(root + "jobs-");
        return job;
    }

    CMessageProcessor processor;
};

TEST_F(MessageProcessorTest, AnswersAreTrueOrFalseWithTheText) {
    EXPECT_EQ(answer("PING_SERVICE"), "TRUE - ALIVE");
    EXPECT_EQ(answer("STOP_SERVICE"), "TRUE - Shutdown Signalled to Kestrel Manager Service");
    EXPECT_EQ(answer("JOB_STATUS,12"), "FALSE - Error: Invalid job GUID 12.");
    EXPECT_EQ(answer("VTR_STATUS,COM1"), "FALSE - ") << "a refusal without a text";
    EXPECT_EQ(answer(std::string("CAPTURE,JOB_VALIDATE,1,") + GOOD_FIELDS), "TRUE") << "without a text";
    EXPECT_EQ(answer("ping_service"), "FALSE - Unknown message type ping_service");
}

TEST_F(MessageProcessorTest, WithoutAnArgumentThereIsNoType) {
    for (const char* line : {"", ",", ",,,,"})
        EXPECT_EQ(answer(line), "FALSE - No type or arguments specified") << line;
    char response[100];
    EXPECT_TRUE(processor.process(nullptr, response, sizeof response));
    EXPECT_STREQ(response, "FALSE - No type or arguments specified");
}

TEST_F(MessageProcessorTest, AnswersAreCutAtTheBuffersSize) {
    for (const std::string& line : std::vector<std::string>{"PING_SERVICE", "WHAT", "VTR_STATUS,COM1", ""}) {
        const std::string whole = answer(line);
        for (int size = 1; size < 40; ++size)
            EXPECT_EQ(answer(line, size), whole.substr(0, static_cast<std::size_t>(size) - 1)) << size;
    }
}

TEST_F(MessageProcessorTest, ABufferWithoutRoomIsNotTouched) {
    const CapturedLog lines;
    EXPECT_EQ(answer("PING_SERVICE", 0), "");
    EXPECT_THAT(lines.text(), HasSubstr("CMessageProcessor::process done with response: \r\n")) << "nor read";
    std::string line = "PING_SERVICE";
    char untouched = 'x';
    EXPECT_TRUE(processor.process(line.data(), &untouched, -1));
    EXPECT_EQ(untouched, 'x');
    EXPECT_TRUE(processor.process(line.data(), nullptr, 0));
}

TEST_F(MessageProcessorTest, ALongAnswerFillsTheBufferAndNoMore) {
    std::ofstream(queuedJob()->getLogFilename()) << std::string(5'000, 'l');
    EXPECT_EQ(answer("CAPTURE,JOB_LAST_LOG_ENTRIES,cafe"), "TRUE - " + std::string(1'992, 'l'));
}

TEST_F(MessageProcessorTest, EmptyArgumentsAreDroppedAndLaterOnesMoveForward) {
    EXPECT_EQ(answer("JOB_STATUS,,,ab"), "FALSE - Error: Invalid job GUID ab.");
    EXPECT_EQ(answer(",PING_SERVICE,"), "TRUE - ALIVE");
    EXPECT_EQ(answer("JOB_STATUS,"), "FALSE - Invalid Job Status Request.  Expected Job GUID.");
    EXPECT_EQ(answer("VTR_CMD,COM1,,Play"), "FALSE - Invalid VTR Request.  Not enough arguments supplied");
}

TEST_F(MessageProcessorTest, QuotesKeepCommasAndAreRemoved) {
    EXPECT_EQ(answer("JOB_STATUS,\"a,b\""), "FALSE - Error: Invalid job GUID a,b.");
    EXPECT_EQ(answer("\"PING_SERVICE\""), "TRUE - ALIVE");
    EXPECT_EQ(answer("JOB_STATUS,\"\""), "FALSE - Error: Invalid job GUID .") << "an empty argument";
    EXPECT_EQ(answer("VTR_CMD,COM1,\"\",Stop"), "FALSE - Invalid VTR Cmd Stop") << "it keeps its place";
    EXPECT_EQ(answer("JOB_STATUS,\"ab"), "FALSE - Error: Invalid job GUID \"ab.")
        << "a quote without a partner is a character";
}

TEST_F(MessageProcessorTest, BlanksBelongToTheArgument) {
    EXPECT_EQ(answer("JOB_STATUS, ab"), "FALSE - Error: Invalid job GUID  ab.");
    EXPECT_EQ(answer("JOB_STATUS,ab ,x"), "FALSE - Error: Invalid job GUID ab .");
    EXPECT_EQ(answer(" PING_SERVICE"), "FALSE - Unknown message type  PING_SERVICE");
    EXPECT_EQ(answer("PING SERVICE"), "FALSE - Unknown message type PING SERVICE");
}

TEST_F(MessageProcessorTest, FiftyArgumentsAreTakenAndOneMoreIsRefused) {
    std::string line = "PING_SERVICE";
    for (int i = 1; i < 50; ++i)
        line += ",a";
    EXPECT_EQ(answer(line + ",,"), "TRUE - ALIVE") << "empty ones do not count";
    EXPECT_EQ(answer(line + ",a"), "FALSE - Too many arguments: 51 given, at most 50 are taken.");
    for (int i = 0; i < 900; ++i)
        line += ",a";
    EXPECT_EQ(answer(line), "FALSE - Too many arguments: 950 given, at most 50 are taken.");
}

TEST_F(MessageProcessorTest, AnArgumentOfTwoHundredAndNinetyNineBytesIsTakenAndOneMoreIsRefused) {
    EXPECT_EQ(answer("PING_SERVICE," + std::string(299, 'g')), "TRUE - ALIVE");
    EXPECT_EQ(answer("PING_SERVICE," + std::string(300, 'g')),
              "FALSE - Argument 1 is too long: 300 bytes given, it must be shorter than 300: " +
                  std::string(40, 'g') + "...");
    EXPECT_THAT(answer(std::string(1'999, 'w')), StartsWith("FALSE - Argument 0 is too long: 1999 bytes"));
    EXPECT_THAT(answer("PING_SERVICE,\"" + std::string(300, 'q') + "\""),
                StartsWith("FALSE - Argument 1 is too long: 300 bytes"));
}

TEST_F(MessageProcessorTest, TheFirstLongArgumentIsNamed) {
    EXPECT_THAT(answer("CAPTURE,JOB_BEGIN,1," + std::string(310, 'a') + "," + std::string(320, 'b')),
                StartsWith("FALSE - Argument 3 is too long: 310 bytes"));
}

TEST_F(MessageProcessorTest, ControlCharactersOfARequestAreBlanksInTheAnswer) {
    EXPECT_EQ(answer("FOO\r\nTRUE - ALIVE"), "FALSE - Unknown message type FOO  TRUE - ALIVE");
    EXPECT_EQ(answer("JOB_STATUS,be\x1b[2J\x7f\xc3\xa4\tef"),
              "FALSE - Error: Invalid job GUID be [2J \xc3\xa4\tef.")
        << "a tab stays, and so do bytes of other alphabets";
}

TEST_F(MessageProcessorTest, WhatAWorkerSaidIsOneLine) {
    queuedJob()->setResults("first\nsecond\r\n");
    EXPECT_EQ(answer("JOB_RESULTS,cafe"), "TRUE - first second  ");
}

TEST_F(MessageProcessorTest, AFormatInARequestIsAText) {
    EXPECT_EQ(answer("%s%n%d"), "FALSE - Unknown message type %s%n%d");
    EXPECT_EQ(answer("JOB_STATUS,%s%n"), "FALSE - Error: Invalid job GUID %s%n.");
}

TEST_F(MessageProcessorTest, ADroppedModeFieldMakesBlockTheProperty) {
    // "GET_MPEG_PROPERTIES,JOB_BEGIN,guid,file,,BLOCK": see the arguments it comes to.
    writeProfile("<P/>");
    EXPECT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,guid," + profilePath() + ",,BLOCK"),
              "FALSE - Error: Invalid Mpeg Property.");
    const kestrel::ArgumentSplit split =
        kestrel::splitArguments("GET_MPEG_PROPERTIES,JOB_BEGIN,guid,file,,BLOCK", ",");
    ASSERT_EQ(split.arguments.size(), 5U);
    char args[50][300] = {};
    for (std::size_t i = 0; i < split.arguments.size(); ++i)
        kestrel::copyText(args[i], split.arguments[i]);
    const VerifierRequest request(args, 5);
    EXPECT_STREQ(request.propertyName, "BLOCK");
    EXPECT_FALSE(request.blocking);
}

TEST_F(MessageProcessorTest, ValidationAnswersTheJobsOwnTextAndQueuesNothing) {
    EXPECT_EQ(answer(std::string("CAPTURE,JOB_VALIDATE,cafe,") + GOOD_FIELDS), "TRUE");
    EXPECT_EQ(answer("CAPTURE,JOB_VALIDATE,cafe,CAPTURE_MANUAL_JOB"),
              "FALSE - Error: Cannot add job - No output filename specified.");
    EXPECT_EQ(answer("JOB_STATUS,cafe"), "FALSE - Error: Invalid job GUID cafe.");
    EXPECT_TRUE(CManagerLib::GetInstance()->jobQueue().jobs.empty());
}

TEST_F(MessageProcessorTest, TypesThatAreNoCaptureAreRefusedWithTheirNumber) {
    EXPECT_EQ(answer("CAPTURE,JOB_BEGIN,cafe,COMBINER_JOB"), "FALSE - Error: Invalid Job Type 8.");
    EXPECT_EQ(answer("CAPTURE,JOB_BEGIN,cafe,VERIFIER_JOB"), "FALSE - Error: Invalid Job Type 9.");
    // These are handled like a validation, and have no job type.
    for (const std::string& word : std::vector<std::string>{"JOB_STATUS", "JOB_RESULTS", "JOB_PAUSE"})
        EXPECT_EQ(answer("CAPTURE," + word + ",cafe"), "FALSE - Error: Invalid Job Type 10.");
    EXPECT_TRUE(CManagerLib::GetInstance()->jobQueue().jobs.empty());
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Error: Invalid Job Type 9."));
}

TEST_F(MessageProcessorTest, ARefusedCaptureLeavesNothingBehind) {
    EXPECT_EQ(answer("CAPTURE,JOB_BEGIN,cafe,CAPTURE_MANUAL_JOB,EncoderIp=127.0.0.1"),
              "FALSE - Error: Cannot add job - No output filename specified.");
    EXPECT_TRUE(CManagerLib::GetInstance()->jobQueue().jobs.empty());
}

TEST_F(MessageProcessorTest, AQueuedJobAnswersItsStateAndResults) {
    CaptureJob* const job = queuedJob();
    for (int state = 0; state < 6; ++state) {
        job->setState(static_cast<Job::JobState>(state));
        EXPECT_EQ(answer("JOB_STATUS,cafe"), std::string("TRUE - ") + Job::JobStateStr[state]);
    }
    EXPECT_EQ(answer("JOB_RESULTS,cafe"), "TRUE");
    job->setResults("recorded");
    EXPECT_EQ(answer("JOB_RESULTS,cafe"), "TRUE - recorded");
    EXPECT_EQ(answer("CAPTURE,JOB_LOGFILENAME,cafe"), std::string("TRUE - ") + job->getLogFilename());
    job->setState(Job::QUEUED);
    EXPECT_EQ(answer("CAPTURE,JOB_ABORT,cafe"), "TRUE");
    EXPECT_EQ(answer("JOB_STATUS,cafe"), "TRUE - CANCELLED");
}

TEST_F(MessageProcessorTest, EachLineIsLogged) {
    const CapturedLog lines;
    answer("PING_SERVICE");
    answer("WHAT");
    EXPECT_EQ(lines.text(),
              "[CMessageProcessor:Debug] CMessageProcessor::process - Entered\r\n"
              "[CMessageProcessor:Info] CMessageProcessor::process done with response: TRUE - ALIVE\r\n"
              "[CMessageProcessor:Debug] CMessageProcessor::process - Entered\r\n"
              "[CMessageProcessor:Debug] Error processing request: Unknown message type WHAT\r\n"
              "[CMessageProcessor:Info] CMessageProcessor::process done with response: FALSE - Unknown "
              "message type WHAT\r\n");
}

TEST_F(MessageProcessorTest, AnyLineCutAnywhereGetsAnAnswer) {
    CManagerLib::GetInstance();
    for (const std::string& whole : {std::string("CAPTURE,JOB_VALIDATE,cafe,") + GOOD_FIELDS,
                                     std::string("VTR_CMD,\"COM,1\",0,Eject,0,x"),
                                     std::string("GET_MPEG_PROPERTIES,JOB_BEGIN,1,/f,QUICK,XML,a;b"),
                                     std::string("\xff\xfe\x01,\"\x80,\"\",,\"")})
        for (std::size_t length = 0; length <= whole.size(); ++length) // none asks a deck
            EXPECT_THAT(answer(whole.substr(0, length)),
                        testing::AnyOf(StartsWith("TRUE"), StartsWith("FALSE - ")));
}

TEST_F(MessageProcessorTest, ConnectionsAreServedAtTheSameTime) {
    queuedJob()->setState(Job::QUEUED);
    const auto serve = [] {
        CMessageProcessor own;
        for (int i = 0; i < 100; ++i) {
            for (const char* text : {"JOB_STATUS,cafe", "JOB_RESULTS,beef", "PING_SERVICE",
                                     "CAPTURE,JOB_VALIDATE,1,CAPTURE_MANUAL_JOB,Filename=a"}) {
                std::string line = text;
                char response[2000];
                EXPECT_TRUE(own.process(line.data(), response, sizeof response));
                EXPECT_EQ(std::string(response).starts_with("TRUE"),
                          std::string(text).ends_with("cafe") || line == "PING_SERVICE");
            }
        }
    };
    std::vector<std::thread> connections;
    for (int i = 0; i < 4; ++i)
        connections.emplace_back(serve);
    for (std::thread& connection : connections)
        connection.join();
}

} // namespace
