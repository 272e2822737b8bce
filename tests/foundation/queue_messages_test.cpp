// The record on the message queues and the records inside it.
#include "foundation/FixedText.h"
#include "foundation/QueueMessages.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

TEST(AppMsgTypes, HaveTheirNumbers) {
    EXPECT_EQ(EXIT_MSG, 0);
    EXPECT_EQ(STATUS_MSG, 3);
    EXPECT_EQ(CANCEL_MSG, 5);
    EXPECT_EQ(CAPTURE_STATUS_MSG, 6);
    EXPECT_EQ(RESULTS_MSG, 7);
    EXPECT_EQ(VTR_CMD_REQUEST_MSG, 8);
    EXPECT_EQ(VTR_CMD_RESPONSE_MSG, 9);
}

TEST(GenericMsg, BufferIsTypeInHostOrderThenPayload) {
    char text[] = "results";
    const GenericMsg message(RESULTS_MSG, text, sizeof text);
    ASSERT_EQ(message.length, 4 + static_cast<int>(sizeof text));
    std::int32_t type = -1;
    std::memcpy(&type, message.buffer, sizeof type);
    EXPECT_EQ(type, 7);
    EXPECT_EQ(std::memcmp(message.buffer + 4, text, sizeof text), 0);
}

TEST(GenericMsg, LengthIsPayloadPlusFourAtMostAThousand) {
    std::vector<unsigned char> data(2000);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i * 7);
    const struct {
        int size, length;
    } rows[] = {{0, 4}, {1, 5}, {488, 492}, {995, 999}, {996, 1000}, {997, 1000}, {2000, 1000}, {-1, 4}};
    for (const auto& row : rows) {
        const GenericMsg message(STATUS_MSG, data.data(), row.size);
        ASSERT_EQ(message.length, row.length) << row.size;
        EXPECT_EQ(std::memcmp(message.buffer + 4, data.data(), static_cast<std::size_t>(row.length - 4)), 0);
    }
}

TEST(GenericMsg, NullPayloadIsEmpty) {
    EXPECT_EQ(GenericMsg(EXIT_MSG, nullptr, 0).length, 4);
    EXPECT_EQ(GenericMsg(EXIT_MSG, nullptr, 20).length, 4);
}

TEST(GenericFlatMsg, ReadsWhatGenericMsgMade) {
    _VTRCmdData record{};
    record.commandKind = kestrel::vtrShuttle;
    record.shuttleSpeed = -250;
    std::strcpy(record.errorText, "no tape");
    const GenericMsg sent(VTR_CMD_REQUEST_MSG, &record, sizeof record);
    const GenericFlatMsg received(sent.buffer, sent.length);
    EXPECT_EQ(received.type, VTR_CMD_REQUEST_MSG);
    ASSERT_EQ(received.payloadSize, 488);
    EXPECT_EQ(std::memcmp(received.payload, &record, sizeof record), 0);
}

TEST(GenericFlatMsg, FourByteMessageHasNoPayload) {
    const GenericMsg sent(CANCEL_MSG, nullptr, 0);
    const GenericFlatMsg received(sent.buffer, sent.length);
    EXPECT_EQ(received.type, CANCEL_MSG);
    EXPECT_EQ(received.payload, nullptr);
    EXPECT_EQ(received.payloadSize, 0);
}

TEST(GenericFlatMsg, EveryLengthIsReadWithinItsBounds) {
    const GenericMsg sent(STATUS_MSG, std::string("abcdefgh").data(), 8);
    for (int length = 0; length <= sent.length; ++length) {
        // A heap block of exactly this length, so that a read beyond it is noticed.
        std::vector<unsigned char> bytes(sent.buffer, sent.buffer + length);
        const GenericFlatMsg received(bytes.data(), length);
        if (length < 4) {
            EXPECT_EQ(received.type, kestrel::malformedMessage) << "a fragment is not the exit message";
            EXPECT_EQ(received.payloadSize, 0);
        } else {
            EXPECT_EQ(received.type, STATUS_MSG);
            EXPECT_EQ(received.payloadSize, length - 4);
        }
        EXPECT_EQ(received.payload == nullptr, length <= 4);
    }
    EXPECT_EQ(GenericFlatMsg(nullptr, 10).type, kestrel::malformedMessage);
    EXPECT_EQ(GenericFlatMsg(sent.buffer, -5).type, kestrel::malformedMessage);
}

// The offsets themselves are asserted where the records are declared; this shows them from the side of a
// program that only knows the bytes.
TEST(VtrCommandRecord, HasItsFieldsAtFixedBytes) {
    unsigned char bytes[488] = {};
    const auto put32 = [&](std::size_t at, std::int32_t value) { std::memcpy(bytes + at, &value, 4); };
    put32(0, 3);
    std::strcpy(reinterpret_cast<char*>(bytes + 4), "/dev/ttyS0");
    put32(16, 10);
    bytes[96] = 1;
    bytes[97] = 1;
    std::strcpy(reinterpret_cast<char*>(bytes + 98), "01:02:03:04");
    put32(136, -7);
    std::strcpy(reinterpret_cast<char*>(bytes + 144), "/mgr_msg_q_12");
    put32(176, 5);
    std::strcpy(reinterpret_cast<char*>(bytes + 184), "deck offline");

    _VTRCmdData record;
    static_assert(sizeof record == sizeof bytes);
    std::memcpy(&record, bytes, sizeof record);
    EXPECT_EQ(record.commandKind, kestrel::vtrGoTo);
    EXPECT_STREQ(record.serialPort, "/dev/ttyS0");
    EXPECT_EQ(record.transportCode, kestrel::vtrPauseCode);
    EXPECT_EQ(record.queryFlag, 1);
    EXPECT_EQ(record.seeking, 1);
    EXPECT_STREQ(record.timecode, "01:02:03:04");
    EXPECT_EQ(record.shuttleSpeed, -7);
    EXPECT_STREQ(record.replyQueueName, "/mgr_msg_q_12");
    EXPECT_EQ(record.errorCode, 5);
    EXPECT_STREQ(record.errorText, "deck offline");
}

TEST(VtrCommandRecord, CodesHaveTheirNumbers) {
    EXPECT_EQ(kestrel::vtrTransport, 0);
    EXPECT_EQ(kestrel::vtrGoTo, 3);
    EXPECT_EQ(kestrel::vtrCurrentTime, 6);
    EXPECT_EQ(kestrel::vtrIsSeeking, 7);
    EXPECT_EQ(kestrel::vtrShuttle, 10);
    EXPECT_EQ(kestrel::vtrPlayCode, 1);
    EXPECT_EQ(kestrel::vtrRewindCode, 3);
    EXPECT_EQ(kestrel::vtrFastForwardCode, 4);
    EXPECT_EQ(kestrel::vtrStepForwardCode, 5);
    EXPECT_EQ(kestrel::vtrStepReverseCode, 6);
    EXPECT_EQ(kestrel::vtrShuttleCode, 7);
    EXPECT_EQ(kestrel::vtrPauseCode, 10);
}

TEST(VtrCommandRecord, AnswersTheRequestOfItsPortAndCommand) {
    const auto record = [](std::int32_t kind, std::int32_t code, const char* port) {
        _VTRCmdData result{};
        result.commandKind = kind;
        result.transportCode = code;
        kestrel::copyText(result.serialPort, port);
        return result;
    };
    const _VTRCmdData play = record(kestrel::vtrTransport, kestrel::vtrPlayCode, "COM1");
    EXPECT_TRUE(kestrel::answersRequest(play, play));
    EXPECT_TRUE(kestrel::answersRequest(record(kestrel::vtrTransport, 0, "COM1"), play));
    EXPECT_FALSE(kestrel::answersRequest(record(kestrel::vtrTransport, kestrel::vtrPauseCode, "COM1"), play));
    EXPECT_FALSE(kestrel::answersRequest(record(kestrel::vtrTransport, kestrel::vtrPlayCode, "COM10"), play));
    EXPECT_FALSE(
        kestrel::answersRequest(record(kestrel::vtrCurrentTime, kestrel::vtrPlayCode, "COM1"), play));
    // Other commands are told apart by their kind; what they have for a code means nothing.
    for (const std::int32_t kind :
         {kestrel::vtrGoTo, kestrel::vtrCurrentTime, kestrel::vtrIsSeeking, kestrel::vtrShuttle})
        EXPECT_TRUE(kestrel::answersRequest(record(kind, 99, "COM1"), record(kind, 7, "COM1"))) << kind;
    // A port that fills its field has no terminator.
    _VTRCmdData full = play;
    std::memset(full.serialPort, 'x', sizeof full.serialPort);
    EXPECT_TRUE(kestrel::answersRequest(full, full));
}

TEST(CaptureStatusRecord, HasItsFieldsAtFixedBytes) {
    unsigned char bytes[40] = {};
    const auto put = [&]<typename T>(std::size_t at, T value) {
        std::memcpy(bytes + at, &value, sizeof value);
    };
    put(0, std::int32_t{-1});
    put(4, std::uint32_t{1500});
    bytes[8] = 1;
    put(12, std::uint32_t{4});
    put(16, std::uint32_t{11});
    put(24, std::uint64_t{1} << 40);
    put(32, std::uint64_t{1} << 41);
    _CaptureJobStatusData record;
    static_assert(sizeof record == sizeof bytes);
    std::memcpy(&record, bytes, sizeof record);
    EXPECT_EQ(record.encoderIndex, -1);
    EXPECT_EQ(record.frames, 1500U);
    EXPECT_EQ(record.dropFrame, 1);
    EXPECT_EQ(record.frameRateCode, 4U);
    EXPECT_EQ(record.statusNumber1, 11U);
    EXPECT_EQ(record.statusNumber2, std::uint64_t{1} << 40);
    EXPECT_EQ(record.statusNumber3, std::uint64_t{1} << 41);
}

} // namespace
