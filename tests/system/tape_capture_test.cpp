// A capture from tape, all the way: client, service, capture worker, deck-control process, serial line, deck,
// and the stream that comes off the tape while the deck plays. Only the deck is simulated.
#include "deck_simulator/DeckSimulator.h"
#include "foundation/ProcessTree.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"
#include "system/service_under_test.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/socket.h>

using namespace kestrel::test;
using kestrel::deck::Block;
using kestrel::deck::Code;
using kestrel::deck::TapeTime;
using kestrel::deck_simulator::DeckSimulator;
using kestrel::deck_simulator::findRate;
using kestrel::deck_simulator::SimulatorOptions;
using kestrel::deck_simulator::Transport;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr int videoPid = 0x100;

struct TapeCase {
    const char* name;
    const char* rate;      // the simulator's
    const char* frameRate; // ffmpeg's
    int rateCode;          // frame_rate_code
    const char* start;     // ffmpeg's, of the tape
    TapeTime first;        // the same
    const char* in;        // the first frame of a GOP
    const char* out;
    const char* internalCue;
};

void PrintTo(const TapeCase& tape, std::ostream* out) {
    *out << tape.name;
}

// The service, a deck with this tape in it, and an encoder behind that.
class TapeSuite {
public:
    explicit TapeSuite(const TapeCase& tape) : m_tape(tape) {
        const int port = freeUdpPort();
        SimulatorOptions options;
        options.link = service.root() / "deck";
        options.rate = *findRate(tape.rate);
        options.start = tape.first;
        options.seconds = 40;
        options.tapeFile = makeStream(
            std::string("tape_") + tape.rate,
            std::string("-f lavfi -i testsrc2=s=320x240:d=40:r=") + tape.frameRate +
                " -c:v mpeg2video -b:v 2M -maxrate 2M -bufsize 500k -g 12 -bf 0 -timecode " + tape.start);
        options.target = "127.0.0.1:" + std::to_string(port);
        deck.emplace(options);
        EXPECT_EQ(deck->start(), "");

        const std::string ports = service.root() / "ports.xml";
        std::ofstream(ports) << "<DeckPorts><Port NAME=\"COM1\" DEVICE=\"" << deck->device()
                             << "\"/></DeckPorts>";
        const std::string encoders = service.root() / "encoders.xml";
        std::ofstream(encoders)
            << "<Encoders><Encoder CONTROL_ADDRESS=\"127.0.0.1\" STREAM_ADDRESS=\"127.0.0.1\" PORT=\"" << port
            << "\"/></Encoders>";
        // A program of its own, which the test may take away.
        std::filesystem::copy_file(KESTREL_DECK_PROGRAM, program());
        service.set("DeckCtrl", "EXE", program() + " -timeout 1000 -ports " + ports);
        service.set("DeckCtrl", "LOG_FILE", (service.root() / "deck.log").string());
        service.set("Capture", "EXE", KESTREL_CAPTURE_PROGRAM " -encoders " + encoders);
        service.start();
    }

    [[nodiscard]] std::string program() const { return service.root() / "deckctrl"; }
    [[nodiscard]] std::string file() const { return service.root() / "tape.ts"; }
    // Begins the capture.
    void begin(const std::string& out) {
        ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,CAPTURE_VTR_JOB,Filename=" + file() +
                              ",EncoderIp=127.0.0.1,VTR_Com_Port=COM1,VTR_UseInternalCue=" +
                              m_tape.internalCue + ",MarkInTime=" + m_tape.in + ",MarkOutTime=" + out),
                  "TRUE");
    }
    // Waits until it is complete, and looks at the file.
    void expectMarks(const std::string& out) {
        EXPECT_EQ(service.waitForState("1", "COMPLETE", 60s), "TRUE - COMPLETE")
            << service.ask("JOB_RESULTS,1");
        const int perLabel = m_tape.rateCode == 7 ? 2 : 1;
        const auto number = [&](const std::string& label) {
            const int deckCode = perLabel == 2 ? 4 : m_tape.rateCode;
            return mpeg_timecode(label.c_str(), m_tape.first.dropFrame, deckCode).frame_count();
        };
        const std::vector<GopHeader> gops = readGops(file(), videoPid);
        ASSERT_FALSE(gops.empty());
        const mpeg_timecode first(gops.front().text().c_str(), m_tape.first.dropFrame, m_tape.rateCode);
        EXPECT_EQ(first.frame_count(), number(m_tape.in) * perLabel) << gops.front().text();
        EXPECT_EQ(static_cast<int>(Ffprobe(file()).packets("v:0").size()),
                  (number(out) - number(m_tape.in) + 1) * perLabel);
        EXPECT_EQ(deck->state(), Transport::State::still) << "paused at mark-out";
    }
    // The deck plays, and the worker knows: it asks for the time.
    [[nodiscard]] bool watched() const {
        return deck->state() == Transport::State::play && deck->received().back().code() == Code::timeSense;
    }
    // Waits until something is recorded.
    [[nodiscard]] bool recording() {
        return eventually(
            [&] {
                std::error_code missing;
                const auto size = std::filesystem::file_size(file(), missing);
                return !missing && size > 0;
            },
            40s);
    }
    // Kills the deck-control process; the service starts another, while there is a program.
    void killDeckProcess() {
        for (const pid_t child : service.children()) {
            std::error_code gone;
            const auto image = std::filesystem::read_symlink("/proc/" + std::to_string(child) + "/exe", gone);
            if (!gone && image.filename().string().starts_with("deckctrl")) {
                EXPECT_EQ(kestrel::test::signalTo(child, SIGKILL), 0);
                EXPECT_TRUE(service.waitForLog("VTR process ended by signal 9."));
                return;
            }
        }
        FAIL() << "no deck-control process";
    }
    [[nodiscard]] long count(const Block& block) const {
        const std::vector<Block> received = deck->received();
        return std::count(received.begin(), received.end(), block);
    }

    ServiceUnderTest service;
    std::optional<DeckSimulator> deck;

private:
    const TapeCase m_tape;
};

class TapeCapture : public testing::TestWithParam<TapeCase> {};

TEST_P(TapeCapture, TheFilesFirstAndLastFrameCarryTheMarks) {
    TapeSuite suite(GetParam());
    suite.begin(GetParam().out);
    suite.expectMarks(GetParam().out);
    EXPECT_THAT(suite.service.ask("JOB_RESULTS,1"), HasSubstr(" frames, "));
    // The results name the labels of the stream.
    if (GetParam().rateCode != 7) {
        EXPECT_THAT(suite.service.ask("JOB_RESULTS,1"),
                    HasSubstr(std::string(" from ") + GetParam().in + " to " + GetParam().out));
    }
}

constexpr TapeCase cuedTape{"25_InternalCue",     "25",          "25",          3,     "10:00:00:00",
                            {10, 0, 0, 0, false}, "10:00:12:00", "10:00:14:23", "true"};

// The tape is on its way when the process that drives the deck dies: it is cued again.
TEST(TapeCaptureTrouble, ADeckProcessKilledDuringTheCueCostsAnAttempt) {
    TapeCase tape = cuedTape;
    tape.internalCue = "false";
    TapeSuite suite(tape);
    suite.begin(tape.out);
    ASSERT_TRUE(eventually([&] { return suite.deck->state() == Transport::State::shuttle; }, 20s));
    suite.killDeckProcess();
    suite.expectMarks(tape.out);
    EXPECT_EQ(suite.count(Block(Code::play)), 1);
}

TEST(TapeCaptureTrouble, ADeckProcessKilledBetweenPlayAndMarkInCostsNothing) {
    TapeSuite suite(cuedTape);
    suite.begin(cuedTape.out);
    ASSERT_TRUE(eventually([&] { return suite.watched(); }, 20s));
    suite.killDeckProcess();
    suite.expectMarks(cuedTape.out);
    EXPECT_EQ(suite.count(Block(Code::play)), 1);
}

// What is recorded is in the stream; the deck is needed again at mark-out, to be stopped.
TEST(TapeCaptureTrouble, ADeckProcessKilledWhileTheTapeIsRecordedDoesNotEndTheRecording) {
    TapeSuite suite(cuedTape);
    suite.begin("10:00:17:05");
    ASSERT_TRUE(suite.recording());
    suite.killDeckProcess();
    suite.expectMarks("10:00:17:05");
    EXPECT_EQ(suite.count(Block(Code::play)), 1);
    EXPECT_THAT(suite.service.ask("JOB_RESULTS,1"), Not(HasSubstr("the last pause was not confirmed")));
}

TEST(TapeCaptureTrouble, ADeckProcessThatIsGoneForGoodWhileTheTapeIsRecordedIsToldAtTheEnd) {
    TapeSuite suite(cuedTape);
    suite.begin("10:00:17:05");
    ASSERT_TRUE(suite.recording());
    std::filesystem::remove(suite.program());
    suite.killDeckProcess();
    EXPECT_EQ(suite.service.waitForState("1", "COMPLETE", 40s), "TRUE - COMPLETE");
    EXPECT_THAT(
        suite.service.ask("JOB_RESULTS,1"),
        AllOf(HasSubstr("from 10:00:12:00 to 10:00:17:05"),
              HasSubstr("; the last pause was not confirmed: Error: Cannot send VTR command.  Send queue not "
                        "available.")));
    EXPECT_EQ(suite.deck->state(), Transport::State::play);
}

// A deck takes its time before it winds: it is not told to stop, and cued once.
TEST(TapeCaptureTrouble, ADeckThatBeginsItsCueUpLateIsWaitedFor) {
    TapeSuite suite(cuedTape);
    suite.deck->order("lag 3000");
    suite.begin(cuedTape.out);
    suite.expectMarks(cuedTape.out);
    const std::vector<Block> received = suite.deck->received();
    EXPECT_EQ(std::count_if(received.begin(), received.end(),
                            [](const Block& block) { return block.code() == Code::cueUp; }),
              1);
}

TEST(TapeCaptureTrouble, AServiceWithoutDeckControlSaysSoAtOnce) {
    ServiceUnderTest service;
    service.set("Capture", "EXE", KESTREL_CAPTURE_PROGRAM);
    service.start();
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,CAPTURE_VTR_JOB,Filename=" + std::string(service.root()) +
                          "/tape.ts,EncoderIp=127.0.0.1,VTR_Com_Port=COM1,MarkInTime=10:00:12:00,"
                          "MarkOutTime=10:00:14:00"),
              "TRUE");
    EXPECT_EQ(service.waitForState("1", "ERROR", 20s), "TRUE - ERROR");
    EXPECT_EQ(service.ask("JOB_RESULTS,1"),
              "TRUE - Error: Could not connect to VTR at COM1. (no deck control is configured: DeckCtrl EXE "
              "of the profile)");
    EXPECT_THAT(service.log(), HasSubstr("Failed to send message on queue /to_vtr_proc_q."));
}

TEST(TapeCaptureTrouble, ADeckProcessThatIsGoneForGoodBeforeMarkInIsAClearFailure) {
    TapeSuite suite(cuedTape);
    ASSERT_NE(suite.service.ask("VTR_CURRENT_TIME,COM1"), "") << "it runs";
    std::filesystem::remove(suite.program());
    suite.killDeckProcess();
    suite.begin(cuedTape.out);
    EXPECT_EQ(suite.service.waitForState("1", "ERROR", 60s), "TRUE - ERROR");
    EXPECT_EQ(suite.service.ask("JOB_RESULTS,1"),
              "TRUE - Error: Cannot send VTR command.  Send queue not available. (COM1: the deck control "
              "takes no requests) (6 attempts)");
    EXPECT_FALSE(std::filesystem::exists(suite.file()));
}

INSTANTIATE_TEST_SUITE_P(Tapes, TapeCapture,
                         testing::Values(TapeCase{"25_InternalCue",
                                                  "25",
                                                  "25",
                                                  3,
                                                  "10:00:00:00",
                                                  {10, 0, 0, 0, false},
                                                  "10:00:12:00",
                                                  "10:00:14:23",
                                                  "true"},
                                         TapeCase{"25_Shuttled",
                                                  "25",
                                                  "25",
                                                  3,
                                                  "10:00:00:00",
                                                  {10, 0, 0, 0, false},
                                                  "10:00:12:00",
                                                  "10:00:14:23",
                                                  "false"},
                                         TapeCase{"2997Drop_InternalCue",
                                                  "29.97df",
                                                  "30000/1001",
                                                  4,
                                                  "10:00:50\\;00",
                                                  {10, 0, 50, 0, true},
                                                  "10:01:02;02",
                                                  "10:01:04;05",
                                                  "true"},
                                         TapeCase{"2997Drop_Shuttled",
                                                  "29.97df",
                                                  "30000/1001",
                                                  4,
                                                  "10:00:50\\;00",
                                                  {10, 0, 50, 0, true},
                                                  "10:01:02;02",
                                                  "10:01:04;05",
                                                  "false"},
                                         // Of the stream's 60 labels a second the deck counts every other.
                                         TapeCase{"5994Drop_InternalCue",
                                                  "59.94",
                                                  "60000/1001",
                                                  7,
                                                  "10:00:50\\;00",
                                                  {10, 0, 50, 0, true},
                                                  "10:01:02;02",
                                                  "10:01:04;05",
                                                  "true"}),
                         [](const auto& tape) { return std::string(tape.param.name); });

} // namespace
