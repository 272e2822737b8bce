// The base of all requests, and what each word makes.
#include "request_lists.h"
#include "service_directories.h"

#include <gmock/gmock.h>
#include <type_traits>

namespace {

TEST(Messages, EveryWordMakesItsType) {
    const char* const words[] = {
        "PING_SERVICE", "STOP_SERVICE",        "VTR_CMD", "VTR_SEEKING", "VTR_CURRENT_TIME",
        "VTR_STATUS",   "GET_MPEG_PROPERTIES", "CAPTURE", "JOB_STATUS",  "JOB_RESULTS"};
    const Message::MessageType types[] = {Message::SERVICE_PING,
                                          Message::SERVICE_STOP,
                                          Message::VTR_CMD_REQUEST,
                                          Message::VTR_IS_SEEKING_REQUEST,
                                          Message::VTR_CURRENT_TIME_REQUEST,
                                          Message::VTR_STATUS_REQUEST,
                                          Message::VERIFIER_REQUEST,
                                          Message::CAPTURE_REQUEST,
                                          Message::JOB_STATUS_REQUEST,
                                          Message::JOB_RESULTS_REQUEST};
    for (int value = 0; value < 10; ++value) {
        EXPECT_EQ(types[value], value);
        EXPECT_EQ(request({words[value]})->messageType, value) << words[value];
    }
    EXPECT_EQ(Message::INVALID_MESSAGE, 10);
}

TEST(Messages, EveryWordMakesItsClass) {
    as<ServicePing>(request({"PING_SERVICE"}));
    as<ServiceStop>(request({"STOP_SERVICE"}));
    as<VtrCmdRequest>(request({"VTR_CMD"}));
    as<VtrIsSeekingRequest>(request({"VTR_SEEKING"}));
    as<VtrCurrentTimeRequest>(request({"VTR_CURRENT_TIME"}));
    as<VtrStatusRequest>(request({"VTR_STATUS"}));
    as<VerifierRequest>(request({"GET_MPEG_PROPERTIES"}));
    as<CaptureRequest>(request({"CAPTURE"}));
    as<JobStatusRequest>(request({"JOB_STATUS"}));
    as<JobResultsRequest>(request({"JOB_RESULTS"}));
    for (const char* word : {"VTR_CMD", "VTR_SEEKING", "VTR_CURRENT_TIME", "VTR_STATUS"})
        as<VtrRequest>(request({word}));
}

TEST(Messages, AnyOtherWordIsInvalidAndNamed) {
    for (const std::string& word : std::vector<std::string>{"ping_service", "PING", "PING_SERVICE ",
                                                            " PING_SERVICE", "JOB_BEGIN", ""}) {
        const auto message = request({word});
        EXPECT_EQ(message->messageType, Message::INVALID_MESSAGE);
        EXPECT_EQ(message->errorText, "Unknown message type " + word);
        EXPECT_FALSE(message->isValid());
    }
}

TEST(Messages, TheNameOfALongWordIsCut) {
    const std::string word(299, 'w');
    EXPECT_EQ(request({word})->errorText, ("Unknown message type " + word).substr(0, 299));
}

TEST(Messages, WithoutAnArgumentThereIsNoType) {
    const auto message = request({});
    EXPECT_EQ(message->messageType, Message::INVALID_MESSAGE);
    EXPECT_STREQ(message->errorText, "No type or arguments specified");
}

TEST(Messages, CommandTypesHaveTheirIndex) {
    const char* const words[] = {"JOB_BEGIN",   "JOB_VALIDATE",    "JOB_ABORT",           "JOB_STATUS",
                                 "JOB_RESULTS", "JOB_LOGFILENAME", "JOB_LAST_LOG_ENTRIES"};
    for (int type = 0; type < 7; ++type) {
        EXPECT_STREQ(Message::RequestTypeStr[type], words[type]);
        EXPECT_EQ(Message::getRequestType(words[type]), type);
    }
    for (const char* word : {"job_begin", "JOB_BEGIN ", "JOB", ""})
        EXPECT_EQ(Message::getRequestType(word), -1) << word;
}

TEST(Messages, AFreshMessageIsValidAndHasNoTexts) {
    Message message(Message::SERVICE_PING);
    EXPECT_TRUE(message.isValid());
    EXPECT_FALSE(message.process()) << "the base does nothing";
    EXPECT_STREQ(message.errorText, "");
    EXPECT_STREQ(message.responseText, "");
    EXPECT_EQ(message.guid, nullptr);
    EXPECT_EQ(message.requestType, -1);
    static_assert(std::extent_v<decltype(Message::errorText)> == 300);
    static_assert(std::extent_v<decltype(Message::responseText)> == 2008);
}

TEST(Messages, AnErrorTextMakesAMessageInvalid) {
    Message message(Message::SERVICE_PING);
    kestrel::copyText(message.errorText, "no");
    EXPECT_FALSE(message.isValid());
}

TEST(Messages, AnInvalidMessageIsNeverCarriedOut) {
    const std::unique_ptr<Message> message(Message::invalidMessage("because"));
    EXPECT_EQ(message->messageType, Message::INVALID_MESSAGE);
    EXPECT_FALSE(message->isValid());
    EXPECT_FALSE(message->process());
    EXPECT_STREQ(message->errorText, "because");
}

TEST(Messages, TheReasonOfAnInvalidMessageIsCutAtItsField) {
    const std::unique_ptr<Message> message(Message::invalidMessage(std::string(1000, 'r').c_str()));
    EXPECT_EQ(message->errorText, std::string(299, 'r'));
}

TEST(Messages, ANewGuidReplacesTheOneBefore) {
    Message message(Message::SERVICE_PING);
    message.setGuidStr("one");
    message.setGuidStr("another");
    EXPECT_STREQ(message.guid, "another");
}

TEST(Messages, PingAnswersAliveWhateverFollows) {
    const auto message = request({"PING_SERVICE", "more", "words"});
    EXPECT_TRUE(message->isValid());
    EXPECT_TRUE(message->process());
    EXPECT_STREQ(message->responseText, "ALIVE");
}

class StopRequests : public ServiceDirectories {};

TEST_F(StopRequests, SayThatTheShutdownIsSignalled) {
    const auto message = request({"STOP_SERVICE"});
    EXPECT_TRUE(message->isValid());
    EXPECT_TRUE(message->process());
    EXPECT_STREQ(message->responseText, "Shutdown Signalled to Kestrel Manager Service");
    EXPECT_THAT(log(), testing::HasSubstr("[Manager:Info] setShutdownEvent"));
}

} // namespace
