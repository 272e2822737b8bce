// One deck that is not well: every failure is a code and a text that says which deck, which command and why.
#include "deckctrl/deck_bench.h"

#include "foundation/FixedText.h"

#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace deck_test;
using kestrel::deck::Deck;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class IllDeck : public testing::Test {
protected:
    void SetUp() override {
        Timing timing;
        timing.reply = 300ms;
        deck.emplace(tape.simulator->device(), timing, -1);
    }
    _VTRCmdData carryOut(_VTRCmdData record) {
        deck->carryOut(record);
        return record;
    }
    _VTRCmdData play() { return carryOut(request(kestrel::vtrTransport, "COM7", kestrel::vtrPlayCode)); }
    _VTRCmdData time() { return carryOut(request(kestrel::vtrCurrentTime, "COM7")); }
    void connect() { ASSERT_EQ(time().errorCode, 0); }

    SimulatedDeck tape;
    std::optional<Deck> deck;
};

TEST_F(IllDeck, OneThatIsOffCannotBeConnectedTo) {
    tape.simulator->order("silent");
    const _VTRCmdData answer = play();
    EXPECT_EQ(answer.errorCode, 20080);
    EXPECT_EQ(textOf(answer), "Error: Could not connect to VTR at COM7. (" + tape.simulator->device() +
                                  ", Device type request: no answer within 300 ms, 3 tries)");
    tape.simulator->order("well");
    EXPECT_EQ(play().errorCode, 0) << "switched on";
}

TEST_F(IllDeck, OneThatIsSwitchedOffLaterIsATimeoutOfTheCommand) {
    connect();
    tape.simulator->order("silent");
    const _VTRCmdData answer = time();
    EXPECT_EQ(answer.errorCode, 20081);
    EXPECT_EQ(textOf(answer),
              "Error: Command 6 to VTR at COM7 failed. (Current time sense: no answer within 300 ms, 3 "
              "tries)");
    EXPECT_EQ(time().errorCode, 20080);
    tape.simulator->order("well");
    EXPECT_EQ(time().errorCode, 0);
}

TEST_F(IllDeck, APortThatDoesNotExistIsNamed) {
    Deck none("/no/such/port", {}, -1);
    _VTRCmdData record = request(kestrel::vtrIsSeeking, "COM9");
    none.carryOut(record);
    EXPECT_EQ(record.errorCode, 20080);
    EXPECT_EQ(textOf(record),
              "Error: Could not connect to VTR at COM9. (/no/such/port: No such file or directory "
              "(errno 2))");
}

TEST_F(IllDeck, EveryBitOfANakIsTold) {
    connect();
    const std::pair<const char*, const char*> rows[] = {
        {"01", "NAK 01, unknown command"},         {"02", "NAK 02, bit 1"},
        {"04", "NAK 04, checksum error, 3 tries"}, {"08", "NAK 08, bit 3"},
        {"10", "NAK 10, parity error, 3 tries"},   {"20", "NAK 20, buffer overrun, 3 tries"},
        {"40", "NAK 40, framing error, 3 tries"},  {"80", "NAK 80, timeout, 3 tries"},
        {"00", "NAK 00, no reason given"},         {"05", "NAK 05, unknown command, checksum error"},
    };
    for (const auto& [bits, words] : rows) {
        // The readiness check passes, the command does not.
        tape.simulator->order(std::string("nak ") + bits + " 3 1");
        const _VTRCmdData answer = play();
        EXPECT_EQ(answer.errorCode, 20081) << bits;
        EXPECT_EQ(textOf(answer), "Error: Command 0 to VTR at COM7 failed. (Play: the deck answered " +
                                      std::string(words) + ")");
        tape.simulator->order("well");
    }
}

TEST_F(IllDeck, ANakOfTheTimeIsTold) {
    connect();
    tape.simulator->order("nak 02");
    EXPECT_EQ(textOf(time()),
              "Error: Command 6 to VTR at COM7 failed. (Current time sense: the deck answered NAK 02, "
              "bit 1)");
    // Both ways of asking are refused.
    tape.simulator->order("nak 01");
    EXPECT_THAT(textOf(time()), HasSubstr("Current time sense: the deck answered NAK 01, unknown command"));
}

TEST_F(IllDeck, ADeckWithoutAStatusSensePlaysButCannotTellWhetherItSeeks) {
    connect();
    tape.simulator->order("nak 01 1");
    EXPECT_EQ(play().errorCode, 0);
    tape.simulator->order("nak 01 1");
    const _VTRCmdData answer = carryOut(request(kestrel::vtrIsSeeking, "COM7"));
    EXPECT_EQ(answer.errorCode, 20081);
    EXPECT_THAT(textOf(answer), HasSubstr("(Status sense: the deck does not know this command)"));
}

TEST_F(IllDeck, GarbageIsShown) {
    connect();
    tape.simulator->order("garbage");
    const _VTRCmdData answer = time();
    EXPECT_EQ(answer.errorCode, 20081);
    EXPECT_EQ(textOf(answer),
              "Error: Command 6 to VTR at COM7 failed. (Current time sense: no reply but E7 3C 00 FF "
              "81, 3 tries)");
}

TEST_F(IllDeck, AChecksumErrorIsShown) {
    connect();
    tape.simulator->order("checksum");
    EXPECT_THAT(textOf(time()), HasSubstr("Current time sense: checksum error in reply 74 06"));
}

TEST_F(IllDeck, AReplyBrokenOffIsShown) {
    connect();
    tape.simulator->order("partial");
    EXPECT_THAT(textOf(time()), HasSubstr("Current time sense: broken off reply 74, 3 tries"));
}

TEST_F(IllDeck, OneReplyThatIsLostIsAskedForAgain) {
    connect();
    for (const char* fault : {"silent 1", "garbage 2", "checksum 2", "partial 1", "nak 04 2"}) {
        tape.simulator->order(fault);
        EXPECT_EQ(time().errorCode, 0) << fault;
    }
}

TEST_F(IllDeck, AStepIsNeverAskedForTwice) {
    long steps = 0;
    for (const char* fault : {"silent 1 1", "checksum 1 1", "partial 1 1"}) {
        connect();
        tape.simulator->order(fault);
        const _VTRCmdData answer =
            carryOut(request(kestrel::vtrTransport, "COM7", kestrel::vtrStepForwardCode));
        EXPECT_EQ(answer.errorCode, 20081) << fault;
        EXPECT_EQ(std::ranges::count(tape.commands(), Code::stepForward), ++steps) << fault;
    }
}

TEST_F(IllDeck, AStepThatTheDeckDidNotUnderstandIsAskedForAgain) {
    connect();
    tape.simulator->order("nak 04 1 1");
    const _VTRCmdData answer = carryOut(request(kestrel::vtrTransport, "COM7", kestrel::vtrStepForwardCode));
    EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
    EXPECT_EQ(tape.simulator->time().text(), "10:00:00:01");
}

TEST_F(IllDeck, ALateReplyWithinTheTimeIsTaken) {
    connect();
    tape.simulator->order("late 100");
    EXPECT_EQ(play().errorCode, 0);
}

TEST_F(IllDeck, ATooLateReplyIsNotTakenForThatOfTheNextCommand) {
    connect();
    tape.simulator->order("late 350 1");
    EXPECT_EQ(time().errorCode, 0);
    const _VTRCmdData answer = play();
    EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
}

TEST_F(IllDeck, OneThatIsInLocalSaysSo) {
    connect();
    tape.simulator->order("local");
    const std::string reason = "the deck is set to LOCAL, its own panel has control)";
    EXPECT_THAT(textOf(play()), HasSubstr("(Play: " + reason));
    EXPECT_THAT(textOf(carryOut(request(kestrel::vtrTransport, "COM7", kestrel::vtrRewindCode))),
                HasSubstr("(Rewind: " + reason));
    EXPECT_THAT(textOf(carryOut(shuttle("COM7", 5))), HasSubstr("(Shuttle at 5: " + reason));
    EXPECT_THAT(textOf(carryOut(goTo("COM7", "10:00:10:00"))),
                HasSubstr("Preroll to 10:00:10:00 for VTR at COM7 failed. (" + reason));
    EXPECT_EQ(time().errorCode, 0) << "its time can be read";
    tape.simulator->order("remote");
    EXPECT_EQ(play().errorCode, 0);
}

TEST_F(IllDeck, OneWithoutACassetteSaysSo) {
    connect();
    tape.simulator->order("eject");
    EXPECT_THAT(textOf(play()), HasSubstr("VTR at COM7 failed. (Play: there is no cassette in the deck)"));
    tape.simulator->order("insert");
    EXPECT_EQ(play().errorCode, 0);
}

TEST_F(IllDeck, ATapeWithoutTimecodeHasNoTime) {
    tape.simulator->order("notimecode");
    const _VTRCmdData answer = time();
    EXPECT_EQ(answer.errorCode, 20081);
    EXPECT_THAT(textOf(answer),
                HasSubstr("no timecode can be read from the tape, the deck answered with timer 1"));
}

TEST_F(IllDeck, OneThatIsUnpluggedIsConnectedToAgainWhenItIsBack) {
    connect();
    tape.simulator->order("unplug");
    const _VTRCmdData answer = time();
    EXPECT_EQ(answer.errorCode, 20080);
    EXPECT_EQ(textOf(answer), "Error: Could not connect to VTR at COM7. (" + tape.simulator->device() +
                                  ": No such file or directory (errno 2))");
    tape.simulator->order("plug");
    EXPECT_EQ(time().errorCode, 0);
}

TEST_F(IllDeck, OneThatIsUnpluggedAndBackBetweenTwoRequestsIsNotNoticed) {
    connect();
    tape.simulator->order("unplug");
    tape.simulator->order("plug");
    EXPECT_EQ(play().errorCode, 0);
}

TEST(IllDeckLine, OneThatIsUnpluggedInTheMiddleOfACommandIsLost) {
    SimulatorOptions options;
    options.unplugAfter = 2; // device type and status
    SimulatedDeck tape(options);
    Timing timing;
    timing.reply = 2s;
    Deck deck(tape.simulator->device(), timing, -1);
    _VTRCmdData record = request(kestrel::vtrTransport, "COM1", kestrel::vtrStepForwardCode);
    deck.carryOut(record);
    EXPECT_EQ(record.errorCode, 20080);
    EXPECT_THAT(textOf(record), HasSubstr("Step forward: "));
    // The simulator tells it behind the line's end.
    EXPECT_TRUE(kestrel::test::eventually([&] { return tape.lines.has("line unplugged"); }));
}

TEST(IllDeckLine, TwoDecksDoNotShareALine) {
    SimulatedDeck tape;
    Timing timing;
    timing.reply = 2s;
    timing.inUse = 200ms;
    Deck first(tape.simulator->device(), timing, -1);
    Deck second(tape.simulator->device(), timing, -1);
    _VTRCmdData record = request(kestrel::vtrCurrentTime, "COM1");
    first.carryOut(record);
    EXPECT_EQ(record.errorCode, 0);
    const auto begin = Clock::now();
    record = request(kestrel::vtrCurrentTime, "COM2");
    second.carryOut(record);
    EXPECT_EQ(record.errorCode, 20080);
    EXPECT_THAT(textOf(record), HasSubstr("in use by another program"));
    EXPECT_GE(Clock::now() - begin, 200ms) << "tried again";
    // The wait was for all that comes until the port is free: the next ones need not wait each.
    const auto again = Clock::now();
    for (int i = 0; i < 10; ++i)
        second.carryOut(record);
    EXPECT_LT(Clock::now() - again, 1s);
    EXPECT_THAT(textOf(record), HasSubstr("in use by another program"));
}

TEST(IllDeckLine, ALineThatIsGivenFreeMeanwhileIsTaken) {
    SimulatedDeck tape;
    Timing timing;
    timing.reply = 2s;
    timing.inUse = 10s;
    std::optional<Deck> first(std::in_place, tape.simulator->device(), timing, -1);
    _VTRCmdData record = request(kestrel::vtrCurrentTime, "COM1");
    first->carryOut(record);
    Deck second(tape.simulator->device(), timing, -1);
    auto later = std::async(std::launch::async, [&] {
        _VTRCmdData mine = request(kestrel::vtrCurrentTime, "COM2");
        second.carryOut(mine);
        return mine;
    });
    EXPECT_EQ(later.wait_for(200ms), std::future_status::timeout);
    first.reset();
    const _VTRCmdData answer = later.get();
    EXPECT_EQ(answer.errorCode, 0) << textOf(answer);
}

TEST(IllDeckLine, TheWaitForALineInUseEndsWithTheProcess) {
    SimulatedDeck tape;
    Timing timing;
    timing.reply = 2s;
    timing.inUse = 60s;
    Deck first(tape.simulator->device(), timing, -1);
    _VTRCmdData record = request(kestrel::vtrCurrentTime, "COM1");
    first.carryOut(record);
    kestrel::capture::WakeEvent stop;
    stop.signal();
    Deck second(tape.simulator->device(), timing, stop.fd());
    second.carryOut(record);
    EXPECT_EQ(textOf(record), "Error: Command 6 to VTR at COM1 failed. (the deck process ends)");
}

} // namespace
