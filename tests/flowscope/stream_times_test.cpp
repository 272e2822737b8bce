// Streams whose pictures last differently, whose times are not in every packet, whose clock or sound does not
// come: what is found, and what is not. Made packet by packet.
#include "analysed.h"
#include "flowscope/Analysis.h"
#include "flowscope/ReportValues.h"
#include "flowscope/Reports.h"
#include "foundation/Bytes.h"
#include "multiplex.h"
#include "streams/stream_fixtures.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::flowscope;
using kestrel::test::makeStream;
using kestrel::test::streamFile;
using testing::HasSubstr;

namespace {

constexpr int VIDEO = 0x02;
constexpr int AC3 = 0x81;
constexpr int FRAME = 3600; // ticks of 90 kHz at 25 a second

void expectOne(const Analysis& analysis, const std::string& kind, const std::string& text) {
    ASSERT_EQ(analysis.findings().total(), 1U);
    EXPECT_EQ(analysis.findings().first()[0].kind, kind);
    EXPECT_THAT(analysis.findings().first()[0].text, HasSubstr(text));
}

int pidAt(const Bytes& bytes, std::size_t at) {
    return (bytes[at + 1] & 0x1F) << 8 | bytes[at + 2];
}

// The packets that are wanted, by their number and PID.
template <typename Wanted>
Bytes kept(const Bytes& bytes, Wanted wanted) {
    Bytes result;
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188)
        if (wanted(at / 188, pidAt(bytes, at)))
            result.insert(result.end(), bytes.begin() + static_cast<long>(at),
                          bytes.begin() + static_cast<long>(at + 188));
    return result;
}

// --- film in 30/1.001 frames a second: every second picture has a field that is shown twice

enum class Decoding { byTheModel, byOwnLength }; // how the multiplexer has made the decoding times

// IBBP in groups of that many pictures; the one in that place of the order of coding is left out.
Bytes telecine(int group, Decoding decoding, int pictures = 240, int missing = -1) {
    constexpr double FIELD = 1501.5;
    constexpr int B = 3;
    const auto fieldsOf = [](int place) { return place % 2 == 0 ? 3 : 2; };
    const auto begin = [](int place) { return place / 2 * 5 + place % 2 * 3; }; // in fields
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}});
    std::vector<std::pair<int, int>> coded{{0, 1}}; // place and type
    for (int anchor = 3; anchor < pictures; anchor += 3) {
        coded.emplace_back(anchor, anchor % group == 0 ? 1 : 2);
        coded.emplace_back(anchor - 2, B);
        coded.emplace_back(anchor - 1, B);
    }
    double own = 0;
    int lastAnchor = -1;
    for (int i = 0; i < static_cast<int>(coded.size()); ++i) {
        const auto [place, type] = coded[static_cast<std::size_t>(i)];
        const double byModel = type == B ? begin(place) : lastAnchor >= 0 ? begin(lastAnchor) : -2;
        const std::int64_t dts =
            90'000 + std::llround(FIELD * (decoding == Decoding::byTheModel ? byModel : own));
        const std::int64_t pts = 90'000 + std::llround(FIELD * (begin(place) + 3));
        own += fieldsOf(place);
        if (type != B)
            lastAnchor = place;
        if (i == missing)
            continue;
        Bytes headers;
        if (type == 1) {
            const int label = begin(std::max(0, place - 2)) / 2;
            headers = sequenceHeader(720, 480, 4) + sequenceExtension(0x48) +
                      gopHeader(10, label / 1800, label / 30 % 60, label % 30);
        }
        stream.clock(0x101, (dts - 9000) * 300);
        stream.pes(0x101, pesHeader(std::max(pts, dts), dts),
                   headers + pictureHeader(type) +
                       pictureCodingExtension(3, begin(place) % 2 == 0, fieldsOf(place) == 3) + filler(300));
    }
    return stream.bytes;
}

TEST(Film, WithRepeatedFieldsHasNoGapsAndNoTimeCodeJumps) {
    for (const int group : {12, 18})
        for (const Decoding decoding : {Decoding::byTheModel, Decoding::byOwnLength}) {
            const Analysis analysis = analysed(telecine(group, decoding));
            expectClean(analysis);
            EXPECT_EQ(analysis.video()->frames(), 238U);
            EXPECT_EQ(analysis.video()->fields(), 595U);
            EXPECT_NEAR(analysis.videoSeconds(), 595 * 1001 / 60'000.0, 1e-6);
            EXPECT_EQ(analysis.video()->gops().size(), group);
        }
}

TEST(Film, HasAGapWhereAPictureIsMissing) {
    // A P picture, counters going on: it is never two fields that are missing and never one.
    const Analysis analysis = analysed(telecine(12, Decoding::byTheModel, 240, 100));
    EXPECT_EQ(analysis.findings().count("timestamps"), 1U);
    EXPECT_EQ(analysis.findings().total(), 1U);
}

// --- PES packets without times

// So many pictures, of which one in so many has times, with a clock reference before each.
void addPictures(Multiplex& stream, int count, int timed = 1, std::int64_t begin = 0) {
    for (int i = 0; i < count; ++i) {
        const std::int64_t dts = begin + std::int64_t{i} * FRAME + 9000;
        stream.clock(0x101, (dts - 9000) * 300);
        stream.pes(0x101, i % timed == 0 ? pesHeader(dts, dts) : pesHeader(),
                   mpeg2Picture(i % 12 == 0 ? 1 : 2));
    }
}

Multiplex oneVideo(int pcrPid = 0x101) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, pcrPid, {{VIDEO, 0x101}});
    return stream;
}

TEST(Times, NeedNotStandInEveryPacket) {
    for (const int timed : {2, 3, 17}) {
        Multiplex stream = oneVideo();
        addPictures(stream, 100, timed);
        const Analysis analysis = analysed(stream.bytes);
        expectClean(analysis);
        EXPECT_NEAR(analysis.videoSeconds(), 4, 0.001);
    }
    // Now and then one is missing.
    Multiplex stream = oneVideo();
    for (int i = 0; i < 100; ++i) {
        const std::int64_t dts = i * FRAME + 9000;
        stream.clock(0x101, (dts - 9000) * 300);
        stream.pes(0x101, i % 7 == 3 || i % 7 == 4 ? pesHeader() : pesHeader(dts, dts),
                   mpeg2Picture(i % 12 == 0 ? 1 : 2));
    }
    expectClean(analysed(stream.bytes));
}

TEST(Times, ThatDoNotStandInEveryPacketHaveGapsAllTheSame) {
    Multiplex stream = oneVideo();
    addPictures(stream, 30, 3);
    addPictures(stream, 30, 3, 31 * FRAME);
    const Analysis analysis = analysed(stream.bytes);
    expectOne(analysis, "timestamps", "PID 257: a gap of 4.0 frames before DTS 120600");
}

// --- two files, one behind the other

TEST(TimeThatGoesBack, GoesOnBehindItsFinding) {
    const auto once = bytesOfFile(streamFile("m2_sd_25"));
    Bytes twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    const Analysis one = analysed(once);
    const Analysis two = analysed(twice);
    EXPECT_EQ(two.findings().count("timestamps"), 1U);
    EXPECT_EQ(two.video()->frames(), 150U);
    EXPECT_NEAR(two.videoSeconds(), 6, 0.041);
    EXPECT_EQ(two.videoFrames(), 150);
    EXPECT_LE(two.videoBitsPerSecond(), two.muxBitsPerSecond());
    EXPECT_NEAR(two.videoBitsPerSecond() / one.videoBitsPerSecond(), 1, 0.01);
    EXPECT_NEAR(two.muxBitsPerSecond() / one.muxBitsPerSecond(), 1, 0.02);
    EXPECT_EQ(two.findings().count("missing stream"), 0U);
}

TEST(TimeThatGoesBack, IsForgottenWhereItWasOneWrongTime) {
    Multiplex stream = oneVideo();
    for (int i = 0; i < 100; ++i) {
        const std::int64_t dts = 900'000 + i * FRAME;
        const std::int64_t told = i == 50 ? 9000 : dts;
        stream.clock(0x101, (dts - 9000) * 300);
        stream.pes(0x101, pesHeader(told, told), mpeg2Picture(i % 12 == 0 ? 1 : 2));
    }
    const Analysis analysis = analysed(stream.bytes);
    expectOne(analysis, "timestamps", "PID 257: DTS 9000 does not follow 1076400");
    EXPECT_NEAR(analysis.videoSeconds(), 4, 0.001);
}

// --- the clock

Bytes withoutClock(const Bytes& bytes, std::size_t first) {
    Bytes edited = bytes;
    for (std::size_t at = 188 * first; at + 188 <= edited.size(); at += 188)
        if ((edited[at + 3] & 0x20) != 0 && edited[at + 4] > 0)
            edited[at + 5] &= 0xEF; // PCR_flag
    return edited;
}

TEST(ProgramClock, ThatDoesNotComeIsFound) {
    const Analysis analysis = analysed(withoutClock(bytesOfFile(streamFile("m2_sd_25")), 0));
    expectOne(analysis, "PCR interval", "PID 256: no PCR comes");
    const std::string html = htmlReport(analysis, "f");
    EXPECT_THAT(html, HasSubstr("<th scope=\"row\">PCR</th><td>none</td>"));
    EXPECT_THAT(html, HasSubstr("<p>There is no PCR.</p>"));
    EXPECT_THAT(html, HasSubstr("<tr><th scope=\"row\">PCR interval</th><td>1</td></tr>"));
    EXPECT_EQ(html.find("too short"), std::string::npos);
}

TEST(ProgramClock, ThatStopsIsFound) {
    const Bytes bytes = bytesOfFile(streamFile("m2_sd_25"));
    const Analysis analysis = analysed(withoutClock(bytes, bytes.size() / 188 * 2 / 3));
    ASSERT_EQ(analysis.findings().total(), 1U);
    EXPECT_EQ(analysis.findings().first()[0].kind, "PCR interval");
    EXPECT_THAT(analysis.findings().first()[0].text,
                testing::ContainsRegex("^packet [0-9]+, PID 256: the last PCR, [01].[0-9] s before the end"));
    // Also where the pass ends before the stream.
    EXPECT_EQ(analysed(withoutClock(bytes, bytes.size() / 188 / 9), 2).findings().count("PCR interval"), 1U);
    EXPECT_EQ(analysed(bytes, 2).findings().total(), 0U);
}

TEST(ProgramClock, ThatMovesIsFoundAndFollowed) {
    Multiplex stream = oneVideo();
    addPictures(stream, 50);
    stream.map(0x100, 1, 0x1F0, {{VIDEO, 0x101}});
    const auto add = [&stream](int pid) {
        for (int i = 50; i < 100; ++i) {
            const std::int64_t dts = i * FRAME + 9000;
            stream.clock(pid, (dts - 9000) * 300);
            stream.pes(0x101, pesHeader(dts, dts), mpeg2Picture(i % 12 == 0 ? 1 : 2));
        }
    };
    Multiplex before = stream;
    add(0x1F0);
    const Analysis moved = analysed(stream.bytes);
    expectOne(moved, "program", "PID 256: the PCR of program 1 moves from PID 257 to PID 496");
    EXPECT_EQ(moved.clock().count(), 100U);
    EXPECT_EQ(moved.asset()->pcrPid, 0x101) << "the first map's is reported";
    stream = before;
    add(0x101);
    const Analysis lost = analysed(stream.bytes);
    EXPECT_EQ(lost.findings().count("program"), 1U);
    EXPECT_EQ(lost.findings().count("PCR interval"), 1U) << "there is none where the map says";
}

// --- streams that do not come, or end early

TEST(AnnouncedStreams, ThatDoNotComeAreFound) {
    Multiplex stream;
    stream.association({{1, 0x100}});
    stream.map(0x100, 1, 0x101, {{VIDEO, 0x101}, {AC3, 0x102}, {VIDEO, 0x103}, {0x11, 0x104}, {0x06, 0x105}});
    addPictures(stream, 50);
    const Analysis analysis = analysed(stream.bytes);
    std::vector<std::string> texts;
    for (const Finding& finding : analysis.findings().first()) {
        EXPECT_EQ(finding.kind, "missing stream");
        texts.push_back(finding.text);
    }
    EXPECT_THAT(texts,
                testing::ElementsAre(
                    "PID 258: no packet comes of the AC3 Audio (ATSC A/52) that is announced",
                    "PID 259: no packet comes of the MPEG-2 Video (ISO/IEC 13818-2) that is announced",
                    "PID 260: no packet comes of the AAC Audio, LATM (ISO/IEC 14496-3) that is announced"))
        << "other data may come when it likes";
    EXPECT_TRUE(analysed(stream.bytes, 1).findings().empty()) << "they may come later than that";
}

TEST(AnnouncedStreams, WithoutAFrameAreFound) {
    Multiplex stream;
    stream.association({{1, 0x100}}).map(0x100, 1, 0x101, {{VIDEO, 0x101}, {AC3, 0x102}});
    addPictures(stream, 25);
    stream.pes(0x102, pesHeader(90'000, -1, 0xBD), filler(100));
    const std::size_t last = stream.packets() - 1;
    expectOne(analysed(stream.bytes), "missing stream",
              "packet " + std::to_string(last) +
                  ", PID 258: up to its last packet no frame comes of the AC3 Audio (ATSC A/52)");
}

TEST(AnnouncedStreams, ThatEndBeforeTheOthersAreFound) {
    const Bytes bytes = bytesOfFile(streamFile("m2_sd_25"));
    const std::size_t half = bytes.size() / 188 / 2;
    const auto early = [](const Analysis& analysis, int pid) {
        EXPECT_EQ(analysis.findings().count("missing stream"), 1U);
        for (const Finding& finding : analysis.findings().first())
            if (finding.kind == "missing stream") {
                EXPECT_THAT(finding.text,
                            testing::MatchesRegex("packet [0-9]+, PID " + std::to_string(pid) +
                                                  ": its last one, [12]\\.[0-9] s before the others end"));
            }
    };
    const Bytes silent =
        kept(bytes, [&](std::size_t packet, int pid) { return packet < half || pid != 0x101; });
    early(analysed(silent), 257);
    early(analysed(kept(bytes, [&](std::size_t packet, int pid) { return packet < half || pid != 0x100; })),
          256);
    EXPECT_TRUE(analysed(silent, 2).findings().empty()) << "the pass ends before the stream";
    const std::size_t most = bytes.size() / 188 * 19 / 20;
    EXPECT_TRUE(
        analysed(kept(bytes, [&](std::size_t packet, int pid) { return packet < most || pid != 0x101; }))
            .findings()
            .empty())
        << "less than a second";
}

// --- sound that is not looked into

TEST(Sound, ThatIsNotLookedIntoIsReportedByPidAndKind) {
    const char* const PICTURES = "-f lavfi -i testsrc2=size=352x288:rate=25 -f lavfi -i "
                                 "sine=frequency=440:sample_rate=48000,aformat=channel_layouts=stereo -t 3 "
                                 "-threads 1 -c:v mpeg2video ";
    for (const auto& [name, options, kind] :
         {std::tuple{"sound_latm", "-c:a aac -mpegts_flags +latm", "AAC Audio, LATM (ISO/IEC 14496-3)"},
          {"sound_opus", "-c:a libopus", "Opus Audio (private PES)"},
          {"sound_pcm", "-c:a s302m -strict -2", "PCM Audio (SMPTE 302M)"}}) {
        const Analysis analysis = analysed(bytesOfFile(makeStream(name, std::string(PICTURES) + options)));
        expectClean(analysis);
        ASSERT_EQ(analysis.audios().size(), 1U) << name;
        EXPECT_EQ(analysis.audios()[0].pid, 257);
        EXPECT_EQ(analysis.audios()[0].track.codec(), AudioCodec::unknown);
        EXPECT_EQ(audioTypeText(analysis, analysis.audios()[0]), kind);
        EXPECT_NEAR(analysis.audios()[0].seconds(), 3, 0.3);
        EXPECT_THAT(htmlReport(analysis, "f"), HasSubstr(std::string(kind) + ", not looked into</td>"));
        EXPECT_THAT(xmlReport(analysis, "f"), HasSubstr("<AudioType value=\"" + std::string(kind) + "\" />"));
    }
}

} // namespace
