// Payloads of NAL units (ITU-T H.264, 7.3.1) cut at their ends, and taken from and put into views of any
// kind.
#include "mpeg/mpeg.h"
#include "mpeg/unibuffer.h"
#include "ts_maker.h"

#include <gtest/gtest.h>
#include <random>

namespace {

array_byte_sequence view(Bytes& bytes) {
    return {bytes.data(), static_cast<int>(bytes.size())};
}

Bytes contents(const byte_sequence& sequence) {
    Bytes bytes;
    for (int i = 0; i < sequence.get_length(); ++i)
        bytes.push_back(sequence[i]);
    return bytes;
}

struct Row {
    Bytes source;
    Bytes payload;
    int consumed;
    const char* why;
};

TEST(RbspEdges, PayloadAndSourceBytesOfEachEnding) {
    const Row rows[] = {
        {{}, {}, 0, "nothing"},
        {{0, 0, 1, 0x41}, {}, 0, "a start code at once"},
        {{0, 0, 1}, {0, 0, 1}, 3, "a prefix alone is noticed by nobody"},
        {{5, 0, 0, 1, 0x41}, {5}, 1, "the prefix counts in neither figure"},
        {{5, 0, 0, 0, 1, 0x41}, {5, 0}, 2, "the zero byte before a prefix is payload"},
        {{0, 0, 3}, {0, 0, 3}, 3, "an 03 at the end prevents nothing: no byte follows that would replace it"},
        {{0, 0, 3, 0}, {0, 0, 0}, 4, "the byte that follows replaces it"},
        {{0, 0, 3, 0, 0, 1, 9}, {0, 0}, 3, "a start code right behind the 03"},
        {{0, 0, 3, 0, 0, 1}, {0, 0, 0, 0, 1}, 6, "unless it ends the source"},
        {{0, 0, 0, 3, 1}, {0, 0, 0, 1}, 5, "behind three zeros"},
        {{0, 0, 3, 0, 3, 1}, {0, 0, 0, 3, 1}, 6, "the 03 taken out is no zero of the next pair"},
        {{0, 0, 3, 0, 0, 3, 0, 0, 3, 7}, {0, 0, 0, 0, 0, 0, 7}, 10, "three of them"},
        {{0, 0, 2, 0, 3, 1}, {0, 0, 2, 0, 3, 1}, 6, "no other byte is taken out"},
        {{3, 0, 0, 4}, {3, 0, 0, 4}, 4, "nor an 03 elsewhere"},
    };
    for (const Row& row : rows) {
        Bytes source = row.source;
        const auto bytes = view(source);
        const rbsp_byte_sequence rbsp(bytes, 0);
        EXPECT_EQ(contents(rbsp), row.payload) << row.why;
        EXPECT_EQ(rbsp.get_length(), static_cast<int>(row.payload.size())) << row.why;
        EXPECT_EQ(rbsp.get_consumed(), row.consumed) << row.why;
    }
}

TEST(RbspEdges, BytesBeforeTheStartAreNotLookedAt) {
    // From 1 on the zero before is gone, so that neither a prefix nor an 03 is recognised.
    Bytes prefix{0, 0, 1, 7};
    const auto prefixView = view(prefix);
    EXPECT_EQ(contents(rbsp_byte_sequence(prefixView, 1)), Bytes({0, 1, 7}));
    Bytes prevention{0, 0, 3, 7};
    const auto preventionView = view(prevention);
    EXPECT_EQ(contents(rbsp_byte_sequence(preventionView, 1)), Bytes({0, 3, 7}));
    const rbsp_byte_sequence whole(preventionView, -5);
    EXPECT_EQ(contents(whole), Bytes({0, 0, 7})) << "a start before the source is its beginning";
    EXPECT_EQ(whole.get_consumed(), 4);
}

TEST(RbspEdges, WhatIsEscapedComesBack) {
    std::mt19937 random(741);
    for (int round = 0; round < 3000; ++round) {
        Bytes payload(random() % 60);
        for (unsigned char& byte : payload)
            byte = static_cast<unsigned char>(random() % 4);
        payload.push_back(0x80); // a payload never ends in a zero
        Bytes source = escaped(payload);
        const int size = static_cast<int>(source.size());
        source.insert(source.end(), {0, 0, 1, 0x41});
        const auto bytes = view(source);
        const rbsp_byte_sequence rbsp(bytes, 0);
        ASSERT_EQ(contents(rbsp), payload);
        ASSERT_EQ(rbsp.get_consumed(), size);
    }
}

TEST(RbspEdges, TheSourceMayBeAnyView) {
    const Bytes source{9, 0, 0, 3, 1, 0x65, 0, 0, 1, 0x41};
    for (std::size_t split = 0; split <= source.size(); ++split) {
        Bytes head(source.begin(), source.begin() + static_cast<long>(split));
        Bytes tail(source.begin() + static_cast<long>(split), source.end());
        auto headView = view(head);
        auto tailView = view(tail);
        const unibuffer::duo both(headView, tailView);
        frankenstein_byte_sequence composite;
        composite.append(headView);
        composite.append(tailView);
        for (const byte_sequence* each :
             {static_cast<const byte_sequence*>(&both), static_cast<const byte_sequence*>(&composite)}) {
            // A const window has no writable access, and needs none here.
            const constsubsequence window(*each, 1);
            const rbsp_byte_sequence rbsp(window, 0);
            EXPECT_EQ(contents(rbsp), Bytes({0, 0, 1, 0x65})) << split;
            EXPECT_EQ(rbsp.get_consumed(), 5) << split;
        }
    }
}

TEST(RbspEdges, ThePayloadIsACopy) {
    Bytes source{1, 2, 3};
    const auto bytes = view(source);
    rbsp_byte_sequence rbsp(bytes, 0);
    rbsp[0] = 9;
    source[2] = 8;
    EXPECT_EQ(source[0], 1);
    EXPECT_EQ(rbsp[2], 3);
}

TEST(RbspEdges, WritingBackGoesThroughAViewOfAnyKind) {
    Bytes source{1, 2, 3, 4};
    const auto bytes = view(source);
    rbsp_byte_sequence rbsp(bytes, 0);
    for (std::size_t split = 0; split <= 6; ++split) {
        Bytes head(split, 0xEE);
        Bytes tail(6 - split, 0xEE);
        unibuffer::duo both(view(head), view(tail));
        EXPECT_TRUE(rbsp.rbsp_write(&both, 1));
        EXPECT_EQ(contents(both), Bytes({0xEE, 1, 2, 3, 4, 0xEE})) << split;
    }
}

TEST(RbspEdges, WritingBackBehindAStartCodeLeavesTheCode) {
    Bytes stream{5, 6, 0, 0, 1, 0x41};
    auto bytes = view(stream);
    rbsp_byte_sequence rbsp(bytes, 0);
    rbsp[0] = 7;
    EXPECT_TRUE(rbsp.rbsp_write(&bytes, 0));
    EXPECT_EQ(stream, Bytes({7, 6, 0, 0, 1, 0x41}));

    Bytes escapedStream{0, 0, 3, 1, 9, 0, 0, 1, 0x41};
    auto escapedBytes = view(escapedStream);
    rbsp_byte_sequence shorter(escapedBytes, 0);
    EXPECT_FALSE(shorter.rbsp_write(&escapedBytes, 0)) << "four bytes in the place of five";
    EXPECT_EQ(escapedStream, Bytes({0, 0, 1, 9, 9, 0, 0, 1, 0x41})) << "no 03 is put back";
}

TEST(RbspEdges, WritingBackAnEmptyPayloadTouchesNothing) {
    Bytes stream{0, 0, 1, 0x41};
    auto bytes = view(stream);
    rbsp_byte_sequence rbsp(bytes, 0);
    EXPECT_EQ(rbsp.get_length(), 0);
    EXPECT_TRUE(rbsp.rbsp_write(&bytes, 0)) << "nothing was read, nothing is to be written";
    EXPECT_EQ(stream, Bytes({0, 0, 1, 0x41}));
}

} // namespace
