// What a cue makes of a deck that does not do as it is told, and of a deck process that is away.
#include "capture/captured_log.h"
#include "capture/deck_cue_bench.h"
#include "deckctrl/Limits.h"
#include "foundation/ErrorCodes.h"

#include <gmock/gmock.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

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
         "NAK (COM1: the deck control takes no requests) (3 attempts)", 3},
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
    EXPECT_EQ(bench.failure(), "Error: Cannot send VTR command.  Send queue not available. (COM1: the deck "
                               "control takes no requests) (3 attempts)");
    EXPECT_EQ(bench.cue.leftRunning(), "Error: Cannot send VTR command.  Send queue not available.");
    EXPECT_GE(bench.now - begin, 6s);
    EXPECT_LE(bench.now - begin, 12s);
}

TEST(DeckCue, ADeckThatWasNeverMovedIsNotSaidToRun) {
    Bench bench(internal());
    bench.deck.refuse = [&](const _VTRCmdData&) { return refusal(20061, "down"); };
    EXPECT_EQ(bench.failure(), "down (COM1: the deck control takes no requests) (3 attempts)");
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
