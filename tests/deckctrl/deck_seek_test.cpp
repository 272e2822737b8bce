// Going to a timecode, and what is answered on the way.
#include "deckctrl/deck_bench.h"

#include "foundation/FixedText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace deck_test;
using kestrel::deck::Deck;
using testing::HasSubstr;

namespace {

class Seeking : public testing::Test {
protected:
    void begin(SimulatorOptions options = {}) {
        tape.emplace(options);
        timing.reply = 2s;
        deck.emplace(tape->simulator->device(), timing, -1);
    }
    _VTRCmdData carryOut(_VTRCmdData record) {
        deck->carryOut(record);
        return record;
    }
    _VTRCmdData isSeeking() { return carryOut(request(kestrel::vtrIsSeeking, "COM1")); }
    // Asks until the deck is not seeking any longer; that answer.
    _VTRCmdData end() {
        _VTRCmdData answer{};
        EXPECT_TRUE(eventually([&] { return (answer = isSeeking()).seeking == 0; }));
        return answer;
    }
    std::string timeNow() {
        return std::string(kestrel::fieldText(carryOut(request(kestrel::vtrCurrentTime, "COM1")).timecode));
    }

    Timing timing;
    std::optional<SimulatedDeck> tape;
    std::optional<Deck> deck;
};

TEST_F(Seeking, LastsFromTheGoToUntilTheDeckIsThere) {
    SimulatorOptions options;
    options.mechanics.seek = 3s; // a busy machine asks late
    begin(options);
    const auto started = Clock::now();
    const _VTRCmdData answer = carryOut(goTo("COM1", "10:20:30:12"));
    EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
    EXPECT_EQ(kestrel::fieldText(answer.timecode), "10:20:30:12");
    EXPECT_EQ(tape->lastBytes(), (std::vector<std::uint8_t>{0x24, 0x31, 0x12, 0x30, 0x20, 0x10, 0xC7}));
    EXPECT_EQ(isSeeking().seeking, 1);
    const _VTRCmdData last = end();
    EXPECT_EQ(last.errorCode, 0) << textOf(last);
    EXPECT_GE(Clock::now() - started, 3s);
    EXPECT_EQ(timeNow(), "10:20:30:12");
    EXPECT_EQ(tape->simulator->state(), Transport::State::still);
}

// The deck tells of the cue-up before until it has begun the next one.
TEST_F(Seeking, AnOldCueUpIsNotTakenForTheNewOne) {
    begin();
    carryOut(goTo("COM1", "10:00:01:00"));
    EXPECT_EQ(end().errorCode, 0);
    EXPECT_EQ(timeNow(), "10:00:01:00");
    carryOut(goTo("COM1", "10:00:09:00"));
    EXPECT_EQ(end().errorCode, 0);
    EXPECT_EQ(timeNow(), "10:00:09:00");
}

TEST_F(Seeking, AnOldCueUpCountsForNothingWhileTheDeckHasNotYetBegun) {
    timing.settle = 100ms;
    begin();
    carryOut(goTo("COM1", "10:00:01:00"));
    EXPECT_EQ(end().errorCode, 0);
    tape->simulator->order("lag 1500");
    const auto started = Clock::now();
    carryOut(goTo("COM1", "10:00:09:00"));
    EXPECT_EQ(isSeeking().seeking, 1);
    const auto statusNow = tape->simulator->status();
    EXPECT_TRUE(statusNow.cueUpComplete || Clock::now() - started >= 1500ms) << "the deck still tells it";
    const _VTRCmdData last = end();
    EXPECT_EQ(last.errorCode, 0) << textOf(last);
    EXPECT_GE(Clock::now() - started, 1500ms);
    EXPECT_EQ(timeNow(), "10:00:09:00");
}

TEST_F(Seeking, ADeckMayTakeLongerToBeginThanToStandStillAtTheEnd) {
    begin();
    tape->simulator->order("lag 3000");
    ASSERT_LT(timing.settle, 3000ms);
    const auto started = Clock::now();
    carryOut(goTo("COM1", "10:00:09:00"));
    const _VTRCmdData last = end();
    EXPECT_EQ(last.errorCode, 0) << textOf(last);
    EXPECT_GE(Clock::now() - started, 3000ms);
    EXPECT_EQ(timeNow(), "10:00:09:00");
}

TEST_F(Seeking, ADeckThatNeitherMovesNorTellsATimeIsGivenUp) {
    timing.settle = 100ms;
    timing.begin = 500ms;
    begin();
    tape->simulator->order("lag 60000");
    tape->simulator->order("notimecode");
    const auto started = Clock::now();
    EXPECT_EQ(carryOut(goTo("COM1", "10:20:30:12")).errorCode, 0);
    const _VTRCmdData answer = end();
    EXPECT_GE(Clock::now() - started, timing.begin);
    EXPECT_EQ(answer.errorCode, 20082);
    EXPECT_EQ(textOf(answer),
              "Error: Preroll to 10:20:30:12 for VTR at COM1 failed. (the deck does not move)");
}

TEST_F(Seeking, ADeckThatNeverBeginsIsGivenUpWithAnOldCueUpToo) {
    timing.settle = 100ms;
    timing.begin = 500ms;
    begin();
    carryOut(goTo("COM1", "10:00:01:00"));
    EXPECT_EQ(end().errorCode, 0);
    tape->simulator->order("lag 60000");
    carryOut(goTo("COM1", "10:00:09:00"));
    const _VTRCmdData answer = end();
    EXPECT_EQ(answer.errorCode, 20082);
    EXPECT_THAT(textOf(answer), HasSubstr("(the deck stands at 10:00:01:00)"));
}

TEST_F(Seeking, ADeckThatIsThereAlreadyArrives) {
    begin();
    carryOut(goTo("COM1", "10:00:00:00"));
    EXPECT_EQ(end().errorCode, 0);
    EXPECT_EQ(timeNow(), "10:00:00:00");
}

TEST_F(Seeking, AnotherCommandEndsIt) {
    SimulatorOptions options;
    options.mechanics.seek = 60s;
    begin(options);
    carryOut(goTo("COM1", "10:20:30:12"));
    EXPECT_EQ(isSeeking().seeking, 1);
    carryOut(request(kestrel::vtrTransport, "COM1", kestrel::vtrPauseCode));
    const _VTRCmdData answer = isSeeking();
    EXPECT_EQ(answer.seeking, 0);
    EXPECT_EQ(answer.errorCode, 0);
}

TEST_F(Seeking, ACueUpThatAnotherControllerBeganIsSeen) {
    SimulatorOptions options;
    options.mechanics.seek = 60s;
    begin(options);
    carryOut(goTo("COM1", "10:20:30:12"));
    Deck later(tape->simulator->device(), timing, -1);
    deck.reset();
    _VTRCmdData record = request(kestrel::vtrIsSeeking, "COM1");
    later.carryOut(record);
    EXPECT_EQ(record.seeking, 1) << textOf(record);
}

TEST_F(Seeking, ATargetThatTheTapeDoesNotReachIsAFailureThatTellsWhereTheDeckStands) {
    SimulatorOptions options;
    options.seconds = 60;
    timing.settle = 100ms;
    begin(options);
    EXPECT_EQ(carryOut(goTo("COM1", "10:20:30:12")).errorCode, 0);
    const _VTRCmdData answer = end();
    EXPECT_EQ(answer.errorCode, 20082);
    EXPECT_EQ(textOf(answer), "Error: Preroll to 10:20:30:12 for VTR at COM1 failed. (the deck stands at "
                              "10:00:59:24, the end of the tape)");
    EXPECT_EQ(isSeeking().errorCode, 0) << "told once";
}

TEST_F(Seeking, ACassetteTakenOutIsAFailure) {
    SimulatorOptions options;
    options.mechanics.seek = 60s;
    begin(options);
    carryOut(goTo("COM1", "10:20:30:12"));
    tape->simulator->order("eject");
    const _VTRCmdData answer = end();
    EXPECT_EQ(answer.errorCode, 20082);
    EXPECT_THAT(textOf(answer), HasSubstr("for VTR at COM1 failed. (there is no cassette in the deck)"));
}

TEST_F(Seeking, ADeckThatNeverArrivesIsGivenUp) {
    SimulatorOptions options;
    options.mechanics.seek = 60s;
    timing.seek = 1s;
    begin(options);
    carryOut(goTo("COM1", "10:20:30:12"));
    const _VTRCmdData answer = end();
    EXPECT_EQ(answer.errorCode, 20082);
    EXPECT_THAT(textOf(answer), HasSubstr("(the deck is not there after 1 s)"));
}

TEST_F(Seeking, ATextThatIsNoTimecodeIsRefusedBeforeTheDeckHearsOfIt) {
    begin();
    for (const char* text : {"", "tomorrow", "10:20:30", "25:00:00:00", "10:01:00;00", "10:20:30:31"}) {
        const _VTRCmdData answer = carryOut(goTo("COM1", text));
        EXPECT_EQ(answer.errorCode, 20082);
        EXPECT_EQ(textOf(answer), std::string("Error: Preroll to ") + text + " for VTR at COM1 failed. (\"" +
                                      text + "\" is no timecode hh:mm:ss:ff that exists)");
    }
    EXPECT_TRUE(tape->simulator->received().empty());
}

TEST_F(Seeking, ALabelThatTheTapesRateDoesNotHaveIsRefusedByTheDeck) {
    begin();
    const _VTRCmdData answer = carryOut(goTo("COM1", "10:20:30:27"));
    EXPECT_EQ(answer.errorCode, 20082);
    EXPECT_EQ(textOf(answer),
              "Error: Preroll to 10:20:30:27 for VTR at COM1 failed. (Cue up: the deck answered NAK "
              "01, unknown command)");
}

TEST_F(Seeking, ALineThatIsLostOnTheWayDoesNotEndIt) {
    SimulatorOptions options;
    options.mechanics.seek = 300ms;
    begin(options);
    carryOut(goTo("COM1", "10:20:30:12"));
    tape->simulator->order("unplug");
    EXPECT_EQ(isSeeking().errorCode, 20080);
    tape->simulator->order("plug");
    EXPECT_EQ(end().errorCode, 0);
    EXPECT_EQ(timeNow(), "10:20:30:12");
}

} // namespace
