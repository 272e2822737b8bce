// H.264 whose last pictures are black: a slice of a few bytes each, shorter than what is read of others.
#include "capture/SourceIndex.h"
#include "capture/labelled_stream.h"
#include "capture/normalize_streams.h"
#include "capture/recording_fixture.h"
#include "streams/ffprobe.h"
#include "streams/stream_fixtures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using namespace kestrel::capture;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

struct Black {
    const char* name;
    const char* options;
};

void PrintTo(const Black& black, std::ostream* out) {
    *out << black.name;
}

class BlackEnding : public RecordingFixture, public testing::WithParamInterface<Black> {
protected:
    void SetUp() override {
        m_source = kestrel::test::makeStream(
            std::string("black_ending_") + GetParam().name,
            std::string(
                "-f lavfi -i color=black:s=352x288:r=25 -frames:v 41 -c:v libx264 -threads 1 -g 12 ") +
                GetParam().options + " -f mpegts");
        const auto probed = kestrel::test::Ffprobe(m_source).packets("v:0");
        ASSERT_EQ(probed.size(), 41U);
        ASSERT_LT(probed.back().size, 60);
    }
    std::string m_source;
};

TEST_P(BlackEnding, HasAllItsFramesInTheIndex) {
    SourceIndex index;
    const std::atomic<bool> never{false};
    ASSERT_FALSE(indexSource(m_source, never, index));
    EXPECT_EQ(index.frames, 41U);
    EXPECT_EQ(index.time, 41 * PTS::units_per_second / 25);
}

TEST_P(BlackEnding, HasAllItsFramesWhenItIsNormalised) {
    const Bytes bytes = joined(readPackets(m_source));
    EXPECT_EQ(normalize(bytes).frames, 41U);
}

TEST_P(BlackEnding, IsTakenAsSoonAsItIsThere) {
    const Packets packets = readPackets(m_source);
    StreamAnalyzer analyzer;
    unsigned frames = 0;
    for (const Packet& packet : packets)
        if (analyzer.take(packet.data()))
            frames += analyzer.closedUnit().frames;
    EXPECT_TRUE(analyzer.unit().known);
    EXPECT_EQ(frames + analyzer.unit().frames, 41U);
}

TEST_P(BlackEnding, IsCountedByARecordingThatEnds) {
    Recording r = recording(plan(CaptureMode::manual));
    for (const Packet& packet : readPackets(m_source))
        r.take(std::span(&packet, 1), m_now);
    r.cancel(m_now);
    EXPECT_THAT(r.status().text, HasSubstr("(41 frames, "));
    EXPECT_THAT(r.status().text, Not(HasSubstr("incomplete")));
    EXPECT_EQ(r.status().frames, 41U);
}

// Its packets are the first of it only.
TEST_P(BlackEnding, IsNotCountedByARecordingThatMissesItsEnd) {
    Packets packets = readPackets(m_source);
    while (pid(packets.back()) != videoPid)
        packets.pop_back();
    Packet& last = packets.back();
    // All of it but the slice, as a packet that is full.
    std::size_t slice = 0;
    for (std::size_t at = 4; at + 3 < last.size(); ++at)
        if (last[at] == 0 && last[at + 1] == 0 && last[at + 2] == 1 && last[at + 3] != 0xE0)
            slice = at;
    ASSERT_NE(slice, 0U);
    Recording r = recording(plan(CaptureMode::manual));
    for (const Packet& packet : packets)
        if (&packet != &last)
            r.take(std::span(&packet, 1), m_now);
    const std::size_t payload = 5U + last[4];
    Packet cut{};
    const Packet whole = last;
    const std::size_t bytes = slice + 4 - payload; // up to the NAL unit header
    cut[0] = 0x47;
    cut[1] = whole[1];
    cut[2] = whole[2];
    cut[3] = static_cast<unsigned char>(0x30 | (whole[3] & 0x0F));
    cut[4] = static_cast<unsigned char>(183 - bytes);
    cut[5] = 0;
    std::fill(cut.begin() + 6, cut.end(), 0xFF);
    std::copy_n(whole.begin() + static_cast<std::ptrdiff_t>(payload), bytes,
                cut.end() - static_cast<std::ptrdiff_t>(bytes));
    r.take(std::span(&cut, 1), m_now);
    r.cancel(m_now);
    EXPECT_EQ(r.status().frames, 40U);
}

INSTANTIATE_TEST_SUITE_P(Codings, BlackEnding,
                         testing::Values(Black{"bf0", "-bf 0"}, Black{"bf2", "-bf 2"},
                                         Black{"main", "-profile:v main -bf 2"},
                                         Black{"fast", "-preset ultrafast -profile:v baseline"}),
                         [](const auto& black) { return std::string(black.param.name); });

// Stuffing may stand in the middle of a PES packet, too: what comes behind it goes on with the slice.
TEST(ShortSlices, StuffingWithinAPictureNeitherHidesNorDoublesIt) {
    const Packets stream = join(LabelledStream({.gop = 3, .avc = true, .packetsPerFrame = 1}).frames(2));
    ASSERT_EQ(stream.size(), 4U); // tables, two pictures
    const Packet& second = stream.back();
    const Bytes pes(second.begin() + 8, second.end());
    for (std::size_t cut = 1; cut < pes.size(); ++cut) {
        SCOPED_TRACE(cut);
        StreamAnalyzer analyzer;
        for (std::size_t i = 0; i < 3; ++i)
            (void)analyzer.take(stream[i].data());
        const auto at = static_cast<std::ptrdiff_t>(cut);
        const Packet head = makePacket({.counter = 1, .start = true}, Bytes(pes.begin(), pes.begin() + at));
        const Packet tail = makePacket({.counter = 2}, Bytes(pes.begin() + at, pes.end()));
        EXPECT_TRUE(analyzer.take(head.data()));
        EXPECT_FALSE(analyzer.take(tail.data()));
        EXPECT_EQ(analyzer.unit().frames, 1U);
    }
}

} // namespace
