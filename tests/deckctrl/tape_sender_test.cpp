// What is on the tape goes out while the deck plays, from where it plays, at the pace of its clock.
#include "deckctrl/deck_bench.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <arpa/inet.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

using namespace deck_test;
using kestrel::deck::Deck;
using testing::HasSubstr;

namespace {

constexpr int videoPid = 0x100;

// Twenty seconds of tape.
std::string tapeFile(const std::string& name, const std::string& rate, const std::string& timecode) {
    return kestrel::test::makeStream(
        name, "-f lavfi -i testsrc2=s=320x240:r=" + rate +
                  ":d=20 -c:v mpeg2video -b:v 1M -maxrate 1M -bufsize 500k -g 12 -bf 2 -timecode " +
                  timecode);
}

class Receiver {
public:
    Receiver() : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        EXPECT_EQ(::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        ::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
        target = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }
    // Takes a datagram when one comes in time.
    bool receive(std::chrono::milliseconds most) {
        pollfd entry{m_socket.get(), POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(most.count())) != 1)
            return false;
        unsigned char buffer[2000];
        const ssize_t size = ::recv(m_socket.get(), buffer, sizeof buffer, 0);
        EXPECT_EQ(size % 188, 0);
        EXPECT_LE(size, 7 * 188);
        bytes.insert(bytes.end(), buffer, buffer + std::max<ssize_t>(size, 0));
        return true;
    }
    std::string target;
    std::vector<unsigned char> bytes;

private:
    kestrel::UniqueFd m_socket;
};

class TapeSending : public testing::Test {
protected:
    void begin(const std::string& rate, const TapeTime& start, const std::string& file) {
        SimulatorOptions options;
        options.rate = *kestrel::deck_simulator::findRate(rate);
        options.start = start;
        options.seconds = 20;
        options.mechanics.seek = 20ms;
        options.tapeFile = file;
        options.target = receiver.target;
        tape.emplace(options);
        Timing timing;
        timing.reply = 2s;
        deck.emplace(tape->simulator->device(), timing, -1);
    }
    void command(const _VTRCmdData& record) {
        _VTRCmdData copy = record;
        deck->carryOut(copy);
        ASSERT_EQ(copy.errorCode, 0) << textOf(copy);
    }
    void cue(const std::string& timecode) {
        command(goTo("COM1", timecode));
        ASSERT_TRUE(eventually([&] { return tape->simulator->time().text() == timecode; }));
    }
    // The timecodes of the GOPs that came until the tape is there.
    std::vector<std::string> gopsUntil(const std::string& timecode) {
        while (tape->simulator->time().text() < timecode)
            receiver.receive(20ms);
        std::vector<std::string> texts;
        for (const auto& gop : kestrel::test::gopsOf(receiver.bytes, videoPid))
            texts.push_back(gop.text());
        return texts;
    }

    Receiver receiver;
    std::optional<SimulatedDeck> tape;
    std::optional<Deck> deck;
};

TEST_F(TapeSending, BeginsWithTheGopAtTheDecksPositionAndKeepsItsTime) {
    begin("25", {10, 0, 0, 0, false}, tapeFile("deck_tape_25", "25", "10:00:00:00"));
    EXPECT_FALSE(receiver.receive(100ms)) << "a deck that stands shows nothing";
    cue("10:00:06:00");
    command(request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode));
    // Each GOP is received when the deck shows its timecode, give or take what reading takes.
    ASSERT_TRUE(receiver.receive(5s));
    const std::vector<std::string> texts = gopsUntil("10:00:08:00");
    ASSERT_GE(texts.size(), 4u);
    EXPECT_EQ(texts[0], "10:00:06:04")
        << "GOPs begin at frames 0, 10, 22 and so on: 154 is the next after 150";
    EXPECT_EQ(texts[1], "10:00:06:16");
    EXPECT_LE(texts.size(), 5u) << "not ahead of the deck";
}

TEST_F(TapeSending, StopsWithTheDeckAndGoesOnWhereItPlaysAgain) {
    begin("25", {10, 0, 0, 0, false}, tapeFile("deck_tape_25", "25", "10:00:00:00"));
    command(request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode));
    ASSERT_TRUE(receiver.receive(5s));
    EXPECT_EQ(gopsUntil("10:00:01:00").at(0), "10:00:00:00");
    command(request(kestrel::vtrTransport, "COM1", kestrel::vtrPauseCode));
    while (receiver.receive(50ms)) {
    }
    EXPECT_FALSE(receiver.receive(200ms));
    receiver.bytes.clear();
    cue("10:00:12:10"); // frame 310 is the first of a GOP
    command(request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode));
    EXPECT_EQ(gopsUntil("10:00:13:12").at(0), "10:00:12:10");
}

TEST_F(TapeSending, DropFrameTapesAreFoundByTheirLabels) {
    begin("29.97df", {10, 0, 55, 0, true}, tapeFile("deck_tape_2997", "30000/1001", "10:00:55\\;00"));
    cue("10:01:02;02"); // frame 210: the next GOP begins at 214
    command(request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode));
    EXPECT_EQ(gopsUntil("10:01:03;10").at(0), "10:01:02;06");
}

TEST(TapeFile, ThatCannotBePlayedIsToldAtTheStart) {
    const ScratchDir directory;
    std::ofstream(directory.path("empty.ts")) << "nothing";
    SimulatorOptions options;
    options.target = "127.0.0.1:5000";
    for (const auto& [file, why] :
         {std::pair{directory.path("empty.ts"), "no transport stream with video"},
          std::pair{std::string("/no/such/file"), "no transport stream with video"},
          std::pair{tapeFile("deck_tape_25", "25", "10:00:00:00"), "no GOP whose timecode is on the tape"}}) {
        options.tapeFile = file;
        options.start = {20, 0, 0, 0, false};
        DeckSimulator simulator(options);
        EXPECT_THAT(simulator.start(), HasSubstr(why));
    }
    options.target = "nowhere";
    DeckSimulator simulator(options);
    EXPECT_THAT(simulator.start(), HasSubstr("\"nowhere\" is no ADDRESS:PORT"));
}

} // namespace
