// Request objects: words, arguments, checks; and the answer line.
#include "service/CMessageProcessor.h"
#include "service/RequestMessages.h"
#include "service_directories.h"

#include "jobs/Job.h"

#include <cstring>
#include <gmock/gmock.h>
#include <memory>
#include <vector>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::unique_ptr<Message> request(const std::vector<std::string>& words) {
    static char args[50][300];
    std::memset(args, 0, sizeof args);
    for (std::size_t i = 0; i < words.size(); ++i)
        kestrel::copyText(args[i], words[i]);
    return std::unique_ptr<Message>(Message::createRequestMessage(args, static_cast<int>(words.size())));
}

template <typename Request>
Request& as(const std::unique_ptr<Message>& message) {
    return dynamic_cast<Request&>(*message);
}

TEST(Messages, EveryWordMakesItsType) {
    const char* const words[] = {
        "PING_SERVICE", "STOP_SERVICE",        "VTR_CMD", "VTR_SEEKING", "VTR_CURRENT_TIME",
        "VTR_STATUS",   "GET_MPEG_PROPERTIES", "CAPTURE", "JOB_STATUS",  "JOB_RESULTS"};
    for (int type = 0; type < 10; ++type)
        EXPECT_EQ(request({words[type]})->messageType, type) << words[type];
    EXPECT_EQ(request({"ping_service"})->messageType, Message::INVALID_MESSAGE);
    EXPECT_STREQ(request({"ping_service"})->errorText, "Unknown message type ping_service");
    EXPECT_STREQ(request({})->errorText, "No type or arguments specified");
}

TEST(Messages, CommandTypesHaveTheirIndex) {
    const char* const words[] = {"JOB_BEGIN",   "JOB_VALIDATE",    "JOB_ABORT",           "JOB_STATUS",
                                 "JOB_RESULTS", "JOB_LOGFILENAME", "JOB_LAST_LOG_ENTRIES"};
    for (int type = 0; type < 7; ++type) {
        EXPECT_STREQ(Message::RequestTypeStr[type], words[type]);
        EXPECT_EQ(Message::getRequestType(words[type]), type);
    }
    EXPECT_EQ(Message::getRequestType("job_begin"), -1);
}

TEST(Messages, AnInvalidMessageIsNeverCarriedOut) {
    const std::unique_ptr<Message> message(Message::invalidMessage("because"));
    EXPECT_FALSE(message->isValid());
    EXPECT_FALSE(message->process());
    EXPECT_STREQ(message->errorText, "because");
}

TEST(CaptureRequests, TakeCommandGuidTypeAndFields) {
    const auto message =
        request({"CAPTURE", "JOB_BEGIN", "cafe", "CAPTURE_TIMED_JOB", "Filename=a", "Duration=b"});
    const CaptureRequest& capture = as<CaptureRequest>(message);
    EXPECT_TRUE(message->isValid());
    EXPECT_EQ(capture.requestType, Message::JOB_BEGIN);
    EXPECT_STREQ(capture.guid, "cafe");
    EXPECT_EQ(capture.captureJobType, Job::CAPTURE_TIMED_JOB);
    ASSERT_EQ(capture.inputFields.size(), 2U);
    EXPECT_STREQ(capture.inputFields[0].name, "Filename");
    EXPECT_STREQ(capture.inputFields[1].currValue, "b");
}

TEST(CaptureRequests, CheckTheirArgumentsInOrder) {
    EXPECT_STREQ(request({"CAPTURE", "JOB_BEGIN"})->errorText,
                 "Invalid Capture Request.  Expected cmdType, GUID.");
    EXPECT_STREQ(request({"CAPTURE", "JOB_VALIDATE", "1"})->errorText,
                 "Invalid Capture Request.  Expected cmdType, GUID, captureJobType, args.");
    EXPECT_STREQ(request({"CAPTURE", "JOB_BEGIN", "1", "NONE"})->errorText,
                 "Invalid Capture Job Type NONE in Capture Request");
}

TEST(CaptureRequests, OtherCommandsStopAtTheGuid) {
    for (const char* word :
         {"JOB_ABORT", "JOB_STATUS", "JOB_RESULTS", "JOB_LOGFILENAME", "JOB_LAST_LOG_ENTRIES"}) {
        const auto message = request({"CAPTURE", word, "cafe"});
        EXPECT_TRUE(message->isValid()) << word;
        EXPECT_EQ(as<CaptureRequest>(message).captureJobType, Job::NONE);
    }
    const auto unknown = request({"CAPTURE", "JOB_PAUSE", "cafe"});
    EXPECT_TRUE(unknown->isValid()) << "an unknown word passes the check";
    EXPECT_EQ(unknown->requestType, -1);
}

TEST(VerifierRequests, TakePropertyModeAndOptions) {
    EXPECT_STREQ(request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1"})->errorText,
                 "Invalid Verifier Request.  Expected cmdType, GUID, filename.");
    const auto plain = request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1", "/f.ts"});
    EXPECT_STREQ(as<VerifierRequest>(plain).fileName, "/f.ts");
    EXPECT_STREQ(as<VerifierRequest>(plain).propertyName, "ALL");
    EXPECT_FALSE(as<VerifierRequest>(plain).blocking);
    const auto block = request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1", "/f.ts", "QUICK", "BLOCK", "a;b"});
    EXPECT_STREQ(as<VerifierRequest>(block).propertyName, "QUICK");
    EXPECT_TRUE(as<VerifierRequest>(block).blocking);
    EXPECT_FALSE(as<VerifierRequest>(block).xmlOutput);
    EXPECT_STREQ(as<VerifierRequest>(block).optionText, "a;b");
    const auto xml = request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1", "/f.ts", "QUICK", "XML"});
    EXPECT_TRUE(as<VerifierRequest>(xml).blocking);
    EXPECT_TRUE(as<VerifierRequest>(xml).xmlOutput);
    const auto other = request({"GET_MPEG_PROPERTIES", "JOB_BEGIN", "1", "/f.ts", "QUICK", "block"});
    EXPECT_FALSE(as<VerifierRequest>(other).blocking);
}

TEST(VtrRequests, EveryCommandWordHasItsKindAndCode) {
    const struct {
        const char* word;
        int kind;
        int code;
    } rows[] = {{"Play", 0, 1},        {"Rewind", 0, 3}, {"FastForward", 0, 4}, {"StepForward", 0, 5},
                {"StepReverse", 0, 6}, {"Pause", 0, 10}, {"Shuttle", 10, 7},    {"GoTo", 3, 0}};
    for (const auto& row : rows) {
        const auto message = request({"VTR_CMD", "COM1", "12", row.word, "-5", "01:02:03:04"});
        const VtrCmdRequest& vtr = as<VtrCmdRequest>(message);
        EXPECT_TRUE(message->isValid()) << row.word;
        EXPECT_EQ(vtr.command.commandKind, row.kind) << row.word;
        EXPECT_EQ(vtr.command.transportCode, row.code) << row.word;
        EXPECT_EQ(vtr.number, 12);
        EXPECT_STREQ(vtr.command.serialPort, "COM1");
        EXPECT_EQ(vtr.command.shuttleSpeed, row.kind == 10 ? -5 : 0);
        EXPECT_STREQ(vtr.command.timecode, row.kind == 3 ? "01:02:03:04" : "");
    }
}

TEST(VtrRequests, TheFirstFailingCheckWins) {
    for (const char* word : {"VTR_CMD", "VTR_SEEKING", "VTR_CURRENT_TIME", "VTR_STATUS"})
        EXPECT_STREQ(request({word})->errorText, "Invalid VTR Request.  Port argument not specified");
    EXPECT_STREQ(request({"VTR_CMD", "COM1", "0"})->errorText,
                 "Invalid VTR Request.  Not enough arguments supplied");
    EXPECT_STREQ(request({"VTR_CMD", "COM1", "0", "play"})->errorText, "Invalid VTR Cmd play");
    EXPECT_STREQ(request({"VTR_CMD", "COM1", "0", "Shuttle"})->errorText,
                 "Invalid VTR Shuttle Request.  Speed argument not supplied");
    EXPECT_STREQ(request({"VTR_CMD", "COM1", "0", "GoTo", "0"})->errorText,
                 "Invalid VTR GoTo Request.  Timecode not supplied");
}

TEST(VtrRequests, QueriesCarryTheirKindAndFlag) {
    const auto time = request({"VTR_CURRENT_TIME", "COM1"});
    EXPECT_EQ(as<VtrRequest>(time).command.commandKind, 6);
    EXPECT_EQ(as<VtrRequest>(time).command.queryFlag, 0);
    const auto seeking = request({"VTR_SEEKING", "COM1"});
    EXPECT_EQ(as<VtrRequest>(seeking).command.commandKind, 7);
    EXPECT_EQ(as<VtrRequest>(seeking).command.queryFlag, 1);
    EXPECT_FALSE(request({"VTR_STATUS", "COM1"})->process());
}

TEST(JobRequests, NeedAGuid) {
    EXPECT_STREQ(request({"JOB_STATUS"})->errorText, "Invalid Job Status Request.  Expected Job GUID.");
    EXPECT_STREQ(request({"JOB_RESULTS"})->errorText, "Invalid Job Results Request.  Expected Job GUID.");
    EXPECT_STREQ(request({"JOB_STATUS", "ab"})->guid, "ab");
}

class MessageProcessorTest : public ServiceDirectories {
protected:
    std::string answer(const std::string& line, int size = 2000) {
        std::vector<char> out(static_cast<std::size_t>(size) + 1, 'x');
        std::string copy = line;
        EXPECT_TRUE(processor.process(copy.data(), out.data(), size));
        EXPECT_EQ(out.back(), 'x') << "nothing is written behind the buffer";
        return out.data();
    }
    CMessageProcessor processor;
};

TEST_F(MessageProcessorTest, AnswersAreTrueOrFalseWithTheText) {
    EXPECT_EQ(answer("PING_SERVICE"), "TRUE - ALIVE");
    EXPECT_EQ(answer("JOB_STATUS,12"), "FALSE - Error: Invalid job GUID 12.");
    EXPECT_EQ(answer("VTR_STATUS,COM1"), "FALSE - ");
    EXPECT_EQ(answer(""), "FALSE - No type or arguments specified");
    EXPECT_EQ(answer("CAPTURE,JOB_VALIDATE,1,CAPTURE_MANUAL_JOB,Filename=a,EncoderIp=127.0.0.1"), "TRUE");
}

TEST_F(MessageProcessorTest, AnswersAreCutAtTheBuffersSize) {
    EXPECT_EQ(answer("PING_SERVICE", 6), "TRUE ");
    EXPECT_EQ(answer("PING_SERVICE", 1), "");
}

TEST_F(MessageProcessorTest, EmptyArgumentsAreDroppedAndQuotesKeepCommas) {
    EXPECT_EQ(answer("JOB_STATUS,,,ab"), "FALSE - Error: Invalid job GUID ab.");
    EXPECT_EQ(answer("JOB_STATUS,\"a,b\""), "FALSE - Error: Invalid job GUID a,b.");
    EXPECT_EQ(answer("JOB_STATUS,\"\""), "FALSE - Error: Invalid job GUID .");
    EXPECT_EQ(answer("JOB_STATUS, ab"), "FALSE - Error: Invalid job GUID  ab.")
        << "blanks belong to the argument";
}

TEST_F(MessageProcessorTest, BoundsAreNamedWithTheArgument) {
    EXPECT_THAT(
        answer("JOB_STATUS," + std::string(300, 'g')),
        StartsWith("FALSE - Argument 1 is too long: 300 bytes given, it must be shorter than 300: ggg"));
    std::string line = "JOB_STATUS";
    for (int i = 0; i < 60; ++i)
        line += ",a";
    EXPECT_EQ(answer(line), "FALSE - Too many arguments: 61 given, at most 50 are taken.");
}

TEST_F(MessageProcessorTest, WhatIsNotThereYetSaysSo) {
    EXPECT_EQ(answer("GET_MPEG_PROPERTIES,JOB_BEGIN,1,/f.ts"),
              "FALSE - Error: Verification is not available in this version.");
    EXPECT_EQ(answer("VTR_CURRENT_TIME,COM1"),
              "FALSE - Error: Cannot send VTR command.  Send queue not available.");
    EXPECT_EQ(answer("VTR_CMD,COM1,0,Play"),
              "FALSE - Error: Cannot send VTR command.  Send queue not available.");
}

} // namespace
