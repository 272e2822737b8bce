// The first pass over a file: PCR, PMT and video PID; and the finer points of the continuity check.
#include "mpeg/CaptureEngUtils.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/mpeg.h"
#include "query_files.h"

namespace {

class StreamPids : public Queries {
protected:
    // Result, PCR PID, PMT PID, video PID.
    std::vector<int> pids(const std::string& path, long long limit = 500'000) const {
        int pcr = 0;
        int pmt = 0;
        int video = 0;
        const int result = CaptureEngUtils::GetStreamBasicPidInfo(path.c_str(), pcr, pmt, video, limit);
        return {result, pcr, pmt, video};
    }
    using Pids = std::vector<int>;
};

TEST_F(StreamPids, TheLastVideoEntryWins) {
    maker.tables({{0x02, 0x100}, {0x0F, 0x101}, {0x1B, 0x102}, {0x01, 0x103}, {0x81, 0x104}});
    EXPECT_EQ(pids(write()), Pids({0, 0x100, TsMaker::PMT_PID, 0x103}));
}

TEST_F(StreamPids, WithoutVideoThePcrPidIsKnownAndTheResultMinusOne) {
    maker.tables({{0x0F, 0x101}});
    EXPECT_EQ(pids(write()), Pids({-1, 0x100, TsMaker::PMT_PID, -1}));
}

TEST_F(StreamPids, EveryPatCountsSoAMovedMapIsFollowed) {
    maker.tables({{0x02, 0x100}});
    maker.tables({{0x02, 0x200}}, 0x1001);
    maker.map({{0x02, 0x300}}); // on the old PID
    EXPECT_EQ(pids(write()), Pids({0, 0x100, 0x1001, 0x200}));
}

TEST_F(StreamPids, AMapBeforeAnyPatIsIgnored) {
    maker.map({{0x02, 0x300}});
    EXPECT_EQ(pids(write()), Pids({-1, -1, -1, -1}));
}

TEST_F(StreamPids, ThePcrPidHasThirteenBitsAndMustLieInTheSection) {
    constexpr std::size_t SECTION = 188 + 5; // of the map, in the second packet
    maker.tables({{0x02, 0x100}});
    maker.bytes[SECTION + 8] = 0xE0 | 0x1A;
    maker.bytes[SECTION + 9] = 0xBC;
    EXPECT_EQ(pids(write()), Pids({0, 0x1ABC, TsMaker::PMT_PID, 0x100}));
    maker.bytes[SECTION + 2] = 7; // section_length: up to PCR_PID
    EXPECT_EQ(pids(write()), Pids({-1, 0x1ABC, TsMaker::PMT_PID, -1}));
    maker.bytes[SECTION + 2] = 6;
    EXPECT_EQ(pids(write()), Pids({-1, -1, TsMaker::PMT_PID, -1}));
}

TEST_F(StreamPids, APatOfNetworkPidsAloneIsAMapToTheFirstPassOnly) {
    // Three entries of program number 0 which, as a map, have two bytes of program information and an MPEG-2
    // stream on PID 0x100.
    Bytes payload{0, 0x00, 0xB0, 21, 0, 1, 0xC1, 0, 0};
    payload = payload + Bytes{0, 0, 0xF0, 2} + Bytes{0, 0, 0x02, 0xE1} + Bytes{0, 0, 0, 0};
    payload.resize(184, 0xFF);
    maker.packet(0, true, payload);
    const std::string path = write();
    EXPECT_EQ(MpegWrapper::GetVideoType(path.c_str()), 3);
    EXPECT_EQ(pids(path), Pids({0, 0, 0, 0x100}));
}

TEST_F(StreamPids, HostileFilesEnd) {
    gops(5);
    for (const std::string& path : hostileFiles()) {
        const Pids found = pids(path);
        EXPECT_TRUE(found[0] == 0 || found[0] == -1) << path;
        EXPECT_LE(found[3], 0x1FFF);
    }
}

class ContinuityPoints : public testing::Test {
protected:
    static Bytes packet(int counter, bool payload = true, bool discontinuity = false) {
        Bytes one{0x47, 0x01, 0x00, static_cast<unsigned char>((payload ? 0x10 : 0x00) | counter)};
        if (!payload || discontinuity) {
            one[3] |= 0x20;
            one.push_back(static_cast<unsigned char>(payload ? 10 : 183));
            one.push_back(discontinuity ? 0x80 : 0x00);
        }
        one.resize(188, 0xFF);
        return one;
    }
    // What is logged at Debug while the packets are checked.
    static std::string logged(const std::vector<Bytes>& packets, bool verbose) {
        LogUtil::Cleanup();
        LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Debug);
        LogUtil::GetInstance()->setShowTimestamp(false);
        std::ostringstream log;
        LogUtil::GetInstance()->addStreamLogger(&log);
        continuity_nazi checker;
        for (const Bytes& each : packets)
            checker.packetIsCool(each.data(), verbose);
        LogUtil::Cleanup();
        return log.str();
    }
};

TEST_F(ContinuityPoints, APacketWithoutPayloadMustRepeatTheCounter) {
    continuity_nazi checker;
    EXPECT_TRUE(checker.packetIsCool(packet(3).data(), false));
    EXPECT_TRUE(checker.packetIsCool(packet(3, false).data(), false));
    EXPECT_FALSE(checker.packetIsCool(packet(4, false).data(), false));
    EXPECT_STREQ(checker.message(), "expected 3 not 4 : PID 256");
    EXPECT_TRUE(checker.packetIsCool(packet(5).data(), false))
        << "the counter is recorded whatever the outcome";
}

TEST_F(ContinuityPoints, AnAnnouncedDiscontinuityIsAnErrorAllTheSame) {
    continuity_nazi checker;
    checker.packetIsCool(packet(3).data(), false);
    EXPECT_FALSE(checker.packetIsCool(packet(9, true, true).data(), false));
}

TEST_F(ContinuityPoints, LinesComeInTheirOrderAndOnlyWhenAskedFor) {
    const std::vector<Bytes> packets{packet(3), packet(4), packet(9)};
    EXPECT_EQ(logged(packets, false), "");
    EXPECT_EQ(logged(packets, true), "[mpegParseLib:Debug] PredictCC = 4\r\n"
                                     "[mpegParseLib:Debug] CC = 4\r\n"
                                     "[mpegParseLib:Debug] PredictCC = 5\r\n"
                                     "[mpegParseLib:Debug] CC = 9\r\n"
                                     "[mpegParseLib:Info] ContinuityNazi: error in countinuity counter!\r\n")
        << "the first packet of a PID says nothing";
    Bytes null = packet(3);
    null[1] = 0x1F;
    null[2] = 0xFF;
    EXPECT_EQ(logged({null, null}, true), "");
}

TEST_F(ContinuityPoints, TheCountersCanBeReadByPid) {
    continuity_nazi checker;
    checker.packetIsCool(packet(3).data(), false);
    Bytes other = packet(7);
    other[2] = 0x01;
    checker.packetIsCool(other.data(), false);
    EXPECT_EQ(checker.counters(), (std::map<int, int>{{0x100, 3}, {0x101, 7}}));
}

} // namespace
