// Program tables and frames of a stream, also of a hostile one.
#include "capture/StreamAnalyzer.h"

#include "capture/stream_builder.h"

#include <gtest/gtest.h>
#include <memory>
#include <random>

using namespace kestrel::capture;
using namespace capture_test;

namespace {

TEST(StreamAnalyzer, FindsTheProgramAndTheFrameRate) {
    auto analyzer = std::make_unique<StreamAnalyzer>();
    for (const Packet& packet : StreamBuilder({.rateCode = 6}).frames(2))
        analyzer->take(packet.data());
    EXPECT_TRUE(analyzer->programKnown());
    EXPECT_EQ(analyzer->pmtPid(), pmtPid);
    EXPECT_EQ(analyzer->videoPid(), videoPid);
    EXPECT_EQ(analyzer->frameRateCode(), 6);
    EXPECT_EQ(analyzer->describeProgram(),
              "PMT PID 4096, PCR PID 256, PID 256 MPEG-2 video (type 0x02), PID 257 MPEG audio (type 0x03)");
}

TEST(StreamAnalyzer, ATableWithAWrongCrcIsNotBelieved) {
    auto analyzer = std::make_unique<StreamAnalyzer>();
    Packets packets = StreamBuilder().frames(1);
    packets[1][30] ^= 1; // inside the CRC or the entries of the PMT
    packets[1][20] ^= 1;
    for (const Packet& packet : packets)
        analyzer->take(packet.data());
    EXPECT_FALSE(analyzer->programKnown());
}

TEST(SectionCollector, JoinsASectionFromSeveralPacketsAndKeepsThem) {
    // A PMT with a long descriptor, cut after every possible number of bytes.
    const Packet whole = StreamBuilder().frames(1)[1];
    for (std::size_t first = 1; first < 26; ++first) {
        SectionCollector collector(2);
        Packet head = whole;
        Packet tail = whole;
        // The first part ends the packet, so adaptation stuffing goes before it.
        head[3] = 0x30;
        head[4] = static_cast<unsigned char>(183 - 1 - first);
        std::fill(head.begin() + 5, head.end(), 0xFF);
        head[187 - first] = 0;
        std::copy_n(whole.begin() + 5, first, head.end() - static_cast<std::ptrdiff_t>(first));
        tail[1] &= 0xBF;
        std::fill(tail.begin() + 4, tail.end(), 0xFF);
        std::copy(whole.begin() + 5 + static_cast<std::ptrdiff_t>(first), whole.begin() + 31,
                  tail.begin() + 4);
        EXPECT_FALSE(collector.take(head.data()));
        EXPECT_TRUE(collector.take(tail.data())) << first;
        EXPECT_EQ(collector.packets().size(), 2u);
    }
}

TEST(StreamClock, LearnsTheRateFromRegularTimestampsOnly) {
    for (const auto& [ticks, code] :
         {std::pair{3600, 3}, {3003, 4}, {3000, 5}, {1800, 6}, {1500, 8}, {3750, 2}}) {
        StreamClock clock;
        for (int i = 0; i < 10; ++i)
            clock.advance(PTS::from_ticks(i * ticks), 1, 0);
        EXPECT_EQ(clock.frameRateCode(), code);
        EXPECT_EQ(clock.elapsed(), 9 * 4 * ticks);
    }
    StreamClock irregular;
    for (int i = 0; i < 50; ++i)
        irregular.advance(PTS::from_ticks(i * i * 1000), 1, 0);
    EXPECT_EQ(irregular.frameRateCode(), 0);
}

TEST(StreamAnalyzer, SurvivesAnything) {
    std::mt19937 random(7);
    auto analyzer = std::make_unique<StreamAnalyzer>();
    for (const bool avc : {false, true}) {
        const Packets good = StreamBuilder({.avc = avc}).frames(50);
        for (int round = 0; round < 200; ++round)
            for (Packet packet : good) {
                for (unsigned damage = random() % 4; damage > 0; --damage)
                    packet[1 + random() % 187] = static_cast<unsigned char>(random());
                analyzer->take(packet.data());
            }
    }
    // And it still understands a good stream.
    for (const Packet& packet : StreamBuilder().frames(50))
        analyzer->take(packet.data());
    EXPECT_TRUE(analyzer->programKnown());
    EXPECT_EQ(analyzer->frameRateCode(), 3);
}

} // namespace
