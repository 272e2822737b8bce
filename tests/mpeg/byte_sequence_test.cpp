// Views of bytes.
#include "byte_views.h"
#include "mpeg/mpeg.h"
#include "mpeg/unibuffer.h"

#include <gtest/gtest.h>
#include <numeric>
#include <vector>

using namespace mpeg_test;

namespace {

TEST(ByteSequence, AnArrayIsReadAndWritten) {
    Bytes bytes = counting(4);
    array_byte_sequence sequence = view(bytes);
    EXPECT_EQ(sequence.get_length(), 4);
    sequence[2] = 99;
    EXPECT_EQ(bytes[2], 99);
    const byte_sequence& constant = sequence;
    EXPECT_EQ(constant[2], 99);
}

TEST(ByteSequence, AWindowEndsWithItsParentUnlessALengthIsGiven) {
    Bytes packet = counting(188);
    array_byte_sequence parent = view(packet);
    subsequence rest(parent, 9);
    EXPECT_EQ(rest.get_length(), 179);
    EXPECT_EQ(rest[0], 9);
    rest[1] = 200;
    EXPECT_EQ(packet[10], 200);
    EXPECT_EQ(subsequence(parent, 9, 3).get_length(), 3);
    const constsubsequence fixed(parent, 9, 3);
    EXPECT_EQ(fixed.get_length(), 3);
    EXPECT_EQ(fixed[0], 9);
    EXPECT_EQ(constsubsequence(parent, 180).get_length(), 8);
}

TEST(ByteSequenceDeathTest, AConstWindowIsNeverWrittenThrough) {
    Bytes bytes = counting(4);
    const array_byte_sequence parent = view(bytes);
    constsubsequence window(parent, 0);
    EXPECT_DEATH(window[0] = 1, "");
}

TEST(ByteSequence, ACompositeRunsThroughItsPiecesInOrder) {
    Bytes first = counting(40);
    Bytes second = counting(50, 40);
    array_byte_sequence a = view(first);
    array_byte_sequence b = view(second);
    frankenstein_byte_sequence composite;
    EXPECT_EQ(composite.get_length(), 0);
    composite.append(a);
    composite.append(b);
    EXPECT_EQ(composite.get_length(), 90);
    EXPECT_EQ(contents(composite), counting(90));
    composite[40] = 7;
    EXPECT_EQ(second[0], 7) << "position 40 is the second piece's position 0";
}

TEST(ByteSequenceDeathTest, ACompositeStopsHardBeyondItsEnd) {
    Bytes bytes = counting(40);
    array_byte_sequence piece = view(bytes);
    frankenstein_byte_sequence composite;
    EXPECT_DEATH(composite[0], "");
    composite.append(piece);
    EXPECT_DEATH(composite[40], "");
}

TEST(ByteSequenceDeathTest, ACompositeOfTwoStopsHardBehindTheSecond) {
    Bytes first = counting(40);
    Bytes second = counting(50, 40);
    second.resize(60, 0xEE); // there is more behind the piece
    array_byte_sequence a = view(first);
    array_byte_sequence b(second.data(), 50);
    frankenstein_byte_sequence composite;
    composite.append(a);
    composite.append(b);
    EXPECT_EQ(composite[89], 89);
    EXPECT_DEATH(composite[90], "");
    EXPECT_DEATH(composite[91], "");
}

TEST(ByteSequence, TwoPayloadsReadAsOne) {
    Bytes first = counting(3);
    Bytes second = counting(2, 3);
    unibuffer::duo both(view(first), view(second));
    EXPECT_EQ(both.get_length(), 5);
    EXPECT_EQ(contents(both), counting(5));
    both[4] = 9;
    EXPECT_EQ(second[1], 9);
}

struct Unescaped {
    Bytes payload;
    int consumed;
};

Unescaped unescape(Bytes source, int start = 0) {
    const array_byte_sequence sequence = view(source);
    const rbsp_byte_sequence rbsp(sequence, start);
    return {contents(rbsp), rbsp.get_consumed()};
}

TEST(RbspByteSequence, AnEmulationPreventionByteIsTakenOut) {
    const Unescaped result = unescape({0, 0, 3, 1});
    EXPECT_EQ(result.payload, Bytes({0, 0, 1}));
    EXPECT_EQ(result.consumed, 4);
}

TEST(RbspByteSequence, ThePayloadEndsBeforeTheNextStartCode) {
    const Unescaped result = unescape({0x65, 0, 0, 1, 0x41, 0x9A});
    EXPECT_EQ(result.payload, Bytes({0x65}));
    EXPECT_EQ(result.consumed, 1);
}

TEST(RbspByteSequence, APrefixAtTheVeryEndIsKept) {
    const Unescaped result = unescape({0x65, 0, 0, 1});
    EXPECT_EQ(result.payload, Bytes({0x65, 0, 0, 1}));
    EXPECT_EQ(result.consumed, 4);
}

TEST(RbspByteSequence, TheFirstThreeBytesMatchNothing) {
    EXPECT_EQ(unescape({0, 1, 5}).payload, Bytes({0, 1, 5}));
    EXPECT_EQ(unescape({3, 9}).payload, Bytes({3, 9}));
}

TEST(RbspByteSequence, TheWindowHoldsSourceBytesAlsoThoseTakenOut) {
    // 00 00 03 00 00 03 01: both 03 go.
    EXPECT_EQ(unescape({0, 0, 3, 0, 0, 3, 1}).payload, Bytes({0, 0, 0, 0, 1}));
    // 00 00 03 03: only the first is an emulation prevention byte.
    EXPECT_EQ(unescape({0, 0, 3, 3}).payload, Bytes({0, 0, 3}));
}

TEST(RbspByteSequence, AStartBeyondTheSourceIsEmpty) {
    EXPECT_TRUE(unescape({1, 2}, 2).payload.empty());
    EXPECT_TRUE(unescape({1, 2}, 99).payload.empty());
    EXPECT_EQ(unescape({9, 9, 1, 2}, 2).payload, Bytes({1, 2}));
}

TEST(RbspByteSequence, WritingBackIsExactOnlyWhereNothingWasTakenOut) {
    Bytes source{1, 2, 3};
    const array_byte_sequence plain = view(source);
    rbsp_byte_sequence rbsp(plain, 0);
    rbsp[1] = 9;
    Bytes target = counting(5);
    array_byte_sequence destination = view(target);
    EXPECT_TRUE(rbsp.rbsp_write(&destination, 1));
    EXPECT_EQ(target, Bytes({0, 1, 9, 3, 4}));

    Bytes escapedSource{0, 0, 3, 1};
    const array_byte_sequence escaped = view(escapedSource);
    rbsp_byte_sequence shorter(escaped, 0);
    Bytes other = counting(4, 50);
    array_byte_sequence otherDestination = view(other);
    EXPECT_FALSE(shorter.rbsp_write(&otherDestination, 0))
        << "writes all bytes, but not as many as were read";
    EXPECT_EQ(other, Bytes({0, 0, 1, 53}));
}

TEST(RbspByteSequence, WritingNothingIsExactWhenNothingWasRead) {
    Bytes source{1};
    const array_byte_sequence sequence = view(source);
    rbsp_byte_sequence empty(sequence, 1);
    Bytes target = counting(1);
    array_byte_sequence destination = view(target);
    EXPECT_TRUE(empty.rbsp_write(&destination, 0));
    EXPECT_EQ(target, Bytes({0}));
}

TEST(ByteSequence, TheSelfTestPasses) {
    EXPECT_EQ(byte_sequence::testHarness(), 0);
}

} // namespace
