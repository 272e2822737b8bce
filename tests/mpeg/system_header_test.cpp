// System headers of program streams (ISO/IEC 13818-1, 2.5.3.5).
#include "foundation/Bytes.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <vector>

namespace {

TEST(SystemHeader, IsMadeFieldByField) {
    std::vector<unsigned char> header(24, 0xEE);
    MPEG::SystemHeader::blank(header.data(), 24);
    const std::vector<unsigned char> blank{0, 0, 1, 0xBB, 0, 6, 0x80, 0, 1, 0, 0x20, 0x7F};
    EXPECT_TRUE(std::equal(blank.begin(), blank.end(), header.begin()));
    EXPECT_EQ(header[23], 0);
    MPEG::SystemHeader::set_rate_bound(header.data(), 0x3FFFFF);
    EXPECT_EQ(header[6], 0xFF);
    EXPECT_EQ(header[7], 0xFF);
    EXPECT_EQ(header[8], 0xFF);
    header[9] = 3;
    MPEG::SystemHeader::set_audio_bound(header.data(), 5);
    EXPECT_EQ(header[9], 5 << 2 | 3);
    header[10] = 0xC0;
    MPEG::SystemHeader::set_video_bound(header.data(), 1);
    EXPECT_EQ(header[10], 0xE1);
    MPEG::SystemHeader::set_buffer_thingus_count(header.data(), 2);
    EXPECT_EQ(header[5], 12);
    MPEG::SystemHeader::set_buffer_thingus(header.data(), 1, 0xE0, true, 0x1234);
    EXPECT_EQ(header[15], 0xE0);
    EXPECT_EQ(header[16], 0xE0 | 0x12);
    EXPECT_EQ(header[17], 0x34);
    MPEG::SystemHeader::set_buffer_thingus(header.data(), 0, 0xC0, false, 0x20);
    EXPECT_EQ(header[13], 0xC0);
    MPEG::SystemHeader::set_header_length(header.data(), 0x102);
    EXPECT_EQ(header[4], 1);
    EXPECT_EQ(header[5], 2);
}

// --- field by field

class SystemHeaderFields : public testing::Test {
protected:
    // The header of 24 bytes after a change, all its bits as they were before but for those named.
    Bytes changed(unsigned char old, const Bytes& fields, std::size_t at) const {
        Bytes expected(24, old);
        std::copy(fields.begin(), fields.end(), expected.begin() + static_cast<long>(at));
        return expected;
    }
};

TEST_F(SystemHeaderFields, ABlankOneIsCutWhereThereIsNoRoom) {
    const Bytes whole{0, 0, 1, 0xBB, 0, 6, 0x80, 0, 1, 0, 0x20, 0x7F};
    for (int size = -1; size <= 24; ++size) {
        Bytes expected(24, 0xEE);
        const auto count = static_cast<std::size_t>(std::max(size, 0));
        std::fill_n(expected.begin(), count, static_cast<unsigned char>(0));
        std::copy_n(whole.begin(), std::min(count, whole.size()), expected.begin());
        Bytes header(24, 0xEE);
        MPEG::SystemHeader::blank(header.data(), size);
        EXPECT_EQ(header, expected) << size;
    }
}

TEST_F(SystemHeaderFields, TheRateBoundHasTwentyTwoBitsBetweenTwoMarkers) {
    const std::pair<int, Bytes> rows[] = {{0, {0x80, 0x00, 0x01}},        {1, {0x80, 0x00, 0x03}},
                                          {0x7F, {0x80, 0x00, 0xFF}},     {0x80, {0x80, 0x01, 0x01}},
                                          {0x7FFF, {0x80, 0xFF, 0xFF}},   {0x8000, {0x81, 0x00, 0x01}},
                                          {0x2AAAAA, {0xD5, 0x55, 0x55}}, {0x3FFFFF, {0xFF, 0xFF, 0xFF}}};
    for (const unsigned char old : std::to_array<unsigned char>({0x00, 0xFF}))
        for (const auto& [rate, bytes] : rows) {
            Bytes header(24, old);
            MPEG::SystemHeader::set_rate_bound(header.data(), rate);
            EXPECT_EQ(header, changed(old, bytes, 6)) << rate;
        }
}

TEST_F(SystemHeaderFields, TheAudioBoundKeepsTheTwoFlagsBesideIt) {
    for (int flags = 0; flags < 4; ++flags)
        for (const int bound : {0, 1, 32, 63}) {
            Bytes header(24, 0xEE);
            header[9] = static_cast<unsigned char>(0xA8 | flags);
            MPEG::SystemHeader::set_audio_bound(header.data(), bound);
            EXPECT_EQ(header, changed(0xEE, {static_cast<unsigned char>(bound << 2 | flags)}, 9));
        }
}

TEST_F(SystemHeaderFields, TheVideoBoundHasFiveBitsAndKeepsTheTwoLockFlags) {
    for (int flags = 0; flags < 4; ++flags)
        for (const int bound : {0, 1, 16, 31, 32, 0xFF}) {
            Bytes header(24, 0xEE);
            header[10] = static_cast<unsigned char>(flags << 6 | 0x15);
            MPEG::SystemHeader::set_video_bound(header.data(), bound);
            EXPECT_EQ(header,
                      changed(0xEE, {static_cast<unsigned char>(flags << 6 | 0x20 | (bound & 0x1F))}, 10));
        }
}

TEST_F(SystemHeaderFields, TheNumberOfBoundsOnlySetsTheLength) {
    const std::pair<int, Bytes> rows[] = {{0, {0, 6}}, {1, {0, 9}}, {2, {0, 12}}, {84, {1, 2}}};
    for (const auto& [count, bytes] : rows) {
        Bytes header(24, 0xEE);
        MPEG::SystemHeader::set_buffer_thingus_count(header.data(), count);
        EXPECT_EQ(header, changed(0xEE, bytes, 4)) << count;
    }
}

TEST_F(SystemHeaderFields, EachBoundIsThreeBytesBehindTheTwelfth) {
    for (int i = 0; i < 4; ++i) {
        const auto at = static_cast<std::size_t>(12 + 3 * i);
        Bytes header(24, 0xEE);
        MPEG::SystemHeader::set_buffer_thingus(header.data(), i, 0xBD, true, 0x1FFF);
        EXPECT_EQ(header, changed(0xEE, {0xBD, 0xFF, 0xFF}, at));
        MPEG::SystemHeader::set_buffer_thingus(header.data(), i, 0xC0, false, 0x1FFF);
        EXPECT_EQ(header, changed(0xEE, {0xC0, 0xDF, 0xFF}, at));
        MPEG::SystemHeader::set_buffer_thingus(header.data(), i, 0xE0, true, 0);
        EXPECT_EQ(header, changed(0xEE, {0xE0, 0xE0, 0x00}, at));
        MPEG::SystemHeader::set_buffer_thingus(header.data(), i, 0x1E0, false, 0x2000);
        EXPECT_EQ(header, changed(0xEE, {0xE0, 0xC0, 0x00}, at)) << "13 bits of size, 8 of stream_id";
    }
}

} // namespace
