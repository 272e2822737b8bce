// Which labels of a stream are taken for the source's own.
#include "capture/OwnLabels.h"

#include "mpeg/pts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

constexpr std::int64_t period = PTS::units_per_second / 25;

// Groups of ten frames, the next one each time.
class OwnLabelsTest : public testing::Test {
protected:
    OwnLabels m_labels;
    std::int64_t m_frame = 0; // of the stream

    // A picture of a stream in which each has a timecode.
    void picture(std::int64_t label, std::int64_t shown, bool possible = true) {
        m_labels.begin({label, shown * period, period, {}}, true, false, possible);
        m_labels.add(label, label);
    }
    void group(std::int64_t label, bool timecode = true, bool possible = true) {
        m_labels.begin({label, m_frame * period, period, {}}, timecode, true, possible);
        m_labels.add(label, label + 9);
        m_frame += 10;
    }
};

TEST_F(OwnLabelsTest, AreKeptBackUntilAFurtherTimecodeGoesOn) {
    group(0);
    EXPECT_FALSE(m_labels.own());
    EXPECT_THAT(m_labels.take(), IsEmpty());
    group(10);
    EXPECT_TRUE(m_labels.own());
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(0, 19)));
    group(20);
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(20, 29)));
}

// Of H.264: it is coded behind another's label, but shown before that.
TEST_F(OwnLabelsTest, GoOnBehindAnotherLabelInPicturesThatAreShownBeforeIt) {
    group(0);
    group(10);
    (void)m_labels.take();
    m_labels.begin({5000, 22 * period, period, {}}, true, true, false);
    EXPECT_FALSE(m_labels.own());
    m_labels.begin({20, 20 * period, period, {}, true}, false, false, false);
    EXPECT_TRUE(m_labels.own());
    m_labels.add(20, 20);
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(20, 20)));
    m_labels.begin({5001, 23 * period, period, {}}, false, false, false);
    EXPECT_FALSE(m_labels.own());
    m_labels.add(5001, 5001);
    EXPECT_THAT(m_labels.take(), IsEmpty());
}

TEST_F(OwnLabelsTest, AreKnownAtOnceWhereTheLineIsTrusted) {
    m_labels.trust(0, period);
    group(0);
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(0, 9)));
}

TEST_F(OwnLabelsTest, AreNotThoseOfATimecodeThatStandsStill) {
    group(0);
    group(10);
    (void)m_labels.take();
    for (int i = 0; i < 5; ++i)
        group(16);
    EXPECT_FALSE(m_labels.own());
    EXPECT_THAT(m_labels.take(), IsEmpty());
}

TEST_F(OwnLabelsTest, AreNotThoseThatCannotBe) {
    for (int i = 0; i < 5; ++i)
        group(1000 + 10 * i, true, false);
    EXPECT_TRUE(m_labels.refused());
    EXPECT_THAT(m_labels.take(), IsEmpty());
}

TEST_F(OwnLabelsTest, GoOnLaterBehindADecoderThatStopped) {
    group(0);
    group(10);
    group(1000, true, false);
    group(20);
    group(30);
    std::vector<OwnLabels::Range> all = m_labels.take();
    EXPECT_EQ(all.back().second, 39);
    EXPECT_EQ(all.front().first, 0);
    for (const auto& [first, last] : all)
        EXPECT_LE(last, 39);
}

TEST_F(OwnLabelsTest, AreNotCountedOnBeyondARandomAccessPointWithoutATimecode) {
    group(0);
    group(10);
    (void)m_labels.take();
    group(20, false);
    EXPECT_FALSE(m_labels.own());
    EXPECT_THAT(m_labels.take(), IsEmpty());
    // Unless the next one shows that it was only lost, and such streams are there.
    group(30);
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(20, 39)));
    group(40, false);
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(40, 49)));
}

// The source comes in the middle of a GOP: what is shown before it is coded behind its first.
TEST_F(OwnLabelsTest, AreKeptBackWhileThoseFromBeforeLieBetween) {
    for (const bool possible : {false, true}) {
        m_labels = {};
        picture(1, 11);
        picture(700, 9, possible);
        picture(0, 10);
        EXPECT_TRUE(m_labels.own());
        EXPECT_THAT(m_labels.take(), ElementsAre(Pair(1, 1), Pair(0, 0)));
    }
}

TEST_F(OwnLabelsTest, AreKeptBackWhileThoseOfAnotherCountLieBetween) {
    picture(1, 11);
    m_labels.refuse();
    picture(0, 10);
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(1, 1), Pair(0, 0)));
}

TEST_F(OwnLabelsTest, ThatAreKeptBackAreKnownOnceTheirLineIs) {
    picture(1, 11);
    picture(700, 9);
    m_labels.trust(10 * period, 1);
    EXPECT_FALSE(m_labels.own());
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(1, 1)));
}

// The decoder stands still for ten frames: the last of these are coded behind the first that goes on.
TEST_F(OwnLabelsTest, GoOnBehindADecoderThatStoodStillThoughItsLastStillLieBetween) {
    for (int i = 0; i < 10; ++i)
        picture(i, i);
    for (int i = 10; i < 18; ++i)
        picture(9, i);
    (void)m_labels.take();
    picture(11, 21);
    picture(9, 18);
    picture(10, 20);
    EXPECT_THAT(m_labels.take(), testing::IsSupersetOf({Pair(11, 11), Pair(10, 10)}));
}

TEST_F(OwnLabelsTest, AreNotCountedOnBeyondSuchAPointWhenOthersFollow) {
    group(0);
    group(10);
    (void)m_labels.take();
    group(20, false);
    group(700, true, false);
    group(40);
    EXPECT_THAT(m_labels.take(), ElementsAre(Pair(40, 49)));
}

TEST_F(OwnLabelsTest, DoNotGoOnInOtherVideo) {
    group(0);
    group(10);
    (void)m_labels.take();
    m_labels.breakOff();
    EXPECT_FALSE(m_labels.own());
    m_labels.add(20, 29);
    EXPECT_THAT(m_labels.take(), IsEmpty());
}

} // namespace
