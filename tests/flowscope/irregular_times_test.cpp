// Pictures that come irregularly: pauses of seconds between them, which are none of their faults, and times
// that overlap, which are.
#include "five_seconds.h"
#include "flowscope/ReportValues.h"
#include "foundation/Bytes.h"
#include "mpeg/ts_file.h"
#include "streams/ffprobe.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

using namespace kestrel::flowscope;
using kestrel::test::Ffprobe;
using kestrel::test::makeStream;
using testing::HasSubstr;
using testing::Not;

namespace {

// --- streams whose frame rate varies, against ffprobe

// A stream of 25 pictures a second and sound, of which only some are coded.
struct Slides {
    const char* name;
    const char* seconds;
    const char* kept; // of ffmpeg's select, by the number n
    int bPictures = 0;
};

const Slides SLIDES[] = {
    {"slides_seldom", "60", "eq(n\\,0)+lt(random(1)\\,0.03)"},
    {"slides_now_and_then", "60", "eq(n\\,0)+lt(random(1)\\,0.1)"},
    {"slides_in_threes", "60", "lt(mod(n\\,250)\\,3)+eq(mod(n\\,250)\\,80)+eq(mod(n\\,250)\\,160)"},
    {"slides_behind_motion", "60", "lt(mod(n\\,250)\\,100)+eq(mod(n\\,250)\\,150)+eq(mod(n\\,250)\\,200)"},
    {"slides_at_the_end", "60", "lt(n\\,1000)+eq(n\\,1100)+eq(n\\,1300)+eq(n\\,1499)"},
    {"slides_two_at_the_end", "60", "lt(n\\,1000)+eq(n\\,1100)+eq(n\\,1499)"},
    {"slides_one_at_the_end", "60", "lt(n\\,1000)+eq(n\\,1499)"},
    {"slides_title", "20", "eq(n\\,0)+gte(n\\,100)"},
    {"slides_two_titles", "20", "eq(n\\,0)+eq(n\\,75)+gte(n\\,250)"},
    {"slides_titles", "30", "eq(n\\,0)+eq(n\\,75)+eq(n\\,250)+gte(n\\,350)"},
    {"slides_b_in_threes", "60",
     "lt(mod(n\\,250)\\,3)+eq(mod(n\\,250)\\,80)+eq(mod(n\\,250)\\,160)+gte(n\\,1480)", 2},
    {"slides_b_behind_motion", "60",
     "lt(mod(n\\,250)\\,100)+eq(mod(n\\,250)\\,150)+eq(mod(n\\,250)\\,200)+gte(n\\,1480)", 2},
};

class AVideoWithPauses : public testing::TestWithParam<Slides> {
protected:
    static std::string file() {
        const Slides& slides = GetParam();
        return makeStream(slides.name, std::string("-f lavfi -i testsrc2=size=160x128:rate=25:duration=") +
                                           slides.seconds +
                                           " -f lavfi -i "
                                           "sine=frequency=440:sample_rate=48000:duration=" +
                                           slides.seconds + " -threads 1 -vf select='" + slides.kept +
                                           "' -fps_mode vfr -c:v libx264 -x264-params b-adapt=0:bframes=" +
                                           std::to_string(slides.bPictures) + " -c:a ac3 -b:a 96k");
    }
};

TEST_P(AVideoWithPauses, LosesNoPictureAndNoSecond) {
    const std::string path = file();
    const Analysis analysis = analysed(bytesOfFile(path));
    const auto packets = Ffprobe(path).packets("v:0");
    ASSERT_FALSE(packets.empty());
    std::int64_t first = packets.front().pts;
    std::int64_t last = first;
    for (const auto& packet : packets) {
        first = std::min(first, packet.pts);
        last = std::max(last, packet.pts);
    }
    EXPECT_EQ(analysis.video()->frames(), packets.size());
    EXPECT_NEAR(analysis.videoSeconds(), static_cast<double>(last - first) / SECOND + 0.04, 0.001)
        << texts(analysis);
    // A break is told, but none of its times is damaged.
    EXPECT_THAT(texts(analysis), Not(HasSubstr(" lies ")));
    EXPECT_THAT(texts(analysis), Not(HasSubstr("does not follow")));
    EXPECT_THAT(texts(analysis), Not(HasSubstr("a step of")));
    EXPECT_EQ(analysis.findings().count("missing stream") > 0,
              analysis.videoSeconds() + 1 < analysis.seconds())
        << texts(analysis);
}

INSTANTIATE_TEST_SUITE_P(Slides, AVideoWithPauses, testing::ValuesIn(SLIDES),
                         [](const auto& each) { return each.param.name; });

// --- of five seconds, with pauses and the clock's opinion of them

// Before the picture with that number.
using Pauses = std::vector<std::pair<int, double>>;

std::int64_t pausedFor(const Pauses& pauses, int i) {
    double seconds = 0;
    for (const auto& [picture, length] : pauses)
        seconds += i >= picture ? length : 0;
    return static_cast<std::int64_t>(seconds * SECOND);
}

enum class ClockKind { goesOn, standsStill, none };

// Pictures that are shown in the order in which they are sent.
Bytes withPauses(const Pauses& pauses, ClockKind kind, const Change& change = unchanged) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
    for (int i = 0; i < PICTURES; ++i) {
        const std::int64_t even = BEGIN + i * FRAME;
        Times times{even + pausedFor(pauses, i), even + pausedFor(pauses, i)};
        const std::int64_t clock = (kind == ClockKind::goesOn ? times.dts : even) - 9000;
        change(i, times);
        if (kind != ClockKind::none)
            made.clock(VIDEO_PID, coded(clock) * 300);
        made.pes(VIDEO_PID, pesHeader(coded(times.pts), coded(times.dts)), mpeg2Picture(i % 12 == 0 ? 1 : 2));
    }
    return made.bytes;
}

constexpr int LAST = PICTURES - 1;
const Pauses PAUSES[] = {
    {{LAST, 8}},
    {{LAST - 1, 4}},
    {{LAST - 1, 4}, {LAST, 8}},
    {{LAST - 2, 3}, {LAST - 1, 4}, {LAST, 8}},
    {{50, 3}, {51, 20}, {52, 1.5}},
    {{50, 3}, {51, 20}},
    {{50, 99}},
    {{1, 4}},
    {{1, 4}, {2, 7}},
    {{1, 4}, {2, 7}, {3, 5}, {4, 2}},
};

TEST(Pauses, CountWhereTheClockGoesWithThem) {
    for (const Pauses& pauses : PAUSES) {
        const Analysis analysis = analysed(withPauses(pauses, ClockKind::goesOn));
        EXPECT_NEAR(analysis.videoSeconds(), 5 + static_cast<double>(pausedFor(pauses, LAST)) / SECOND, 0.001)
            << texts(analysis);
        EXPECT_GE(analysis.findings().count("timestamps"), 1U) << texts(analysis);
        EXPECT_LE(analysis.findings().count("timestamps"), pauses.size()) << texts(analysis);
        EXPECT_THAT(texts(analysis), Not(HasSubstr(" lies ")));
        EXPECT_THAT(texts(analysis), Not(HasSubstr("does not follow")));
    }
}

TEST(Pauses, CountWithoutAClockButForASingleLastPicture) {
    for (const Pauses& pauses : PAUSES) {
        if (pauses.back().first == LAST && pauses.size() == 1)
            continue;
        // A single first picture may as well be the damaged one.
        if (pauses.front().first == 1 && pauses.size() == 1)
            continue;
        const Analysis analysis = analysed(withPauses(pauses, ClockKind::none));
        EXPECT_NEAR(analysis.videoSeconds(), 5 + static_cast<double>(pausedFor(pauses, LAST)) / SECOND, 0.001)
            << texts(analysis);
    }
    const Analysis single = analysed(withPauses({{LAST, 8}}, ClockKind::none));
    EXPECT_NEAR(single.videoSeconds(), 5, 0.001);
    EXPECT_THAT(texts(single), HasSubstr(" lies 8.0 s ahead of the times before it"));
}

TEST(Pauses, AtTheEndAreDamagedTimesWhereTheClockSaysSo) {
    for (const Pauses& pauses : {Pauses{{LAST, 8}}, Pauses{{LAST - 1, 4}, {LAST, 8}}}) {
        const Analysis analysis = analysed(withPauses(pauses, ClockKind::standsStill));
        EXPECT_NEAR(analysis.videoSeconds(), 5, 0.001) << texts(analysis);
        EXPECT_EQ(analysis.findings().count("timestamps"), pauses.size()) << texts(analysis);
    }
}

TEST(Pauses, HideNoDamagedTime) {
    for (const std::int64_t leap : LEAPS)
        for (const int damaged : {30, 49, 60, LAST})
            for (const ClockKind kind : {ClockKind::goesOn, ClockKind::none}) {
                SCOPED_TRACE(testing::Message() << "leap " << leap << ", picture " << damaged);
                const Analysis analysis =
                    analysed(withPauses({{50, 3}, {51, 20}, {52, 1.5}}, kind, [&](int i, Times& times) {
                        times.pts += i == damaged ? leap : 0;
                        times.dts += i == damaged ? leap : 0;
                    }));
                EXPECT_NEAR(analysis.videoSeconds(), 29.5, 0.041) << texts(analysis);
                // In order between a time before it and a pause behind it, it is as good as any.
                if (damaged == 49 && leap > 0 && leap < 3 * SECOND)
                    continue;
                const std::string found = texts(analysis);
                EXPECT_TRUE(found.find(" lies ") != std::string::npos ||
                            found.find("does not follow") != std::string::npos)
                    << found;
            }
}

TEST(Pauses, EndABoundedPassWhereTheyReachIt) {
    for (const Pauses& pauses :
         {Pauses{{LAST, 8}}, Pauses{{LAST - 1, 4}, {LAST, 8}}, Pauses{{LAST - 1, 4}}}) {
        const Analysis analysis = analysed(withPauses(pauses, ClockKind::goesOn), 6);
        const auto before = static_cast<unsigned>(pauses.front().first);
        EXPECT_EQ(analysis.video()->frames(), before);
        EXPECT_NEAR(analysis.videoSeconds(), before * 0.04, 0.001) << texts(analysis);
        EXPECT_TRUE(analysis.full());
    }
    const Analysis within = analysed(withPauses({{LAST, 8}}, ClockKind::goesOn), 20);
    EXPECT_EQ(within.video()->frames(), 125U);
    EXPECT_NEAR(within.videoSeconds(), 13, 0.001);
}

// --- times that overlap

// From that picture on earlier by so many ticks.
Change earlier(int from, std::int64_t by) {
    return [=](int i, Times& times) {
        times.pts -= i >= from ? by : 0;
        times.dts -= i >= from ? by : 0;
    };
}

TEST(AStep, ThatIsFarShorterThanItsFramesIsTold) {
    // One millisecond behind the one before, the others each a frame behind it.
    for (const int from : {2, 3, 50, LAST}) {
        const Analysis analysis = analysed(withPauses({}, ClockKind::goesOn, earlier(from, FRAME - 90)));
        EXPECT_EQ(analysis.findings().count("timestamps"), 1U) << from << "\n" << texts(analysis);
        EXPECT_EQ(analysis.findings().total(), 1U) << from << "\n" << texts(analysis);
        EXPECT_THAT(texts(analysis),
                    HasSubstr("a step of 0.03 frames to DTS " +
                              std::to_string(BEGIN + (from - 1) * FRAME + 90) + ", where 1.0 are sent"));
    }
    // The first one is borne out by those behind it.
    const Analysis first = analysed(withPauses({}, ClockKind::goesOn, earlier(1, FRAME - 90)));
    EXPECT_EQ(first.findings().count("timestamps"), 1U) << texts(first);
    EXPECT_THAT(texts(first), HasSubstr("a step of 0.03 frames"));
}

TEST(AStep, ToOneTimeThatIsEarlyIsToldOnce) {
    for (const std::int64_t by : {std::int64_t{FRAME - 90}, std::int64_t{FRAME + 90}, 9 * SECOND / 10})
        for (const int damaged : {1, 2, 50, LAST}) {
            const Analysis analysis = analysed(withPauses({}, ClockKind::goesOn, [&](int i, Times& times) {
                times.pts -= i == damaged ? by : 0;
                times.dts -= i == damaged ? by : 0;
            }));
            EXPECT_EQ(analysis.findings().count("timestamps"), 1U) << by << ", " << damaged << "\n"
                                                                   << texts(analysis);
            EXPECT_THAT(texts(analysis), HasSubstr(by < FRAME ? "a step of 0.03 frames" : "does not follow"));
        }
}

TEST(AStep, BehindSeveralFramesIsMeasuredByThem) {
    // A PES packet in so many has times.
    for (const int every : {2, 5}) {
        Multiplex made;
        made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
        for (int i = 0; i < PICTURES; ++i) {
            const std::int64_t dts = BEGIN + i * FRAME - (i >= 60 ? 2 * FRAME - FRAME / 4 : 0);
            made.clock(VIDEO_PID, (dts - 9000) * 300);
            made.pes(VIDEO_PID, i % every == 0 ? pesHeader(dts, dts) : pesHeader(),
                     mpeg2Picture(i % 12 == 0 ? 1 : 2));
        }
        const Analysis analysis = analysed(made.bytes);
        EXPECT_EQ(analysis.findings().count("timestamps"), 1U) << texts(analysis);
        EXPECT_THAT(texts(analysis),
                    HasSubstr(every == 2 ? "a step of 0.25 frames" : "a step of 3.25 frames"));
        EXPECT_THAT(texts(analysis), HasSubstr(every == 2 ? "where 2.0 are sent" : "where 5.0 are sent"));
    }
}

TEST(AStep, OfHalfAFrameOrMoreIsInOrder) {
    // As where a field is repeated.
    const Analysis analysis = analysed(withPauses({}, ClockKind::goesOn, [](int i, Times& times) {
        times.pts += i % 2 * FRAME / 2;
        times.dts += i % 2 * FRAME / 2;
    }));
    expectClean(analysis);
}

TEST(AStep, OfAllPicturesThatIsShorterThanTheHeadersSayIsNoneOfThem) {
    // Headers that name 25 a second, and times of 100.
    const Analysis analysis = analysed(withPauses(
        {}, ClockKind::goesOn, [](int i, Times& times) { times.pts = times.dts = BEGIN + i * FRAME / 4; }));
    EXPECT_EQ(analysis.findings().count("timestamps"), 1U) << texts(analysis);
    EXPECT_THAT(texts(analysis), Not(HasSubstr("a step of")));
}

// --- how many frames

TEST(TheSummary, TellsFramesThatAreMissingFromThoseThatAreThere) {
    EXPECT_THAT(summary(undamaged()), testing::StartsWith("125 frames, 00:00:05:00, 720x576 at 25, "));
    const Analysis missing = analysed(withPauses({{50, 0.08}}, ClockKind::goesOn));
    EXPECT_THAT(summary(missing), testing::StartsWith("125 frames that last as long as 127, 00:00:05:02, "));
}

} // namespace
