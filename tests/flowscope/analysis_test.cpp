// Which program is analysed, how far, and what is repeated without harm: on streams made packet by packet.
#include "flowscope/Analysis.h"
#include "foundation/Bytes.h"

#include "analysed.h"
#include "flowscope/ReportValues.h"
#include "flowscope/Reports.h"
#include "foundation/ScratchDir.h"
#include "multiplex.h"
#include "streams/stream_fixtures.h"
#include "verifier/VerifierXml.h"

#include <cmath>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::flowscope;
using kestrel::test::makeStream;
using kestrel::test::streamFile;
using testing::HasSubstr;

namespace {

constexpr int VIDEO = 0x02;
constexpr int AC3 = 0x81;
constexpr int DATA = 0x06;
constexpr int FRAME = 3600; // ticks of 90 kHz at 25 a second

// So many pictures in PES packets of their own, with a clock reference before each.
void addPictures(Multiplex& stream, int pid, int count, std::int64_t begin = 0) {
    for (int i = 0; i < count; ++i) {
        const std::int64_t dts = begin + std::int64_t{i} * FRAME + 9000;
        stream.clock(pid, (dts - 9000) * 300);
        stream.pes(pid, pesHeader(dts, dts), mpeg2Picture(i % 12 == 0 ? 1 : 2));
    }
}

// --- programs

TEST(Asset, IsTheFirstProgramWithVideoInTheOrderOfTheAssociationTable) {
    // The second program's map comes first.
    Multiplex stream;
    stream.association({{1, 0x100}, {2, 0x200}, {3, 0x300}});
    stream.map(0x300, 3, 0x301, {{VIDEO, 0x301}}).map(0x200, 2, 0x201, {{VIDEO, 0x201}});
    stream.map(0x100, 1, 0x101, {{AC3, 0x101}});
    addPictures(stream, 0x201, 3);
    const Analysis analysis = analysed(stream.bytes);
    ASSERT_NE(analysis.asset(), nullptr);
    EXPECT_EQ(analysis.asset()->number, 2);
    EXPECT_EQ(analysis.videoPid(), 0x201);
    EXPECT_EQ(analysis.video()->frames(), 3U);
    ASSERT_EQ(analysis.programs().size(), 3U);
    EXPECT_EQ(analysis.programs()[0].number, 1);
}

TEST(Asset, IsNotTakenAwayByAMapThatComesLate) {
    Multiplex stream;
    stream.association({{1, 0x100}, {2, 0x200}}).map(0x200, 2, 0x201, {{VIDEO, 0x201}});
    addPictures(stream, 0x201, 30);
    stream.map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    const Analysis analysis = analysed(stream.bytes);
    EXPECT_EQ(analysis.asset()->number, 2);
    EXPECT_EQ(analysis.video()->frames(), 30U);
}

TEST(Programs, MayHaveTheirMapsOnOnePid) {
    Multiplex stream;
    stream.association({{1, 0x100}, {2, 0x100}});
    for (int i = 0; i < 5; ++i)
        stream.map(0x100, 1, 0x101, {{AC3, 0x101}}).map(0x100, 2, 0x201, {{VIDEO, 0x201}, {DATA, 0x202}});
    addPictures(stream, 0x201, 3);
    const Analysis analysis = analysed(stream.bytes);
    expectClean(analysis);
    ASSERT_NE(analysis.asset(), nullptr);
    EXPECT_EQ(analysis.asset()->number, 2);
    EXPECT_EQ(analysis.asset()->streams.size(), 2U);
}

TEST(Programs, MayHaveTheirMapsInOnePacket) {
    Multiplex stream;
    stream.association({{1, 0x100}, {2, 0x100}});
    stream.sections(0x100, Multiplex::wholeSection(2, Multiplex::mapBody(1, 0x101, {{AC3, 0x101}})) +
                               Multiplex::wholeSection(2, Multiplex::mapBody(2, 0x201, {{VIDEO, 0x201}})));
    addPictures(stream, 0x201, 3);
    const Analysis analysis = analysed(stream.bytes);
    expectClean(analysis);
    EXPECT_EQ(analysis.programs()[0].streams.size(), 1U);
    EXPECT_EQ(analysis.asset()->number, 2);
}

TEST(Programs, ThatChangeAreFoundOnceForEachChange) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    addPictures(stream, 0x101, 3);
    for (int i = 0; i < 20; ++i)
        stream.map(0x100, 1, 0x101, {{VIDEO, 0x101}, {AC3, 0x102}});
    for (int i = 0; i < 20; ++i)
        stream.map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    const Analysis analysis = analysed(stream.bytes);
    EXPECT_EQ(analysis.findings().count("program"), 2U);
    EXPECT_EQ(analysis.asset()->streams.size(), 1U) << "those that were analysed are reported";
}

TEST(Programs, WhoseMapDoesNotComeAreFound) {
    Multiplex stream;
    stream.association({{1, 0x100}, {2, 0x200}}).map(0x200, 2, 0x201, {{VIDEO, 0x201}});
    addPictures(stream, 0x201, 3);
    const Analysis analysis = analysed(stream.bytes);
    ASSERT_EQ(analysis.findings().total(), 1U);
    EXPECT_EQ(analysis.findings().first()[0].text, "program 1: its map has not come on PID 256");
    EXPECT_THAT(htmlReport(analysis, "f"), HasSubstr("program 1, without a map"));
}

TEST(Programs, WhoseMapMovesOrBearsAnotherNumberAreFound) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 7, 0x201, {{VIDEO, 0x201}});
    addPictures(stream, 0x201, 3);
    stream.association({{1, 0x180}}).map(0x180, 1, 0x201, {{VIDEO, 0x201}});
    const Analysis analysis = analysed(stream.bytes);
    EXPECT_EQ(analysis.video()->frames(), 3U) << "the streams are there all the same";
    ASSERT_EQ(analysis.findings().count("program"), 2U);
    EXPECT_THAT(analysis.findings().first()[0].text,
                HasSubstr("PID 256: it has the map of program 7, not of program 1"));
    EXPECT_THAT(analysis.findings().first()[1].text, HasSubstr("program 1 moves from PID 256 to PID 384"));
}

TEST(Programs, OfALargeMultiplexLeaveTheReportReadable) {
    Multiplex stream;
    std::vector<std::pair<int, int>> programs;
    for (int i = 1; i <= 63; ++i)
        programs.emplace_back(i, 0x20 * i);
    stream.association(programs);
    for (const auto& [number, pid] : programs) {
        std::vector<Stream> streams{{VIDEO, pid + 1}};
        for (int i = 2; i <= 16; ++i)
            streams.push_back({AC3, pid + i});
        stream.map(pid, number, pid + 1, streams);
    }
    addPictures(stream, 0x21, 3);
    const Analysis analysis = analysed(stream.bytes);
    ASSERT_EQ(analysis.programs().size(), 63U);
    const ScratchDir directory;
    const VerifierXml reader(directory.file("r.xml", xmlReport(analysis, "f")).c_str());
    ASSERT_TRUE(reader.loaded);
    EXPECT_STREQ(reader.getPmtPid(), "32");
    EXPECT_STREQ(reader.getVideoPid(), "33");
    EXPECT_EQ(reader.getNumAudios(), 15);
}

// --- bounded passes

TEST(Pass, EndsWhenAllMapsAreKnownAndNoneHasVideo) {
    Multiplex stream;
    stream.association({{1, 0x100}, {2, 0x200}}).map(0x100, 1, 0x101, {{AC3, 0x101}});
    Analysis analysis(std::nullopt);
    for (std::size_t at = 0; at < stream.bytes.size(); at += 188)
        EXPECT_TRUE(analysis.take(stream.bytes.data() + at)) << "a map is missing";
    Multiplex other;
    other.map(0x200, 2, 0x201, {{AC3, 0x201}});
    EXPECT_FALSE(analysis.take(other.bytes.data()));
}

// Packets that a pass of one second takes of a stream of a minute.
template <typename Second>
std::size_t packetsOfAMinute(Multiplex stream, Second second) {
    const std::size_t tables = stream.packets();
    for (int i = 0; i < 60; ++i)
        second(stream, i);
    Analysis analysis(1);
    std::size_t taken = 0;
    while (taken < stream.packets() && analysis.take(stream.bytes.data() + 188 * taken))
        ++taken;
    return (taken - tables) * 60 / (stream.packets() - tables); // in seconds
}

TEST(Pass, IsBoundedByTheClockWhereNoVideoTimeComes) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    // The video is scrambled: its PES headers cannot be seen.
    const auto second = [](Multiplex& into, int i) {
        into.clock(0x101, std::int64_t{i} * 27'000'000).packet(0x101, true, Bytes(184, 0xA5));
    };
    EXPECT_LE(packetsOfAMinute(stream, second), 12U);
    // Nor is there any program.
    EXPECT_LE(packetsOfAMinute(Multiplex(), second), 12U);
}

TEST(Pass, IsBoundedByTheSoundWhereThereIsNoClockEither) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}, {AC3, 0x102}});
    EXPECT_LE(packetsOfAMinute(stream,
                               [](Multiplex& into, int i) {
                                   into.pes(0x102, pesHeader(std::int64_t{i} * 90'000, -1, 0xBD),
                                            filler(100));
                               }),
              12U);
}

TEST(Pass, WithoutADurationReadsEverything) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    for (int i = 0; i < 60; ++i)
        stream.clock(0x101, std::int64_t{i} * 27'000'000);
    EXPECT_EQ(analysed(stream.bytes).packets(), stream.packets());
}

// --- packets sent twice

TEST(Duplicates, AreNeitherErrorsNorLoss) {
    const auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    Bytes twice;
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188) {
        const Bytes packet(bytes.begin() + static_cast<long>(at),
                           bytes.begin() + static_cast<long>(at + 188));
        twice = std::move(twice) + packet;
        if ((packet[3] & 0x10) != 0 && at / 188 % 3 == 0)
            twice = std::move(twice) + packet;
    }
    const Analysis once = analysed(bytes);
    const Analysis both = analysed(twice);
    expectClean(both);
    EXPECT_GT(both.duplicates(), 1000U);
    EXPECT_EQ(both.video()->bytes(), once.video()->bytes());
    EXPECT_EQ(both.video()->frames(), 75U);
    EXPECT_EQ(both.audios()[0].track.frames(), once.audios()[0].track.frames());
    EXPECT_EQ(both.clock().count(), once.clock().count());
}

TEST(Duplicates, AreTwoAndOnlyTwo) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    stream.packet(0x300, true, filler(184)).again();
    EXPECT_EQ(analysed(stream.bytes).findings().count("continuity"), 0U);
    stream.again();
    const Analysis thrice = analysed(stream.bytes);
    EXPECT_EQ(thrice.findings().count("continuity"), 1U);
    EXPECT_EQ(thrice.duplicates(), 1U);
}

TEST(Duplicates, DifferInNothingButTheClockReference) {
    const auto errorsWith = [](std::size_t changed) {
        Multiplex stream;
        stream.packet(0x300, true, filler(100));
        Bytes& bytes = stream.bytes;
        bytes[5] = 0x10; // PCR_flag, over the stuffing
        stream.again();
        bytes[188 + changed] = static_cast<unsigned char>(~bytes[188 + changed]);
        return analysed(bytes).findings().count("continuity");
    };
    EXPECT_EQ(errorsWith(6), 0U) << "the first byte of the reference";
    EXPECT_EQ(errorsWith(11), 0U) << "its last";
    EXPECT_EQ(errorsWith(12), 1U);
    EXPECT_EQ(errorsWith(187), 1U);
}

// --- times

TEST(Times, OfSoundBeforeTheVideoAndBeforeTheTurnOfTheClock) {
    const char* const INPUTS = "-itsoffset 0.3 -f lavfi -i testsrc2=size=352x288:rate=25 "
                               "-f lavfi -i sine=frequency=440:sample_rate=48000 "
                               "-t 3 -threads 1 -c:v mpeg2video -c:a ac3 -b:a 192k ";
    const Analysis plain = analysed(bytesOfFile(makeStream("audio_first", INPUTS)));
    // The clock turns at 95443.717 s: between the first sound and the first picture.
    const Analysis turned = analysed(
        bytesOfFile(makeStream("audio_before_turn", std::string(INPUTS) + "-output_ts_offset 95442.1 ")));
    const Analysis between = analysed(
        bytesOfFile(makeStream("turn_between", std::string(INPUTS) + "-output_ts_offset 95442.15 ")));
    ASSERT_TRUE(plain.audioOffsetMs());
    EXPECT_LT(*plain.audioOffsetMs(), -250);
    for (const Analysis* each : {&turned, &between}) {
        EXPECT_NEAR(each->audioOffsetMs().value_or(1e9), *plain.audioOffsetMs(), 1);
        EXPECT_NEAR(each->muxBitsPerSecond() / plain.muxBitsPerSecond(), 1, 0.01);
        EXPECT_NEAR(each->videoSeconds(), plain.videoSeconds(), 0.001);
    }
}

TEST(Times, OfSoundBeforeTheTurnAndVideoBehindIt) {
    constexpr std::int64_t TURN = std::int64_t{1} << 33;
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}, {AC3, 0x102}});
    stream.pes(0x102, pesHeader(TURN - 9000, -1, 0xBD), filler(100));
    stream.pes(0x101, pesHeader(18'000), mpeg2Picture());
    const Analysis analysis = analysed(stream.bytes);
    EXPECT_NEAR(analysis.audioOffsetMs().value_or(1e9), -300, 0.1);
}

TEST(Times, AnAnnouncedTimeBaseIsNoFinding) {
    const auto made = [](bool announced) {
        Multiplex stream;
        stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
        addPictures(stream, 0x101, 50, 900'000);
        stream.clock(0x101, 5'000'000'000, announced);
        addPictures(stream, 0x101, 50, 5'000'000'000 / 300 + 90);
        return analysed(stream.bytes);
    };
    const Analysis announced = made(true);
    expectClean(announced);
    EXPECT_EQ(announced.clock().newTimeBases(), 1U);
    EXPECT_EQ(announced.clock().jumps(), 0U);
    EXPECT_NEAR(announced.videoSeconds(), 4, 0.001);
    EXPECT_TRUE(clean(announced));
    const Analysis sudden = made(false);
    EXPECT_EQ(sudden.findings().count("PCR jump"), 1U);
    EXPECT_EQ(sudden.findings().count("timestamps"), 1U);
    EXPECT_FALSE(clean(sudden));
}

// --- rates that no code stands for

TEST(Durations, AreCountedAtEveryRate) {
    for (const auto& [rate, expected] :
         {std::pair{"15", "00:00:02:06"}, {"120", "00:00:02:48"}, {"12.5", "00:00:02:04"}}) {
        const Analysis analysis = analysed(bytesOfFile(makeStream(
            std::string("h264_at_") + rate, std::string("-f lavfi -i testsrc2=size=352x288:rate=") + rate +
                                                " -t 2.4 -threads 1 -c:v libx264 -preset ultrafast")));
        EXPECT_EQ(rateText(analysis.video()->format().rate()), rate);
        const auto frames = std::llround(analysis.video()->format().rate() * 2.4);
        EXPECT_EQ(analysis.videoFrames(), frames);
        EXPECT_EQ(durationText(analysis), expected);
    }
}

TEST(Durations, OfAnUnknownRateAreNone) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    stream.packet(0x101, true,
                  pesHeader() + pictureHeader(1) + pictureCodingExtension(3, true, false) + filler(9));
    const Analysis analysis = analysed(stream.bytes);
    EXPECT_EQ(durationText(analysis), "");
    EXPECT_EQ(analysis.videoFrames(), 1) << "counted all the same";
}

TEST(VideoRate, IsNotThatOfTheMultiplex) {
    // Quiet pictures, then noise, in a multiplex that null packets make constant.
    const Analysis analysis = analysed(bytesOfFile(
        makeStream("h264_vbr_in_cbr",
                   "-f lavfi -i \"testsrc2=size=352x288:rate=25,noise=alls=40:allf=t:enable='gt(t,2)'\" "
                   "-t 4 -threads 1 -c:v libx264 -preset ultrafast -crf 28 -muxrate 12M")));
    EXPECT_GT(analysis.nullPackets(), 0U);
    EXPECT_FALSE(analysis.constantBitRate());
}

TEST(VideoRate, IsConstantWhereEverySecondIs) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{0x1B, 0x101}});
    for (int i = 0; i < 100; ++i)
        stream.pes(0x101, pesHeader(9000 + i * FRAME), Bytes{0, 0, 1, 0x0C} + filler(3000)); // filler data
    EXPECT_TRUE(analysed(stream.bytes).constantBitRate());
    for (int i = 100; i < 200; ++i)
        stream.pes(0x101, pesHeader(9000 + i * FRAME), Bytes{0, 0, 1, 0x0C} + filler(1500));
    EXPECT_FALSE(analysed(stream.bytes).constantBitRate());
}

TEST(VideoRate, IsTheCodedOneWhereItsBytesAgreeWithinTheBuffer) {
    const auto rate = [](std::size_t more, int delay = 1234) {
        Multiplex stream;
        stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
        for (int i = 0; i < 100; ++i)
            stream.pes(0x101, pesHeader(9000 + i * FRAME),
                       pictureOf2Mbs(10'000 + (i == 0 ? more : 0), delay));
        return analysed(stream.bytes).videoBitsPerSecond();
    };
    EXPECT_EQ(rate(0), 2e6);
    EXPECT_EQ(rate(20'000), 2e6);
    EXPECT_NEAR(rate(21'000), 2e6 + 21'000 * 8 / 4, 1) << "more than the buffer";
    EXPECT_NEAR(rate(20'000, 0xFFFF), 2e6 + 20'000 * 8 / 4, 1) << "variable";
}

TEST(VideoRate, CountsWhatComesBehindALoss) {
    for (const bool damagedHeader : {false, true}) {
        Multiplex stream;
        stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
        std::uint64_t expected = 0;
        for (int i = 0; i < 50; ++i) {
            const Bytes picture = mpeg2Picture(1, 4'000);
            const Bytes header = pesHeader(9000 + i * FRAME);
            const std::size_t begin = stream.bytes.size();
            stream.pes(0x101, header, picture);
            expected += picture.size();
            if (i % 10 != 5)
                continue;
            if (damagedHeader) {
                stream.bytes[begin + 4] = 0x80; // of the start code prefix
                continue;
            }
            stream.bytes.erase(stream.bytes.begin() + static_cast<long>(begin + 2 * 188),
                               stream.bytes.begin() + static_cast<long>(begin + 3 * 188));
            expected -= 184;
        }
        const Analysis analysis = analysed(stream.bytes);
        EXPECT_EQ(analysis.video()->bytes(), expected);
        EXPECT_EQ(analysis.video()->frames(), damagedHeader ? 45U : 50U) << "it is not looked into";
        EXPECT_NEAR(analysis.videoSeconds(), 2, 1e-9);
        EXPECT_NEAR(analysis.videoBitsPerSecond(), static_cast<double>(expected) * 8 / 2, 1);
    }
}

TEST(VideoRate, LeavesOutWhatComesBeforeTheFirstPesPacketAndBehindTheEndOfAPass) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    stream.packet(0x101, false, filler(184)).packet(0x101, false, filler(184));
    const std::size_t begin = stream.bytes.size();
    for (int i = 0; i < 50; ++i)
        stream.pes(0x101, pesHeader(9000 + i * FRAME), mpeg2Picture(1, 2'000));
    const std::uint64_t size = mpeg2Picture(1, 2'000).size();
    EXPECT_EQ(analysed(stream.bytes).video()->bytes(), 50 * size);
    EXPECT_EQ(analysed(stream.bytes, 1).video()->bytes(), 25 * size);
    stream.bytes.erase(stream.bytes.begin() + static_cast<long>(begin - 188),
                       stream.bytes.begin() + static_cast<long>(begin));
    EXPECT_EQ(analysed(stream.bytes).video()->bytes(), 50 * size);
}

// Pictures of 25 a second and a clock reference before each, in a multiplex of constant rate that takes so
// much of a picture's time to send one, the first of them that long before its time.
struct Sent {
    double share;
    double lead; // seconds
    std::int64_t begin = 1000 * 90'000LL;
    int nulls = 0;                                                     // before each picture
    std::function<std::int64_t(int)> off = [](int) { return 0; };      // of a DTS, in ticks of 90 kHz
    std::function<std::int64_t(int)> clockOff = [](int) { return 0; }; // of a reference

    [[nodiscard]] Analysis pass() const {
        constexpr std::int64_t TURN = std::int64_t{1} << 33;
        constexpr std::size_t BYTES = 3000;
        Multiplex picture;
        picture.pes(0x101, pesHeader(0, 0), mpeg2Picture(1, BYTES));
        const auto packets = static_cast<double>(picture.packets() + 1) + nulls;
        const auto ticks = static_cast<std::int64_t>(share * FRAME * 300 / packets);
        Multiplex stream;
        stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
        const auto first = static_cast<std::int64_t>(stream.packets());
        for (int i = 0; i < pictures; ++i) {
            for (int k = 0; k < nulls; ++k)
                stream.null();
            const auto at = static_cast<std::int64_t>(stream.packets()) - first;
            const std::int64_t pcr = begin * 300 + at * ticks + clockOff(i) * 300;
            const std::int64_t dts = begin + std::llround(lead * 90'000) + i * FRAME + off(i);
            stream.clock(0x101, (pcr + TURN * 300) % (TURN * 300));
            stream.pes(0x101, pesHeader((dts + TURN) % TURN, (dts + TURN) % TURN), mpeg2Picture(1, BYTES));
        }
        bits = static_cast<double>(stream.packets()) * 188 * 8;
        byClock = std::round(27e6 / static_cast<double>(ticks) * 188 * 8);
        return analysed(stream.bytes);
    }
    int pictures = 100;
    mutable double bits = 0;    // of all packets
    mutable double byClock = 0; // a second
};

TEST(MultiplexRate, IsTheClocksAsLongAsTheVideoIsSentBeforeItIsDecoded) {
    for (const double share : {1.1, 1.0, 0.95}) {
        const Sent sent{share, 0.5};
        EXPECT_EQ(sent.pass().muxBitsPerSecond(), sent.byClock) << share;
    }
}

TEST(MultiplexRate, IsWhatItsContentsNeedWhereTheVideoComesEverLater) {
    constexpr std::int64_t TURN = std::int64_t{1} << 33;
    for (const std::int64_t begin : {std::int64_t{1000} * 90'000, std::int64_t{0}, TURN - 90'000 * 2,
                                     TURN - 90'000 * 4, TURN - 90'000 / 4}) {
        const Sent sent{1.2, 0.5, begin};
        const Analysis analysis = sent.pass();
        EXPECT_NEAR(analysis.muxBitsPerSecond() / (sent.bits / 4), 1, 0.01) << begin;
        EXPECT_GT(analysis.muxBitsPerSecond(), 1.15 * sent.byClock);
        ASSERT_TRUE(analysis.clock().rate());
        EXPECT_LT(analysis.clock().rate()->farthestUs, 0.01) << "although the clock shows nothing of it";
    }
}

TEST(MultiplexRate, IsTheClocksWhereTheVideoIsLateButNeedsNoMore) {
    const Sent always{0.98, -0.1};
    EXPECT_EQ(always.pass().muxBitsPerSecond(), always.byClock) << "fewer bytes than the clock has room for";
    const Sent withRoom{1.2, -0.1, 90'000'000, 4};
    EXPECT_EQ(withRoom.pass().muxBitsPerSecond(), withRoom.byClock) << "null packets between the pictures";
}

TEST(MultiplexRate, IsWhatItsContentsNeedWhereAFewNullPacketsComeAllTheSame) {
    const Sent sent{1.2, 0.5, 90'000'000, 1};
    const Analysis analysis = sent.pass();
    EXPECT_EQ(analysis.nullPackets(), 100U);
    EXPECT_NEAR(analysis.muxBitsPerSecond() / (sent.bits / 4), 1, 0.01);
}

TEST(MultiplexRate, IsTheClocksWhereTheVideoComesLateOnlyForAWhile) {
    // It takes 0.4 s longer to send it, and 0.4 s less, as sizes of pictures make it.
    Sent sent{1.0, 0.1};
    sent.pictures = 300;
    sent.off = [](int i) { return i % 100 < 50 ? -i % 100 * FRAME / 5 : (i % 100 - 100) * FRAME / 5; };
    EXPECT_EQ(sent.pass().muxBitsPerSecond(), sent.byClock);
    for (const int pictures : {60, 150, 250}) {
        sent.pictures = pictures;
        EXPECT_EQ(sent.pass().muxBitsPerSecond(), sent.byClock) << "and ends at its latest: " << pictures;
    }
}

TEST(MultiplexRate, CountsNeitherGapsNorWhatTheDecodingTimesGoBackBy) {
    for (const std::int64_t leap : {60 * 90'000LL, -60 * 90'000LL, 90'000LL / 2, -90'000LL / 2})
        for (const bool clockToo : {false, true}) {
            Sent sent{1.2, 0.5};
            sent.pictures = 300;
            sent.off = [=](int i) { return i >= 150 ? leap : 0; };
            if (clockToo)
                sent.clockOff = sent.off;
            const double rate = sent.pass().muxBitsPerSecond();
            // Half a second of twelve may count, as it might be what the video is late by.
            const double most = std::abs(leap) < 90'000 ? 0.05 : 0.01;
            EXPECT_NEAR(rate / (1.2 * sent.byClock), 1, most) << leap << ", " << clockToo;
        }
}

TEST(MultiplexRate, IsTheClocksWhereOneTimeOrReferenceIsDamaged) {
    for (const std::int64_t off : {-90'000LL, -60 * 90'000LL, -(1LL << 32) + 1})
        for (const int count : {1, 2}) {
            Sent sent{1.05, 0.5};
            sent.off = [=](int i) { return i >= 60 && i < 60 + count ? off : 0; };
            EXPECT_EQ(sent.pass().muxBitsPerSecond(), sent.byClock) << off << ", " << count;
        }
    Sent sent{1.02, 0.5};
    sent.pictures = 200;
    sent.clockOff = [](int i) { return i == 100 ? 60 * 90'000 : 0; };
    EXPECT_EQ(sent.pass().muxBitsPerSecond(), sent.byClock);
    // Of one that loses much of its lead it needs no more to be late.
    for (const int count : {1, 2, 3}) {
        Sent shrinking{1.1, 0.9};
        shrinking.pictures = 200;
        shrinking.off = [=](int i) { return i >= 60 && i < 60 + count ? -120'000 : 0; };
        const double rate = shrinking.pass().muxBitsPerSecond();
        if (count < 3)
            EXPECT_EQ(rate, shrinking.byClock) << count;
        else
            EXPECT_NEAR(rate / shrinking.byClock, 1.1, 0.01) << "three in a row are no damage";
    }
}

TEST(MultiplexRate, OfTwoProgramsIsJudgedByTheOneThatIsAnalysed) {
    // The second program's map comes later, and its video is sent in time.
    Multiplex stream;
    stream.association({{2, 0x200}, {1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    const auto add = [&stream](int pid, int count, std::int64_t lead) {
        for (int i = 0; i < count; ++i) {
            const auto time = static_cast<std::int64_t>(stream.packets()) * 300;
            stream.clock(pid, time * 300 + 27'000'000);
            stream.pes(pid, pesHeader(time + 90'000 + lead, time + 90'000 + lead), mpeg2Picture(1, 2000));
        }
    };
    add(0x101, 6, -9000);
    stream.map(0x200, 2, 0x201, {{VIDEO, 0x201}});
    add(0x201, 100, 90'000);
    const Analysis analysis = analysed(stream.bytes);
    EXPECT_EQ(analysis.asset()->number, 2);
    EXPECT_EQ(analysis.muxBitsPerSecond(), 300 * 188 * 8);
}

TEST(PesHeaders, AreReadWhereverTheyAreCut) {
    for (std::size_t first = 1; first < 19; ++first) {
        PesReader reader;
        const Bytes all = pesHeader(90'000, 45'000) + filler(20);
        reader.begin();
        std::span<const unsigned char> front(all.data(), first);
        EXPECT_FALSE(reader.takeHeader(front));
        EXPECT_FALSE(reader.inData());
        std::span<const unsigned char> rest(all.data() + first, all.size() - first);
        EXPECT_TRUE(reader.takeHeader(rest));
        EXPECT_TRUE(reader.inData());
        EXPECT_EQ(rest.size(), 20U);
        EXPECT_EQ(reader.pts().ticks(), 90'000);
        EXPECT_EQ(reader.dts().ticks(), 45'000);
    }
    PesReader none;
    none.begin();
    const Bytes bad(300, 0xFF);
    std::span<const unsigned char> bytes(bad);
    EXPECT_FALSE(none.takeHeader(bytes));
    EXPECT_FALSE(none.inData()) << "no start code prefix";
    EXPECT_TRUE(none.behindLoss());
}

TEST(PesPackets, OfWhichBytesAreMissingAreTheirStreamsUpToTheNextOne) {
    PesReader reader;
    reader.lose();
    EXPECT_FALSE(reader.behindLoss()) << "none has begun";
    const Bytes header = pesHeader(90'000);
    for (const std::size_t length : {std::size_t{3}, header.size()}) {
        reader.begin();
        std::span<const unsigned char> bytes(header.data(), length);
        reader.takeHeader(bytes);
        EXPECT_FALSE(reader.behindLoss());
        reader.lose();
        EXPECT_TRUE(reader.behindLoss()) << "in its header or behind that";
        EXPECT_FALSE(reader.inData());
    }
    reader.drop();
    reader.lose();
    EXPECT_FALSE(reader.behindLoss()) << "it was of no use before";
}

} // namespace
