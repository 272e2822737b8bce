// The protocol's bytes, against frames made by hand.
#include "deckctrl/NinePin.h"

#include <cmath>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::deck;
using testing::ElementsAre;

namespace {

using Bytes = std::vector<std::uint8_t>;

// What the parser makes of bytes; each state on its own.
std::vector<BlockParser::State> feed(BlockParser& parser, const Bytes& bytes) {
    std::vector<BlockParser::State> states;
    for (const std::uint8_t byte : bytes)
        states.push_back(parser.feed(byte));
    return states;
}

std::optional<Block> parse(const Bytes& bytes) {
    BlockParser parser;
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i)
        if (parser.feed(bytes[i]) != BlockParser::State::incomplete)
            return std::nullopt;
    return parser.feed(bytes.back()) == BlockParser::State::complete ? std::optional(parser.block())
                                                                     : std::nullopt;
}

TEST(NinePin, EachCommandIsItsTwoBytesItsDataAndTheSumOfThem) {
    const std::pair<Block, Bytes> frames[] = {
        {Block(Code::deviceType), {0x00, 0x11, 0x11}},
        {Block(Code::ack), {0x10, 0x01, 0x11}},
        {Block(Code::nak, {0x04}), {0x11, 0x12, 0x04, 0x27}},
        {Block(Code::deviceTypeIs, {0x20, 0x25}), {0x12, 0x11, 0x20, 0x25, 0x68}},
        {Block(Code::stop), {0x20, 0x00, 0x20}},
        {Block(Code::play), {0x20, 0x01, 0x21}},
        {Block(Code::fastForward), {0x20, 0x10, 0x30}},
        {Block(Code::rewind), {0x20, 0x20, 0x40}},
        {Block(Code::stepForward), {0x20, 0x14, 0x34}},
        {Block(Code::stepReverse), {0x20, 0x24, 0x44}},
        {Block(Code::jogForward, {0x00}), {0x21, 0x11, 0x00, 0x32}},
        {Block(Code::jogReverse, {0x40}), {0x21, 0x21, 0x40, 0x82}},
        {Block(Code::shuttleForward, {0x40}), {0x21, 0x13, 0x40, 0x74}},
        {Block(Code::shuttleReverse, {0x60}), {0x21, 0x23, 0x60, 0xA4}},
        // To 10:20:30:12: frames first.
        {Block(Code::cueUp, {0x12, 0x30, 0x20, 0x10}), {0x24, 0x31, 0x12, 0x30, 0x20, 0x10, 0xC7}},
        {Block(Code::timeSense, {0x03}), {0x61, 0x0C, 0x03, 0x70}},
        {Block(Code::statusSense, {0x0A}), {0x61, 0x20, 0x0A, 0x8B}},
    };
    for (const auto& [block, bytes] : frames) {
        EXPECT_EQ(block.bytes(), bytes) << codeName(block.code());
        EXPECT_EQ(parse(bytes), block) << codeName(block.code());
    }
}

TEST(NinePin, TimeRepliesTellWhereTheTimeWasRead) {
    const std::pair<Code, Bytes> replies[] = {
        {Code::timer1, {0x74, 0x00, 0x04, 0x03, 0x02, 0x01, 0x7E}},
        {Code::timer2, {0x74, 0x01, 0x04, 0x03, 0x02, 0x01, 0x7F}},
        {Code::ltc, {0x74, 0x04, 0x04, 0x03, 0x02, 0x01, 0x82}},
        {Code::vitc, {0x74, 0x06, 0x04, 0x03, 0x02, 0x01, 0x84}},
        {Code::ltcCorrected, {0x74, 0x14, 0x04, 0x03, 0x02, 0x01, 0x92}},
        {Code::vitcHeld, {0x74, 0x16, 0x04, 0x03, 0x02, 0x01, 0x94}},
    };
    for (const auto& [code, bytes] : replies) {
        const auto block = parse(bytes);
        ASSERT_TRUE(block) << codeName(code);
        EXPECT_EQ(block->code(), code);
        EXPECT_FALSE(sourceName(code).empty());
        EXPECT_EQ(TapeTime::decode(block->data()).value().text(), "01:02:03:04");
    }
    EXPECT_EQ(sourceName(Code::ltc), "LTC");
    EXPECT_EQ(sourceName(Code::ack), "");
}

TEST(NinePin, AChecksumThatIsWrongIsNoBlockAndTheNextOneIsReadWell) {
    BlockParser parser;
    EXPECT_THAT(feed(parser, {0x10, 0x01, 0x12}),
                ElementsAre(BlockParser::State::incomplete, BlockParser::State::incomplete,
                            BlockParser::State::badChecksum));
    EXPECT_EQ(feed(parser, {0x10, 0x01, 0x11}).back(), BlockParser::State::complete);
    EXPECT_EQ(parser.block().code(), Code::ack);
}

TEST(NinePin, ABlockCutAtAnyLengthIsIncomplete) {
    const Bytes whole = Block(Code::status, std::vector<std::uint8_t>(15, 0xFF)).bytes();
    ASSERT_EQ(whole.size(), Block::maxBytes);
    for (std::size_t length = 0; length < whole.size(); ++length) {
        BlockParser parser;
        const auto states = feed(parser, Bytes(whole.begin(), whole.begin() + static_cast<long>(length)));
        EXPECT_THAT(states, testing::Each(BlockParser::State::incomplete));
        EXPECT_EQ(parser.idle(), length == 0);
        parser.reset();
        EXPECT_TRUE(parser.idle());
        EXPECT_EQ(feed(parser, whole).back(), BlockParser::State::complete);
    }
}

TEST(NinePin, AnyBytesAtAllAreTakenWithoutHarm) {
    BlockParser parser;
    std::uint32_t seed = 1;
    for (int i = 0; i < 100'000; ++i) {
        seed = seed * 1664525 + 1013904223;
        if (parser.feed(static_cast<std::uint8_t>(seed >> 24)) == BlockParser::State::complete) {
            EXPECT_LE(parser.block().data().size(), Block::maxData);
            EXPECT_EQ(parse(parser.block().bytes()), parser.block());
        }
    }
}

TEST(NinePin, MoreThanFifteenDataBytesAreLeftOut) {
    EXPECT_EQ(Block(Code::status, std::vector<std::uint8_t>(20, 1)).data().size(), 15u);
}

TEST(NinePin, EveryNakBitHasItsWords) {
    const char* const words[] = {"unknown command", "bit 1",          "checksum error", "bit 3",
                                 "parity error",    "buffer overrun", "framing error",  "timeout"};
    for (int bit = 0; bit < 8; ++bit)
        EXPECT_EQ(nakWords(static_cast<std::uint8_t>(1 << bit)), words[bit]);
    EXPECT_EQ(nakWords(0x14), "checksum error, parity error");
    EXPECT_EQ(nakWords(0), "no reason given");
}

TEST(NinePin, OnlyErrorsOfTheLineAreWorthAskingAgain) {
    for (const int bits : {0x04, 0x10, 0x20, 0x40, 0x80, 0xF4})
        EXPECT_TRUE(isLineError(static_cast<std::uint8_t>(bits))) << bits;
    for (const int bits : {0x00, 0x01, 0x02, 0x08, 0x05})
        EXPECT_FALSE(isLineError(static_cast<std::uint8_t>(bits))) << bits;
}

TEST(NinePin, EachStatusBitStandsInItsByte) {
    struct Place {
        bool Status::*member;
        std::size_t byte;
        int mask;
    };
    const Place places[] = {
        {&Status::local, 0, 0x01},         {&Status::servoReferenceMissing, 0, 0x10},
        {&Status::cassetteOut, 0, 0x20},   {&Status::play, 1, 0x01},
        {&Status::record, 1, 0x02},        {&Status::fastForward, 1, 0x04},
        {&Status::rewind, 1, 0x08},        {&Status::eject, 1, 0x10},
        {&Status::stop, 1, 0x20},          {&Status::standby, 1, 0x80},
        {&Status::cueUpComplete, 2, 0x01}, {&Status::still, 2, 0x02},
        {&Status::reverse, 2, 0x04},       {&Status::variable, 2, 0x08},
        {&Status::jog, 2, 0x10},           {&Status::shuttle, 2, 0x20},
        {&Status::servoLock, 2, 0x80},     {&Status::preroll, 4, 0x01},
        {&Status::endOfTape, 8, 0x10},
    };
    for (const Place& place : places) {
        Bytes bytes(Status::size);
        bytes[place.byte] = static_cast<std::uint8_t>(place.mask);
        const Status status = Status::parse(bytes);
        EXPECT_TRUE(status.*place.member) << place.byte << " " << place.mask;
        EXPECT_THAT(status.bytes(), testing::ElementsAreArray(bytes)) << "and no other";
    }
}

TEST(NinePin, StatusBytesThatADeckDoesNotSendCountAsZero) {
    const Bytes all(Status::size, 0xFF);
    for (std::size_t length = 0; length <= all.size(); ++length) {
        const Status status = Status::parse(std::span(all).first(length));
        EXPECT_EQ(status.play, length > 1);
        EXPECT_EQ(status.endOfTape, length > 8);
    }
}

TEST(NinePin, ATapeMovesUnderEachMovementAndStandsInStillAndStop) {
    Status status;
    EXPECT_FALSE(status.moving());
    for (bool Status::*member : {&Status::play, &Status::fastForward, &Status::rewind, &Status::shuttle,
                                 &Status::jog, &Status::variable}) {
        Status moves;
        moves.*member = true;
        EXPECT_TRUE(moves.moving());
        moves.still = true;
        EXPECT_FALSE(moves.moving());
    }
}

TEST(NinePin, TimesAreBinaryCodedDecimalWithTheDropFrameFlagInTheFrames) {
    const TapeTime time{23, 59, 58, 29, true};
    EXPECT_THAT(time.encode(), ElementsAre(0x69, 0x58, 0x59, 0x23));
    EXPECT_EQ(TapeTime::decode(time.encode()), time);
    EXPECT_EQ(time.text(), "23:59:58;29");
    // Color frame and field marks are no digits.
    EXPECT_EQ(TapeTime::decode(Bytes{0x80 | 0x24, 0x80 | 0x59, 0x80 | 0x59, 0xC0 | 0x23}).value().text(),
              "23:59:59:24");
}

TEST(NinePin, WhatIsNoTimeIsNotDecoded) {
    for (const Bytes& bytes :
         {Bytes{0x30, 0, 0, 0}, Bytes{0x0A, 0, 0, 0}, Bytes{0, 0x60, 0, 0}, Bytes{0, 0x1F, 0, 0},
          Bytes{0, 0, 0x7A, 0}, Bytes{0, 0, 0, 0x24}, Bytes{0, 0, 0, 0x3F}, Bytes{0, 0, 0}, Bytes{}})
        EXPECT_FALSE(TapeTime::decode(bytes)) << testing::PrintToString(bytes);
}

TEST(NinePin, TimesAreReadFromTextOnlyWhenTheyExist) {
    EXPECT_EQ(TapeTime::parse("10:20:30:12"), (TapeTime{10, 20, 30, 12, false}));
    EXPECT_EQ(TapeTime::parse("10:20:30;12"), (TapeTime{10, 20, 30, 12, true}));
    EXPECT_TRUE(TapeTime::parse("10:10:00;00")) << "a tens minute keeps its first labels";
    for (const char* text :
         {"", "10:20:30", "10:20:30:1", "10:20:30:123", "1a:20:30:12", "10-20-30-12", "24:00:00:00",
          "10:60:00:00", "10:00:60:00", "10:00:00:30", "10:01:00;00", "10:01:00;01", "-1:00:00:00"})
        EXPECT_FALSE(TapeTime::parse(text)) << text;
}

TEST(NinePin, ShuttleSpeedsAreLogarithmic) {
    EXPECT_EQ(speedByte(0), 0);
    EXPECT_EQ(speedByte(0.1), 32);
    EXPECT_EQ(speedByte(1), 64);
    EXPECT_EQ(speedByte(-1), 64) << "the command tells the direction";
    EXPECT_EQ(speedByte(10), 96);
    EXPECT_EQ(speedByte(1e9), 127);
    EXPECT_EQ(speedByte(1e-9), 1);
    EXPECT_EQ(speedByte(std::nan("")), 0);
    EXPECT_DOUBLE_EQ(speedOf(64), 1.0);
    EXPECT_DOUBLE_EQ(speedOf(96), 10.0);
    EXPECT_EQ(speedOf(0), 0.0);
    for (int byte = 1; byte < 128; ++byte)
        EXPECT_EQ(speedByte(speedOf(static_cast<std::uint8_t>(byte))), byte);
}

TEST(NinePin, BlocksHaveNamesForTheLog) {
    EXPECT_EQ(codeName(Code::play), "Play");
    EXPECT_EQ(codeName(Code::vitc), "Time (VITC)");
    EXPECT_EQ(codeName(static_cast<Code>(0x4033)), "40.33");
}

} // namespace
