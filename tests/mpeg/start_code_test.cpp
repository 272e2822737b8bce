// Searches for start codes, with their limits.
#include "foundation/Bytes.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iterator>
#include <vector>

namespace {

int inView(Bytes bytes, unsigned int pos) {
    const array_byte_sequence view(bytes.data(), static_cast<int>(bytes.size()));
    return MPEG::find_es_start_code(view, pos);
}

TEST(StartCode, IsFoundByTheByteBehindItsPrefix) {
    EXPECT_EQ(inView({0, 0, 1, 0xB3}, 0), 3);
    EXPECT_EQ(inView({9, 0, 0, 1, 0xB3}, 0), 4);
    EXPECT_EQ(inView({9, 0, 0, 1, 0xB3}, 1), 3);
}

TEST(StartCode, WhoseLastByteIsTheLastOfTheViewIsNotFound) {
    EXPECT_EQ(inView({9, 0, 0, 1}, 0), -1) << "the last byte is never examined";
    EXPECT_EQ(inView({0, 0, 1}, 0), 3) << "three bytes at the start are loaded whole";
    EXPECT_EQ(inView({9, 9, 9, 0, 0, 1}, 0), -1);
}

TEST(StartCode, NeedsThreeBytes) {
    EXPECT_EQ(inView({0, 0}, 0), -1);
    EXPECT_EQ(inView({0, 0, 1, 0xB3}, 2), -1);
    EXPECT_EQ(inView({}, 0), -1);
}

TEST(StartCode, AWindowCarriesBytesOver) {
    Bytes bytes{1, 0xB3, 9};
    const array_byte_sequence view(bytes.data(), 3);
    EXPECT_EQ(MPEG::find_es_start_code(view, 0, 0x000001), 0);
    EXPECT_EQ(MPEG::find_es_start_code(view, 0, 0x120000), 1);
    EXPECT_EQ(MPEG::find_es_start_code(view, 0, 0xFFFFFF), -1);
}

TEST(StartCode, RawSearchExaminesOneByteLessThanItsCount) {
    Bytes bytes{9, 0, 0, 1, 0xB3};
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 0, 0, 0x000001), -1) << "a count of 0 comes first";
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 0, 1, 0x000001), 0);
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 0, 1, 0xFFFFFF), -1);
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 0, 5, 0xFFFFFF), 4);
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 0, 4, 0xFFFFFF), -1);
}

TEST(StartCode, RawSearchFailsFromTheMiddleOfTheBufferOn) {
    Bytes bytes{9, 9, 9, 9, 0, 0, 1, 0xB3, 9};
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 0, 9), 7);
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 3, 6), 4);
    // The position is compared with the length available, not with the end: kept.
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 4, 5), -1);
}

TEST(StartCode, DistancesCountFromThePositionOfTheSearch) {
    // 0  1  2  3  4     5  6  7  8  9  10
    const Bytes bytes{0, 0, 1, 0xB3, 7, 0, 0, 0, 1, 0xB8, 7};
    const int distances[] = {3, 8, 7, 6, 5, 4, 3, -1, -1, -1, -1, -1};
    for (unsigned int pos = 0; pos < std::size(distances); ++pos)
        EXPECT_EQ(inView(bytes, pos), distances[pos]) << pos;
    EXPECT_EQ(inView(bytes, 0xFFFFFFFF), -1) << "a position past any view";
    EXPECT_EQ(inView(bytes, 0x7FFFFFFF), -1);
}

TEST(StartCode, TheSearchGoesOnBehindEachCode) {
    const Bytes bytes{0, 0, 1, 0xB3, 0, 0, 1, 0xB8, 0, 0, 0, 1, 0x00, 9};
    std::vector<int> found;
    int pos = 0;
    for (int distance = inView(bytes, 0); distance >= 0;
         distance = inView(bytes, static_cast<unsigned>(pos))) {
        found.push_back(pos + distance);
        pos += distance + 1;
    }
    EXPECT_EQ(found, (std::vector<int>{3, 7, 12}));
}

TEST(StartCode, APrefixRightAtThePositionIsFoundEvenAsTheLastThreeBytes) {
    EXPECT_EQ(inView({9, 9, 0, 0, 1}, 2), 3);
    EXPECT_EQ(inView({9, 9, 0, 0, 1}, 1), -1) << "from one byte before it is not";
}

TEST(StartCode, AWindowGoesOnFromAPositionInTheMiddle) {
    Bytes bytes{9, 9, 9, 9, 0, 1, 0xB3, 9};
    const array_byte_sequence view(bytes.data(), 8);
    EXPECT_EQ(MPEG::find_es_start_code(view, 4, 0x990900), 2) << "bytes taken from position 4 on";
    EXPECT_EQ(MPEG::find_es_start_code(view, 4, 0x990909), -1);
    EXPECT_EQ(MPEG::find_es_start_code(view, 7, 0x000001), 0) << "the window comes before the end";
    EXPECT_EQ(MPEG::find_es_start_code(view, 99, 0x000001), 0);
    EXPECT_EQ(MPEG::find_es_start_code(view, 7, 0x990000), -1) << "the last byte is not examined";
    EXPECT_EQ(MPEG::find_es_start_code(view, 99, 0x990000), -1);
}

TEST(StartCode, RawSearchFromAPositionCountsFromThere) {
    Bytes bytes{9, 9, 0, 0, 1, 0xB3, 9, 9, 9, 9};
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 2, 8, 0xFFFFFF), 3);
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 3, 7, 0xFFFF00), 2);
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 4, 6, 0xFF0000), 1);
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 2, 3, 0xFFFFFF), -1) << "two of three bytes";
    EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), 2, -1, 0xFFFFFF), -1);
}

TEST(StartCode, RawSearchComparesItsPositionWithWhatRemains) {
    // pos + 2 >= len fails, where len is what remains from pos on: each row is one such pair.
    Bytes bytes(20, 9);
    const struct {
        int pos;
        int len;
        int expected;
    } rows[] = {{0, 2, -1}, {0, 3, -1},  {0, 4, 3},  {1, 3, -1},  {1, 4, 3},  {2, 4, -1},
                {2, 5, 3},  {8, 10, -1}, {8, 11, 3}, {9, 10, -1}, {9, 11, -1}};
    for (const auto& row : rows) {
        std::fill(bytes.begin(), bytes.end(), static_cast<unsigned char>(9));
        bytes[static_cast<std::size_t>(row.pos)] = 0;
        bytes[static_cast<std::size_t>(row.pos) + 1] = 0;
        bytes[static_cast<std::size_t>(row.pos) + 2] = 1;
        EXPECT_EQ(MPEG::find_es_start_code(bytes.data(), row.pos, row.len), row.expected)
            << row.pos << ' ' << row.len;
    }
}

} // namespace
