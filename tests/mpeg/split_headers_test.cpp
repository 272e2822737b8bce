// Headers that two or more packets share: each accessor reads and writes them through a joined view as it
// does in one piece.
#include "mpeg/mpeg2.h"
#include "mpeg/unibuffer.h"
#include "timecode/mpeg_timecode.h"
#include "ts_maker.h"

#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <memory>

namespace {

// The bytes in one piece, and what a change makes of them.
Bytes inOnePiece(Bytes bytes, const std::function<void(byte_sequence&)>& change) {
    array_byte_sequence view(bytes.data(), static_cast<int>(bytes.size()));
    change(view);
    return bytes;
}

// The same through two pieces that join after the first count bytes.
Bytes inTwoPieces(const Bytes& bytes, std::size_t count, const std::function<void(byte_sequence&)>& change) {
    Bytes head(bytes.begin(), bytes.begin() + static_cast<long>(count));
    Bytes tail(bytes.begin() + static_cast<long>(count), bytes.end());
    unibuffer::duo both(array_byte_sequence(head.data(), static_cast<int>(head.size())),
                        array_byte_sequence(tail.data(), static_cast<int>(tail.size())));
    change(both);
    return head + tail;
}

// The same through pieces of one byte each.
Bytes byteByByte(Bytes bytes, const std::function<void(byte_sequence&)>& change) {
    std::vector<std::unique_ptr<array_byte_sequence>> pieces;
    frankenstein_byte_sequence composite;
    for (unsigned char& byte : bytes) {
        pieces.push_back(std::make_unique<array_byte_sequence>(&byte, 1));
        composite.append(*pieces.back());
    }
    change(composite);
    return bytes;
}

void expectTheSameHoweverSplit(const Bytes& bytes, const std::function<void(byte_sequence&)>& change) {
    const Bytes expected = inOnePiece(bytes, change);
    EXPECT_NE(expected, bytes) << "a change that changes nothing shows nothing";
    for (std::size_t count = 0; count <= bytes.size(); ++count)
        EXPECT_EQ(inTwoPieces(bytes, count, change), expected) << count;
    EXPECT_EQ(byteByByte(bytes, change), expected);
}

void expectTheSameAnswerHoweverSplit(const Bytes& bytes,
                                     const std::function<long long(const byte_sequence&)>& ask) {
    long long expected = 0;
    inOnePiece(bytes, [&](byte_sequence& view) { expected = ask(view); });
    for (std::size_t count = 0; count <= bytes.size(); ++count)
        inTwoPieces(bytes, count, [&](byte_sequence& view) { EXPECT_EQ(ask(view), expected) << count; });
    byteByByte(bytes, [&](byte_sequence& view) { EXPECT_EQ(ask(view), expected); });
}

constexpr std::int64_t TIME = 0x123456789;

TEST(SplitHeaders, PesTimesAreRead) {
    const Bytes header = pesHeader(TIME, TIME - 3600);
    for (const auto& [ask, answer] :
         {std::pair<std::function<long long(const byte_sequence&)>, long long>{
              [](const byte_sequence& pes) { return MPEG::PES::get_PTS(pes); }, TIME * 4},
          {[](const byte_sequence& pes) { return MPEG::PES::get_DTS(pes); }, (TIME - 3600) * 4},
          {[](const byte_sequence& pes) { return MPEG::PES::header_length(pes); }, 19},
          {[](const byte_sequence& pes) { return MPEG::PES::get_packet_length(pes); }, 0}}) {
        expectTheSameAnswerHoweverSplit(header, ask);
        inOnePiece(header, [&, &ask = ask, expected = answer](byte_sequence& view) {
            EXPECT_EQ(ask(view), expected);
        });
    }
}

TEST(SplitHeaders, PesTimesAndLengthAreWritten) {
    const Bytes header = pesHeader(TIME, TIME - 3600);
    expectTheSameHoweverSplit(header,
                              [](byte_sequence& pes) { MPEG::PES::set_PTS(pes, PTS::from_ticks(7)); });
    expectTheSameHoweverSplit(header,
                              [](byte_sequence& pes) { MPEG::PES::set_DTS(pes, PTS::from_ticks(7)); });
    expectTheSameHoweverSplit(header, [](byte_sequence& pes) { MPEG::PES::set_packet_length(pes, 0x1234); });
}

TEST(SplitHeaders, GopHeadersAreReadAndWritten) {
    const Bytes header = gopHeader(11, 22, 33, 24, true);
    expectTheSameAnswerHoweverSplit(header,
                                    [](const byte_sequence& gop) { return MPEG::GOP::get_timecode(gop); });
    expectTheSameAnswerHoweverSplit(header, [](const byte_sequence& gop) {
        return ((MPEG::GOP::get_hours(gop) * 100LL + MPEG::GOP::get_minutes(gop)) * 100 +
                MPEG::GOP::get_seconds(gop)) *
                   100 +
               MPEG::GOP::get_frames(gop);
    });
    expectTheSameHoweverSplit(header, [](byte_sequence& gop) {
        MPEG::GOP::set_timecode(gop, mpeg_timecode(1, 2, 3, 4, false, 3));
    });
    expectTheSameHoweverSplit(header,
                              [](byte_sequence& gop) { MPEG::GOP::set_timecode(gop, true, 23, 59, 58, 23); });
    expectTheSameHoweverSplit(header, [](byte_sequence& gop) { MPEG::GOP::set_closed_GOP(gop, false); });
}

TEST(SplitHeaders, VideoHeadersAreReadAndWritten) {
    expectTheSameAnswerHoweverSplit(sequenceHeader(720, 576, 4), [](const byte_sequence& header) {
        return MPEG::SH::get_PCRs_per_frame(header);
    });
    expectTheSameAnswerHoweverSplit(sequenceExtension(0x48, true), [](const byte_sequence& extension) {
        return MPEG::SED::get_extension_id(extension) * 10 + MPEG::SED::get_progressive_sequence(extension);
    });
    expectTheSameAnswerHoweverSplit(pictureHeader(2, 777), [](const byte_sequence& picture) {
        return MPEG::PH::get_temporal_reference(picture) * 10 + MPEG::PH::get_picture_coding_type(picture);
    });
    expectTheSameHoweverSplit(pictureHeader(2, 777), [](byte_sequence& picture) {
        MPEG::PH::set_temporal_reference(picture, 0x155);
    });
    expectTheSameAnswerHoweverSplit(pictureCodingExtension(3, true, true),
                                    [](const byte_sequence& extension) {
                                        return MPEG::PCE::get_picture_structure(extension) * 4 +
                                               MPEG::PCE::get_top_field_first(extension) * 2 +
                                               MPEG::PCE::get_repeat_first_field(extension);
                                    });
}

TEST(SplitHeaders, SubtitleSectionsAreReadAndWritten) {
    for (const unsigned char segmented : std::to_array<unsigned char>({0x00, 0x40})) {
        Bytes section(20, 0x11);
        section[3] = segmented;
        expectTheSameAnswerHoweverSplit(
            section, [](const byte_sequence& s) { return MPEG::SCTE27::get_display_in_PTS(s); });
        expectTheSameHoweverSplit(section,
                                  [](byte_sequence& s) { MPEG::SCTE27::set_display_in_PTS(s, 0x12345678); });
    }
}

TEST(SplitHeaders, StartCodesAreFoundAcrossEverySeam) {
    const Bytes bytes = filler(5) + gopHeader(1, 2, 3, 4) + filler(5) + pictureHeader();
    for (unsigned int pos = 0; pos < bytes.size(); ++pos)
        expectTheSameAnswerHoweverSplit(
            bytes, [pos](const byte_sequence& s) { return MPEG::find_es_start_code(s, pos); });
}

TEST(SplitHeaders, OfAPesBeginningStandInTwoPacketsThemselves) {
    // A PES header with both times, cut at each byte by the end of the first packet.
    const Bytes header = pesHeader(TIME, TIME - 3600);
    for (std::size_t cut = 0; cut <= header.size(); ++cut) {
        TsMaker maker;
        maker.pes(0x100, header, filler(50), cut);
        ASSERT_EQ(maker.packets(), 2U);
        unsigned char* const first = maker.bytes.data();
        const Bytes before = maker.bytes;
        const std::unique_ptr<byte_sequence> pes(unibuffer::pes_beginning(first, first + 188));
        EXPECT_EQ(pes->get_length(), static_cast<int>(header.size()) + 50) << cut;
        EXPECT_EQ(MPEG::PES::get_PTS(*pes), PTS::from_ticks(TIME)) << cut;
        EXPECT_EQ(MPEG::PES::get_DTS(*pes), PTS::from_ticks(TIME - 3600)) << cut;
        MPEG::PES::set_PTS(*pes, PTS::from_ticks(1));
        MPEG::PES::set_DTS(*pes, PTS::from_ticks(2));
        TsMaker rewritten;
        rewritten.pes(0x100, pesHeader(1, 2), filler(50), cut);
        EXPECT_EQ(maker.bytes, rewritten.bytes) << cut;
    }
}

} // namespace
