// One deck that is well: what each request makes it do, and what is answered.
#include "deckctrl/deck_bench.h"

#include "foundation/FixedText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace deck_test;
using kestrel::deck::Deck;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Bytes = std::vector<std::uint8_t>;
using State = Transport::State;

class WellDeck : public testing::Test {
protected:
    void begin(SimulatorOptions options = {}) {
        tape.emplace(options);
        Timing timing;
        timing.reply = 2s; // the machine may be busy
        timing.settle = 50ms;
        deck.emplace(tape->simulator->device(), timing, -1);
    }
    _VTRCmdData carryOut(_VTRCmdData record) {
        deck->carryOut(record);
        return record;
    }
    std::string timeNow() {
        const _VTRCmdData answer = carryOut(request(kestrel::vtrCurrentTime, "COM1"));
        EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
        return std::string(kestrel::fieldText(answer.timecode));
    }
    static SimulatorOptions withRate(const char* rate, const TapeTime& start) {
        SimulatorOptions options;
        options.rate = *kestrel::deck_simulator::findRate(rate);
        options.start = start;
        return options;
    }

    std::optional<SimulatedDeck> tape;
    std::optional<Deck> deck;
};

TEST_F(WellDeck, EachTransportCodeIsOneCommandOfTheProtocol) {
    struct Row {
        int code;
        Bytes bytes;
        State state;
    };
    const Row rows[] = {
        {kestrel::vtrPlayCode, {0x20, 0x01, 0x21}, State::play},
        {kestrel::vtrFastForwardCode, {0x20, 0x10, 0x30}, State::fastForward},
        {kestrel::vtrPauseCode, {0x21, 0x11, 0x00, 0x32}, State::still},
        {kestrel::vtrStepForwardCode, {0x20, 0x14, 0x34}, State::still},
        {kestrel::vtrStepReverseCode, {0x20, 0x24, 0x44}, State::still},
        {kestrel::vtrPlayCode, {0x20, 0x01, 0x21}, State::play},
        {kestrel::vtrRewindCode, {0x20, 0x20, 0x40}, State::rewind},
    };
    begin();
    for (const Row& row : rows) {
        const _VTRCmdData answer = carryOut(request(kestrel::vtrTransport, "COM1", row.code));
        EXPECT_EQ(answer.errorCode, 0) << row.code << textOf(answer);
        EXPECT_EQ(textOf(answer), "");
        EXPECT_EQ(tape->lastBytes(), row.bytes) << row.code;
        const State state = tape->simulator->state();
        const bool arrived = row.state == State::rewind && state == State::stop;
        EXPECT_TRUE(state == row.state || arrived) << row.code;
    }
}

TEST_F(WellDeck, TheFirstRequestConnectsAndEachCommandLooksWhetherTheDeckIsReady) {
    begin();
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode));
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrPauseCode));
    EXPECT_THAT(tape->simulator->received(),
                ElementsAre(Block(Code::deviceType), Block(Code::statusSense, {0x0A}), Block(Code::play),
                            Block(Code::statusSense, {0x0A}), Block(Code::jogForward, {0x00})));
}

TEST_F(WellDeck, ShuttleSpeedsAreMultiplesOfPlaySpeedBackwardsWhenNegative) {
    begin();
    const std::pair<int, Bytes> rows[] = {
        {1, {0x21, 0x13, 0x40, 0x74}},    {10, {0x21, 0x13, 0x60, 0x94}},
        {-10, {0x21, 0x23, 0x60, 0xA4}},  {0, {0x21, 0x13, 0x00, 0x34}},
        {9999, {0x21, 0x13, 0x7F, 0xB3}}, {INT32_MIN, {0x21, 0x23, 0x7F, 0xC3}},
    };
    for (const auto& [speed, bytes] : rows) {
        EXPECT_EQ(carryOut(shuttle("COM1", speed)).errorCode, 0);
        EXPECT_EQ(tape->lastBytes(), bytes) << speed;
    }
    _VTRCmdData asTransport = request(kestrel::vtrTransport, "COM1", kestrel::vtrShuttleCode);
    asTransport.shuttleSpeed = 10;
    EXPECT_EQ(carryOut(asTransport).errorCode, 0);
    EXPECT_EQ(tape->lastBytes(), rows[1].second);
}

TEST_F(WellDeck, StepsMoveByOneFrame) {
    begin();
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrStepForwardCode));
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrStepForwardCode));
    EXPECT_EQ(timeNow(), "10:00:00:02");
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrStepReverseCode));
    EXPECT_EQ(timeNow(), "10:00:00:01");
}

TEST_F(WellDeck, TheTimeRunsWhileItPlays) {
    begin();
    EXPECT_EQ(timeNow(), "10:00:00:00");
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode));
    EXPECT_TRUE(eventually([&] { return timeNow() >= "10:00:00:10"; }));
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrPauseCode));
    const std::string stands = timeNow();
    EXPECT_EQ(timeNow(), stands);
}

TEST_F(WellDeck, DropFrameTimesAreShownWithTheirSemicolonAndSkipWhatIsDropped) {
    begin(withRate("29.97df", {10, 0, 59, 28, true}));
    EXPECT_EQ(timeNow(), "10:00:59;28");
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrStepForwardCode));
    EXPECT_EQ(timeNow(), "10:00:59;29");
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrStepForwardCode));
    EXPECT_EQ(timeNow(), "10:01:00;02");
    EXPECT_THAT(carryOut(goTo("COM1", "10:02:00;02")).errorCode, 0);
    EXPECT_TRUE(eventually([&] { return timeNow() == "10:02:00;02"; }));
}

TEST_F(WellDeck, DoubleRatesAreCountedInPairsOfFrames) {
    begin(withRate("59.94", {10, 9, 59, 29, true}));
    EXPECT_EQ(timeNow(), "10:09:59;29");
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrStepForwardCode));
    EXPECT_EQ(timeNow(), "10:10:00;00");
}

TEST_F(WellDeck, ATimeIsTakenFromWhateverTheDeckReads) {
    begin();
    EXPECT_EQ(timeNow(), "10:00:00:00") << "VITC of a standing picture";
    tape->simulator->order("novitc");
    EXPECT_EQ(timeNow(), "10:00:00:00") << "LTC counted by the control track";
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode));
    EXPECT_TRUE(eventually([&] { return timeNow() > "10:00:00:02"; })) << "LTC of a moving tape";
}

TEST_F(WellDeck, ADeckThatDoesNotChooseBetweenSourcesIsAskedForLtc) {
    begin();
    tape->simulator->order("old");
    EXPECT_EQ(timeNow(), "10:00:00:00");
    EXPECT_EQ(timeNow(), "10:00:00:00");
    EXPECT_THAT(tape->simulator->received(),
                ElementsAre(Block(Code::deviceType), Block(Code::timeSense, {0x03}),
                            Block(Code::timeSense, {0x01}), Block(Code::timeSense, {0x01})));
}

TEST_F(WellDeck, AStandingDeckIsNotSeeking) {
    begin();
    _VTRCmdData record = request(kestrel::vtrIsSeeking, "COM1");
    record.seeking = 1;
    const _VTRCmdData answer = carryOut(record);
    EXPECT_EQ(answer.errorCode, 0);
    EXPECT_EQ(answer.seeking, 0);
}

TEST_F(WellDeck, AnAnswerKeepsAllElseOfItsRequest) {
    begin();
    _VTRCmdData record = request(kestrel::vtrCurrentTime, "COM1");
    kestrel::copyText(record.replyQueueName, "/mgr_msg_q_7");
    record.shuttleSpeed = 77;
    record.reserved[75] = 0xAB;
    kestrel::copyText(record.errorText, "left over");
    record.errorCode = 5;
    const _VTRCmdData answer = carryOut(record);
    EXPECT_EQ(answer.errorCode, 0);
    EXPECT_EQ(textOf(answer), "");
    EXPECT_EQ(kestrel::fieldText(answer.replyQueueName), "/mgr_msg_q_7");
    EXPECT_EQ(kestrel::fieldText(answer.serialPort), "COM1");
    EXPECT_EQ(answer.shuttleSpeed, 77);
    EXPECT_EQ(answer.reserved[75], 0xAB);
    EXPECT_EQ(answer.commandKind, kestrel::vtrCurrentTime);
}

TEST_F(WellDeck, UnknownKindsAndCodesAreRefusedWithoutADeck) {
    begin();
    for (const int kind : {-1, 1, 2, 4, 5, 8, 9, 11, INT32_MAX}) {
        const _VTRCmdData answer = carryOut(request(kind, "COM1"));
        EXPECT_EQ(answer.errorCode, 10020);
        EXPECT_EQ(textOf(answer), "Error: Unknown VTR request " + std::to_string(kind) + ". (VTR at COM1)");
    }
    for (const int code : {-1, 0, 2, 8, 9, 11}) {
        const _VTRCmdData answer = carryOut(request(kestrel::vtrTransport, "COM1", code));
        EXPECT_EQ(answer.errorCode, 10020);
        EXPECT_EQ(textOf(answer),
                  "Error: Unknown VTR request 0. (transport code " + std::to_string(code) + ", VTR at COM1)");
    }
    EXPECT_TRUE(tape->simulator->received().empty());
}

} // namespace
