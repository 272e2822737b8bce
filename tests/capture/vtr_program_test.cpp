// The worker captures from tape: the test is service, deck and encoder.
#include "capture/tape_studio.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "timecode/mpeg_timecode.h"

#include <csignal>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <utility>

using namespace capture_test;
using namespace std::chrono_literals;
using kestrel::capture::MaybeFailure;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* plain = "-g 12 -bf 0";
constexpr const char* reordered = "-g 12 -bf 2 -flags +cgop -sc_threshold 1000000000";

struct VtrWorker : Worker {
    VtrWorker(const std::string& in, const std::string& out, bool internalCue = true) {
        settings.cmd.jobType = CSettings::JOB_VTR;
        std::snprintf(settings.cmd.markInTime, sizeof settings.cmd.markInTime, "%s", in.c_str());
        std::snprintf(settings.cmd.markOutTime, sizeof settings.cmd.markOutTime, "%s", out.c_str());
        std::snprintf(settings.vtr.port, sizeof settings.vtr.port, "COM1");
        settings.vtr.useInternalCue = internalCue;
        settings.vtr.findStartTimecodeRetries = 1;
    }
    // Serves the worker until it has sent a message that is wanted.
    void serveUntilMessage(const std::function<bool(const Message&)>& wanted) {
        const auto deadline = std::chrono::steady_clock::now() + 40s;
        do {
            ASSERT_TRUE(queues.receive(
                std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now())))
                << log();
        } while (!wanted(queues.received().back()));
    }
    // Serves the worker until its log has a text.
    void serveUntil(const std::string& text) {
        const auto deadline = std::chrono::steady_clock::now() + 40s;
        while (log().find(text) == std::string::npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "no \"" << text << "\" in\n" << log();
            queues.receive(5ms);
        }
    }
};

// The labels of the file's first and last frame, when its frames follow each other.
struct Ends {
    std::string first, last;
    int frames = 0;
};

Ends endsOf(const std::string& file, int rateCode) {
    const auto gops = kestrel::test::readGops(file, videoPid);
    Ends ends;
    if (gops.empty())
        return ends;
    ends.frames = static_cast<int>(kestrel::test::Ffprobe(file).packets("v:0").size());
    ends.first = gops.front().text();
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(rateCode);
    const int first = mpeg_timecode(ends.first.c_str(), drop, rateCode).frame_count();
    ends.last = mpeg_timecode::from_frames(first + ends.frames - 1, drop, rateCode).windows_string();
    return ends;
}

// The label so many frames after another.
std::string later(const Tape& tape, const std::string& label, int frames) {
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(tape.rateCode);
    const int from = mpeg_timecode(label.c_str(), drop, tape.rateCode).frame_count();
    return mpeg_timecode::from_frames(from + frames, drop, tape.rateCode).windows_string();
}

std::string firstGroupFrom(const Tape& tape, const std::string& label) {
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(tape.rateCode);
    const int from = mpeg_timecode(label.c_str(), drop, tape.rateCode).frame_count();
    for (const auto& group : tape.groups)
        if (group.frame >= from)
            return mpeg_timecode::from_frames(static_cast<int>(group.frame), drop, tape.rateCode)
                .windows_string();
    return "";
}

// The marks of a capture, its tape, and what it must come to. Mark-out is a frame that none after it is
// needed for.
void captureMarked(const std::shared_ptr<const Tape>& tape, const std::string& in, const std::string& out,
                   const std::string& standsAt, bool internalCue = true) {
    SCOPED_TRACE(in + " to " + out);
    VtrWorker worker(in, out, internalCue);
    TapeStudio studio(tape, standsAt, {worker.addEncoder()});
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(60s), 0) << worker.log();
    const std::string file = worker.path("out/news.ts");
    const Ends ends = endsOf(file, tape->rateCode);
    EXPECT_EQ(ends.first, in);
    EXPECT_EQ(ends.last, out) << worker.results();
    EXPECT_EQ(continuityErrors(readPackets(file)), 0);
    EXPECT_THAT(worker.results(), AllOf(StartsWith("Recorded 00:00:0"),
                                        HasSubstr("(" + std::to_string(ends.frames) + " frames")));
    studio.withDeck([](SimulatedDeck& deck) {
        EXPECT_EQ(deck.heard().back(), "pause");
        EXPECT_EQ(deck.count("play"), 1);
    });
}

TEST(VtrCapture, FirstAndLastFrameCarryTheMarksAt25) {
    const auto tape = makeTape("10:00:00:00", 3, 16, plain);
    captureMarked(tape, firstGroupFrom(*tape, "10:00:08:12"), "10:00:11:13", "10:20:00:00");
}

TEST(VtrCapture, FirstAndLastFrameCarryTheMarksAt25WithReorderedFrames) {
    const auto tape = makeTape("10:00:00:00", 3, 16, reordered);
    captureMarked(tape, firstGroupFrom(*tape, "10:00:08:12"),
                  later(*tape, firstGroupFrom(*tape, "10:00:11:00"), 6), "09:40:00:00");
}

// A label of the deck stands for two frames, so the recording ends with the second of mark-out's.
TEST(VtrCapture, FirstAndLastFrameCarryTheMarksAt5994) {
    const auto tape = makeTape("10:00:50;00", 7, 16, plain);
    const std::string first = firstGroupFrom(*tape, "10:00:58;40");
    ASSERT_EQ(first.size(), 11u);
    const auto pairOf = [](std::string label) {
        const int frames = std::stoi(label.substr(9));
        label.replace(9, 2, (frames / 2 < 10 ? "0" : "") + std::to_string(frames / 2));
        return label;
    };
    const std::string out = "10:01:01;20";
    VtrWorker worker(pairOf(first), out);
    TapeStudio studio(tape, "10:00:00;00", {worker.addEncoder()});
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(60s), 0) << worker.log();
    const std::string file = worker.path("out/news.ts");
    const Ends ends = endsOf(file, 7);
    EXPECT_EQ(ends.first, first);
    EXPECT_EQ(ends.last, "10:01:01;41") << worker.results();
    EXPECT_EQ(continuityErrors(readPackets(file)), 0);
    EXPECT_THAT(worker.results(), HasSubstr("(" + std::to_string(ends.frames) + " frames"));
    EXPECT_EQ(studio.withDeck([](SimulatedDeck& deck) { return deck.heard().back(); }), "pause");
}

// The minute whose first two labels do not exist lies between the marks.
TEST(VtrCapture, FirstAndLastFrameCarryTheMarksAt2997Drop) {
    const auto tape = makeTape("10:00:50;00", 4, 16, reordered);
    captureMarked(tape, firstGroupFrom(*tape, "10:00:58;20"),
                  later(*tape, firstGroupFrom(*tape, "10:01:01;20"), 9), "10:00:00;00");
}

TEST(VtrCapture, ADeckWithoutItsOwnCueIsShuttledThere) {
    const auto tape = makeTape("10:00:00:00", 3, 16, plain);
    captureMarked(tape, firstGroupFrom(*tape, "10:00:08:12"), "10:00:10:00", "10:01:00:00", false);
}

TEST(VtrCapture, MarkInWithinAGroupIsToldAndNothingIsLost) {
    const auto tape = makeTape("10:00:00:00", 3, 16, plain);
    const std::string group = firstGroupFrom(*tape, "10:00:08:12");
    VtrWorker worker(later(*tape, group, 5), "10:00:11:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(40s), 0) << worker.log();
    const Ends ends = endsOf(worker.path("out/news.ts"), 3);
    EXPECT_EQ(ends.first, group);
    EXPECT_EQ(ends.last, "10:00:11:00");
    EXPECT_THAT(worker.results(), HasSubstr("5 frames before mark-in"));
}

TEST(VtrCapture, WithoutVitcTheDecksTimeCounts) {
    const auto tape = makeTape("10:00:00:00", 3, 16, plain);
    VtrWorker worker("10:00:08:12", "10:00:10:11");
    worker.settings.vtr.vitcSupport = false;
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.lag = 0;
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(40s), 0) << worker.log();
    EXPECT_THAT(worker.results(), HasSubstr("by deck time"));
    const Ends ends = endsOf(worker.path("out/news.ts"), 3);
    // It begins at a random access point, and the way of the pictures is not exactly known.
    EXPECT_GE(ends.frames, 45);
    EXPECT_LE(ends.frames, 50 + 15);
    const mpeg_timecode first(ends.first.c_str(), false, 3);
    EXPECT_NEAR(mpeg_timecode("10:00:08:12", false, 3).frame_count(), first.frame_count(), 15) << ends.first;
}

TEST(VtrCapture, BothEncodersRecordTheSameFrames) {
    const auto tape = makeTape("10:00:00:00", 3, 16, plain);
    const std::string in = firstGroupFrom(*tape, "10:00:08:12");
    VtrWorker worker(in, "10:00:10:00");
    const int first = worker.addEncoder();
    const int second = worker.addEncoder();
    TapeStudio studio(tape, "10:00:00:00", {first, second});
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(40s), 0) << worker.log();
    for (const char* name : {"out/news.ts", "out/news_2.ts"}) {
        EXPECT_EQ(endsOf(worker.path(name), 3).first, in);
        EXPECT_EQ(endsOf(worker.path(name), 3).last, "10:00:10:00");
    }
}

TEST(VtrCapture, AnEncoderThatMissesMarkInDoesNotTakeTheTapeFromTheOther) {
    const auto tape = makeTape("10:00:00:00", 3, 20, plain);
    const std::string in = firstGroupFrom(*tape, "10:00:08:12");
    VtrWorker worker(in, "10:00:14:00");
    const int first = worker.addEncoder();
    const int second = worker.addEncoder();
    TapeStudio studio(tape, "10:00:00:00", {first, second});
    studio.secondDark = true;
    studio.serve(worker.queues);
    worker.start();
    worker.serveUntil("recording into");
    studio.secondDark = false;
    EXPECT_EQ(worker.wait(40s), 1) << worker.log();
    EXPECT_EQ(endsOf(worker.path("out/news.ts"), 3).first, in);
    EXPECT_EQ(endsOf(worker.path("out/news.ts"), 3).last, "10:00:14:00");
    EXPECT_THAT(worker.results(), StartsWith("Encoder 2: Error: Start timecode " + in +
                                             " cannot be found.; Encoder 1: Recorded 00:00:0"));
    EXPECT_EQ(studio.withDeck([](SimulatedDeck& deck) { return deck.count("play"); }), 1);
}

TEST(VtrCapture, AnExistingFileIsKeptAndTheDeckLeftAlone) {
    VtrWorker worker("10:00:08:12", "10:00:10:00");
    worker.addEncoder();
    std::filesystem::create_directories(worker.path("out"));
    std::ofstream(worker.path("out/news.ts")) << "precious";
    worker.start();
    EXPECT_EQ(worker.wait(20s), 1);
    EXPECT_THAT(worker.results(), StartsWith("Warning: The file specified already exists."));
    EXPECT_EQ(readText(worker.path("out/news.ts")), "precious");
    for (const Message& message : worker.queues.received())
        EXPECT_NE(message.type, VTR_CMD_REQUEST_MSG);
}

// The first time somebody turns the tape on, past mark-in.
TEST(VtrCapture, AMissedMarkInIsCuedAgain) {
    const auto tape = makeTape("10:00:00:00", 3, 20, plain);
    const std::string in = firstGroupFrom(*tape, "10:00:08:12");
    VtrWorker worker(in, "10:00:10:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.serve(worker.queues);
    worker.start();
    worker.serveUntil("COM1: play");
    for (const auto until = std::chrono::steady_clock::now() + 3s; std::chrono::steady_clock::now() < until;)
        worker.queues.receive(5ms);
    studio.withDeck([](SimulatedDeck& deck) { deck.place("10:00:11:00", std::chrono::steady_clock::now()); });
    EXPECT_EQ(worker.wait(50s), 0) << worker.log();
    EXPECT_EQ(endsOf(worker.path("out/news.ts"), 3).first, in);
    EXPECT_EQ(endsOf(worker.path("out/news.ts"), 3).last, "10:00:10:00");
    EXPECT_THAT(worker.log(), HasSubstr("attempt 1 of 2: Error: Start timecode " + in + " cannot be found."));
}

TEST(VtrCapture, NoStreamIsToldAfterPlay) {
    const auto tape = makeTape("10:00:00:00", 3, 12, plain);
    VtrWorker worker("10:00:08:12", "10:00:10:00");
    const int port = worker.addEncoder();
    TapeStudio studio(tape, "10:00:00:00", {port});
    studio.dark = true;
    studio.withDeck([](SimulatedDeck& deck) { deck.seekSeconds = 6; }); // the wait does not count the cue
    studio.serve(worker.queues);
    const auto begin = std::chrono::steady_clock::now();
    worker.start();
    EXPECT_EQ(worker.wait(40s), 1) << worker.log();
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 15s);
    EXPECT_EQ(worker.results(),
              "Error: Do not see MPEG transport stream for capture at IP address 127.0.0.1:" +
                  std::to_string(port) + ".");
    EXPECT_TRUE(studio.withDeck([](SimulatedDeck& deck) { return deck.heard().back() == "pause"; }));
}

TEST(VtrCapture, ADeckThatNeverMovesFailsAfterItsRetries) {
    const auto tape = makeTape("10:00:00:00", 3, 12, plain);
    VtrWorker worker("10:00:08:12", "10:00:10:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.withDeck([](SimulatedDeck& deck) { deck.playSpeed = 0; });
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(60s), 1) << worker.log();
    EXPECT_EQ(worker.results(), "Error: Command 0 to VTR at COM1 failed. (play: the deck does not move, at "
                                "10:00:00:12) (2 attempts)");
    EXPECT_TRUE(filesIn(worker.path("out")).empty());
}

// The service answers 20061 while the deck-control process is down.
TEST(VtrCapture, ADeckProcessThatIsStartedAgainDuringTheCueCostsAnAttempt) {
    const auto tape = makeTape("10:00:00:00", 3, 16, plain);
    const std::string in = firstGroupFrom(*tape, "10:00:08:12");
    VtrWorker worker(in, "10:00:10:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.withDeck([](SimulatedDeck& deck) {
        deck.refuse = [down = false](const _VTRCmdData& record) mutable -> MaybeFailure {
            if (record.commandKind != kestrel::vtrGoTo || std::exchange(down, true))
                return std::nullopt;
            return kestrel::capture::Failure{20061,
                                             "Error: Cannot send VTR command.  Send queue not available."};
        };
    });
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(60s), 0) << worker.log();
    EXPECT_EQ(endsOf(worker.path("out/news.ts"), 3).first, in);
    EXPECT_EQ(endsOf(worker.path("out/news.ts"), 3).last, "10:00:10:00");
    EXPECT_THAT(worker.log(), HasSubstr("attempt 1 of 2: Error: Cannot send VTR command.  Send queue not "
                                        "available. (COM1: the deck control takes no requests)"));
}

TEST(VtrCapture, ADeckThatStopsWhileItIsRecordedIsToldWithWhatIsRecorded) {
    const auto tape = makeTape("10:00:00:00", 3, 30, plain);
    VtrWorker worker(firstGroupFrom(*tape, "10:00:08:12"), "10:00:28:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.serve(worker.queues);
    worker.start();
    worker.serveUntil("recording into");
    studio.withDeck([](SimulatedDeck& deck) {
        deck.answer(kestrel::capture::pauseRequest(), std::chrono::steady_clock::now());
    });
    EXPECT_EQ(worker.wait(40s), 1) << worker.log();
    EXPECT_THAT(worker.results(),
                AllOf(StartsWith("Error: Command 0 to VTR at COM1 failed. (play: the deck stopped before "
                                 "mark-out 10:00:28:00, at 10:00:0"),
                      HasSubstr(") Recorded 00:00:0"), Not(HasSubstr("Cancelled"))));
    EXPECT_GT(endsOf(worker.path("out/news.ts"), 3).frames, 0);
}

TEST(VtrCapture, AnEncoderThatEndsWhileItIsRecordedIsToldFirstWithWhatIsRecorded) {
    const auto tape = makeTape("10:00:00:00", 3, 16, plain);
    const std::string in = firstGroupFrom(*tape, "10:00:08:12");
    VtrWorker worker(in, "10:00:12:00");
    const int first = worker.addEncoder();
    const int second = worker.addEncoder();
    TapeStudio studio(tape, "10:00:00:00", {first, second});
    studio.serve(worker.queues);
    worker.start();
    worker.serveUntilMessage([](const Message& message) {
        _CaptureJobStatusData status{};
        if (message.type != CAPTURE_STATUS_MSG || message.payload.size() != sizeof status)
            return false;
        std::memcpy(&status, message.payload.data(), sizeof status);
        return status.encoderIndex == 1 && status.frames > 0;
    });
    studio.secondDark = true;
    EXPECT_EQ(worker.wait(60s), 1) << worker.log();
    EXPECT_THAT(worker.results(),
                AllOf(StartsWith("Encoder 2: Error: Capture discontinuity."), HasSubstr(" Recorded 00:00:0"),
                      HasSubstr("; Encoder 1: Recorded 00:00:0"), Not(HasSubstr("Cancelled"))));
    EXPECT_EQ(endsOf(worker.path("out/news.ts"), 3).last, "10:00:12:00");
    EXPECT_GT(endsOf(worker.path("out/news_2.ts"), 3).frames, 0);
}

TEST(VtrCapture, ADeckThatIsNotStoppedAfterTheRecordingIsTold) {
    const auto tape = makeTape("10:00:00:00", 3, 16, plain);
    VtrWorker worker(firstGroupFrom(*tape, "10:00:08:12"), "10:00:10:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.withDeck([](SimulatedDeck& deck) {
        deck.refuse = [](const _VTRCmdData& record) -> MaybeFailure {
            if (record.transportCode != kestrel::vtrPauseCode)
                return std::nullopt;
            return kestrel::capture::Failure{20081, "Error: Command 0 to VTR at COM1 failed. (LOCAL)"};
        };
    });
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(40s), 0) << "recorded as asked\n" << worker.log();
    EXPECT_THAT(worker.results(), AllOf(StartsWith("Recorded 00:00:0"),
                                        EndsWith("; the last pause was not confirmed: Error: Command 0 "
                                                 "to VTR at COM1 failed. (LOCAL)")));
}

TEST(VtrCapture, ResultsThatAreLongerThanTheServiceKeepsAreCutAndTerminated) {
    const auto tape = makeTape("10:00:00:00", 3, 12, plain);
    VtrWorker worker("10:00:08:12", "10:00:10:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    const std::string text = "Error: " + std::string(296, 'x'); // fills the record's field
    studio.withDeck([&](SimulatedDeck& deck) {
        deck.refuse = [&](const _VTRCmdData&) { return kestrel::capture::Failure{20080, text}; };
    });
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(), 1) << worker.log();
    EXPECT_EQ(worker.results(), text.substr(0, 299));
    for (const Message& message : worker.queues.received())
        if (message.type == RESULTS_MSG) {
            EXPECT_EQ(message.payload.size(), 300u);
            EXPECT_EQ(message.payload.back(), 0);
        }
}

TEST(VtrCapture, ADeckThatCannotBeReachedFailsAtOnce) {
    const auto tape = makeTape("10:00:00:00", 3, 12, plain);
    VtrWorker worker("10:00:08:12", "10:00:10:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.withDeck([](SimulatedDeck& deck) {
        deck.refuse = [](const _VTRCmdData&) {
            return kestrel::capture::Failure{20080,
                                             "Error: Could not connect to VTR at COM1. (no such port)"};
        };
    });
    studio.serve(worker.queues);
    worker.start();
    EXPECT_EQ(worker.wait(20s), 1) << worker.log();
    EXPECT_EQ(worker.results(), "Error: Could not connect to VTR at COM1. (no such port)");
    EXPECT_EQ(worker.queues.received().back().type, EXIT_MSG);
}

TEST(VtrCapture, ADeckThatDoesNotAnswerFailsAfterThirtySeconds) {
    VtrWorker worker("10:00:08:12", "10:00:10:00");
    worker.addEncoder();
    worker.start();
    EXPECT_EQ(worker.wait(45s), 1) << worker.log();
    EXPECT_EQ(worker.results(), "Error: Timeout waiting for response from VTR. (COM1: current time)");
    const auto beats = std::count_if(worker.queues.received().begin(), worker.queues.received().end(),
                                     [](const Message& message) { return message.type == STATUS_MSG; });
    EXPECT_GE(beats, 6) << "the service must not take it for dead meanwhile";
}

TEST(VtrCapture, WithoutQueuesItSaysThatTheDeckCannotBeReached) {
    VtrWorker worker("10:00:08:12", "10:00:10:00");
    worker.useQueues = false;
    worker.addEncoder();
    worker.start();
    EXPECT_EQ(worker.wait(20s), 1);
    EXPECT_THAT(worker.log(), HasSubstr("Error: Cannot send VTR command.  Send queue not available."));
}

TEST(VtrCapture, MarksAndPortAreCheckedBeforeTheDeckIsTouched) {
    struct Row {
        const char *in, *out, *port, *text;
    };
    const Row table[] = {
        {"", "10:00:10:00", "COM1", "Error: Invalid Mark-In time. (\"\")"},
        {"10:00:08:12", "10:00:1x:00", "COM1", "Error: Invalid Mark-Out time. (\"10:00:1x:00\")"},
        {"10:00:08:12", "10:00:10:00", "COM1234567890",
         "Error: Could not connect to VTR at COM1234567890. (a port's name has at most 11 characters)"},
    };
    for (const Row& row : table) {
        VtrWorker worker(row.in, row.out);
        std::snprintf(worker.settings.vtr.port, sizeof worker.settings.vtr.port, "%s", row.port);
        worker.addEncoder();
        worker.start();
        EXPECT_EQ(worker.wait(20s), 1);
        EXPECT_EQ(worker.results(), row.text);
        for (const Message& message : worker.queues.received())
            EXPECT_NE(message.type, VTR_CMD_REQUEST_MSG);
    }
}

struct CancelRow {
    const char* what;
    kestrel::VtrCommandKind kind; // cancelled when the deck is told this
    std::int32_t code;
    bool byMessage; // else by SIGTERM
    bool recorded;  // cancelled when frames are recorded, instead
};

void PrintTo(const CancelRow& row, std::ostream* out) {
    *out << row.what;
}

// Whether a message of the worker is what the row waits for.
bool comes(const CancelRow& row, const Message& message) {
    if (row.recorded) {
        _CaptureJobStatusData status{};
        if (message.type != CAPTURE_STATUS_MSG || message.payload.size() != sizeof status)
            return false;
        std::memcpy(&status, message.payload.data(), sizeof status);
        return status.frames > 0;
    }
    _VTRCmdData record{};
    if (message.type != VTR_CMD_REQUEST_MSG || message.payload.size() != sizeof record)
        return false;
    std::memcpy(&record, message.payload.data(), sizeof record);
    return record.commandKind == row.kind && record.transportCode == row.code;
}

class VtrCancel : public testing::TestWithParam<CancelRow> {};

TEST_P(VtrCancel, PausesTheDeckAndKeepsWhatIsRecorded) {
    const auto tape = makeTape("10:00:00:00", 3, 20, plain);
    VtrWorker worker("10:00:08:12", "10:00:18:00");
    TapeStudio studio(tape, "10:00:00:00", {worker.addEncoder()});
    studio.withDeck([](SimulatedDeck& deck) { deck.seekSeconds = 2; });
    studio.serve(worker.queues);
    worker.start();
    worker.serveUntilMessage([](const Message& message) { return comes(GetParam(), message); });
    if (GetParam().byMessage)
        worker.queues.send(CANCEL_MSG);
    else
        worker.signal(SIGTERM);
    const int code = worker.wait();

    EXPECT_EQ(worker.queues.received().back().type, EXIT_MSG) << worker.log();
    EXPECT_THAT(worker.log(), HasSubstr("Cancelled by "));
    // Nothing was waited for but the deck's answer.
    EXPECT_THAT(worker.log(), Not(HasSubstr("not paused")));
    EXPECT_TRUE(studio.withDeck([](SimulatedDeck& deck) { return deck.heard().back() == "pause"; }));
    EXPECT_EQ(filesIn(worker.path("out")).size(), GetParam().recorded ? 1u : 0u);
    if (GetParam().recorded) {
        EXPECT_EQ(code, 0);
        EXPECT_THAT(worker.results(), AllOf(StartsWith("Cancelled after "), HasSubstr(" frames, ")));
    } else {
        EXPECT_EQ(code, 1); // as with every capture without a duration
        EXPECT_EQ(worker.results(), "Cancelled before the recording began: nothing recorded");
    }
}

INSTANTIATE_TEST_SUITE_P(EachPhase, VtrCancel,
                         testing::Values(CancelRow{"Cue", kestrel::vtrGoTo, 0, true, false},
                                         CancelRow{"Preroll", kestrel::vtrTransport, kestrel::vtrPlayCode,
                                                   false, false},
                                         CancelRow{"Recording", kestrel::vtrTransport, 0, true, true}),
                         [](const auto& row) { return row.param.what; });

} // namespace
