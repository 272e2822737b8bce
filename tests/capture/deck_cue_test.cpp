// A tape is cued, played, recorded from and paused.
#include "capture/deck_cue_bench.h"

#include <cmath>
#include <gmock/gmock.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

TEST(DeckCue, MarksThatAreNoTimecodesAreRefused) {
    for (const char* bad : {"", "10:00:00", "10:00:00:0x", "24:00:00:00", "10:60:00:00", "10:00:60:00",
                            "10:00:00:60", "10-00-00-00"}) {
        EXPECT_EQ(DeckCue(plan(bad)).prepare()->text,
                  "Error: Invalid Mark-In time. (\"" + std::string(bad) + "\")");
        EXPECT_EQ(DeckCue(plan("10:00:00:00", bad)).prepare()->text,
                  "Error: Invalid Mark-Out time. (\"" + std::string(bad) + "\")");
    }
}

TEST(DeckCue, TheDeckCuesItselfToThePrerollPointAndPlays) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    EXPECT_THAT(bench.deck.heard(),
                ElementsAre("current time", "go to 09:59:52:00", "seeking", "current time", "play"));
    EXPECT_EQ(bench.cue.attempts(), 1);
}

TEST(DeckCue, WithoutItsOwnCueTheDeckIsShuttledToWithinALabel) {
    for (const char* from : {"10:20:00:00", "08:00:00:00", "09:59:52:00", "09:59:52:05", "09:59:50:00",
                             "09:59:52:24", "10:00:00:00", "12:30:00:00"}) {
        for (const int rateCode : {3, 4}) {
            Bench bench(plan(), from, rateCode);
            bench.until(Phase::starting, 900s);
            const double off =
                bench.deck.frame(bench.now) -
                SimulatedDeck(rateCode == 4 ? "09:59:52;00" : "09:59:52:00", rateCode, bench.now)
                    .frame(bench.now);
            EXPECT_LE(std::abs(off), rateCode == 4 ? 2 : 1) << from << ", " << rateCode;
            EXPECT_EQ(bench.cue.attempts(), 1) << from;
            bench.until(Phase::rolling);
        }
    }
}

TEST(DeckCue, ThePrerollPointIsALabelThatExists) {
    Bench midnight(internal(plan("00:00:03:10", "00:01:00:00")));
    midnight.until(Phase::seeking);
    midnight.until(Phase::verifying);
    EXPECT_EQ(midnight.deck.count("go to 23:59:55:10"), 1);
    // Whether labels are dropped is seen on the tape, or on the marks.
    Bench tape(internal(plan("01:01:08:00", "01:02:00:10")), "01:00:00;00", 4);
    tape.until(Phase::verifying);
    EXPECT_EQ(tape.deck.count("go to 01:01:00;02"), 1);
    Bench mark(internal(plan("01:01:08;01", "01:02:00;10")), "01:00:00;00", 4);
    mark.until(Phase::verifying);
    EXPECT_EQ(mark.deck.count("go to 01:01:00;02"), 1);
    Bench tens(internal(plan("01:10:08;01", "01:12:00;10")), "01:00:00;00", 4);
    tens.until(Phase::verifying);
    EXPECT_EQ(tens.deck.count("go to 01:10:00;01"), 1);
    // Above 29 a frame number is one of a double rate; the deck counts pairs.
    Bench pairs(internal(plan("01:10:08:49", "01:12:00:10")), "01:00:00:00", 3);
    pairs.until(Phase::verifying);
    EXPECT_EQ(pairs.deck.count("go to 01:10:00:24"), 1);
}

TEST(DeckCue, RecordingIsArmedShortlyAfterPlayAndUntilTheEnd) {
    Bench bench(internal());
    bench.until(Phase::starting);
    EXPECT_FALSE(bench.cue.armed(bench.now + 1h));
    bench.until(Phase::rolling);
    const auto played = bench.now;
    EXPECT_FALSE(bench.cue.armed(played + 1999ms));
    EXPECT_TRUE(bench.cue.armed(played + 2000ms));
    bench.cue.recordingBegan(bench.now);
    EXPECT_EQ(bench.cue.phase(), Phase::recording);
    EXPECT_TRUE(bench.cue.armed(played + 3s));
    bench.cue.finish(bench.now);
    EXPECT_FALSE(bench.cue.armed(played + 3s));
}

TEST(DeckCue, ArmingDoesNotWaitForAnAnswer) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    const auto played = bench.now;
    bench.now = played + 200ms;
    ASSERT_TRUE(bench.cue.next(bench.now)); // and it is never answered
    EXPECT_EQ(bench.cue.deadline(), played + 2s);
    bench.cue.tick(played + 2s);
    EXPECT_TRUE(bench.cue.armed(played + 2s));
    EXPECT_EQ(bench.cue.deadline(), Clock::time_point::max());
}

TEST(DeckCue, ADeckThatSaysTooEarlyThatItSeeksNoMoreIsWatched) {
    Bench bench(internal());
    bench.deck.seekSeconds = 0.1;
    bench.deck.seekError = -25 * 10; // where it says so
    bench.until(Phase::verifying);
    bench.step();
    // It goes on towards the point by itself.
    for (int second = 9; second >= 2; second -= 1) {
        bench.deck.place("09:59:4" + std::to_string(9 - second) + ":00", bench.now);
        bench.until([&, until = bench.now + 1s] { return bench.now >= until; });
        EXPECT_EQ(bench.cue.phase(), Phase::verifying);
    }
    bench.deck.place("09:59:51:20", bench.now);
    bench.until(Phase::rolling);
    EXPECT_EQ(bench.cue.attempts(), 1);
}

TEST(DeckCue, EachLabelShownInPlayIsTakenOnceWithTheMiddleOfItsQuery) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    EXPECT_FALSE(bench.cue.takeSighting());
    const auto request = [&] {
        bench.now = bench.cue.deadline();
        return bench.cue.next(bench.now);
    }();
    ASSERT_TRUE(request);
    bench.cue.answered({std::nullopt, false, "09:59:53:07", bench.now, bench.now + 40ms, true},
                       bench.now + 40ms);
    const auto sighting = bench.cue.takeSighting();
    ASSERT_TRUE(sighting);
    EXPECT_EQ(sighting->text, "09:59:53:07");
    EXPECT_EQ(sighting->at, bench.now + 20ms);
    EXPECT_FALSE(bench.cue.takeSighting());
}

TEST(DeckCue, AtTheEndTheDeckIsPaused) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    bench.cue.recordingBegan(bench.now);
    bench.until([&] { return bench.deck.label(bench.now) > "10:00:10:00"; });
    bench.cue.finish(bench.now);
    bench.until(Phase::finished);
    EXPECT_TRUE(bench.paused());
    EXPECT_FALSE(bench.cue.failed());
    EXPECT_EQ(bench.cue.deadline(), Clock::time_point::max());
}

TEST(DeckCue, ItIsPausedInEveryPhaseThatMovedIt) {
    for (const Phase phase :
         {Phase::seeking, Phase::shuttling, Phase::stopping, Phase::stepping, Phase::rolling}) {
        Bench bench(phase == Phase::seeking ? internal() : plan());
        bench.until(phase);
        bench.step(); // the command itself
        bench.cue.finish(bench.now);
        EXPECT_TRUE(bench.cue.urgent());
        bench.until(Phase::finished);
        EXPECT_TRUE(bench.paused()) << static_cast<int>(phase);
    }
    Bench untouched;
    untouched.cue.finish(untouched.now);
    EXPECT_TRUE(untouched.cue.finished());
    EXPECT_TRUE(untouched.deck.heard().empty()) << "a tape that was not moved is left alone";
}

TEST(DeckCue, ALastPauseThatIsNotAnsweredOrRefusedDoesNotHoldTheEnd) {
    Bench silent(internal());
    silent.until(Phase::rolling);
    silent.cue.finish(silent.now);
    EXPECT_TRUE(silent.cue.next(silent.now));
    EXPECT_EQ(silent.cue.deadline(), silent.now + 3s);
    silent.cue.tick(silent.now + 3s);
    EXPECT_TRUE(silent.cue.finished());
    EXPECT_EQ(silent.cue.leftRunning(), "no answer to the last pause");

    Bench refused(internal());
    refused.until(Phase::rolling);
    refused.deck.refuse = [](const _VTRCmdData&) { return refusal(20081, "no"); };
    refused.cue.finish(refused.now);
    refused.until(Phase::finished);
    EXPECT_FALSE(refused.cue.failed());
    EXPECT_EQ(refused.cue.leftRunning(), "no");
}

// The query before it is answered when the recording has just ended.
TEST(DeckCue, AnAnswerThatComesLateIsNotTakenForThatToTheLastPause) {
    for (const MaybeFailure& late : {MaybeFailure(), refusal(20081, "Error: no timecode can be read")}) {
        Bench bench(internal());
        bench.until(Phase::rolling);
        bench.cue.recordingBegan(bench.now);
        std::optional<DeckRequest> query;
        for (; !query; query = bench.cue.next(bench.now))
            bench.now = std::max(bench.now, bench.cue.deadline());
        ASSERT_EQ(query->kind, kestrel::vtrCurrentTime);
        DeckAnswer answer = bench.deck.answer(*query, bench.now);
        answer.failed = late;
        bench.cue.finish(bench.now);
        bench.cue.answered(answer, bench.now);
        EXPECT_FALSE(bench.cue.finished());
        bench.until(Phase::finished);
        EXPECT_TRUE(bench.paused());
        EXPECT_EQ(bench.cue.leftRunning(), "");
    }
}

TEST(DeckCue, ADeckThatWasPausedIsNotSaidToRun) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    bench.cue.finish(bench.now);
    bench.until(Phase::finished);
    EXPECT_EQ(bench.cue.leftRunning(), "");
}

// The writer of the stream and the deck's answers have threads of their own: a recording may begin just when
// the deck is found to be in trouble.
TEST(DeckCue, ARecordingThatBeginsWhileTheTapeIsAboutToBeCuedAgainFails) {
    for (const Phase phase :
         {Phase::recueing, Phase::locating, Phase::seeking, Phase::verifying, Phase::starting}) {
        SCOPED_TRACE(static_cast<int>(phase));
        Bench bench(internal());
        bench.until(Phase::rolling);
        bench.deck.answer(pauseRequest(), bench.now); // somebody stops the deck
        bench.until(Phase::recueing);
        bench.until(phase);
        bench.cue.recordingBegan(bench.now);
        EXPECT_FALSE(bench.cue.armed(bench.now + 1h));
        EXPECT_THAT(bench.failure(),
                    AllOf(StartsWith("Error: Command 0 to VTR at COM1 failed. (play: the deck does not move, "
                                     "at 09:59:5"),
                          HasSubstr(" (recording had just begun)")));
        EXPECT_TRUE(bench.paused());
    }
}

TEST(DeckCue, ARecordingThatIsOverOrLetGoDoesNotFailForHavingBegun) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    bench.cue.finish(bench.now);
    bench.cue.recordingBegan(bench.now);
    bench.until(Phase::finished);
    bench.cue.recordingBegan(bench.now);
    EXPECT_FALSE(bench.cue.failed());
}

} // namespace
