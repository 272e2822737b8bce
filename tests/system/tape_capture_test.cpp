// A capture from tape, all the way: client, service, capture worker, deck-control process, serial line, deck,
// and the stream that comes off the tape while the deck plays. Only the deck is simulated.
#include "deck_simulator/DeckSimulator.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"
#include "system/service_under_test.h"
#include "timecode/mpeg_timecode.h"

#include <arpa/inet.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

using namespace kestrel::test;
using kestrel::deck::TapeTime;
using kestrel::deck_simulator::DeckSimulator;
using kestrel::deck_simulator::findRate;
using kestrel::deck_simulator::SimulatorOptions;
using testing::HasSubstr;

namespace {

constexpr int videoPid = 0x100;

int freeUdpPort() {
    const kestrel::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

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

class TapeCapture : public testing::TestWithParam<TapeCase> {};

TEST_P(TapeCapture, TheFilesFirstAndLastFrameCarryTheMarks) {
    const TapeCase& tape = GetParam();
    ServiceUnderTest service;
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
    DeckSimulator deck(options);
    ASSERT_EQ(deck.start(), "");

    const std::string ports = service.root() / "ports.xml";
    std::ofstream(ports) << "<DeckPorts><Port NAME=\"COM1\" DEVICE=\"" << deck.device() << "\"/></DeckPorts>";
    const std::string encoders = service.root() / "encoders.xml";
    std::ofstream(encoders)
        << "<Encoders><Encoder CONTROL_ADDRESS=\"127.0.0.1\" STREAM_ADDRESS=\"127.0.0.1\" PORT=\"" << port
        << "\"/></Encoders>";
    service.set("DeckCtrl", "EXE", KESTREL_DECK_PROGRAM " -timeout 1000 -ports " + ports);
    service.set("DeckCtrl", "LOG_FILE", (service.root() / "deck.log").string());
    service.set("Capture", "EXE", KESTREL_CAPTURE_PROGRAM " -encoders " + encoders);
    service.start();

    const std::string file = service.root() / "tape.ts";
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,CAPTURE_VTR_JOB,Filename=" + file +
                          ",EncoderIp=127.0.0.1,VTR_Com_Port=COM1,VTR_UseInternalCue=" + tape.internalCue +
                          ",MarkInTime=" + tape.in + ",MarkOutTime=" + tape.out),
              "TRUE");
    EXPECT_EQ(service.waitForState("1", "COMPLETE", 60s), "TRUE - COMPLETE") << service.ask("JOB_RESULTS,1");
    EXPECT_THAT(service.ask("JOB_RESULTS,1"), HasSubstr(std::string(" from ") + tape.in + " to " + tape.out));

    const std::vector<GopHeader> gops = readGops(file, videoPid);
    ASSERT_FALSE(gops.empty());
    EXPECT_EQ(gops.front().text(), tape.in);
    const bool drop = tape.first.dropFrame;
    const mpeg_timecode in(tape.in, drop, tape.rateCode);
    const mpeg_timecode out(tape.out, drop, tape.rateCode);
    EXPECT_EQ(static_cast<int>(Ffprobe(file).packets("v:0").size()),
              out.frame_count() - in.frame_count() + 1);
    EXPECT_EQ(deck.state(), kestrel::deck_simulator::Transport::State::still) << "paused at mark-out";
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
                                                  "false"}),
                         [](const auto& tape) { return std::string(tape.param.name); });

} // namespace
