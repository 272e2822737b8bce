// PES headers and their timestamps (ISO/IEC 13818-1, 2.4.3.6).
#include "foundation/Bytes.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>

namespace {

// A header with those PTS_DTS_flags and all timestamp bytes at "prefix, zero, markers".
Bytes header(int flags) {
    Bytes bytes{0, 0, 1, 0xE0, 0, 0, 0x80, static_cast<unsigned char>(flags << 6), 10};
    bytes.insert(bytes.end(), {0x21, 0x00, 0x01, 0x00, 0x01});
    bytes.insert(bytes.end(), {0x11, 0x00, 0x01, 0x00, 0x01});
    bytes.resize(32, 0xFF);
    return bytes;
}

struct Header {
    explicit Header(int flags) : bytes(header(flags)), view(bytes.data(), static_cast<int>(bytes.size())) {}
    Bytes bytes;
    array_byte_sequence view;
};

TEST(PesHeader, PacketLengthCountsTheSixBytesBeforeIt) {
    Header pes(2);
    MPEG::PES::set_packet_length(pes.view, 0x1234);
    EXPECT_EQ(pes.bytes[4] << 8 | pes.bytes[5], 0x1234 - 6);
    EXPECT_EQ(MPEG::PES::get_packet_length(pes.view), 0x1234);
    MPEG::PES::set_packet_length(pes.view, 0);
    EXPECT_EQ(MPEG::PES::get_packet_length(pes.view), 0) << "unbounded stays 0";
    EXPECT_EQ(MPEG::PES::header_length(pes.view), 19);
}

TEST(PesHeader, FlagsTellWhichTimestampsAreThere) {
    for (const int flags : {0, 1, 2, 3}) {
        const Header pes(flags);
        EXPECT_EQ(MPEG::PES::PTS_DTS_flag(pes.view), flags);
        EXPECT_EQ(MPEG::PES::has_PTS(pes.view), flags >= 2);
        EXPECT_EQ(MPEG::PES::has_DTS(pes.view), flags == 3);
        EXPECT_EQ(MPEG::PES::get_PTS(pes.view), flags >= 2 ? 0 : -1);
        EXPECT_EQ(MPEG::PES::get_DTS(pes.view), flags == 3 ? 0 : -1);
        EXPECT_EQ(MPEG::PES::get_PTS(pes.bytes.data()), flags >= 2 ? 0 : -1);
        EXPECT_EQ(MPEG::PES::get_DTS(pes.bytes.data()), flags == 3 ? 0 : -1);
    }
}

TEST(PesHeader, AllThirtyThreeBitsComeBackTimesFour) {
    Header pes(2);
    const unsigned char all[5] = {0x2F, 0xFF, 0xFF, 0xFF, 0xFF};
    std::copy(all, all + 5, pes.bytes.begin() + 9);
    EXPECT_EQ(MPEG::PES::get_PTS(pes.view), 0x7FFFFFFFC);
    PTS pts;
    MPEG::PES::get_PTS(pes.view, &pts);
    EXPECT_EQ(pts, 0x7FFFFFFFC);
}

TEST(PesHeader, ValuesAreRoundedToTheNearestTickHalvesUpward) {
    Header pes(2);
    const struct {
        std::int64_t written;
        std::int64_t ticks;
    } rows[] = {{4, 1}, {5, 1}, {6, 2}, {7, 2}, {8, 2}, {0, 0}, {1, 0}, {2, 1}};
    for (const auto& row : rows) {
        MPEG::PES::set_PTS(pes.view, row.written);
        EXPECT_EQ(MPEG::PES::get_PTS(pes.view), row.ticks * 4) << row.written;
    }
}

TEST(PesHeader, EveryBitOfATimestampSurvivesARoundTrip) {
    Header pes(3);
    for (int bit = 0; bit < 33; ++bit) {
        const PTS value = PTS::from_ticks(std::int64_t{1} << bit);
        MPEG::PES::set_PTS(pes.view, value);
        MPEG::PES::set_DTS(pes.view, value);
        EXPECT_EQ(MPEG::PES::get_PTS(pes.view), value) << bit;
        EXPECT_EQ(MPEG::PES::get_DTS(pes.view), value) << bit;
        MPEG::PES::set_PTS(pes.bytes.data(), value);
        MPEG::PES::set_DTS(pes.bytes.data(), value);
        EXPECT_EQ(MPEG::PES::get_PTS(pes.bytes.data()), value) << bit;
        EXPECT_EQ(MPEG::PES::get_DTS(pes.bytes.data()), value) << bit;
    }
}

TEST(PesHeader, WritingThroughAViewKeepsPrefixAndMarkers) {
    Header pes(3);
    pes.bytes[9] = 0xF0; // odd prefix, no marker
    pes.bytes[11] = 0x00;
    pes.bytes[13] = 0x00;
    MPEG::PES::set_PTS(pes.view, PTS::from_ticks(0x1FFFFFFFF));
    EXPECT_EQ(pes.bytes[9], 0xFE);
    EXPECT_EQ(pes.bytes[11], 0xFE);
    EXPECT_EQ(pes.bytes[13], 0xFE);
}

TEST(PesHeader, WritingRawMakesPrefixAndMarkers) {
    for (const int flags : {2, 3}) {
        Header pes(flags);
        std::fill_n(pes.bytes.begin() + 9, 10, static_cast<unsigned char>(0));
        MPEG::PES::set_PTS(pes.bytes.data(), PTS::from_ticks(0));
        MPEG::PES::set_DTS(pes.bytes.data(), PTS::from_ticks(0));
        EXPECT_EQ(pes.bytes[9], flags == 3 ? 0x31 : 0x21);
        EXPECT_EQ(pes.bytes[11], 0x01);
        EXPECT_EQ(pes.bytes[13], 0x01);
        EXPECT_EQ(pes.bytes[14], 0x11);
    }
}

TEST(PesHeader, ReadingBothGivesZeroForWhatIsNotThere) {
    for (const int flags : {0, 1, 2, 3}) {
        Header pes(flags);
        MPEG::PES::set_PTS(pes.view, PTS::from_ticks(10));
        MPEG::PES::set_DTS(pes.view, PTS::from_ticks(20));
        PTS pts = 99;
        PTS dts = 99;
        MPEG::PES::read_pts_and_dts_from_PES_header(pes.view, &pts, &dts);
        EXPECT_EQ(pts, flags >= 2 ? 40 : 0);
        // The forbidden flag value 01 yields a DTS without a PTS: kept.
        EXPECT_EQ(dts, (flags & 1) != 0 ? 80 : 0);
        pts = 99;
        MPEG::PES::read_pts_and_dts_from_PES_header(pes.view, &pts);
        EXPECT_EQ(pts, flags >= 2 ? 40 : 0);

        pts = dts = 99;
        MPEG::PES::read_pts_and_dts_from_PES_header_(pes.bytes.data() + 4, &pts, &dts);
        EXPECT_EQ(pts, flags >= 2 ? 40 : 0);
        EXPECT_EQ(dts, flags == 3 ? 80 : 0) << "the raw form knows only the two proper values";
    }
}

TEST(PesHeader, PacketLengthsAtTheirEnds) {
    Header pes(2);
    const struct {
        int total;
        int coded;
        int read;
    } rows[] = {
        {7, 1, 7},
        {6, 0, 0}, // a packet of nothing but its first six bytes looks unbounded
        {0xFFFF + 6, 0xFFFF, 0xFFFF + 6},
        {0xFFFF + 7, 0, 0}, // more than the field holds: its low 16 bits
        {1, 0xFFFB, 0xFFFB + 6},
        {0, 0, 0},
        {-1, 0xFFFF, 0xFFFF + 6}, // stored as it is
    };
    for (const auto& row : rows) {
        MPEG::PES::set_packet_length(pes.view, row.total);
        EXPECT_EQ(pes.bytes[4] << 8 | pes.bytes[5], row.coded) << row.total;
        EXPECT_EQ(MPEG::PES::get_packet_length(pes.view), row.read) << row.total;
    }
    EXPECT_EQ(pes.bytes[3], 0xE0) << "and no byte beside it";
    EXPECT_EQ(pes.bytes[6], 0x80);
}

TEST(PesHeader, ItsLengthIsThatOfItsDataAndNineBytes) {
    Header pes(2);
    for (const int data : {0, 5, 10, 255}) {
        pes.bytes[8] = static_cast<unsigned char>(data);
        EXPECT_EQ(MPEG::PES::header_length(pes.view), data + 9);
    }
}

TEST(PesHeader, ATimestampFieldIsDecodedWhereverItStands) {
    // 0x1ABCDEF12: bits 32..30 | 29..15 | 14..0, each group followed by a marker bit.
    const std::int64_t ticks = 0x1ABCDEF12;
    Bytes field{static_cast<unsigned char>(0x21 | (ticks >> 30) << 1),
                static_cast<unsigned char>(ticks >> 22),
                static_cast<unsigned char>((ticks >> 15 & 0x7F) << 1 | 1),
                static_cast<unsigned char>(ticks >> 7), static_cast<unsigned char>((ticks & 0x7F) << 1 | 1)};
    array_byte_sequence view(field.data(), 5);
    EXPECT_EQ(MPEG::PES::get_TS(view), PTS::from_ticks(ticks));
    EXPECT_EQ(MPEG::PES::get_TS(view), ticks * 4) << "in quarters of a tick";

    Header pes(3);
    MPEG::PES::set_PTS(pes.view, PTS::from_ticks(11));
    MPEG::PES::set_DTS(pes.view, PTS::from_ticks(22));
    EXPECT_EQ(MPEG::PES::get_TS(constsubsequence(pes.view, 9)), PTS::from_ticks(11));
    EXPECT_EQ(MPEG::PES::get_TS(constsubsequence(pes.view, 14)), PTS::from_ticks(22));
}

TEST(PesHeader, ATimestampFieldIsDecodedWithoutRegardToPrefixAndMarkers) {
    Bytes field{0xF0, 0, 0, 0, 0};
    array_byte_sequence view(field.data(), 5);
    EXPECT_EQ(MPEG::PES::get_TS(view), 0);
    field = {0x0F, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(MPEG::PES::get_TS(view), PTS::from_ticks(0x1FFFFFFFF));
    field = {0x0E, 0xFF, 0xFE, 0xFF, 0xFE};
    EXPECT_EQ(MPEG::PES::get_TS(view), PTS::from_ticks(0x1FFFFFFFF)) << "whose markers are 0";
}

TEST(PesHeader, ADtsThroughAViewKeepsPrefixAndMarkersAndThePts) {
    Header pes(3);
    const Bytes before = pes.bytes;
    pes.bytes[14] = 0xA0; // odd prefix, no markers
    pes.bytes[16] = 0x00;
    pes.bytes[18] = 0x00;
    MPEG::PES::set_DTS(pes.view, PTS::from_ticks(0x1FFFFFFFF));
    EXPECT_EQ(Bytes(pes.bytes.begin() + 14, pes.bytes.begin() + 19), Bytes({0xAE, 0xFF, 0xFE, 0xFF, 0xFE}));
    MPEG::PES::set_DTS(pes.view, PTS::from_ticks(0));
    EXPECT_EQ(Bytes(pes.bytes.begin() + 14, pes.bytes.begin() + 19), Bytes({0xA0, 0, 0, 0, 0}));
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + 14, pes.bytes.begin()));
    EXPECT_TRUE(std::equal(before.begin() + 19, before.end(), pes.bytes.begin() + 19));
}

TEST(PesHeader, ADtsWrittenRawHasItsPrefixAndMarkersWhateverStoodThere) {
    for (const unsigned char old : std::to_array<unsigned char>({0x00, 0xFF})) {
        Header pes(3);
        std::fill_n(pes.bytes.begin() + 9, 10, old);
        MPEG::PES::set_DTS(pes.bytes.data(), PTS::from_ticks(0x1FFFFFFFF));
        EXPECT_EQ(Bytes(pes.bytes.begin() + 14, pes.bytes.begin() + 19),
                  Bytes({0x1F, 0xFF, 0xFF, 0xFF, 0xFF}));
        MPEG::PES::set_DTS(pes.bytes.data(), PTS::from_ticks(0));
        EXPECT_EQ(Bytes(pes.bytes.begin() + 14, pes.bytes.begin() + 19), Bytes({0x11, 0, 0x01, 0, 0x01}));
        EXPECT_EQ(Bytes(pes.bytes.begin() + 9, pes.bytes.begin() + 14), Bytes(5, old)) << "not the PTS";
    }
}

TEST(PesHeader, APtsWrittenRawHasTheLonePrefixUnlessBothFlagsAreSet) {
    for (const int flags : {0, 1, 2, 3}) {
        Header pes(flags);
        MPEG::PES::set_PTS(pes.bytes.data(), 0);
        EXPECT_EQ(pes.bytes[9], flags == 3 ? 0x31 : 0x21) << flags;
    }
}

TEST(PesHeader, TimestampsAreWrittenWhateverTheFlagsSay) {
    Header pes(0);
    MPEG::PES::set_PTS(pes.view, PTS::from_ticks(5));
    MPEG::PES::set_DTS(pes.view, PTS::from_ticks(6));
    EXPECT_EQ(MPEG::PES::get_PTS(pes.view), -1);
    EXPECT_EQ(MPEG::PES::get_TS(constsubsequence(pes.view, 9)), PTS::from_ticks(5));
    EXPECT_EQ(MPEG::PES::get_TS(constsubsequence(pes.view, 14)), PTS::from_ticks(6));
}

TEST(PesHeader, ValuesWrapAtThirtyThreeBits) {
    Header pes(3);
    MPEG::PES::set_PTS(pes.view, PTS::from_ticks(0x200000007));
    EXPECT_EQ(MPEG::PES::get_PTS(pes.view), PTS::from_ticks(7));
    MPEG::PES::set_DTS(pes.view, PTS::from_ticks(-1));
    EXPECT_EQ(MPEG::PES::get_DTS(pes.view), PTS::from_ticks(0x1FFFFFFFF));
}

TEST(PesHeader, RawReadersNeedOnlyTheirOwnFlagBits) {
    Header pes(1); // forbidden
    MPEG::PES::set_DTS(pes.view, PTS::from_ticks(6));
    EXPECT_EQ(MPEG::PES::get_PTS(pes.bytes.data()), -1);
    EXPECT_EQ(MPEG::PES::get_DTS(pes.bytes.data()), -1);
    PTS pts = 99;
    MPEG::PES::get_PTS(pes.view, &pts);
    EXPECT_EQ(pts, -1) << "an absent one is stored as such";
    pes.bytes[7] |= 0x3F; // what stands beside the flags does not matter
    EXPECT_EQ(MPEG::PES::PTS_DTS_flag(pes.view), 1);
}

} // namespace
