// What the grabber of parameter sets finds in a packet and in a file, at the edges of both.
#include "h264_structures.h"
#include "mpeg/grab_h264_header.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>

using H264::SequenceParameterSet;

namespace {

constexpr int VIDEO = 0x100;

Bytes nal(int header, const Bytes& rbsp) {
    return Bytes{0, 0, 1, static_cast<unsigned char>(header)} + escaped(rbsp);
}
Bytes shortSps(unsigned log2MaxFrameNum) {
    return nal(0x67, BitString().u(8, 77).u(16, 40).ue(0).ue(log2MaxFrameNum).ue(2).bytes());
}
Bytes fullSps() {
    BitString bits;
    return nal(0x67, fullParameterSet(bits, 77).bytes());
}

class GrabberEdges : public testing::Test {
protected:
    // One packet that begins on the PID, in memory of exactly 188 bytes.
    static std::unique_ptr<unsigned char[]> packetOf(const Bytes& payload) {
        TsMaker maker;
        maker.packet(VIDEO, true, payload);
        auto packet = std::make_unique<unsigned char[]>(188);
        std::copy(maker.bytes.begin(), maker.bytes.end(), packet.get());
        return packet;
    }
    static void feed(grab_h264_header& grabber, const Bytes& payload) {
        const auto packet = packetOf(payload);
        const Bytes before(packet.get(), packet.get() + 188);
        grabber.process(packet.get(), 0);
        EXPECT_EQ(Bytes(packet.get(), packet.get() + 188), before) << "a packet is only looked at";
    }
    static bool timecodeSeenIn(const Bytes& sei) {
        grab_h264_header grabber(VIDEO, 0);
        feed(grabber, pesHeader(1) + Bytes{0, 0, 1, 6} + sei + nal(0x41, {0x9A, 0x55}));
        return grabber.has_time_code();
    }

    ScratchDir directory;
};

TEST_F(GrabberEdges, AParameterSetIsSeenAsFarAsItsPacketGoes) {
    const Bytes stream = pesHeader(1) + fullSps();
    const std::size_t header = pesHeader(1).size() + 3;
    for (std::size_t length = 0; length <= stream.size(); ++length) {
        grab_h264_header grabber(VIDEO, 0);
        feed(grabber, firstOf(stream, length));
        ASSERT_EQ(grabber.sps_count(), length > header ? 1 : 0) << length;
        if (length <= header)
            continue;
        Bytes seen(stream.begin() + static_cast<long>(header) + 1,
                   stream.begin() + static_cast<long>(length));
        auto s = view(seen);
        EXPECT_EQ(fields(grabber.sps()), fields(SequenceParameterSet(s, 0))) << length;
    }
}

TEST_F(GrabberEdges, ATimestampCutByThePacketIsAbsent) {
    const Bytes stream = pesHeader(3600);
    for (std::size_t length = 0; length <= stream.size(); ++length) {
        grab_h264_header grabber(VIDEO, 0);
        feed(grabber, firstOf(stream, length));
        EXPECT_EQ(grabber.pts(), length == stream.size() ? PTS::from_ticks(3600) : PTS(-1)) << length;
    }
}

TEST_F(GrabberEdges, AnAdaptationFieldOfAnyLengthStaysInThePacket) {
    for (int length = 0; length <= 255; ++length) {
        const auto packet = std::make_unique<unsigned char[]>(188);
        std::fill_n(packet.get(), 188, static_cast<unsigned char>(0x55));
        packet[0] = 0x47;
        packet[1] = 0x41;
        packet[2] = 0x00;
        packet[3] = 0x30;
        packet[4] = static_cast<unsigned char>(length);
        const Bytes stream = pesHeader(3600) + shortSps(7);
        const std::size_t start = 5 + static_cast<std::size_t>(length);
        const std::size_t room = start < 188 ? 188 - start : 0;
        std::copy_n(stream.begin(), std::min(stream.size(), room),
                    packet.get() + std::min<std::size_t>(start, 188));
        grab_h264_header grabber(VIDEO, 0);
        grabber.process(packet.get(), 0);
        EXPECT_EQ(grabber.sps_count(), room > pesHeader(3600).size() + 3 ? 1 : 0) << length;
        EXPECT_EQ(grabber.pts(), room >= pesHeader(3600).size() ? PTS::from_ticks(3600) : PTS(-1)) << length;
    }
}

TEST_F(GrabberEdges, ThePesStartCodeIsNoNalUnitButTheRestOfItsHeaderIsScanned) {
    grab_h264_header grabber(VIDEO, 0);
    feed(grabber, pesHeader(1, -1, 0xE7) + filler(20)); // 0xE7 & 0x1F would be a parameter set
    EXPECT_EQ(grabber.sps_count(), 0);
    const Bytes stuffing = shortSps(9);
    feed(grabber, Bytes{0, 0, 1, 0xE0, 0, 0, 0x80, 0, static_cast<unsigned char>(stuffing.size())} +
                      stuffing + filler(20));
    EXPECT_EQ(grabber.sps_count(), 1) << "a NAL unit in the header's stuffing counts";
    EXPECT_EQ(grabber.sps().log2_max_frame_num_minus4, 9);
}

TEST_F(GrabberEdges, WhereNoPesBeginsThereIsNoTimestampButNalUnitsAre) {
    grab_h264_header grabber(VIDEO, 0);
    feed(grabber, pesHeader(3600));
    feed(grabber, Bytes(14, 0xFF) + shortSps(9));
    EXPECT_EQ(grabber.pts(), PTS(-1));
    EXPECT_EQ(grabber.sps_count(), 1);
}

TEST_F(GrabberEdges, APrefixAtTheVeryEndHasNoUnit) {
    grab_h264_header grabber(VIDEO, 0);
    feed(grabber, pesHeader(1) + shortSps(9) + Bytes{0xAA, 0, 0, 1});
    EXPECT_EQ(grabber.sps_count(), 1);
    EXPECT_EQ(grabber.slice_counter(), 0);
    feed(grabber, pesHeader(1) + Bytes{0xAA, 0, 0, 1, 0x41});
    EXPECT_EQ(grabber.slice_counter(), 2) << "a header alone is one";
}

TEST_F(GrabberEdges, APrefixRightBehindAHeaderAtTheVeryEndHasNoUnitEither) {
    // The search begins at this prefix and finds it whole: what would be its header is behind the packet,
    // where another slice seems to stand.
    TsMaker maker;
    maker.packet(VIDEO, true, pesHeader(1) + shortSps(9) + Bytes{0, 0, 1, 0x41, 0, 0, 1});
    Bytes memory = maker.bytes + Bytes(50, 0x41);
    grab_h264_header grabber(VIDEO, 0);
    grabber.process(memory.data(), 0);
    EXPECT_EQ(grabber.sps_count(), 1);
    EXPECT_EQ(grabber.slice_counter(), 2);
}

TEST_F(GrabberEdges, UnitsOfAHeaderAloneStandSideBySide) {
    grab_h264_header grabber(VIDEO, 0);
    feed(grabber, pesHeader(1) + shortSps(9) + Bytes{0, 0, 1, 0x41, 0, 0, 1, 0x65, 0, 0, 1, 0x41, 0xAA});
    EXPECT_EQ(grabber.slice_counter(), 6) << "the search goes on right behind each header";
}

TEST_F(GrabberEdges, AMessageOfFewerThanFourBytesIsNotLookedAt) {
    // Type 1, size 1, and a payload whose clock timestamp flag is set.
    EXPECT_FALSE(timecodeSeenIn({1, 1, 0x08}));
    EXPECT_TRUE(timecodeSeenIn({1, 1, 0x08, 0x80}));
}

TEST_F(GrabberEdges, AMessageBehindAnotherIsMissedBecauseTheirHeadsAreNotAdded) {
    // The second message stands at offset 4, but is looked for at offset 2, where a size too large is read.
    EXPECT_FALSE(timecodeSeenIn({5, 2, 0xAA, 0xAA, 1, 2, 0x08, 0x80, 0x80, 0x80}));
    EXPECT_TRUE(timecodeSeenIn({5, 4, 0xAA, 0xAA, 1, 2, 0x08, 0x80, 0x80, 0x80}))
        << "where the size alone leads";
}

TEST_F(GrabberEdges, TheLastThreeBytesHoldNoMessage) {
    // From offset 4 there are three bytes, then four.
    EXPECT_FALSE(timecodeSeenIn({5, 4, 0xAA, 0xAA, 1, 1, 0x08}));
    EXPECT_TRUE(timecodeSeenIn({5, 4, 0xAA, 0xAA, 1, 1, 0x08, 0x80}));
}

TEST_F(GrabberEdges, ATimestampPastTheMessagesSizeIsNotSeen) {
    EXPECT_FALSE(timecodeSeenIn({1, 0, 0x08, 0x80, 0x80, 0x80}));
    EXPECT_TRUE(timecodeSeenIn({1, 200, 0x08, 0x80, 0x80, 0x80})) << "a size past the unit ends with it";
}

TEST_F(GrabberEdges, TypeAndSizeMayTakeSeveralBytes) {
    EXPECT_FALSE(timecodeSeenIn({0xFF, 1, 2, 0x08, 0x80, 0x80})) << "type 256";
    EXPECT_TRUE(timecodeSeenIn({1, 0xFF, 2, 0x08, 0x80, 0x80})) << "size 257";
}

// --- and in a file ---

class FileEdges : public GrabberEdges {
protected:
    H264::SequenceParameterSet params(const TsMaker& maker) { return paramsOf(maker.write(directory)); }
    static H264::SequenceParameterSet paramsOf(std::string path) {
        H264::SequenceParameterSet out;
        EXPECT_EQ(grab_h264_header::getSequenceParams(path.data(), out, 0), 0);
        return out;
    }
    static void sets(TsMaker& maker, int pid, const Bytes& content) { maker.pes(pid, pesHeader(1), content); }
};

TEST_F(FileEdges, SeveralSetsInOnePacketGiveTheLast) {
    TsMaker maker;
    maker.tables({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(3) + shortSps(4) + shortSps(5));
    EXPECT_EQ(params(maker).log2_max_frame_num_minus4, 5);
}

TEST_F(FileEdges, TheFirstStreamFoundStaysTheOne) {
    TsMaker maker;
    maker.tables({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(3));
    maker.tables({{0x1B, VIDEO + 1}});
    sets(maker, VIDEO + 1, shortSps(4) + shortSps(4));
    sets(maker, VIDEO, shortSps(5));
    EXPECT_EQ(params(maker).log2_max_frame_num_minus4, 5);
}

TEST_F(FileEdges, OnlyH264StreamTypesCount) {
    for (const int type : {0x01, 0x02, 0x10, 0x1A, 0x1C, 0x20, 0x24, 0x80}) {
        TsMaker maker;
        maker.tables({{type, VIDEO}});
        sets(maker, VIDEO, shortSps(3) + shortSps(4));
        EXPECT_EQ(params(maker).pic_order_cnt_type, -1) << type;
    }
}

TEST_F(FileEdges, AMapTableBeforeItsAssociationTableIsNotKnown) {
    TsMaker maker;
    maker.map({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(3) + shortSps(4));
    EXPECT_EQ(params(maker).pic_order_cnt_type, -1);
    maker.tables({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(5) + shortSps(6));
    EXPECT_EQ(params(maker).log2_max_frame_num_minus4, 6) << "sets before the table are not counted";
}

TEST_F(FileEdges, AFileCutAtEveryLengthHasItsSetsOnlyWithItsLastPacket) {
    TsMaker maker;
    maker.tables({{0x1B, VIDEO}});
    sets(maker, VIDEO, shortSps(3));
    sets(maker, VIDEO, shortSps(4));
    const std::string whole(maker.bytes.begin(), maker.bytes.end());
    for (std::size_t length = 0; length <= whole.size(); ++length)
        ASSERT_EQ(paramsOf(directory.file("cut.ts", whole.substr(0, length))).log2_max_frame_num_minus4,
                  length == whole.size() ? 4 : -1)
            << length;
}

TEST_F(FileEdges, RandomBytesEnd) {
    // Every packet has a chance to be a table or video; lengths and pointers are whatever they are.
    std::mt19937 random(1920);
    testing::internal::CaptureStderr();
    for (int round = 0; round < 200; ++round) {
        TsMaker maker;
        if (round % 2 == 0)
            maker.tables({{0x1B, VIDEO}});
        std::string bytes(maker.bytes.begin(), maker.bytes.end());
        const int pids[] = {0, TsMaker::PMT_PID, VIDEO};
        for (int packet = 0; packet < 50; ++packet) {
            std::string one(188, '\0');
            for (char& byte : one)
                byte = static_cast<char>(random() % 3 == 0 ? random() % 2 : random());
            const int pid = pids[random() % 3];
            one[1] = static_cast<char>(0x40 | pid >> 8);
            one[2] = static_cast<char>(pid);
            bytes += one;
        }
        paramsOf(directory.file("random.ts", bytes));
    }
    testing::internal::GetCapturedStderr();
    SUCCEED() << "inside its packets, as a sanitizer sees";
}

} // namespace
