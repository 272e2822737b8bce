// Texts in fixed-size fields.
#include "foundation/FixedText.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace kestrel;

TEST(FixedText, CopyIsCutAndTerminatedAtEveryCapacity) {
    constexpr std::string_view text = "abcdef";
    for (std::size_t capacity = 1; capacity <= 10; ++capacity) {
        std::array<char, 12> buffer;
        buffer.fill('#');
        const bool whole = copyText(std::span(buffer).first(capacity), text);
        EXPECT_EQ(whole, capacity > text.size());
        EXPECT_EQ(std::string(buffer.data()), text.substr(0, capacity - 1));
        EXPECT_EQ(buffer[capacity], '#') << "written beyond the field";
    }
}

TEST(FixedText, NullTextIsEmpty) {
    char field[4] = "xyz";
    EXPECT_TRUE(copyText(field, static_cast<const char*>(nullptr)));
    EXPECT_STREQ(field, "");
}

TEST(FixedText, EmptyFieldTakesNothing) {
    EXPECT_FALSE(copyText(std::span<char>(), "a"));
    EXPECT_FALSE(formatText(std::span<char>(), "a"));
    EXPECT_FALSE(appendText(std::span<char>(), "a"));
    EXPECT_EQ(fieldText(std::span<const char>()), "");
}

TEST(FixedText, FieldMayBeCopiedOntoItself) {
    char field[8] = "abcdef";
    EXPECT_TRUE(copyText(field, field + 2));
    EXPECT_STREQ(field, "cdef");
}

TEST(FixedText, FormatIsCutAndTerminated) {
    char field[8];
    EXPECT_TRUE(formatText(field, "%d-%s", 12, "abcd"));
    EXPECT_STREQ(field, "12-abcd");
    EXPECT_FALSE(formatText(field, "%d-%s", 12, "abcde"));
    EXPECT_STREQ(field, "12-abcd");
}

TEST(FixedText, AppendContinuesTheText) {
    char field[8] = "ab";
    EXPECT_TRUE(appendText(field, "cd"));
    EXPECT_STREQ(field, "abcd");
    EXPECT_FALSE(appendText(field, "efgh"));
    EXPECT_STREQ(field, "abcdefg");
    EXPECT_FALSE(appendText(field, "x"));
    EXPECT_STREQ(field, "abcdefg");
    EXPECT_TRUE(appendText(field, ""));
}

TEST(FixedText, AppendToAFieldWithoutTerminatorTerminatesIt) {
    char field[4] = {'a', 'b', 'c', 'd'};
    EXPECT_FALSE(appendText(field, "x"));
    EXPECT_STREQ(field, "abc");
}

TEST(FixedText, FieldTextStopsAtTheFirstZeroOrTheEndOfTheField) {
    const char terminated[6] = {'a', 'b', '\0', 'c', 'd', 'e'};
    const char full[3] = {'x', 'y', 'z'};
    EXPECT_EQ(fieldText(terminated), "ab");
    EXPECT_EQ(fieldText(full), "xyz");
}

} // namespace
