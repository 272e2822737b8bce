// What lost packets, and joins, do not change: the groups of pictures.
#include "analysed.h"
#include "flowscope/Analysis.h"
#include "flowscope/GopStatistics.h"
#include "multiplex.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>

using namespace kestrel::flowscope;

namespace {

constexpr int VIDEO_PID = 0x101;
constexpr std::size_t PACKET = 188;
constexpr std::int64_t FRAME = 3600;
constexpr int GROUP = 12;

// IBBP of 25 a second, twelve in a group, the first one without the B pictures before its I.
Bytes video(
    std::int64_t begin = 90'000, int groups = 20, int groupOf(int) = [](int) { return GROUP; }) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    std::int64_t dts = begin;
    for (int group = 0; group < groups; ++group)
        for (int i = 0; i < groupOf(group); ++i) {
            const int place = i % 3;
            if (group == 0 && (i == 1 || i == 2))
                continue;
            made.clock(VIDEO_PID, (dts - 9000) * 300);
            made.pes(VIDEO_PID, pesHeader(dts + (place == 0 ? 3 : 0) * FRAME, dts),
                     mpeg2Picture(i == 0       ? 1
                                  : place == 0 ? 2
                                               : 3,
                                  place == 0 ? 4000 : 1500));
            dts += FRAME;
        }
    return made.bytes;
}

Bytes without(Bytes bytes, std::size_t from, std::size_t count) {
    const auto begin = bytes.begin() + static_cast<long>(from * PACKET);
    bytes.erase(begin, begin + static_cast<long>(count * PACKET));
    return bytes;
}

void expectGroupsOfTwelve(const Bytes& bytes, const std::string& what) {
    const Analysis analysis = analysed(bytes);
    const GopStatistics& gops = analysis.video()->gops();
    EXPECT_GT(analysis.findings().total(), 0U) << what;
    EXPECT_FALSE(gops.adaptive()) << what;
    EXPECT_EQ(gops.size(), GROUP) << what;
    EXPECT_EQ(gops.structure(), "IBBP") << what;
}

TEST(GroupsOfPictures, AreNotWholeWherePacketsAreLost) {
    const Bytes whole = video();
    ASSERT_FALSE(analysed(whole).video()->gops().adaptive());
    // A picture has 14 packets in the mean: a datagram, and from 30 to 60 ms.
    for (const std::size_t count : {1U, 7U, 11U, 15U, 21U})
        for (std::size_t from = 700; from < 1060; ++from)
            expectGroupsOfTwelve(without(whole, from, count),
                                 std::to_string(count) + " from " + std::to_string(from) + " on");
}

TEST(GroupsOfPictures, AreNotWholeWherePicturesAreMissingOfWhichNoCounterTells) {
    const Bytes whole = video();
    for (std::size_t from = 700; from < 1060; ++from) {
        std::size_t count = 0;
        for (int video = 0; video < 32; ++count)
            video += (whole[(from + count) * PACKET + 3] & 0x10) != 0 ? 1 : 0;
        const Bytes lossy = without(whole, from, count);
        ASSERT_EQ(analysed(lossy).findings().count("continuity"), 0U);
        expectGroupsOfTwelve(lossy, std::to_string(from));
    }
}

TEST(GroupsOfPictures, OfWhichMostLackPicturesAreToldByTheOthers) {
    Bytes bytes = video(90'000, 60);
    // One picture of each of fifty groups.
    for (std::size_t group = 55; group > 5; --group)
        bytes = without(bytes, group * bytes.size() / PACKET / 60 + group * 7 % 100, 13);
    expectGroupsOfTwelve(bytes, "most");
}

TEST(GroupsOfPictures, AreCutWhereTwoFilesAreJoined) {
    const Bytes one = video();
    const Bytes cut(one.begin(), one.end() - 40 * static_cast<long>(PACKET));
    for (const std::int64_t begin : {90'000LL, 90'000'000LL, 2'000'000LL})
        expectGroupsOfTwelve(cut + video(begin), std::to_string(begin));
}

TEST(GroupsOfPictures, ThatDifferAreToldBesideLossesToo) {
    const Bytes whole = video(90'000, 20, [](int group) { return group % 3 == 0 ? 9 : GROUP; });
    for (const std::size_t from : {700U, 800U, 900U})
        EXPECT_TRUE(analysed(without(whole, from, 7)).video()->gops().adaptive());
}

TEST(GroupsOfPictures, OfWhichNoneIsWholeAreThoseThatThereAre) {
    GopStatistics gops;
    for (int i = 0; i < 30; ++i) {
        gops.frame(i % 6 == 0 ? 'I' : 'P', i % 6 == 0);
        if (i % 6 == 2)
            gops.lose(false);
    }
    EXPECT_EQ(gops.size(), 6);
    EXPECT_EQ(gops.structure(), "IP");
    EXPECT_FALSE(gops.adaptive());
}

TEST(GroupsOfPictures, AreNotWholeWhereAPictureHadOnlyBegun) {
    GopStatistics gops;
    const auto group = [&](int frames) {
        for (int i = 0; i < frames; ++i)
            gops.frame(i == 0 ? 'I' : 'P', i == 0);
    };
    group(6);
    group(6);
    gops.lose(true); // behind the I of the next one
    group(4);
    group(6);
    group(1);
    EXPECT_FALSE(gops.adaptive());
    EXPECT_EQ(gops.size(), 6);
}

} // namespace
