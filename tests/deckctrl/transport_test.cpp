// The simulated deck's mechanics, with a clock of the test's own.
#include "deck_simulator/Responder.h"

#include <gtest/gtest.h>

using namespace kestrel::deck_simulator;
using namespace std::chrono_literals;
using State = Transport::State;

namespace {

Tape tape(const char* rate, const TapeTime& start, double seconds) {
    return Tape(*findRate(rate), start, seconds);
}

class Mechanism : public testing::Test {
protected:
    // 60 s of tape at 25.
    Transport transport{tape("25", {10, 0, 0, 0, false}, 60), Mechanics{400ms, 50, std::nullopt}};
    const Clock::time_point start{1000s};
    std::string timeAt(Clock::duration after) { return transport.time(start + after).text(); }
};

TEST_F(Mechanism, ACueUpThatLagsKeepsTheStatusOfTheOneBefore) {
    transport.cueUp({10, 0, 10, 0, false}, start);
    transport.advance(start + 10s);
    ASSERT_TRUE(transport.status(start + 10s).cueUpComplete);
    transport.setLag(500ms);
    transport.cueUp({10, 0, 30, 0, false}, start + 11s);
    const auto before = transport.status(start + 11'400ms);
    EXPECT_TRUE(before.cueUpComplete);
    EXPECT_TRUE(before.still);
    EXPECT_FALSE(before.preroll);
    EXPECT_FALSE(before.moving());
    EXPECT_EQ(timeAt(11'400ms), "10:00:10:00");
    const auto begun = transport.status(start + 11'600ms);
    EXPECT_FALSE(begun.cueUpComplete);
    EXPECT_TRUE(begun.preroll);
    EXPECT_TRUE(begun.moving());
    transport.advance(start + 20s);
    EXPECT_TRUE(transport.status(start + 20s).cueUpComplete);
    EXPECT_EQ(timeAt(20s), "10:00:30:00");
}

TEST(Tape, EveryRateCountsItsLabels) {
    struct Row {
        const char* rate;
        const char* after; // a minute of its own labels after 10:00:00:00
        double seconds;
    };
    const Row rows[] = {
        {"23.976", "10:01:00:00", 60.06}, {"24", "10:01:00:00", 60},         {"25", "10:01:00:00", 60},
        {"29.97", "10:01:00:00", 60.06},  {"29.97df", "10:01:00;02", 60.06}, {"30", "10:01:00:00", 60},
        {"50", "10:01:00:00", 60},        {"59.94", "10:01:00;02", 60.06},   {"60", "10:01:00:00", 60},
    };
    for (const Row& row : rows) {
        const Tape one = tape(row.rate, {10, 0, 0, 0, findRate(row.rate)->dropFrame}, 3600);
        const double position = row.seconds * one.rate().labelsPerSecond;
        EXPECT_EQ(one.label(position).text(), row.after) << row.rate;
        const auto back = one.position(one.label(position));
        ASSERT_TRUE(back);
        EXPECT_NEAR(*back, position, 1e-6) << row.rate;
    }
    EXPECT_FALSE(findRate("26"));
}

TEST(Tape, LabelsBeforeAndBehindItAreTold) {
    const Tape one = tape("25", {10, 0, 0, 0, false}, 60);
    EXPECT_EQ(one.last(), 1499);
    EXPECT_LT(*one.position({9, 59, 59, 24, false}), 0);
    EXPECT_GT(*one.position({10, 1, 0, 0, false}), one.last());
    EXPECT_FALSE(one.position({10, 0, 0, 25, false}));
    EXPECT_FALSE(tape("29.97df", {10, 0, 0, 0, true}, 60).position({10, 1, 0, 1, false})) << "dropped";
}

TEST(Tape, GoesThroughMidnight) {
    const Tape one = tape("25", {23, 59, 59, 0, false}, 10);
    EXPECT_EQ(one.label(25).text(), "00:00:00:00");
    EXPECT_EQ(one.position({0, 0, 1, 0, false}), 50);
}

TEST_F(Mechanism, PlayBeginsAfterTheSpinUpAndRunsInRealTime) {
    transport.play(start);
    EXPECT_EQ(transport.state(), State::play);
    EXPECT_FALSE(transport.status(start + 399ms).servoLock);
    EXPECT_EQ(timeAt(400ms), "10:00:00:00");
    EXPECT_TRUE(transport.status(start + 400ms).servoLock);
    EXPECT_EQ(timeAt(440ms), "10:00:00:01");
    EXPECT_EQ(timeAt(10'400ms), "10:00:10:00");
    EXPECT_EQ(transport.playing(), (Transport::Play{0, start + 400ms}));
    transport.play(start + 5s);
    EXPECT_EQ(timeAt(10'400ms), "10:00:10:00") << "it plays already";
}

TEST_F(Mechanism, TheTapesEndStopsIt) {
    transport.play(start);
    const auto end = transport.nextChange();
    ASSERT_TRUE(end);
    transport.advance(*end);
    EXPECT_EQ(transport.state(), State::stop);
    EXPECT_EQ(transport.time(*end).text(), "10:00:59:24");
    EXPECT_TRUE(transport.status(*end).endOfTape);
    transport.wind(false, *end);
    transport.advance(*end + 400ms + 1300ms);
    EXPECT_EQ(transport.state(), State::stop);
    EXPECT_EQ(transport.position(*end + 2s), 0);
}

TEST_F(Mechanism, WindingRunsAtItsSpeed) {
    transport.wind(true, start);
    EXPECT_EQ(timeAt(1400ms), "10:00:50:00");
    transport.still(start + 1400ms);
    EXPECT_EQ(timeAt(9s), "10:00:50:00");
    EXPECT_EQ(transport.describe(start + 9s), "still 10:00:50:00");
}

TEST_F(Mechanism, ShuttlesBothWaysWithinItsSpeed) {
    transport.shuttle(10, start);
    EXPECT_EQ(timeAt(1400ms), "10:00:10:00");
    transport.shuttle(-5, start + 1400ms);
    EXPECT_EQ(timeAt(2400ms), "10:00:05:00") << "a moving tape needs no spin-up";
    EXPECT_TRUE(transport.status(start + 2400ms).reverse);
    transport.shuttle(0, start + 2400ms);
    EXPECT_EQ(transport.state(), State::still);
    transport.shuttle(1e9, start + 3s);
    EXPECT_EQ(timeAt(4400ms), "10:00:55:00") << "held at the winding speed";
}

TEST_F(Mechanism, StepsStayOnTheTape) {
    transport.step(-1, start);
    EXPECT_EQ(timeAt(0s), "10:00:00:00");
    transport.step(1, start);
    EXPECT_EQ(timeAt(0s), "10:00:00:01");
}

TEST_F(Mechanism, ACueUpTakesAsLongAsWindingAndTellsThatItIsThere) {
    ASSERT_TRUE(transport.cueUp({10, 0, 50, 0, false}, start));
    EXPECT_TRUE(transport.status(start + 1s).preroll);
    EXPECT_FALSE(transport.status(start + 1s).cueUpComplete);
    EXPECT_EQ(transport.nextChange(), start + 1400ms);
    transport.advance(start + 1400ms);
    EXPECT_TRUE(transport.status(start + 1400ms).cueUpComplete);
    EXPECT_EQ(transport.describe(start + 1400ms), "cue up complete 10:00:50:00");
    transport.play(start + 2s);
    EXPECT_FALSE(transport.status(start + 2s).cueUpComplete);
}

TEST_F(Mechanism, ACueUpBesideTheTapeEndsAtItsEndAndIsNotComplete) {
    ASSERT_TRUE(transport.cueUp({11, 0, 0, 0, false}, start));
    transport.advance(start + 10s);
    EXPECT_EQ(transport.describe(start + 10s), "stop 10:00:59:24");
    EXPECT_FALSE(transport.status(start + 10s).cueUpComplete);
    EXPECT_FALSE(transport.cueUp({10, 0, 0, 29, false}, start + 10s)) << "no label of this tape";
}

TEST_F(Mechanism, NothingMovesWithoutACassette) {
    transport.eject(start);
    transport.play(start);
    transport.wind(true, start);
    transport.step(1, start);
    EXPECT_TRUE(transport.cueUp({10, 0, 5, 0, false}, start));
    EXPECT_EQ(transport.describe(start + 5s), "no cassette");
    EXPECT_TRUE(transport.status(start).cassetteOut);
    transport.insert(start + 5s);
    EXPECT_EQ(transport.describe(start + 5s), "stop 10:00:00:00");
}

// Where the deck says it has read its time, standing and moving.
TEST_F(Mechanism, TimecodeIsReadWhereItCanBe) {
    using kestrel::deck::Block;
    using kestrel::deck::Code;
    Responder responder(transport);
    const auto source = [&](std::uint8_t wanted, Clock::duration after) {
        const auto bytes = responder.respond(Block(Code::timeSense, {wanted}), start + after).bytes;
        EXPECT_EQ(bytes.size(), 7u);
        return static_cast<Code>((bytes[0] & 0xF0) << 8 | bytes[1]);
    };
    EXPECT_EQ(source(0x03, 0s), Code::vitc);
    EXPECT_EQ(source(0x01, 0s), Code::ltcCorrected);
    EXPECT_EQ(source(0x04, 0s), Code::timer1);
    responder.setVitc(false);
    EXPECT_EQ(source(0x03, 0s), Code::ltcCorrected);
    EXPECT_EQ(source(0x02, 0s), Code::vitcHeld);
    responder.transport().play(start);
    EXPECT_EQ(source(0x03, 1s), Code::ltc);
    responder.setTimecode(false);
    EXPECT_EQ(source(0x03, 1s), Code::timer1);
    EXPECT_EQ(responder.respond(Block(Code::timeSense, {0x77}), start).bytes,
              (std::vector<std::uint8_t>{0x11, 0x12, 0x01, 0x24}));
}

} // namespace
