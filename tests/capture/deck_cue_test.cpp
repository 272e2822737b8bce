// A tape is cued, played and watched; the time is the test's own.
#include "capture/DeckCue.h"
#include "capture/captured_log.h"
#include "capture/simulated_deck.h"
#include "deckctrl/Limits.h"
#include "foundation/ErrorCodes.h"

#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace std::chrono_literals;
using capture_test::SimulatedDeck;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Phase = DeckCue::Phase;

namespace {

CuePlan plan(const std::string& in = "10:00:00:00", const std::string& out = "10:00:10:00") {
    return {"COM1", in, out, 8, 2, false};
}

CuePlan internal(CuePlan with = plan()) {
    with.internalCue = true;
    return with;
}

// A cue and its deck, which answers after 20 ms.
struct Bench {
    explicit Bench(CuePlan with = plan(), const std::string& label = "10:20:00:00", int rateCode = 3)
        : now(Clock::time_point(1h)), deck(label, rateCode, now), cue(std::move(with)) {
        EXPECT_FALSE(cue.prepare());
        cue.begin(now);
    }
    void step() {
        if (const auto request = cue.next(now)) {
            now += 20ms;
            const DeckAnswer answer = deck.answer(*request, now);
            cue.answered(answer, now);
            return;
        }
        ASSERT_NE(cue.deadline(), Clock::time_point::max());
        now = std::max(now, cue.deadline());
        cue.tick(now);
    }
    void until(const std::function<bool()>& reached, std::chrono::seconds most = 3600s) {
        const auto end = now + most;
        while (!reached() && now < end)
            ASSERT_NO_FATAL_FAILURE(step());
        EXPECT_TRUE(reached()) << "in phase " << static_cast<int>(cue.phase()) << " at " << deck.label(now);
    }
    void until(Phase phase, std::chrono::seconds most = 3600s) {
        until([&] { return cue.phase() == phase; }, most);
    }
    std::string failure() {
        until(Phase::finished);
        EXPECT_TRUE(cue.failed());
        return cue.failed() ? cue.failed()->text : "";
    }
    long code() const { return cue.failed() ? cue.failed()->code : 0; }
    // The deck has been let go, not left running.
    bool paused() const { return !deck.heard().empty() && deck.heard().back() == "pause"; }

    Clock::time_point now;
    SimulatedDeck deck;
    DeckCue cue;
};

std::optional<Failure> refusal(long code, const char* text) {
    return Failure{code, text};
}

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

TEST(DeckCue, ADeckThatDoesNotShuttleFailsThePreroll) {
    Bench bench;
    bench.deck.shuttleSpeed = 0;
    EXPECT_EQ(bench.failure(),
              "Error: Preroll to 09:59:52:00 for VTR at COM1 failed. (the deck does not move, "
              "at 10:20:00:00) (3 attempts)");
    EXPECT_EQ(bench.code(), kestrel::error::vtrPrerollFailed);
    EXPECT_TRUE(bench.paused());
}

TEST(DeckCue, ADeckThatShuttlesTheWrongWayIsStoppedAndTriedAgain) {
    Bench bench;
    bench.deck.shuttleSpeed = -1;
    bench.until(Phase::recueing);
    bench.until(Phase::locating);
    EXPECT_TRUE(bench.paused());
    bench.deck.shuttleSpeed = 1;
    bench.until(Phase::rolling);
    EXPECT_EQ(bench.cue.attempts(), 2);

    Bench never;
    never.deck.shuttleSpeed = -1;
    EXPECT_THAT(never.failure(),
                StartsWith("Error: Preroll to 09:59:52:00 for VTR at COM1 failed. (the deck runs the "
                           "wrong way, at 10:"));
}

TEST(DeckCue, ADeckThatDoesNotStopOrStepFailsThePreroll) {
    Bench runs;
    runs.deck.pauseSticks = true;
    EXPECT_THAT(runs.failure(),
                AllOf(StartsWith("Error: Preroll to 09:59:52:00"), HasSubstr("does not stop")));
    Bench sticks(plan(), "09:59:52:10");
    sticks.deck.stepsStick = true;
    EXPECT_THAT(sticks.failure(), AllOf(StartsWith("Error: Preroll to 09:59:52:00"),
                                        HasSubstr("(the deck does not stop there, at 09:59:52:10)")));
}

TEST(DeckCue, ACueThatEndsElsewhereOrNeverFailsThePreroll) {
    Bench elsewhere(internal());
    elsewhere.deck.seekError = 25 * 60;
    EXPECT_EQ(elsewhere.failure(),
              "Error: Preroll to 09:59:52:00 for VTR at COM1 failed. (the deck cued up elsewhere, "
              "at 10:00:52:00) (3 attempts)");
    Bench close(internal());
    close.deck.seekError = -40; // some decks stop a little before
    close.until(Phase::rolling);
    Bench never(internal());
    never.deck.seekSeconds = 7200;
    EXPECT_THAT(never.failure(),
                AllOf(StartsWith("Error: Preroll to 09:59:52:00"), HasSubstr("seeking for too long")));
}

// Its words tell more than that it took too long.
TEST(DeckCue, TheDeckProcessGivesACueUpFirst) {
    const kestrel::deck::Timing process;
    EXPECT_GT(CueTiming().cue, process.seek + process.settle);
    EXPECT_GT(process.begin, process.settle);
    Bench bench(internal());
    bench.deck.seekSeconds = 605;
    bench.until(Phase::rolling);
    EXPECT_EQ(bench.cue.attempts(), 1);
}

TEST(DeckCue, ADeckThatDoesNotPlayIsTriedAgainAndNamedAfterwards) {
    Bench bench(internal());
    bench.deck.playSpeed = 0;
    EXPECT_EQ(bench.failure(), "Error: Command 0 to VTR at COM1 failed. (play: the deck does not move, at "
                               "09:59:52:00) (3 attempts)");
    EXPECT_EQ(bench.code(), kestrel::error::vtrCommandFailed);
    EXPECT_EQ(bench.deck.count("play"), 3);
    EXPECT_TRUE(bench.paused());
}

TEST(DeckCue, ADeckThatSpinsUpSlowlyIsNotMistakenForOne) {
    Bench bench(internal());
    bench.deck.spinUp = 6s;
    bench.until(Phase::rolling);
    bench.until([&] { return bench.deck.label(bench.now) > "09:59:58:00"; });
    EXPECT_EQ(bench.cue.attempts(), 1);
}

TEST(DeckCue, ADeckThatPlaysBackwardsIsStopped) {
    Bench bench(internal());
    bench.deck.playSpeed = -1;
    EXPECT_THAT(bench.failure(),
                StartsWith("Error: Command 0 to VTR at COM1 failed. (play: the deck runs the wrong "
                           "way, at 09:59:4"));
}

TEST(DeckCue, AStreamThatPassedMarkInIsCuedAgainUntilTheRetriesAreUsed) {
    Bench bench(internal());
    for (int attempt = 1; attempt <= 3; ++attempt) {
        bench.until(Phase::rolling);
        bench.cue.missed(bench.now); // what the encoder shows is from before the cue
        EXPECT_EQ(bench.cue.phase(), Phase::rolling);
        EXPECT_EQ(bench.cue.attempts(), attempt);
        bench.until([&] { return bench.deck.label(bench.now) > "10:00:01:00"; });
        bench.step();
        bench.cue.missed(bench.now);
        EXPECT_FALSE(bench.cue.armed(bench.now));
    }
    EXPECT_THAT(bench.failure(),
                AllOf(StartsWith("Error: Start timecode 10:00:00:00 cannot be found. (the stream "
                                 "passed it; COM1, at 10:00:01:"),
                      HasSubstr("(3 attempts)")));
    EXPECT_EQ(bench.code(), kestrel::error::startTimecodeNotFound);
    EXPECT_EQ(bench.deck.count("go to 09:59:52:00"), 3);
}

TEST(DeckCue, SoIsADeckThatIsFarPastMarkInWithoutARecording) {
    Bench bench(internal());
    EXPECT_THAT(bench.failure(),
                StartsWith("Error: Start timecode 10:00:00:00 cannot be found. (COM1, at 10:00:10:"));
}

TEST(DeckCue, OnceRecordingTheTapeIsNotCuedAgain) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    bench.until([&] { return bench.deck.label(bench.now) > "10:00:01:00"; });
    bench.cue.recordingBegan(bench.now);
    bench.cue.missed(bench.now);
    EXPECT_EQ(bench.cue.phase(), Phase::recording);
    bench.deck.playSpeed = 0;
    bench.deck.answer(pauseRequest(), bench.now); // somebody stops the deck
    EXPECT_THAT(bench.failure(),
                StartsWith("Error: Command 0 to VTR at COM1 failed. (play: the deck stopped before "
                           "mark-out 10:00:10:00, at 10:00:01:"));
    EXPECT_EQ(bench.cue.attempts(), 1);
}

TEST(DeckCue, ATapePlayedFarPastMarkOutEndsTheRecording) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    bench.cue.recordingBegan(bench.now);
    EXPECT_THAT(bench.failure(),
                AllOf(StartsWith("Error: Capture discontinuity."),
                      HasSubstr("COM1 is past mark-out 10:00:10:00, the stream is not, at 10:00:40")));
    EXPECT_TRUE(bench.paused());
}

TEST(DeckCue, TimeQueriesMayFailForAWhileInPlay) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    const auto deafUntil = bench.now + 5s;
    bench.deck.refuse = [&](const _VTRCmdData& record) -> std::optional<Failure> {
        if (record.commandKind == kestrel::vtrCurrentTime && bench.now < deafUntil)
            return refusal(20081, "no timecode");
        return std::nullopt;
    };
    bench.until([&] { return bench.deck.label(bench.now) > "10:00:02:00"; });
    EXPECT_EQ(bench.cue.attempts(), 1);
    EXPECT_EQ(bench.cue.phase(), Phase::rolling);
}

// Where the stream shows where the tape is, a deck that does not is no trouble until mark-in must have come.
TEST(DeckCue, ALongPrerollIsNotTakenForADeafDeckWhenTheStreamIsLabelled) {
    for (const bool labelled : {true, false}) {
        CuePlan with = internal();
        with.prerollSeconds = 20;
        Bench bench(with);
        bench.cue.setStreamLabelled(labelled);
        bench.until(Phase::rolling);
        const auto played = bench.now;
        bench.deck.refuse = [&](const _VTRCmdData& record) -> std::optional<Failure> {
            if (record.commandKind == kestrel::vtrCurrentTime)
                return refusal(20081, "no timecode");
            return std::nullopt;
        };
        bench.until(Phase::recueing);
        // Preroll and the longest way through the encoder, or ten seconds.
        EXPECT_NEAR(std::chrono::duration<double>(bench.now - played).count(), labelled ? 30 : 10, 0.5);
    }
}

TEST(DeckCue, AnUnreadableTimeIsLoggedWhenItBeginsAndWhenItEnds) {
    const capture_test::CapturedLog log;
    Bench bench(internal());
    bench.until(Phase::rolling);
    bench.cue.recordingBegan(bench.now);
    for (int time = 0; time < 2; ++time) {
        const auto deafUntil = bench.now + 3s;
        bench.deck.refuse = [&](const _VTRCmdData&) -> std::optional<Failure> {
            return bench.now < deafUntil ? refusal(20081, "no timecode") : std::nullopt;
        };
        bench.until([&] { return bench.now > deafUntil + 1s; });
    }
    EXPECT_EQ(log.count("[Deck:Warning] COM1: does not show its time: no timecode"), 2);
    EXPECT_EQ(log.count("[Deck:Info] COM1: shows its time again: 09:59:5"), 2);
}

TEST(DeckCue, TimeQueriesThatFailForGoodEndThePlayButNotARecording) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    bench.deck.refuse = [&](const _VTRCmdData& record) -> std::optional<Failure> {
        if (record.commandKind == kestrel::vtrCurrentTime)
            return refusal(20081, "no timecode");
        return std::nullopt;
    };
    EXPECT_THAT(bench.failure(),
                AllOf(StartsWith("Error: Unable to query VTR for start time. (COM1: no timecode"),
                      HasSubstr("(3 attempts)")));

    Bench recording(internal());
    recording.until(Phase::rolling);
    recording.cue.recordingBegan(recording.now);
    recording.deck.refuse = [&](const _VTRCmdData&) { return refusal(20081, "no timecode"); };
    const auto later = recording.now + 60s;
    recording.until([&] { return recording.now >= later; });
    EXPECT_EQ(recording.cue.phase(), Phase::recording);
}

TEST(DeckCue, AtHighSpeedTheTimeMayBeUnreadableForAMoment) {
    Bench bench;
    bench.until(Phase::shuttling);
    bench.step();
    const auto began = bench.now;
    auto deafUntil = began + 2s;
    bench.deck.refuse = [&](const _VTRCmdData& record) -> std::optional<Failure> {
        if (record.commandKind == kestrel::vtrCurrentTime && bench.now > began && bench.now < deafUntil)
            return refusal(20081, "no timecode");
        return std::nullopt;
    };
    bench.until(Phase::rolling);
    EXPECT_EQ(bench.cue.attempts(), 1);

    Bench blind;
    blind.until(Phase::shuttling);
    blind.deck.refuse = [&](const _VTRCmdData& record) -> std::optional<Failure> {
        if (record.commandKind == kestrel::vtrCurrentTime)
            return refusal(20081, "no timecode");
        return std::nullopt;
    };
    EXPECT_THAT(blind.failure(),
                AllOf(StartsWith("Error: Unable to query VTR for start time."), HasSubstr("(3 attempts)")));
}

struct Refused {
    const char* what;
    std::int32_t kind, transport;
    bool internalCue;
    long deckCode;
    const char* text;
    int times; // that it was asked
};

// 1 what the deck refuses and how  2 the text of the end
TEST(DeckCue, ErrorAnswersEndInTheTextThatFits) {
    using namespace kestrel;
    const Refused table[] = {
        {"current time", vtrCurrentTime, 0, true, 20081,
         "Error: Unable to query VTR for start time. (COM1: NAK) (3 attempts)", 3},
        {"current time", vtrCurrentTime, 0, true, 20054, "NAK (3 attempts)", 3},
        {"current time", vtrCurrentTime, 0, true, 20080, "NAK", 1},
        {"current time", vtrCurrentTime, 0, true, 20063, "NAK", 1},
        {"current time", vtrCurrentTime, 0, true, 20061,
         "NAK (COM1: the deck-control process has ended) (3 attempts)", 3},
        {"current time", vtrCurrentTime, 0, true, 20062, "NAK", 1},
        {"go to 09:59:52:00", vtrGoTo, 0, true, 20081,
         "Error: Preroll to 09:59:52:00 for VTR at COM1 failed. (NAK, at 10:20:00:00) (3 attempts)", 3},
        {"go to 09:59:52:00", vtrGoTo, 0, true, 20082, "NAK (3 attempts)", 3},
        {"seeking", vtrIsSeeking, 0, true, 20081,
         "Error: Preroll to 09:59:52:00 for VTR at COM1 failed. (NAK, at 10:20:00:00) (3 attempts)", 3},
        {"play", vtrTransport, vtrPlayCode, true, 5,
         "Error: Command 0 to VTR at COM1 failed. (play: NAK, at 09:59:52:00) (3 attempts)", 3},
        {"play", vtrTransport, vtrPlayCode, true, 20081, "NAK (3 attempts)", 3},
        {"shuttle -32", vtrShuttle, vtrShuttleCode, false, 5,
         "Error: Command 10 to VTR at COM1 failed. (shuttle -32: NAK, at 10:20:00:00) (3 attempts)", 3},
    };
    for (const Refused& row : table) {
        SCOPED_TRACE(std::string(row.what) + " " + std::to_string(row.deckCode));
        CuePlan with = plan();
        with.internalCue = row.internalCue;
        Bench bench(with);
        bench.deck.refuse = [&](const _VTRCmdData& record) -> std::optional<Failure> {
            if (record.commandKind == row.kind &&
                (row.kind != vtrTransport || record.transportCode == row.transport))
                return refusal(row.deckCode, "NAK");
            return std::nullopt;
        };
        EXPECT_EQ(bench.failure(), row.text);
        EXPECT_EQ(std::max(1, bench.deck.count(row.what)), row.times);
    }
}

// The service answers so while the deck-control process is down, and starts it again after a second.
TEST(DeckCue, ADeckProcessThatEndedIsWaitedForWithinTheRetries) {
    for (const Phase phase : {Phase::locating, Phase::seeking, Phase::verifying, Phase::shuttling,
                              Phase::stopping, Phase::stepping, Phase::starting}) {
        SCOPED_TRACE(static_cast<int>(phase));
        Bench bench(phase == Phase::seeking || phase == Phase::verifying ? internal() : plan());
        bench.until(phase);
        const auto downUntil = bench.now + 1500ms;
        std::vector<std::string> whileDown;
        bench.deck.refuse = [&](const _VTRCmdData&) -> std::optional<Failure> {
            if (bench.now >= downUntil)
                return std::nullopt;
            whileDown.push_back(bench.deck.heard().back());
            return refusal(20061, "Error: Cannot send VTR command.  Send queue not available.");
        };
        bench.until(Phase::recueing);
        EXPECT_EQ(whileDown.size(), 1u) << "nothing is asked of a process that is not there";
        const auto told = bench.now;
        bench.until(Phase::locating);
        EXPECT_GE(bench.now - told, 3s);
        EXPECT_EQ(bench.deck.heard().back(), "pause") << "what it was doing is not known";
        bench.until(Phase::rolling);
        EXPECT_EQ(bench.cue.attempts(), 2);
    }
}

TEST(DeckCue, ADeckProcessThatStaysAwayIsGivenUpAndTheDeckSaidToRun) {
    Bench bench;
    bench.until(Phase::shuttling);
    bench.step();
    const auto begin = bench.now;
    bench.deck.refuse = [&](const _VTRCmdData&) {
        return refusal(20061, "Error: Cannot send VTR command.  Send queue not available.");
    };
    EXPECT_EQ(bench.failure(), "Error: Cannot send VTR command.  Send queue not available. (COM1: the "
                               "deck-control process has ended) (3 attempts)");
    EXPECT_EQ(bench.cue.leftRunning(), "Error: Cannot send VTR command.  Send queue not available.");
    EXPECT_GE(bench.now - begin, 6s);
    EXPECT_LE(bench.now - begin, 12s);
}

TEST(DeckCue, ADeckThatWasNeverMovedIsNotSaidToRun) {
    Bench bench(internal());
    bench.deck.refuse = [&](const _VTRCmdData&) { return refusal(20061, "down"); };
    EXPECT_EQ(bench.failure(), "down (COM1: the deck-control process has ended) (3 attempts)");
    EXPECT_EQ(bench.cue.leftRunning(), "");
}

TEST(DeckCue, AServiceWithoutDeckControlEndsItAtOnce) {
    Bench bench(internal());
    bench.deck.refuse = [&](const _VTRCmdData&) { return refusal(20080, "no deck control"); };
    EXPECT_EQ(bench.failure(), "no deck control");
    EXPECT_EQ(bench.deck.heard().size(), 1u);
    EXPECT_EQ(bench.cue.attempts(), 1);
    EXPECT_EQ(bench.cue.leftRunning(), "");
}

TEST(DeckCue, AQueueToTheServiceThatIsMissingEndsItAtOnce) {
    Bench bench(internal());
    const auto request = bench.cue.next(bench.now);
    ASSERT_TRUE(request);
    bench.cue.answered({Failure{20061, "no queue"}, false, "", bench.now, bench.now, false}, bench.now);
    EXPECT_TRUE(bench.cue.finished());
    EXPECT_EQ(bench.failure(), "no queue");
    EXPECT_EQ(bench.cue.attempts(), 1);
}

TEST(DeckCue, ADeckProcessThatEndsInPlayCostsNothing) {
    for (const bool recording : {false, true}) {
        Bench bench(internal());
        bench.until(Phase::rolling);
        if (recording)
            bench.cue.recordingBegan(bench.now);
        const Phase phase = bench.cue.phase();
        const auto downUntil = bench.now + 4s;
        int asked = 0;
        bench.deck.refuse = [&](const _VTRCmdData&) -> std::optional<Failure> {
            if (bench.now >= downUntil)
                return std::nullopt;
            ++asked;
            return refusal(20061, "down");
        };
        bench.until([&] { return bench.now > downUntil + 2s; });
        EXPECT_EQ(bench.cue.phase(), phase);
        EXPECT_EQ(bench.cue.attempts(), 1);
        EXPECT_LE(asked, 5) << "once a second";
        EXPECT_TRUE(bench.cue.takeSighting());
    }
}

TEST(DeckCue, AFinalPauseIsTriedAgainWhileTheDeckProcessStarts) {
    Bench bench(internal());
    bench.until(Phase::rolling);
    const auto downUntil = bench.now + 1500ms;
    bench.deck.refuse = [&](const _VTRCmdData&) -> std::optional<Failure> {
        return bench.now < downUntil ? refusal(20061, "down") : std::nullopt;
    };
    bench.cue.finish(bench.now);
    bench.until(Phase::finished);
    EXPECT_EQ(bench.cue.leftRunning(), "");
    EXPECT_FALSE(bench.deck.playing());
}

TEST(DeckCue, AnErrorThatPassesCostsOneAttempt) {
    Bench bench(internal());
    int refusals = 1;
    bench.deck.refuse = [&](const _VTRCmdData& record) -> std::optional<Failure> {
        if (record.commandKind == kestrel::vtrGoTo && refusals-- > 0)
            return refusal(20081, "NAK");
        return std::nullopt;
    };
    bench.until(Phase::rolling);
    EXPECT_EQ(bench.cue.attempts(), 2);
}

TEST(DeckCue, WhatADeckShowsThatIsNoTimeIsAnError) {
    Bench bench;
    const auto request = bench.cue.next(bench.now);
    ASSERT_TRUE(request);
    bench.cue.answered({std::nullopt, false, "--:--:--:--", bench.now, bench.now, true}, bench.now);
    EXPECT_EQ(bench.cue.phase(), Phase::recueing);
    EXPECT_EQ(bench.cue.attempts(), 2);
}

} // namespace
