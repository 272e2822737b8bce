// Where the timestamps of a source go on later than its play-out does.
#include "capture/SourceLeaps.h"
#include "capture/indexed_source.h"
#include "capture/normalize_streams.h"
#include "capture/stamped_frames.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using namespace kestrel::capture;

namespace {

constexpr std::int64_t period = PTS::units_per_second / 25;

// A source that was recorded over an outage: its timestamps go on later, and what plays it waits only where
// its PCRs tell it to.
class OutageSource : public testing::TestWithParam<bool> {
protected:
    // silent: nothing tells of the step but its size; moved: they go on in another PID.
    enum class Pcrs { none, silent, announced, moved };
    static constexpr int otherPid = 0x1F0;
    SourceIndex index(std::int64_t ticks, Pcrs pcrs, int lost = 0) {
        std::vector<CodedFrame> frames =
            LabelledStream({.gop = 10, .bFrames = GetParam() ? 2 : 0, .avc = GetParam()}).frames(100);
        for (std::size_t i = 50; i < frames.size(); ++i)
            delay(frames[i], ticks);
        if (pcrs == Pcrs::moved)
            movePcrs(frames);
        if (lost > 0)
            frames.erase(frames.begin() + 75, frames.begin() + 75 + lost);
        for (std::size_t i = 0; i < frames.size() && pcrs != Pcrs::none; ++i)
            addPcr(frames[i], pcrs == Pcrs::announced && i == 50,
                   pcrs == Pcrs::moved && i >= 50 ? otherPid : videoPid);
        return indexOf(frames);
    }
    static void movePcrs(std::vector<CodedFrame>& frames) {
        const Packets pmt = sectionPackets(
            pmtPid, pmtSection({.pcrPid = otherPid, .videoType = GetParam() ? 0x1B : 2, .version = 1}));
        for (std::size_t i = 50; i < frames.size(); ++i)
            for (Packet& packet : frames[i].packets)
                if (pid(packet) == pmtPid)
                    packet = pmt.front();
    }
};

TEST_P(OutageSource, TakesNoTimeWhereThePcrsStepByMoreThanASecond) {
    for (const std::int64_t ticks : {135000, 270000, 720000}) {
        SCOPED_TRACE(ticks);
        const SourceIndex found = index(ticks, Pcrs::silent);
        EXPECT_EQ(found.frames, 100U);
        EXPECT_EQ(found.time, 100 * period);
        EXPECT_THAT(longerPlaces(found), testing::IsEmpty());
        ASSERT_EQ(found.leaps.size(), 1U);
        EXPECT_EQ(found.leaps[0].excess, 4 * ticks);
        EXPECT_EQ(found.leaps[0].step, 4 * ticks + period);
    }
}

TEST_P(OutageSource, TakesNoTimeWhereAStepIsAnnounced) {
    EXPECT_EQ(index(45000, Pcrs::announced).time, 100 * period);
    EXPECT_EQ(index(270000, Pcrs::announced).time, 100 * period);
}

TEST_P(OutageSource, TakesNoTimeWhereTheClockMovesToAnotherPid) {
    for (const std::int64_t ticks : {45000, 270000}) {
        const SourceIndex found = index(ticks, Pcrs::moved);
        EXPECT_EQ(found.time, 100 * period);
        EXPECT_EQ(found.leaps.size(), 1U);
    }
    EXPECT_THAT(index(0, Pcrs::moved).leaps, testing::IsEmpty());
}

// The clock of the stream takes no such step for time.
TEST_P(OutageSource, TakesNoTimeHoweverLongItIs) {
    for (const std::int64_t ticks : {900'000, 1'080'000, 360'000'000}) {
        SCOPED_TRACE(ticks);
        const SourceIndex found = index(ticks, Pcrs::silent);
        EXPECT_EQ(found.time, 100 * period);
        EXPECT_THAT(longerPlaces(found), testing::IsEmpty());
        ASSERT_EQ(found.leaps.size(), 1U);
        EXPECT_EQ(found.leaps[0].frame, 50U);
        EXPECT_EQ(found.leaps[0].excess, 4 * ticks);
        EXPECT_EQ(found.leaps[0].step, 4 * ticks + period);
        ASSERT_EQ(found.shown.size(), 100U);
        EXPECT_EQ(found.shown[50] - found.shown[49], index(270000, Pcrs::silent).shown[50] -
                                                         index(270000, Pcrs::silent).shown[49] +
                                                         4 * (ticks - 270000));
    }
    EXPECT_EQ(index(1'080'000, Pcrs::announced).leaps.size(), 1U);
    EXPECT_THAT(index(1'080'000, Pcrs::none).leaps, testing::IsEmpty()) << "the timestamps begin anew";
    EXPECT_THAT(index(-90'000, Pcrs::silent).leaps, testing::IsEmpty()) << "they go back";
}

// A new time base: the PCRs step by half a second, the timestamps, of a clip that begins later, by two.
TEST_P(OutageSource, TakesWhatOfItsTimeIsPlayed) {
    std::vector<CodedFrame> frames =
        LabelledStream({.gop = 10, .bFrames = GetParam() ? 2 : 0, .avc = GetParam()}).frames(100);
    for (std::size_t i = 50; i < frames.size(); ++i)
        delay(frames[i], 45000);
    for (std::size_t i = 0; i < frames.size(); ++i)
        addPcr(frames[i], i == 50);
    for (std::size_t i = 50; i < frames.size(); ++i)
        delay(frames[i], 135000);
    const SourceIndex found = indexOf(frames);
    EXPECT_EQ(found.time, 100 * period + 4 * 135000);
    ASSERT_EQ(found.leaps.size(), 1U);
    EXPECT_EQ(found.leaps[0].excess, 4 * 45000);
    EXPECT_EQ(found.leaps[0].step, 4 * 180000 + period);
}

// The outage lasted for two times: between them came a PCR, but no frame.
TEST_P(OutageSource, TakesNoTimeOverTwoStepsOfThePcrs) {
    std::vector<CodedFrame> frames =
        LabelledStream({.gop = 10, .bFrames = GetParam() ? 2 : 0, .avc = GetParam()}).frames(100);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        delay(frames[i], i < 49 ? 0 : i == 49 ? 150000 : 300000);
        addPcr(frames[i]);
    }
    std::erase_if(frames[49].packets, startsPicture);
    frames[49].packets.resize(1);
    const SourceIndex found = indexOf(frames);
    EXPECT_EQ(found.frames, 99U);
    ASSERT_EQ(found.leaps.size(), 1U);
    EXPECT_EQ(found.leaps[0].excess, 4 * 300000 + period);
    EXPECT_EQ(found.time, 99 * period);
}

// Without PCRs the play-out goes on at its pace: what is filled up with null packets takes its time, what is
// not does not.
TEST(SilentClock, TakesTheTimeOfThePacketsThatAreThere) {
    constexpr std::size_t each = 1000; // packets of a frame
    for (const bool filled : {true, false}) {
        std::vector<CodedFrame> frames = LabelledStream({.gop = 10}).frames(90);
        for (std::size_t i = 0; i < frames.size(); ++i) {
            if (i < 10 || i >= 80)
                addPcr(frames[i]);
            frames[i].packets.resize(each, nullPacket());
        }
        if (filled)
            frames[39].packets.resize(6 * each, nullPacket());
        frames.erase(frames.begin() + 40, frames.begin() + 45);
        const SourceIndex found = indexOf(frames);
        EXPECT_EQ(found.frames, 85U);
        EXPECT_EQ(found.time, (filled ? 90 : 85) * period);
        EXPECT_EQ(found.leaps.size(), filled ? 0U : 1U);
    }
}

// A damaged file: it is bounded what is remembered of it.
TEST(SourceLeaps, AreNoMoreThanALimit) {
    constexpr std::int64_t step = 2 * 27'000'000;
    constexpr std::int64_t range = (std::int64_t{1} << 33) * 300;
    SourceLeaps leaps;
    leaps.take(makePacket({.payload = false, .pcr = 0}).data(), 0);
    leaps.take(makePacket({.payload = false, .pcr = 27'000}).data(), 188);
    std::uint64_t at = 188;
    for (std::size_t i = 0; i < SourceLeaps::most + 1000; ++i, at += 188) {
        leaps.take(
            makePacket({.payload = false, .pcr = static_cast<std::int64_t>(i + 1) * step % range}).data(),
            at + 188);
        leaps.late({i, 0, {9 * period, 8 * period}}, at, at + 188);
    }
    const auto found = leaps.found(2 * period);
    ASSERT_EQ(found.size(), SourceLeaps::most);
    EXPECT_EQ(found.back().frame, SourceLeaps::most - 1);
    EXPECT_EQ(found.back().size.excess, 8 * period);
}

TEST_P(OutageSource, TakesItsTimeWhereItIsPlayed) {
    EXPECT_EQ(index(45000, Pcrs::silent).time, 100 * period + 4 * 45000);
    EXPECT_EQ(index(270000, Pcrs::none).time, 100 * period + 4 * 270000);
    EXPECT_THAT(index(45000, Pcrs::silent).leaps, testing::IsEmpty());
}

TEST_P(OutageSource, HasThePlacesOfItsFramesWithoutIt) {
    const SourceIndex found = index(270000, Pcrs::silent, 3);
    EXPECT_EQ(found.time, 100 * period);
    const std::vector<std::int64_t> places = longerPlaces(found);
    ASSERT_EQ(places.size(), 97U);
    EXPECT_EQ(places.back(), 99 * period);
    EXPECT_EQ(places[60], 60 * period);
}

INSTANTIATE_TEST_SUITE_P(Codecs, OutageSource, testing::Bool(),
                         [](const auto& codec) { return codec.param ? "H264" : "Mpeg2"; });

} // namespace
