// Searches for start codes, with their limits.
#include "mpeg/mpeg2.h"

#include <gtest/gtest.h>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

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

} // namespace
