// A clock that drifts as it may, for long: its references are off one by one, or not at all.
#include "analysed.h"
#include "flowscope/Analysis.h"
#include "flowscope/ClockCheck.h"
#include "multiplex.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <numbers>
#include <vector>

using namespace kestrel::flowscope;

namespace {

constexpr double HERTZ = 27e6;
constexpr std::int64_t SECOND = 27'000'000;
constexpr double INTERVAL = 0.04;

// Seconds that the packets' clock is off by at that time.
using Drift = std::function<double(double)>;

// By so many hertz in a second.
Drift steady(double hertz) {
    return [=](double time) { return hertz / HERTZ * time * time / 2; };
}

double sine(double time) {
    constexpr double PERIOD = 1200;
    constexpr double DEVIATION = 5e-8;
    return DEVIATION * PERIOD / (2 * std::numbers::pi) * std::sin(2 * std::numbers::pi * time / PERIOD);
}

std::int64_t ticksOf(int reference, const Drift& drift, int each = 1) {
    const double time = reference * INTERVAL / each;
    return std::llround((time + drift(time)) * HERTZ);
}

// That one off by so many ticks.
ClockCheck clockOf(int references, const Drift& drift, int off = -1, int ticks = 0, int each = 1) {
    ClockCheck clock;
    for (int i = 0; i < references; ++i)
        clock.reference(SECOND + ticksOf(i, drift, each) + (i == off ? ticks : 0), i * 100);
    return clock;
}

double highest(const PeakProfile& profile) {
    return *std::max_element(profile.peaks().begin(), profile.peaks().end());
}

TEST(AClockThatDrifts, HasNoJitterHoweverLong) {
    for (const double hertz : {0.0027, 0.075, -0.075}) {
        const ClockCheck clock = clockOf(30'000, steady(hertz));
        EXPECT_LT(clock.jitterUs().value_or(9), 0.06) << hertz;
        EXPECT_LT(highest(clock.jitterOverTime()), 0.06) << hertz;
    }
    EXPECT_LT(clockOf(60'000, sine).jitterUs().value_or(9), 0.06);
    EXPECT_GT(clockOf(30'000, steady(1.8)).jitterUs().value_or(0), ClockCheck::jitterLimitUs);
}

TEST(AClockThatDrifts, ShowsEachReferenceThatIsOff) {
    constexpr int REFERENCES = 7'500;
    for (int off = 0; off < REFERENCES; off += off < 300 || off > REFERENCES - 300 ? 1 : 37)
        for (const int ticks : {19, -19}) {
            const ClockCheck clock = clockOf(REFERENCES, steady(ticks > 0 ? 0.075 : -0.075), off, ticks);
            EXPECT_GT(clock.jitterUs().value_or(0), 0.62) << off;
            EXPECT_EQ(clock.jitterPacket(), off * 100);
            EXPECT_GT(highest(clock.jitterOverTime()), 0.62) << off;
        }
    EXPECT_GT(clockOf(60'000, sine, 31'234, 19).jitterUs().value_or(0), 0.62);
}

// References that come more and less often: so many in so many seconds, one after the other.
TEST(AClockThatDrifts, HasNoJitterWhereItsReferencesComeMoreAndLessOften) {
    struct Span {
        int references;
        double seconds;
    };
    for (const std::vector<Span>& spans :
         {std::vector<Span>{{100, 4}, {12'000, 4}, {130, 5.2}, {8'000, 1}, {100, 3}},
          {{4'200, 1}, {4'100, 9}, {8'100, 2.6}, {200, 6}}})
        for (int off = -1; off < 16'000; off = off < 0 ? 0 : off + 1'009) {
            ClockCheck clock;
            double time = 0;
            int reference = 0;
            for (const auto& [references, seconds] : spans)
                for (int i = 0; i < references; ++i, time += seconds / references, ++reference)
                    clock.reference(SECOND + std::llround(time * HERTZ) + (reference == off ? 27 : 0),
                                    std::llround(time * 1e8));
            const double jitter = clock.jitterUs().value_or(-1);
            EXPECT_TRUE(off >= 0 && off < reference ? jitter > 0.9 : jitter >= 0 && jitter < 0.1)
                << jitter << " us, " << off;
        }
}

TEST(AClockThatDrifts, HasNoMoreJitterThanItsReferences) {
    // Late by ever more, and then early, within what is allowed; and one differently from the next.
    for (const int each : {101, 250, 307, 1'000})
        for (const bool slow : {true, false}) {
            ClockCheck clock;
            for (int i = 0; i < 7'500; ++i) {
                const auto mixed = static_cast<int>(static_cast<unsigned>(i * each) * 2'654'435'761U >> 8);
                const int off = slow ? i % each * 24 / each - 12 : mixed % 25 - 12;
                clock.reference(SECOND + ticksOf(i, steady(0)) + off, i * 100);
            }
            EXPECT_LE(clock.jitterUs().value_or(9), ClockCheck::jitterLimitUs) << each;
        }
}

TEST(AClockThatDrifts, ShowsEachOneWhereTheyComeInEveryPacket) {
    // 12,500 a second, so that no line takes ten.
    constexpr int EACH = 500;
    constexpr int REFERENCES = 100'000;
    for (const int off : {0, 1, 4'095, 4'096, 8'191, 8'192, 50'000, 99'998, 99'999}) {
        const ClockCheck clock = clockOf(REFERENCES, steady(0.075), off, 19, EACH);
        EXPECT_GT(clock.jitterUs().value_or(0), 0.62) << off;
        EXPECT_EQ(clock.jitterPacket(), off * 100);
    }
    EXPECT_LT(clockOf(REFERENCES, steady(0.075), -1, 0, EACH).jitterUs().value_or(9), 0.06);
}

TEST(AClockThatDrifts, HasNoJitterAcrossALossThatIsToldLate) {
    // Wherever between two lines it is: of twenty packets, told by the references behind it.
    for (int loss = 100; loss < 700; ++loss) {
        ClockCheck clock;
        for (int i = 0; i < 1000; ++i) {
            clock.reference(SECOND + ticksOf(i, steady(0.075)), i * 100 - (i >= loss ? 20 : 0));
            if (i == loss + 20)
                clock.lose();
        }
        EXPECT_LT(clock.jitterUs().value_or(9), 0.06) << loss;
    }
}

// A minute of 500 packets a second, a picture of video in each twenty of them, that reference off by so many
// ticks.
Bytes minute(const Drift& drift, int off = -1, int ticks = 0) {
    constexpr int VIDEO_PID = 0x101;
    constexpr std::size_t PACKETS = 20; // a picture
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{0x02, VIDEO_PID}});
    const std::size_t tables = made.packets();
    for (int i = 0; i < 1500; ++i) {
        made.clock(VIDEO_PID, SECOND + ticksOf(i, drift) + (i == off ? ticks : 0));
        const std::int64_t dts = 90'000 + 20'000 + i * 3600;
        made.pes(VIDEO_PID, pesHeader(dts, dts), mpeg2Picture(i % 12 == 0 ? 1 : 2, 300));
        while (made.packets() < tables + static_cast<std::size_t>(i + 1) * PACKETS)
            made.null();
    }
    return made.bytes;
}

TEST(AClockThatDrifts, IsNoFinding) {
    for (const double hertz : {0.075, -0.075}) {
        const Analysis analysis = analysed(minute(steady(hertz)));
        expectClean(analysis);
        EXPECT_LT(analysis.pcrJitterUs().value_or(9), 0.06);
        EXPECT_NEAR(analysis.muxBitsPerSecond() / (500 * 188 * 8), 1, 1e-5);
    }
    for (const int off : {0, 125, 250, 700, 1498, 1499})
        EXPECT_EQ(analysed(minute(steady(0.075), off, 19)).findings().count("PCR jitter"), 1U) << off;
}

} // namespace
