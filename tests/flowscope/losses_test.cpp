// What lost packets do not change: the rates that a file was sent at, and its alignment.
#include "analysed.h"
#include "flowscope/Analysis.h"
#include "multiplex.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <utility>
#include <vector>

using namespace kestrel::flowscope;

namespace {

constexpr int VIDEO_PID = 0x101;
constexpr int SOUND_PID = 0x102;
constexpr int PACKET = 188;

// Of a packet: where it is, its PID.
using Lost = std::function<bool(int, int)>;

Bytes without(const Bytes& bytes, const Lost& lost) {
    Bytes rest;
    rest.reserve(bytes.size());
    for (std::size_t at = 0; at + PACKET <= bytes.size(); at += PACKET) {
        const int pid = (bytes[at + 1] & 0x1F) << 8 | bytes[at + 2];
        if (!lost(static_cast<int>(at / PACKET), pid))
            rest.insert(rest.end(), bytes.begin() + static_cast<long>(at),
                        bytes.begin() + static_cast<long>(at + PACKET));
    }
    return rest;
}

Lost burst(int from, int count) {
    return [=](int packet, int) { return packet >= from && packet < from + count; };
}

// As where a network loses one datagram of seven packets in so many.
Lost datagrams(unsigned every) {
    return [=](int packet, int) {
        const auto datagram = static_cast<unsigned>(packet / 7);
        return datagram > 3 && (datagram * 2'654'435'761U >> 8) % every == 0;
    };
}

// As many packets of the video from that one on as its counter does not tell of, and all others among them.
Lost fullTurns(const Bytes& bytes, int from, int turns) {
    int video = 0;
    int packet = from;
    for (; video < 16 * turns; ++packet) {
        const std::size_t at = static_cast<std::size_t>(packet) * PACKET;
        const bool payload = (bytes.at(at + 3) & 0x10) != 0;
        video += payload && (bytes[at + 1] & 0x1F) == 1 && bytes[at + 2] == 1 ? 1 : 0;
    }
    return burst(from, packet - from);
}

// Video of 25 a second and sound in a multiplex of that constant rate that null packets fill, with two
// references a picture. off: ticks of 27 MHz that each is off by.
Bytes constantMultiplex(
    double bitsPerSecond, int pictures, const std::function<std::int64_t(int)>& off = [](int) { return 0; }) {
    constexpr std::int64_t FRAME = 3600;
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}, {0x81, SOUND_PID}});
    int references = 0;
    const auto clock = [&] {
        const double seconds = static_cast<double>(made.packets()) * PACKET * 8 / bitsPerSecond;
        made.clock(VIDEO_PID, 27'000'000 + std::llround(seconds * 27e6) + off(references++));
    };
    for (int i = 0; i < pictures; ++i) {
        const std::int64_t dts = 90'000 + 20'000 + i * FRAME;
        clock();
        made.pes(VIDEO_PID, pesHeader(dts, dts), mpeg2Picture(i % 12 == 0 ? 1 : 2, 6000));
        clock();
        made.pes(SOUND_PID, pesHeader(dts, -1, 0xBD), Bytes(400, 0x55));
        while (static_cast<double>(made.packets()) * PACKET * 8 < bitsPerSecond * (i + 1) / 25)
            made.null();
    }
    return made.bytes;
}

// --- the rate of a multiplex

TEST(ALossInAConstantMultiplex, LeavesItsRateWhereItIs) {
    for (const double rate : {3'749'600.0, 3'750'000.0, 3'750'400.0}) {
        const Bytes whole = constantMultiplex(rate, 300);
        ASSERT_EQ(analysed(whole).muxBitsPerSecond(), rate);
        // Within a picture: of null packets, and of sixteen of one PID, no counter tells.
        for (const int from : {5, 3'000, 28'940})
            for (const int count : {1, 2, 14, 30, 100, 900}) {
                const Analysis analysis = analysed(without(whole, burst(from, count)));
                EXPECT_GT(analysis.findings().count("continuity"), 0U);
                EXPECT_EQ(analysis.muxBitsPerSecond(), rate) << count << " from " << from << " on";
                EXPECT_EQ(analysis.findings().count("PCR jitter"), 0U);
            }
    }
}

TEST(ALossInAConstantMultiplex, MayHappenManyTimesASecond) {
    for (const double rate : {3'749'600.0, 3'750'000.0, 3'750'400.0}) {
        const Bytes whole = constantMultiplex(rate, 500);
        for (const unsigned every : {200U, 60U, 15U, 6U}) {
            const Analysis analysis = analysed(without(whole, datagrams(every)));
            EXPECT_GT(analysis.findings().count("continuity"), 5U);
            EXPECT_EQ(analysis.muxBitsPerSecond(), rate) << every;
            EXPECT_EQ(analysis.findings().count("PCR jitter"), 0U);
        }
    }
}

TEST(ALossInAConstantMultiplex, OfASeldomPidIsToldLaterAndHarmsNothing) {
    const Bytes whole = constantMultiplex(3'750'000, 300);
    int sounds = 0;
    const Analysis analysis =
        analysed(without(whole, [&](int, int pid) { return pid == SOUND_PID && ++sounds % 50 == 17; }));
    EXPECT_GT(analysis.findings().count("continuity"), 5U);
    EXPECT_EQ(analysis.muxBitsPerSecond(), 3'750'000);
}

TEST(ALossInAConstantMultiplex, HarmsNoneWhoseReferencesAreOffByWhatIsAllowed) {
    const auto off = [](int i) { return i * 7 % 27 - 13; };
    const Bytes whole = constantMultiplex(3'750'000, 500, off);
    for (const Lost& lost : {burst(3'000, 100), datagrams(60)})
        EXPECT_NEAR(analysed(without(whole, lost)).muxBitsPerSecond(), 3'750'000, 1);
}

TEST(ALossInAConstantMultiplex, IsNoneWhereOnlyACounterIsWrong) {
    Bytes bytes = constantMultiplex(3'750'000, 300);
    // The sound's stand still.
    for (std::size_t at = 0; at < bytes.size(); at += PACKET)
        if ((bytes[at + 1] & 0x1F) == 1 && bytes[at + 2] == 2)
            bytes[at + 3] &= 0xF0;
    const Analysis analysis = analysed(bytes);
    EXPECT_GT(analysis.findings().count("continuity"), 500U);
    EXPECT_EQ(analysis.muxBitsPerSecond(), 3'750'000);
}

TEST(ALossInAConstantMultiplex, MayBeOneOfWhichTheFileTellsAlone) {
    // Null packets, which no counter counts, and in whose place there is something else.
    const Bytes whole = constantMultiplex(3'750'000, 300);
    const auto rate = [&](bool told) {
        Analysis analysis(std::nullopt);
        for (std::size_t at = 0; at < whole.size(); at += PACKET) {
            const std::size_t packet = at / PACKET;
            if (packet == 3050 && told)
                analysis.skip(at, std::uint64_t{20} * PACKET);
            if (packet < 3050 || packet >= 3070)
                analysis.take(whole.data() + at);
        }
        analysis.end();
        EXPECT_EQ(analysis.findings().count("continuity"), 0U);
        return analysis.muxBitsPerSecond();
    };
    EXPECT_EQ(rate(true), 3'750'000);
    EXPECT_LT(rate(false), 3'750'000) << "else nothing is shown here";
}

TEST(ALossInAConstantMultiplex, MayBeOneOfWhichNoCounterTellsWhereAPictureIsMissing) {
    for (const double rate : {3'749'600.0, 3'750'000.0, 3'750'400.0}) {
        const Bytes whole = constantMultiplex(rate, 300);
        std::vector<int> starts; // of PES packets of the video
        for (std::size_t at = 0; at < whole.size(); at += PACKET)
            if (whole[at + 1] == 0x41 && whole[at + 2] == 1)
                starts.push_back(static_cast<int>(at / PACKET));
        ASSERT_EQ(starts.size(), 300U);
        for (const std::size_t picture : {40U, 41U, 150U, 298U})
            for (const int before : {1, 7, 30})
                for (const int turns : {1, 2}) {
                    const Lost lost = fullTurns(whole, starts[picture] - before, turns);
                    const Analysis analysis = analysed(without(whole, lost));
                    EXPECT_EQ(analysis.findings().count("continuity"), 0U);
                    EXPECT_EQ(analysis.muxBitsPerSecond(), rate) << picture << ", " << before;
                    EXPECT_EQ(analysis.findings().count("PCR jitter"), 0U);
                }
    }
}

TEST(ALossInAConstantMultiplex, OfManySecondsLeavesThoseBeforeAndBehindIt) {
    const Bytes whole = constantMultiplex(3'750'000, 500);
    EXPECT_EQ(analysed(without(whole, burst(12'000, 20'000))).muxBitsPerSecond(), 3'750'000);
}

TEST(ALossInAMultiplex, ThatIsNotConstantMakesItNoMoreSo) {
    // Pictures that last as long and are as large as they like, and a few null packets.
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    for (int i = 0; i < 400; ++i) {
        const std::int64_t dts = 90'000 + i * 3600;
        made.clock(VIDEO_PID, (dts - 9000) * 300);
        made.pes(
            VIDEO_PID, pesHeader(dts, dts),
            mpeg2Picture(i % 12 == 0 ? 1 : 2, static_cast<std::size_t>(4000 + i * i % 97 * 100 + i * 20)));
        if (i % 10 == 0)
            made.null();
    }
    for (const Lost& lost : {burst(3'000, 20), datagrams(60), datagrams(8)}) {
        const Analysis analysis = analysed(without(made.bytes, lost));
        EXPECT_EQ(analysis.muxBitsPerSecond(),
                  static_cast<double>(analysis.packets()) * PACKET * 8 / analysis.seconds());
    }
}

TEST(ALossInAMultiplex, WhoseNullPacketsWereTakenOutMakesItNotConstant) {
    // Of every other interval none.
    const Bytes whole = constantMultiplex(3'750'000, 500);
    const Bytes some =
        without(whole, [](int packet, int pid) { return pid == 0x1FFF && packet % 800 < 300; });
    const Bytes all = without(whole, [](int, int pid) { return pid == 0x1FFF; });
    for (const Bytes& bytes : {some, all})
        for (const Lost& lost : {burst(0, 0), burst(3'000, 20), burst(5'000, 3)}) {
            const Analysis analysis = analysed(without(bytes, lost));
            EXPECT_EQ(analysis.muxBitsPerSecond(),
                      static_cast<double>(analysis.packets()) * PACKET * 8 / analysis.seconds());
            EXPECT_EQ(analysis.clock().lostPackets(), 0);
        }
}

// Small pictures of at most that many packets, one reference each: all that an interval lacks is whole
// packets.
TEST(ALossInAMultiplex, OfAFewPacketsAnIntervalMakesItNoMoreConstant) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    for (int i = 0; i < 600; ++i) {
        const std::int64_t dts = 90'000 + i * 3600;
        made.clock(VIDEO_PID, (dts - 9000 + (i >= 300 ? 9'000'000 : 0)) * 300, i == 300);
        const std::size_t packets = i % 3 == 0 ? 13 : 1;
        made.pes(VIDEO_PID, pesHeader(dts + (i >= 300 ? 9'000'000 : 0)),
                 mpeg2Picture(2, packets * 184 - 100));
        if (i % 4 == 0)
            made.null();
    }
    const double mean = analysed(made.bytes).muxBitsPerSecond();
    for (const Lost& lost : {burst(700, 2), burst(2'130, 3), datagrams(100)})
        EXPECT_NEAR(analysed(without(made.bytes, lost)).muxBitsPerSecond() / mean, 1, 0.03);
}

// A multiplex of 1000 packets a second, which its video, of 25 pictures a second, falls behind for eight
// seconds, by three and a half in all, until small pictures let it catch up. What the time of that picture is
// off by, in seconds.
Bytes catchingUp(int wrong = -1, double off = 0) {
    constexpr std::size_t ROOM = 40; // packets a picture
    constexpr std::size_t LEAD = 500;
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    for (std::size_t i = 0; i < 600; ++i) {
        while (made.packets() + LEAD < i * ROOM)
            made.null();
        const std::int64_t dts = 900'000 + static_cast<std::int64_t>(i * ROOM + LEAD) * 90 +
                                 (static_cast<int>(i) == wrong ? std::llround(off * 90'000) : 0);
        made.clock(VIDEO_PID, (900'000 + static_cast<std::int64_t>(made.packets()) * 90) * 300);
        made.pes(VIDEO_PID, pesHeader(dts, dts), mpeg2Picture(2, (i < 200 ? 59 : 9) * 184 - 100));
    }
    return made.bytes;
}

TEST(ALossWhereTheVideoCatchesUp, LeavesTheRateOfTheMultiplex) {
    constexpr double RATE = 1000.0 * PACKET * 8;
    const Bytes whole = catchingUp();
    ASSERT_EQ(analysed(whole).muxBitsPerSecond(), RATE);
    for (const int from : {11'000, 12'345, 12'800})
        for (const int count : {5, 311, 455, 606}) {
            const Analysis analysis = analysed(without(whole, burst(from, count)));
            EXPECT_EQ(analysis.muxBitsPerSecond(), RATE) << count << " from " << from << " on";
        }
}

TEST(ALossWhereTheVideoCatchesUp, LeavesItWhereTheTimeBehindItIsDamagedToo) {
    for (const int lost : {5, 35, 60})
        for (const double off : {-0.9, 0.9, -1.2, 1.2, 3.0, -3.0, -60.0, 3600.0}) {
            const Bytes whole = catchingUp(260, off);
            int picture = -1;
            const Analysis analysis = analysed(without(whole, [&](int packet, int pid) {
                const bool start = (whole[static_cast<std::size_t>(packet) * PACKET + 1] & 0x40) != 0;
                picture += pid == VIDEO_PID && start ? 1 : 0;
                return picture >= 260 - lost && picture < 260; // those before it
            }));
            EXPECT_GT(analysis.findings().count("continuity"), 0U);
            EXPECT_GT(analysis.findings().count("timestamps"), 0U);
            EXPECT_EQ(analysis.muxBitsPerSecond(), 1000.0 * PACKET * 8) << lost << ", " << off;
        }
}

TEST(TheLossyPace, IsNoneOfTwoRates) {
    // By a fifth of a packet less than two, and by two, so that most intervals lack as many.
    for (const int slower : {24'300, 27'000}) {
        LossyPace pace;
        for (int i = 0; i < 2000; ++i)
            pace.reference(i * 540'000 + std::max(0, i - 800) * slower, i * 40, false);
        EXPECT_FALSE(pace.rate(1)) << slower;
        EXPECT_EQ(pace.lostPackets(1), 0);
    }
}

TEST(TheLossyPace, IsToldByIntervalsMostOfWhichLackPackets) {
    LossyPace pace;
    int lost = 0;
    std::uint64_t losses = 0;
    for (int i = 0; i < 2000; ++i) {
        const int missing = i % 8 % 3 == 0 ? 0 : i % 5 == 0 ? 14 : 7;
        lost += missing;
        losses += missing == 0 ? 0 : 1;
        pace.reference(i * 2'700'000LL, i * 200 - lost, false);
    }
    ASSERT_TRUE(pace.rate(losses));
    EXPECT_NEAR(pace.rate(losses)->packetsPerTick * 13'500, 1, 1e-9);
    EXPECT_NEAR(pace.lostPackets(losses) / lost, 1, 0.02);
    EXPECT_FALSE(pace.rate(losses / 10)) << "else it is another multiplex of which packets were taken out";
}

TEST(TheLossyPace, DoesNotBridgeAJoinThatIsNearlySeamless) {
    LossyPace pace;
    for (int i = 0; i < 1000; ++i)
        pace.reference(i * 540'000 + (i >= 500 ? 600 : 0), i * 40, false);
    ASSERT_TRUE(pace.rate(1));
    EXPECT_NEAR(pace.rate(1)->packetsPerTick * 13'500, 1, 1e-9);
}

TEST(TheLossyPace, HasNoneOfReferencesThatStandStill) {
    LossyPace pace;
    EXPECT_FALSE(pace.rate(1));
    for (int i = 0; i < 100; ++i)
        pace.reference(i * 540'000, 7, false);
    EXPECT_FALSE(pace.rate(1));
    LossyPace still;
    for (int i = 0; i < 100; ++i)
        still.reference(7, i, false);
    EXPECT_FALSE(still.rate(1));
}

TEST(AGapOfTheDecodingTimes, LeavesTheJitterOfAClockThatShowsNoLoss) {
    // Every sixtieth picture has no time, since it is not told where its PES packet begins; one reference is
    // late.
    Bytes bytes = constantMultiplex(3'750'000, 300, [](int i) { return i == 180 ? 2700 : 0; });
    const Analysis whole = analysed(bytes);
    ASSERT_EQ(whole.findings().count("PCR jitter"), 1U);
    int pictures = 0;
    for (std::size_t at = 0; at < bytes.size(); at += PACKET)
        if (bytes[at + 1] == 0x41 && bytes[at + 2] == 1 && ++pictures % 60 == 0)
            for (std::size_t i = 4; i < PACKET; ++i)
                bytes[at + i] = 0xFF;
    const Analysis analysis = analysed(bytes);
    EXPECT_EQ(analysis.findings().count("timestamps"), 4U);
    EXPECT_EQ(analysis.findings().count("continuity"), 0U);
    EXPECT_EQ(analysis.findings().count("PCR jitter"), 1U);
    ASSERT_TRUE(analysis.pcrJitterUs());
    EXPECT_NEAR(*analysis.pcrJitterUs(), *whole.pcrJitterUs(), 0.01);
    EXPECT_EQ(analysis.muxBitsPerSecond(), whole.muxBitsPerSecond());
}

// --- the rate of the video

// 100 pictures of that many bytes.
Bytes constantVideo(std::size_t pictureBytes) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    for (int i = 0; i < 100; ++i)
        made.pes(VIDEO_PID, pesHeader(90'000 + i * 3600), pictureOf2Mbs(pictureBytes));
    return made.bytes;
}

TEST(ALossInConstantVideo, LeavesTheRateOfItsHeaders) {
    const Bytes whole = constantVideo(10'000);
    ASSERT_EQ(analysed(whole).videoBitsPerSecond(), 2e6);
    for (const Lost& lost :
         {datagrams(20), datagrams(8), burst(2'000, 300), burst(2'000, 304), burst(2'000, 1'000)}) {
        const Analysis analysis = analysed(without(whole, lost));
        EXPECT_GT(8e6 - static_cast<double>(analysis.video()->bytes()) * 8, 163'840)
            << "else nothing is shown here";
        EXPECT_EQ(analysis.videoBitsPerSecond(), 2e6);
    }
}

// As of a file that was written anew behind the loss.
void renumber(Bytes& bytes) {
    std::map<int, int> counters;
    for (std::size_t at = 0; at + PACKET <= bytes.size(); at += PACKET) {
        const int pid = (bytes[at + 1] & 0x1F) << 8 | bytes[at + 2];
        const int counter = (bytes[at + 3] & 0x10) != 0 ? counters[pid]++ : counters[pid] + 15;
        bytes[at + 3] = static_cast<unsigned char>((bytes[at + 3] & 0xF0) | (counter & 0x0F));
    }
}

TEST(ALossInConstantVideo, OfWhichNoCounterTellsLeavesTheRateToo) {
    const Bytes whole = constantVideo(10'000);
    for (const Lost& lost : {datagrams(20), datagrams(8), burst(2'000, 304), burst(2'000, 1'000)}) {
        Bytes rest = without(whole, lost);
        renumber(rest);
        const Analysis analysis = analysed(rest);
        EXPECT_EQ(analysis.findings().count("continuity"), 0U);
        EXPECT_GT(analysis.findings().count("timestamps"), 0U);
        EXPECT_EQ(analysis.videoBitsPerSecond(), 2e6);
    }
    // Wherever within its pictures it begins.
    for (int from = 2'000; from < 2'060; ++from)
        for (const int count : {160, 304, 720})
            EXPECT_EQ(analysed(without(whole, burst(from, count))).videoBitsPerSecond(), 2e6)
                << count << " from " << from << " on";
}

TEST(ALossInConstantVideo, HidesNotThatItIsFarBelowTheRateOfItsHeaders) {
    const Bytes whole = constantVideo(7'000);
    EXPECT_NEAR(analysed(whole).videoBitsPerSecond(), 1.4e6, 1);
    for (const Lost& lost : {datagrams(200), burst(2'000, 1)})
        EXPECT_LT(analysed(without(whole, lost)).videoBitsPerSecond(), 1.45e6);
}

TEST(ALossInVideoThatDoesNotSayWhetherItIsConstant, LeavesTheOtherSeconds) {
    const auto video = [](std::size_t later) {
        Multiplex made;
        made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x1B, VIDEO_PID}});
        for (int i = 0; i < 250; ++i) // filler data
            made.pes(VIDEO_PID, pesHeader(90'000 + i * 3600),
                     Bytes{0, 0, 1, 0x0C} + filler(i < 200 ? 3000 : later));
        return made.bytes;
    };
    const Bytes whole = video(3000);
    ASSERT_TRUE(analysed(whole).constantBitRate());
    // A second has 425 packets.
    for (const int from : {3, 500, 2'000, 4'000})
        for (const int count : {1, 30, 100, 300, 1'000, 1'360})
            EXPECT_TRUE(analysed(without(whole, burst(from, count))).constantBitRate())
                << count << ", " << from;
    EXPECT_FALSE(analysed(without(whole, datagrams(8))).constantBitRate())
        << "of no second anything is known";
    EXPECT_FALSE(analysed(without(video(2000), burst(500, 30))).constantBitRate());
}

// --- alignment

// A picture with a sequence header in each PES packet, of that many bytes.
Bytes pictures(const std::function<std::size_t(int)>& size, int count = 60) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    for (int i = 0; i < count; ++i) {
        const Bytes head =
            i % 12 == 0 ? sequenceHeader(720, 576, 3) + sequenceExtension(0x48) + filler(2) : Bytes{};
        const Bytes picture =
            head + pictureHeader(i % 12 == 0 ? 1 : 2) + pictureCodingExtension(3, true, false);
        made.pes(VIDEO_PID, pesHeader(90'000 + i * 3600), picture + filler(size(i) - picture.size()));
    }
    return made.bytes;
}

const auto ALIGNED = [](int i) { return static_cast<std::size_t>(2000 + i % 5 * 4); };

TEST(TheAlignment, IsThatOfTheHeadersOnEitherSideOfALoss) {
    const Bytes whole = pictures(ALIGNED);
    ASSERT_TRUE(analysed(whole).video()->quadByteAligned());
    const int packets = static_cast<int>(whole.size()) / PACKET;
    for (int lost = 2; lost < packets; ++lost)
        EXPECT_TRUE(analysed(without(whole, burst(lost, 1))).video()->quadByteAligned()) << lost;
    for (const unsigned every : {4U, 10U, 30U})
        EXPECT_TRUE(analysed(without(whole, datagrams(every))).video()->quadByteAligned()) << every;
}

TEST(TheAlignment, IsThatOfTheHeadersOnEitherSideOfALossOfWhichNoCounterTells) {
    const Bytes whole = pictures(ALIGNED);
    const int packets = static_cast<int>(whole.size()) / PACKET;
    for (const int count : {16, 32, 48})
        for (int from = 2; from + count <= packets; ++from) {
            const Analysis analysis = analysed(without(whole, burst(from, count)));
            EXPECT_EQ(analysis.findings().count("continuity"), 0U);
            EXPECT_TRUE(analysis.video()->quadByteAligned()) << count << " from " << from << " on";
        }
    const Bytes odd = pictures([](int i) { return static_cast<std::size_t>(2000 + i % 5 * 3); });
    EXPECT_FALSE(analysed(without(odd, burst(300, 16))).video()->quadByteAligned());
}

TEST(TheAlignment, BeginsAnewWithAnotherFile) {
    // Whose end is at no multiple of four.
    const Bytes one = pictures([](int i) { return ALIGNED(i) + (i == 59 ? 3 : 0); });
    ASSERT_TRUE(analysed(one).video()->quadByteAligned());
    EXPECT_TRUE(analysed(one + one).video()->quadByteAligned());
}

TEST(TheAlignment, BeginsAnewWhereThatIsAnnounced) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    const auto add = [&](std::size_t size) {
        for (int i = 0; i < 10; ++i)
            made.pes(VIDEO_PID, pesHeader(90'000 + i * 3600), mpeg2Picture(2, size + (i == 9 ? 1 : 0)));
    };
    const std::size_t aligned = 4000 - mpeg2Picture(2, 0).size() % 4;
    add(aligned);
    Multiplex goesOn = made;
    made.clock(VIDEO_PID, 27'000'000, true);
    std::swap(made, goesOn);
    add(aligned);
    EXPECT_FALSE(analysed(made.bytes).video()->quadByteAligned()) << "nothing tells of another file";
    std::swap(made, goesOn);
    add(aligned);
    EXPECT_TRUE(analysed(made.bytes).video()->quadByteAligned());
}

TEST(TheAlignment, IsMissedWithLossesToo) {
    const auto odd = [](int i) { return static_cast<std::size_t>(2000 + i % 5 * 3); };
    const Bytes whole = pictures(odd);
    ASSERT_FALSE(analysed(whole).video()->quadByteAligned());
    for (const unsigned every : {4U, 10U, 30U})
        EXPECT_FALSE(analysed(without(whole, datagrams(every))).video()->quadByteAligned()) << every;
    // One packet of each picture, and nothing that could be compared without it.
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    for (int i = 0; i < 60; ++i)
        made.pes(VIDEO_PID, pesHeader(90'000 + i * 3600),
                 pictureHeader(2) + pictureCodingExtension(3, true, false) + filler(odd(i)));
    bool sinceStart = false;
    const Bytes lossy = without(made.bytes, [&](int packet, int pid) {
        const bool start = (made.bytes[static_cast<std::size_t>(packet) * PACKET + 1] & 0x40) != 0;
        return pid == VIDEO_PID && std::exchange(sinceStart, start);
    });
    EXPECT_EQ(analysed(lossy).findings().count("continuity"), 60U);
    EXPECT_FALSE(analysed(lossy).video()->quadByteAligned());
}

} // namespace
