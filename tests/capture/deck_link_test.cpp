// Commands to the deck and their answers, on real queues.
#include "capture/DeckLink.h"
#include "capture/captured_log.h"
#include "capture/worker_process.h"
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace std::chrono_literals;
using capture_test::ServiceQueues;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct Bench {
    Bench() { link.connect(queues.updateName(), queues.managerName()); }
    // The next command that the service reads.
    _VTRCmdData command() {
        _VTRCmdData record{};
        EXPECT_TRUE(queues.receive(1s));
        const auto& message = queues.received().back();
        EXPECT_EQ(message.type, VTR_CMD_REQUEST_MSG);
        EXPECT_EQ(message.payload.size(), sizeof record);
        if (message.payload.size() == sizeof record)
            std::memcpy(&record, message.payload.data(), sizeof record);
        return record;
    }
    // What the worker makes of an answer.
    std::optional<DeckAnswer> answer(const _VTRCmdData& record) {
        queues.send(VTR_CMD_RESPONSE_MSG, &record, sizeof record);
        const auto received = link.receive();
        EXPECT_EQ(received.deckAnswers.size(), 1u);
        return deck.take(received.deckAnswers.at(0), now);
    }

    ServiceQueues queues;
    ServiceLink link;
    DeckLink deck{link, "COM1"};
    Clock::time_point now{1h};
};

TEST(DeckLink, EachRequestFillsItsFieldsOfTheRecord) {
    struct Row {
        DeckRequest request;
        std::int32_t kind, code, speed;
        int query;
        const char* timecode;
    };
    const Row table[] = {
        {playRequest(), 0, 1, 0, 0, ""},
        {pauseRequest(), 0, 10, 0, 0, ""},
        {stepRequest(true), 0, 5, 0, 0, ""},
        {stepRequest(false), 0, 6, 0, 0, ""},
        {goToRequest("09:59:52;02"), 3, 0, 0, 0, "09:59:52;02"},
        {timeRequest(), 6, 0, 0, 0, ""},
        {seekingRequest(), 7, 0, 0, 1, ""},
        {shuttleRequest(-4), 10, 7, -4, 0, ""},
    };
    Bench bench;
    for (const Row& row : table) {
        bench.deck.send(row.request, bench.now);
        EXPECT_TRUE(bench.deck.busy());
        const _VTRCmdData record = bench.command();
        EXPECT_EQ(record.commandKind, row.kind);
        EXPECT_EQ(record.transportCode, row.code);
        EXPECT_EQ(record.shuttleSpeed, row.speed);
        EXPECT_EQ(record.queryFlag, row.query);
        EXPECT_STREQ(record.timecode, row.timecode);
        EXPECT_STREQ(record.serialPort, "COM1");
        EXPECT_STREQ(record.replyQueueName, "");
        EXPECT_EQ(record.errorCode, 0);
        ASSERT_TRUE(bench.answer(record)) << row.request.text();
        EXPECT_FALSE(bench.deck.busy());
    }
}

TEST(DeckLink, TheAnswerCarriesTimeSeekingAndWhen) {
    Bench bench;
    bench.deck.send(timeRequest(), bench.now);
    _VTRCmdData record = bench.command();
    kestrel::copyText(record.timecode, "10:00:00;02");
    record.seeking = 1;
    bench.now += 30ms;
    const auto answer = bench.answer(record);
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->failed);
    EXPECT_EQ(answer->timecode, "10:00:00;02");
    EXPECT_TRUE(answer->seeking);
    EXPECT_EQ(answer->received - answer->sent, 30ms);
}

TEST(DeckLink, AnswersToOtherRequestsAreDropped) {
    Bench bench;
    bench.deck.send(playRequest(), bench.now);
    const _VTRCmdData play = bench.command();
    _VTRCmdData other = play;
    kestrel::copyText(other.serialPort, "COM2");
    EXPECT_FALSE(bench.answer(other));
    other = play;
    other.commandKind = kestrel::vtrCurrentTime;
    EXPECT_FALSE(bench.answer(other));
    other = play;
    other.transportCode = kestrel::vtrPauseCode;
    EXPECT_FALSE(bench.answer(other));
    // Given up for another: its own answer comes too late.
    bench.deck.send(pauseRequest(), bench.now);
    const _VTRCmdData pause = bench.command();
    EXPECT_FALSE(bench.answer(play));
    EXPECT_TRUE(bench.deck.busy());
    EXPECT_TRUE(bench.answer(pause));
    EXPECT_FALSE(bench.answer(pause)) << "nothing waits any more";
}

TEST(DeckLink, TheTransportCodeCountsForTransportCommandsOnly) {
    Bench bench;
    // A deck process need not give the code back.
    bench.deck.send(playRequest(), bench.now);
    _VTRCmdData answer = bench.command();
    answer.transportCode = 0;
    EXPECT_TRUE(bench.answer(answer));
    for (const DeckRequest& request :
         {goToRequest("01:00:00:00"), timeRequest(), seekingRequest(), shuttleRequest(2)}) {
        bench.deck.send(request, bench.now);
        answer = bench.command();
        answer.transportCode = kestrel::vtrPauseCode;
        EXPECT_TRUE(bench.answer(answer)) << request.text();
    }
}

TEST(DeckLink, AnErrorAnswerFailsWithTheDecksCodeAndText) {
    Bench bench;
    bench.deck.send(playRequest(), bench.now);
    _VTRCmdData record = bench.command();
    record.errorCode = 20080;
    kestrel::copyText(record.errorText, "Error: Could not connect to VTR at COM1.");
    auto answer = bench.answer(record);
    ASSERT_TRUE(answer && answer->failed);
    EXPECT_EQ(answer->failed->code, 20080);
    EXPECT_EQ(answer->failed->text, "Error: Could not connect to VTR at COM1.");
    // Without a text it is 20081's.
    bench.deck.send(playRequest(), bench.now);
    record = bench.command();
    record.errorCode = 5;
    answer = bench.answer(record);
    ASSERT_TRUE(answer && answer->failed);
    EXPECT_EQ(answer->failed->code, 5);
    EXPECT_EQ(answer->failed->text, "Error: Command 0 to VTR at COM1 failed.");
    // One that fills its field is read no further.
    bench.deck.send(timeRequest(), bench.now);
    record = bench.command();
    record.errorCode = 5;
    std::memset(record.errorText, 'x', sizeof record.errorText);
    std::memset(record.timecode, '1', sizeof record.timecode);
    answer = bench.answer(record);
    ASSERT_TRUE(answer && answer->failed);
    EXPECT_EQ(answer->failed->text, std::string(303, 'x'));
}

TEST(DeckLink, ARefusedCommandIsAnErrorInTheLogARefusedQueryForTheTimeIsNot) {
    const capture_test::CapturedLog log;
    Bench bench;
    for (const DeckRequest& request : {playRequest(), timeRequest(), seekingRequest()}) {
        bench.deck.send(request, bench.now);
        _VTRCmdData record = bench.command();
        record.errorCode = 20081;
        kestrel::copyText(record.errorText, "NAK");
        const auto answer = bench.answer(record);
        ASSERT_TRUE(answer && answer->failed);
        EXPECT_TRUE(answer->answered);
    }
    EXPECT_EQ(log.count("[Deck:Error] COM1: play: NAK"), 1);
    EXPECT_EQ(log.count("[Deck:Error] COM1: seeking: NAK"), 1);
    EXPECT_EQ(log.count("[Deck:Error]"), 2) << log.text();
}

TEST(DeckLink, NoAnswerWithinThirtySecondsFails) {
    Bench bench;
    bench.deck.send(timeRequest(), bench.now);
    EXPECT_EQ(bench.deck.deadline(), bench.now + 30s);
    EXPECT_FALSE(bench.deck.tick(bench.now + 29999ms));
    const auto answer = bench.deck.tick(bench.now + 30s);
    ASSERT_TRUE(answer && answer->failed);
    EXPECT_EQ(answer->failed->code, kestrel::error::vtrResponseTimeout);
    EXPECT_FALSE(answer->answered);
    EXPECT_EQ(answer->failed->text, "Error: Timeout waiting for response from VTR. (COM1: current time)");
    EXPECT_FALSE(bench.deck.busy());
    EXPECT_EQ(bench.deck.deadline(), Clock::time_point::max());
    EXPECT_FALSE(bench.answer(bench.command())) << "too late";
}

TEST(DeckLink, AFullQueueIsWaitedForAndGivenUpInTime) {
    Bench bench;
    for (int i = 0; i < 10; ++i)
        bench.link.sendHeartbeat();
    bench.deck.send(playRequest(), bench.now);
    EXPECT_EQ(bench.deck.deadline(), bench.now + 20ms);
    EXPECT_FALSE(bench.deck.tick(bench.now += 20ms));
    ASSERT_TRUE(bench.queues.receive(0ms)); // room
    EXPECT_FALSE(bench.deck.tick(bench.now += 20ms));
    EXPECT_EQ(bench.deck.deadline(), Clock::time_point(1h) + 30s);
    for (int i = 0; i < 9; ++i)
        bench.queues.receive(0ms);
    EXPECT_TRUE(bench.answer(bench.command()));

    for (int i = 0; i < 10; ++i)
        bench.link.sendHeartbeat();
    const auto begin = bench.now;
    bench.deck.send(playRequest(), bench.now);
    std::optional<DeckAnswer> answer;
    while (!answer && bench.now < begin + 10s)
        answer = bench.deck.tick(bench.now = bench.deck.deadline());
    ASSERT_TRUE(answer && answer->failed);
    EXPECT_EQ(answer->failed->text,
              "Error: Failed to send VTR command on message queue. (the service does not read its queue)");
    EXPECT_GE(bench.now - begin, 4s);
    EXPECT_LE(bench.now - begin, 4100ms);
}

TEST(DeckLink, WithoutTheServiceThereIsNoDeck) {
    ServiceLink none;
    DeckLink deck(none, "COM1");
    EXPECT_EQ(deck.prepare()->code, kestrel::error::vtrSendQueueMissing);
    EXPECT_THAT(deck.prepare()->text,
                StartsWith("Error: Cannot send VTR command.  Send queue not available."));
    const Clock::time_point now(1h);
    deck.send(playRequest(), now);
    const auto answer = deck.tick(now);
    ASSERT_TRUE(answer && answer->failed);
    EXPECT_EQ(answer->failed->code, kestrel::error::vtrSendQueueMissing);
}

TEST(DeckLink, APortMustBeNamedAndFitTheRecord) {
    Bench bench;
    EXPECT_FALSE(bench.deck.prepare());
    EXPECT_FALSE(DeckLink(bench.link, "12345678901").prepare());
    EXPECT_EQ(DeckLink(bench.link, "123456789012").prepare()->text,
              "Error: Could not connect to VTR at 123456789012. (a port's name has at most 11 characters)");
    EXPECT_EQ(DeckLink(bench.link, "").prepare()->code, kestrel::error::vtrNotConnected);
}

TEST(DeckLink, AnswersOfAnotherSizeAreDropped) {
    Bench bench;
    const _VTRCmdData record{};
    for (const int size : {0, 1, 487})
        bench.queues.send(VTR_CMD_RESPONSE_MSG, &record, size);
    std::vector<unsigned char> longer(489);
    bench.queues.send(VTR_CMD_RESPONSE_MSG, longer.data(), 489);
    bench.queues.send(VTR_CMD_RESPONSE_MSG, &record, 488);
    bench.queues.send(CANCEL_MSG);
    const auto received = bench.link.receive();
    EXPECT_EQ(received.deckAnswers.size(), 1u);
    EXPECT_TRUE(received.cancel);
}

} // namespace
