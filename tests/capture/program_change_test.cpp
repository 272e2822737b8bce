// What the analyzer makes of programs that change and of packets that come twice.
#include "capture/StreamAnalyzer.h"

#include "capture/stream_variants.h"

#include <gtest/gtest.h>
#include <memory>

using namespace kestrel::capture;
using namespace capture_test;

namespace {

class ProgramChange : public testing::Test {
protected:
    std::unique_ptr<StreamAnalyzer> m_analyzer = std::make_unique<StreamAnalyzer>();
    StreamBuilder m_builder;
    Reprogrammer m_reprogram;

    // Frames that begin in the units of the packets.
    unsigned take(const Packets& packets) {
        unsigned frames = 0;
        for (const Packet& packet : packets)
            if (m_analyzer->take(packet.data()))
                frames += m_analyzer->closedUnit().frames;
        return frames;
    }
    unsigned take(int frames, const ProgramShape& shape) {
        return take(m_reprogram(m_builder.frames(frames), shape));
    }
};

TEST_F(ProgramChange, AnotherAudioPidCountsAndLeavesTheFramesAlone) {
    EXPECT_EQ(take(8, {}), 7u);
    EXPECT_EQ(m_analyzer->programVersion(), 1u);
    EXPECT_EQ(take(8, {.audioPid = 0x222}), 8u);
    EXPECT_EQ(m_analyzer->programVersion(), 2u);
    EXPECT_EQ(m_analyzer->describeProgram(),
              "PMT PID 4096, PCR PID 256, PID 256 MPEG-2 video (type 0x02), PID 546 MPEG audio (type 0x03)");
    EXPECT_EQ(take(8, {.audioPid = 0x222, .audioType = 0x81}), 8u);
    EXPECT_EQ(m_analyzer->programVersion(), 3u);
    EXPECT_EQ(m_analyzer->describeProgram(),
              "PMT PID 4096, PCR PID 256, PID 256 MPEG-2 video (type 0x02), PID 546 AC-3 audio (type 0x81)");
    EXPECT_EQ(m_analyzer->frameRateCode(), 3) << "the sequence is still the same";
}

TEST_F(ProgramChange, TheSameProgramWithOtherDescriptorsIsNoChange) {
    take(8, {});
    take(8, {.programInfo = 40});
    EXPECT_EQ(m_analyzer->programVersion(), 1u);
}

TEST_F(ProgramChange, AnotherVideoPidIsFollowed) {
    take(12, {});
    EXPECT_EQ(take(13, {.videoPid = 0x333}), 12u);
    EXPECT_EQ(m_analyzer->videoPid(), 0x333);
    EXPECT_EQ(m_analyzer->programVersion(), 2u);
}

TEST_F(ProgramChange, AnotherPmtPidIsFollowedAndCounts) {
    take(12, {});
    take(12, {.pmtPid = 0x500});
    EXPECT_EQ(m_analyzer->pmtPid(), 0x500);
    EXPECT_TRUE(m_analyzer->programKnown());
    EXPECT_EQ(m_analyzer->programVersion(), 2u);
    EXPECT_EQ(m_analyzer->pmtPackets().size(), 1u);
}

TEST_F(ProgramChange, APmtOfSeveralPacketsIsKeptWhole) {
    take(5, {.programInfo = 500});
    EXPECT_TRUE(m_analyzer->programKnown());
    EXPECT_EQ(m_analyzer->pmtPackets().size(), 3u);
}

TEST_F(ProgramChange, AProgramWithoutVideoIsKnownAsSuch) {
    take(8, {.videoType = 6});
    EXPECT_TRUE(m_analyzer->programKnown());
    EXPECT_EQ(m_analyzer->videoPid(), -1);
    EXPECT_EQ(m_analyzer->describeProgram(),
              "PMT PID 4096, PCR PID 256, PID 256 data (type 0x06), PID 257 MPEG audio (type 0x03)");
    EXPECT_EQ(take(8, {}), 7u) << "and its video is found when it comes";
}

TEST_F(ProgramChange, PacketsSentTwiceAreAnalysedOnce) {
    EXPECT_EQ(take(withDuplicates(m_reprogram(m_builder.frames(25), {.programInfo = 500}))), 24u);
    EXPECT_EQ(m_analyzer->programVersion(), 1u);
    EXPECT_EQ(m_analyzer->pmtPackets().size(), 3u);
}

TEST_F(ProgramChange, ADuplicateMayHaveAnotherPcr) {
    Packets packets = m_builder.frames(2);
    unsigned opened = 0;
    for (Packet packet : packets) {
        if (pid(packet) == videoPid && (packet[1] & 0x40)) {
            // Room for a PCR: eight bytes of adaptation field, and the payload behind them.
            packet[3] |= 0x20;
            std::copy_backward(packet.begin() + 4, packet.end() - 8, packet.end());
            const unsigned char field[] = {7, 0x10, 0, 0, 0, 0, 0x7E, 0};
            std::copy(std::begin(field), std::end(field), packet.begin() + 4);
            opened += m_analyzer->take(packet.data()) ? 1 : 0;
            packet[9] = 0x80;
        }
        opened += m_analyzer->take(packet.data()) ? 1 : 0;
    }
    EXPECT_EQ(opened, 2u);
}

TEST_F(ProgramChange, APacketBehindADiscontinuityIsNoDuplicate) {
    // All PES packets are alike here but for what the flag announces: the same counter says nothing then.
    Packets packets = m_builder.frames(1);
    Packet start = packets[2];
    start[3] |= 0x20;
    std::copy_backward(start.begin() + 4, start.end() - 2, start.end());
    start[4] = 1;
    start[5] = 0x80; // discontinuity_indicator
    packets[2] = start;
    unsigned opened = 0;
    for (const Packet& packet : packets)
        opened += m_analyzer->take(packet.data()) ? 1 : 0;
    m_analyzer->take(packets[2].data());
    opened += m_analyzer->take(packets[2].data()) ? 1 : 0;
    EXPECT_EQ(opened, 2u);
}

TEST_F(ProgramChange, ADuplicateOfTheFirstPacketOfAFrameKeepsWhatFollows) {
    const Packets packets = m_builder.frames(25);
    take(packets);
    // Only the first packet of the frame comes twice, with packets of other PIDs between.
    Packets next = m_builder.frames(2);
    const auto start =
        std::find_if(next.begin(), next.end(), [](const Packet& packet) { return pid(packet) == videoPid; });
    const Packet twice = *start;
    const auto at = start - next.begin();
    next.insert(next.begin() + at + 2, twice);
    EXPECT_EQ(take(next), 2u);
}

} // namespace
