// Parameter sets found in the packets of a transport stream.
#include "foundation/Logger.h"
#include "mpeg/grab_h264_header.h"

#include "ts_maker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <sstream>

namespace {

constexpr int VIDEO = 0x100;

// A whole NAL unit with its prefix.
Bytes nal(int header, const Bytes& payload) {
    return Bytes{0, 0, 1, static_cast<unsigned char>(header)} + escaped(payload);
}
// Of 25 frames a second; log2MaxFrameNum tells one from another.
Bytes sps(int log2MaxFrameNum) {
    BitString bits;
    bits.u(8, 77).u(8, 0).u(8, 40).ue(0).ue(static_cast<unsigned>(log2MaxFrameNum)).ue(0).ue(0).ue(4).u(1, 0);
    bits.ue(119).ue(67).u(1, 1).u(1, 1).u(1, 0).u(1, 1).u(5, 1).u(32, 1).u(32, 50).u(1, 1);
    return nal(0x67, bits.bytes());
}
Bytes slice(int type = 0x41) {
    return nal(type, {0x9A, 0x55, 0x55});
}
Bytes picTiming(bool timestamp) {
    BitString bits;
    bits.u(4, 0).u(1, timestamp).u(8, 0).u(1, 1).u(2, 0).u(8, 1).u(6, 2).u(6, 3).u(5, 4);
    return bits.bytes();
}
Bytes sei(int type, const Bytes& payload) {
    return nal(0x06, Bytes{static_cast<unsigned char>(type), static_cast<unsigned char>(payload.size())} +
                         payload + Bytes{0x80, 0x80, 0x80, 0x80});
}

class GrabH264 : public testing::Test {
protected:
    void feed() {
        for (std::size_t at = 0; at + 188 <= maker.bytes.size(); at += 188)
            grabber.process(maker.bytes.data() + at, static_cast<long>(at / 188));
        maker.bytes.clear();
    }
    void feedPes(const Bytes& stream, std::int64_t pts = 3600) {
        maker.pes(VIDEO, pesHeader(pts), stream);
        feed();
    }

    TsMaker maker;
    grab_h264_header grabber{VIDEO, 0};
    ScratchDir directory;
};

TEST_F(GrabH264, ANewOneHasSeenNothing) {
    EXPECT_EQ(grabber.sps_count(), 0);
    EXPECT_EQ(grabber.pts(), PTS(-1));
    EXPECT_FALSE(grabber.has_time_code());
    EXPECT_EQ(grabber.slice_counter(), 0);
    EXPECT_EQ(grabber.sps().pic_order_cnt_type, -1);
}

TEST_F(GrabH264, KeepsTheLastParameterSetAndCountsThem) {
    feedPes(sps(5) + slice(), 3600);
    EXPECT_EQ(grabber.sps_count(), 1);
    EXPECT_EQ(grabber.sps().log2_max_frame_num_minus4, 5);
    EXPECT_EQ(grabber.sps().num_units_in_tick, 1);
    EXPECT_EQ(grabber.sps().time_scale, 50);
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(3600));
    feedPes(sps(7) + slice(), 7200);
    EXPECT_EQ(grabber.sps_count(), 2);
    EXPECT_EQ(grabber.sps().log2_max_frame_num_minus4, 7);
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(7200));
}

TEST_F(GrabH264, CountsSlicesWhileExactlyOneSetWasSeen) {
    feedPes(slice() + slice(0x65));
    EXPECT_EQ(grabber.slice_counter(), 0);
    feedPes(sps(5) + slice(0x65) + slice(0x41));
    EXPECT_EQ(grabber.slice_counter(), 4);
    feedPes(nal(0x68, {1, 2}) + nal(0x42, {1, 2}));
    EXPECT_EQ(grabber.slice_counter(), 4) << "other units are none";
    feedPes(slice() + sps(5) + slice());
    EXPECT_EQ(grabber.slice_counter(), 6);
}

TEST_F(GrabH264, OtherPacketsAreIgnored) {
    maker.pes(VIDEO + 1, pesHeader(3600), sps(5));        // another PID
    maker.packet(VIDEO, false, pesHeader(3600) + sps(5)); // nothing begins
    feed();
    EXPECT_EQ(grabber.sps_count(), 0);
    EXPECT_EQ(grabber.pts(), PTS(-1));
    maker.packet(VIDEO, true, pesHeader(3600) + sps(5));
    feed();
    EXPECT_EQ(grabber.sps_count(), 1) << "the same one, where it does begin";
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(3600));
    grabber.flush(0);
    EXPECT_EQ(grabber.sps_count(), 1) << "nothing is held back";
}

TEST_F(GrabH264, BytesBehindAnAdaptationFieldAreNoneWithoutThePayloadFlag) {
    feedPes(sps(5), 3600);
    ASSERT_EQ(grabber.pts(), PTS::from_ticks(3600));
    // A short adaptation field, and behind it what would be a PES packet with a parameter set.
    Bytes packet = Bytes{0x47, 0x41, 0x00, 0x20, 1, 0x00} + pesHeader(7200) + sps(7);
    packet.resize(188, 0xFF);
    Bytes flagged = packet;
    grabber.process(packet.data(), 0);
    EXPECT_EQ(grabber.sps_count(), 1);
    EXPECT_EQ(grabber.sps().log2_max_frame_num_minus4, 5);
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(3600));
    flagged[3] = 0x30;
    grabber.process(flagged.data(), 1);
    EXPECT_EQ(grabber.sps_count(), 2) << "the flag is all that was missing";
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(7200));
}

TEST_F(GrabH264, OnlyThePacketInWhichThePesBeginsIsSeen) {
    maker.pes(VIDEO, pesHeader(3600), filler(200) + sps(5));
    feed();
    EXPECT_EQ(grabber.sps_count(), 0);
}

TEST_F(GrabH264, APesWithoutTimestampHasNone) {
    feedPes(sps(5), 3600);
    feedPes(sps(5), -1);
    EXPECT_EQ(grabber.pts(), PTS(-1));
}

TEST_F(GrabH264, PictureTimingWithATimestampIsNoticed) {
    feedPes(sei(1, picTiming(false)) + slice());
    EXPECT_FALSE(grabber.has_time_code());
    feedPes(sei(5, picTiming(true)) + slice());
    EXPECT_FALSE(grabber.has_time_code()) << "another message";
    feedPes(sei(1, picTiming(true)) + slice());
    EXPECT_TRUE(grabber.has_time_code());
}

TEST_F(GrabH264, ATimestampOnceSeenStaysSeen) {
    feedPes(sei(1, picTiming(true)) + slice());
    feedPes(sei(1, picTiming(true)) + slice());
    EXPECT_TRUE(grabber.has_time_code());
    feedPes(sei(1, picTiming(false)) + slice());
    EXPECT_TRUE(grabber.has_time_code()) << "a message without one does not take it back";
    feedPes(sps(5) + slice());
    EXPECT_TRUE(grabber.has_time_code()) << "nor does another parameter set";
}

TEST_F(GrabH264, TheNextMessageIsLookedForByThePayloadSizeAlone) {
    // A message of size 2 at offset 0: the next is read at offset 2, inside this one's payload, and there a
    // picture timing message seems to begin.
    const Bytes inner = Bytes{1, 7} + picTiming(true);
    feedPes(nal(0x06, Bytes{5, 2} + inner + Bytes(4, 0x80)));
    EXPECT_TRUE(grabber.has_time_code());
}

TEST_F(GrabH264, AMessageOfNoSizeEnds) {
    feedPes(nal(0x06, {1, 0, 1, 0, 1, 0, 1, 0}) + slice());
    feedPes(nal(0x06, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF}) + slice());
    feedPes(nal(0x06, {1, 1}) + slice()) /* fewer than four bytes */;
    EXPECT_FALSE(grabber.has_time_code());
}

TEST_F(GrabH264, HostilePacketsStayInside) {
    std::mt19937 random(7);
    testing::internal::CaptureStderr();
    for (int round = 0; round < 5000; ++round) {
        const auto packet = std::make_unique<unsigned char[]>(188);
        for (int i = 0; i < 188; ++i)
            packet[static_cast<std::size_t>(i)] =
                static_cast<unsigned char>(random() % 4 == 0 ? random() % 2 : random());
        packet[1] = 0x41;
        packet[2] = 0x00;
        grabber.process(packet.get(), round);
    }
    testing::internal::GetCapturedStderr();
    SUCCEED();
}

// Of a file.
class SequenceParams : public GrabH264 {
protected:
    H264::SequenceParameterSet params(const std::string& path) {
        H264::SequenceParameterSet out;
        std::string name = path;
        EXPECT_EQ(grab_h264_header::getSequenceParams(name.data(), out, 0), 0);
        return out;
    }
    void gop(int log2MaxFrameNum) { maker.pes(VIDEO, pesHeader(3600), sps(log2MaxFrameNum) + slice()); }
};

TEST_F(SequenceParams, AreThoseOfTheSecondSet) {
    maker.tables({{0x1B, VIDEO}});
    gop(5);
    gop(6);
    gop(7);
    EXPECT_EQ(params(maker.write(directory)).log2_max_frame_num_minus4, 6);
}

TEST_F(SequenceParams, OfTheFirstH264StreamOfTheProgram) {
    maker.tables({{0x0F, 0x90}, {0x1B, VIDEO}, {0x1B, VIDEO + 1}});
    gop(5);
    gop(6);
    EXPECT_EQ(params(maker.write(directory)).log2_max_frame_num_minus4, 6);
}

TEST_F(SequenceParams, StayUntouchedWhereThereAreNone) {
    maker.tables({{0x02, VIDEO}});
    gop(5);
    gop(6);
    EXPECT_EQ(params(maker.write(directory)).pic_order_cnt_type, -1) << "MPEG-2";
    TsMaker one;
    one.tables({{0x1B, VIDEO}});
    one.pes(VIDEO, pesHeader(1), sps(5));
    EXPECT_EQ(params(one.write(directory, "one.ts")).pic_order_cnt_type, -1) << "one set only";
    EXPECT_EQ(params(directory.path("missing.ts")).pic_order_cnt_type, -1);
    EXPECT_EQ(params(directory.path("")).pic_order_cnt_type, -1) << "a directory";
    EXPECT_EQ(params(directory.file("empty.ts", "")).pic_order_cnt_type, -1);
    EXPECT_EQ(params(directory.file("short.ts", std::string(187, 'G'))).pic_order_cnt_type, -1);
}

TEST_F(SequenceParams, ContinuityFailuresAreDebugLines) {
    maker.tables({{0x1B, VIDEO}});
    gop(5);
    maker.skipCounter(VIDEO);
    gop(6);
    LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Debug);
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    params(maker.write(directory));
    LogUtil::Cleanup();
    EXPECT_THAT(log.str(),
                testing::HasSubstr("[captureEngLib:Debug] Continuity error: expected 1 not 2 : PID 256"));
}

TEST_F(SequenceParams, TheSearchEndsWithItsLastPacket) {
    constexpr std::size_t LIMIT = 106'383;
    const auto withSecondSetAt = [&](std::size_t index) {
        TsMaker stream;
        stream.tables({{0x1B, VIDEO}});
        stream.pes(VIDEO, pesHeader(1), sps(5));
        TsMaker null;
        null.packet(0x1FFF, false, filler(184));
        Bytes bytes = stream.bytes;
        bytes.reserve((index + 2) * 188);
        while (bytes.size() < index * 188)
            bytes.insert(bytes.end(), null.bytes.begin(), null.bytes.end());
        TsMaker second;
        second.skipCounter(VIDEO);
        second.pes(VIDEO, pesHeader(2), sps(6));
        bytes.insert(bytes.end(), second.bytes.begin(), second.bytes.end());
        return params(directory.file("long.ts", asText(bytes))).log2_max_frame_num_minus4;
    };
    EXPECT_EQ(withSecondSetAt(LIMIT - 1), 6);
    EXPECT_EQ(withSecondSetAt(LIMIT), -1);
}

} // namespace
