// The PES header that begins in a packet (ISO/IEC 13818-1, 2.4.3.6), and the timestamp that a stage takes
// from it: only what lies in the packet, and only of streams that have one.
#include "mpeg/packet_view.h"

#include "mpeg/grab_h264_header.h"
#include "ts_maker.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace ts = kestrel::ts;

namespace {

constexpr int VIDEO = 0x100;

// A packet, and what stands behind it in memory: a timestamp field goes on as if there were no end.
class PesHeaderInPacket : public testing::Test {
protected:
    void fill(const Bytes& payload) {
        TsMaker maker;
        maker.packet(VIDEO, true, payload);
        memory = maker.bytes;
        const Bytes bothTimes = pesHeader(PTS_BEHIND, PTS_BEHIND);
        memory.insert(memory.end(), bothTimes.begin() + 9, bothTimes.end());
        memory.resize(188 + 300, 0x21);
    }
    PTS ptsOf(const Bytes& payload) {
        fill(payload);
        grab_h264_header grabber(VIDEO, 0);
        grabber.process(memory.data(), 0);
        return grabber.pts();
    }
    std::size_t headerOf(const Bytes& payload) {
        fill(payload);
        return ts::pes_header(memory.data()).size();
    }

    static constexpr std::int64_t PTS_BEHIND = 7200;
    Bytes memory;
};

TEST_F(PesHeaderInPacket, FlagsThatPromiseMoreThanTheHeaderLengthCountAsWell) {
    // The payload ends with a header of length 0 whose flags announce both timestamps: they would stand
    // behind the packet.
    const Bytes both{0, 0, 1, 0xE0, 0, 0, 0x80, 0xC0, 0};
    EXPECT_EQ(headerOf(both), 0U);
    EXPECT_EQ(ptsOf(both), PTS(-1));
    const Bytes one{0, 0, 1, 0xE0, 0, 0, 0x80, 0x80, 0};
    EXPECT_EQ(headerOf(one), 0U);
    EXPECT_EQ(ptsOf(one), PTS(-1));
    // Without timestamps nine bytes are enough.
    EXPECT_EQ(headerOf({0, 0, 1, 0xE0, 0, 0, 0x80, 0, 0}), 9U);
}

TEST_F(PesHeaderInPacket, AHeaderLengthPastThePacketCountsEvenWhereTheTimestampFits) {
    Bytes header = pesHeader(3600);
    EXPECT_EQ(ptsOf(header), PTS::from_ticks(3600));
    header[8] = 255;
    EXPECT_EQ(headerOf(header), 0U);
    EXPECT_EQ(ptsOf(header), PTS(-1));
    header[8] = 6; // one byte more than there is
    EXPECT_EQ(ptsOf(header), PTS(-1));
    EXPECT_EQ(ptsOf(header + Bytes{0xFF}), PTS::from_ticks(3600));
    EXPECT_EQ(headerOf(header + Bytes{0xFF, 0, 0}), 15U)
        << "stuffing is part of the header, what follows is not";
}

TEST_F(PesHeaderInPacket, TheTimestampsThatTheFlagsAnnounceFitOrThereIsNone) {
    // Length 0 all the same: 5 bytes for a PTS, 10 for both.
    const Bytes times(10, 0x21);
    for (const auto& [flags, size] : {std::pair{0x80, 5U}, std::pair{0xC0, 10U}, std::pair{0x40, 10U}})
        for (std::size_t there = 0; there <= times.size(); ++there) {
            const Bytes payload = Bytes{0, 0, 1, 0xE0, 0, 0, 0x80, static_cast<unsigned char>(flags), 0} +
                                  Bytes(times.begin(), times.begin() + static_cast<long>(there));
            EXPECT_EQ(headerOf(payload), there >= size ? 9 + size : 0) << flags << ' ' << there;
        }
}

TEST_F(PesHeaderInPacket, EightKindsOfStreamHaveNoTimestampWhateverStandsThere) {
    // Table 2-22, those of 2.4.3.7 without the fields behind PES_packet_length.
    const Bytes without{0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
    for (int id = 0; id <= 0xFF; ++id) {
        const bool has = std::find(without.begin(), without.end(), id) == without.end();
        const Bytes payload = pesHeader(3600, -1, id) + filler(20);
        EXPECT_EQ(ptsOf(payload), has ? PTS::from_ticks(3600) : PTS(-1)) << id;
        EXPECT_EQ(headerOf(payload), has ? 14U : 0U) << id;
    }
    for (const int id : {0xE0, 0xBD, 0xC0}) // video, private_stream_1, audio
        EXPECT_EQ(ptsOf(pesHeader(3600, -1, id)), PTS::from_ticks(3600)) << id;
}

TEST_F(PesHeaderInPacket, OnlyBehindItsStartCodeAndWhereAUnitBegins) {
    const Bytes good = pesHeader(3600);
    ASSERT_EQ(headerOf(good), good.size());
    for (const std::size_t at : {0U, 1U, 2U}) {
        Bytes other = good;
        other[at] ^= 2;
        EXPECT_EQ(headerOf(other), 0U) << at;
    }
    fill(good);
    memory[1] &= 0xBF; // payload_unit_start_indicator
    EXPECT_TRUE(ts::pes_header(memory.data()).empty());
    for (std::size_t length = 0; length < good.size(); ++length)
        EXPECT_EQ(headerOf(Bytes(good.begin(), good.begin() + static_cast<long>(length))), 0U) << length;
}

} // namespace
