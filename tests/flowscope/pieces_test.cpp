// The verifier's pieces by themselves.
#include "flowscope/ClockCheck.h"
#include "flowscope/Findings.h"
#include "flowscope/GopStatistics.h"
#include "flowscope/Options.h"
#include "flowscope/RateProfile.h"
#include "flowscope/ReportValues.h"
#include "flowscope/VideoTimes.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>

using namespace kestrel::flowscope;
using testing::HasSubstr;

namespace {

// --- command line

Options parse(std::vector<std::string> words) {
    words.insert(words.begin(), "flowScope");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parseOptions(static_cast<int>(words.size()), argv.data());
}

TEST(CommandLine, IsTheServices) {
    const Options options =
        parse({"-r", "xml", "-report_dst", "/r/", "-report_name", "G-a.ts.report.xml", "-duration", "20",
               "-out_queue_name", "/job_update_q_7", "-in_queue_name", "/mgr_msg_q_7", "-f", "/in/a.ts"});
    EXPECT_EQ(options.error, "");
    EXPECT_EQ(options.format, "xml");
    EXPECT_EQ(options.reportPath(), "/r/G-a.ts.report.xml");
    EXPECT_EQ(options.durationSeconds, 20);
    EXPECT_EQ(options.outQueue, "/job_update_q_7");
    EXPECT_EQ(options.inQueue, "/mgr_msg_q_7");
    EXPECT_EQ(options.file, "/in/a.ts");
}

TEST(CommandLine, ByHandNeedsOnlyTheFile) {
    EXPECT_EQ(parse({"-f", "/in/a.ts"}).reportPath(), "./a.ts.report.xml");
    EXPECT_EQ(parse({"-r", "html", "-f", "a.ts", "-report_dst", "/r"}).reportPath(), "/r/a.ts.report.html");
    EXPECT_TRUE(parse({"--help"}).help);
    EXPECT_THAT(usage("flowScope"), HasSubstr("-f FILE"));
}

TEST(CommandLine, SaysWhatIsWrongWithIt) {
    EXPECT_EQ(parse({}).error, "no file: -f is required");
    EXPECT_EQ(parse({"-f"}).error, "option -f needs a value");
    EXPECT_EQ(parse({"-x", "-f", "a"}).error, "unknown option -x");
    EXPECT_EQ(parse({"-f", "a", "b"}).error, "unexpected argument b");
    EXPECT_EQ(parse({"-r", "pdf", "-f", "a"}).error, "-r pdf: expected xml or html");
    const Options options = parse({"-duration", "0", "-x", "-out_queue_name", "/q", "-in_queue_name", "/p"});
    EXPECT_EQ(options.error, "-duration 0: expected a number of seconds from 1 on") << "the first";
    EXPECT_EQ(options.outQueue, "/q") << "where to tell it";
    EXPECT_EQ(options.inQueue, "/p");
    for (const char* bad : {"0", "-1", "x", "5s", "99999999999999999999", ""})
        EXPECT_EQ(parse({"-duration", bad, "-f", "a"}).error,
                  std::string("-duration ") + bad + ": expected a number of seconds from 1 on");
}

// --- groups of pictures

GopStatistics gops(const std::string& coded) {
    GopStatistics statistics;
    for (const char type : coded)
        statistics.frame(type, type == 'I');
    return statistics;
}

TEST(Gops, HaveTheMostFrequentSizeAndStructure) {
    const GopStatistics regular = gops("IPBBPBB"
                                       "IBBPBBPBB"
                                       "IBBPBBPBB"
                                       "IBBPBBPBB"
                                       "IB");
    EXPECT_EQ(regular.size(), 9);
    EXPECT_EQ(regular.structure(), "IBBP");
    EXPECT_FALSE(regular.adaptive()) << "the first and the cut last one do not count";
    EXPECT_EQ(gops("IPPPIPPPIPPPI").structure(), "IP");
    EXPECT_EQ(gops("IIIIII").structure(), "I");
    EXPECT_EQ(gops("IIIIII").size(), 1);
}

TEST(Gops, ThatDifferAreAdaptive) {
    EXPECT_TRUE(gops("IPP"
                     "IPPP"
                     "IPP"
                     "IPPP"
                     "I")
                    .adaptive());
    EXPECT_TRUE(gops("IPB"
                     "IPB"
                     "IBP"
                     "IPB"
                     "I")
                    .adaptive())
        << "of one size, but of another order";
}

TEST(Gops, OfAStreamWithoutAWholeOneAreTheLongestThatThereIs) {
    EXPECT_EQ(gops("IPPPP").size(), 5);
    EXPECT_EQ(gops("IPPPPIPP").size(), 5) << "the first, although it may lack B frames";
    EXPECT_EQ(gops("IPPIPPBB").size(), 5) << "the last, although it may be cut";
    EXPECT_EQ(gops("").size(), 0);
}

// --- the clock

constexpr std::int64_t MS = 27'000;

TEST(Clock, IntervalsOfMoreThanAHundredMillisecondsAreTooLong) {
    ClockCheck clock;
    clock.reference(0, 0);
    clock.reference(100 * MS, 10);
    EXPECT_EQ(clock.tooLong(), 0U);
    clock.reference(200 * MS + 1, 20);
    EXPECT_EQ(clock.tooLong(), 1U);
    EXPECT_NEAR(clock.longestIntervalMs(), 100, 0.001);
    EXPECT_EQ(clock.count(), 3U);
}

TEST(Clock, TheWrapIsNoJump) {
    constexpr std::int64_t TURN = (std::int64_t{1} << 33) * 300;
    ClockCheck clock;
    for (int i = -50; i < 50; ++i)
        clock.reference((TURN + i * 40 * MS) % TURN, i);
    EXPECT_EQ(clock.jumps(), 0U);
    EXPECT_NEAR(clock.jitterUs().value_or(-1), 0, 1e-6);
    EXPECT_NEAR(clock.longestIntervalMs(), 40, 1e-6);
}

TEST(Clock, JumpsAreCountedAndAnnouncedOnesAreNone) {
    ClockCheck clock;
    clock.reference(1000 * MS, 0);
    clock.reference(5000 * MS, 1);
    clock.reference(100 * MS, 2);
    EXPECT_EQ(clock.jumps(), 2U);
    clock.reference(9000 * MS, 3, true);
    EXPECT_EQ(clock.jumps(), 2U);
    EXPECT_EQ(clock.newTimeBases(), 1U);
    EXPECT_EQ(clock.longestIntervalMs(), 0);
}

// References every 40 ms in every hundredth packet, that one off by so many ticks.
void addSteady(ClockCheck& clock, int count, std::int64_t time, std::int64_t packet, int off = -1,
               int ticks = 0) {
    for (int i = 0; i < count; ++i)
        clock.reference(time + i * 40 * MS + (i == off ? ticks : 0), packet + i * 100);
}

TEST(Clock, JitterIsTheDistanceFromAConstantRate) {
    ClockCheck clock;
    addSteady(clock, 101, 0, 0, 50, 27);
    EXPECT_NEAR(clock.jitterUs().value_or(-1), 1, 0.01);
    EXPECT_EQ(clock.jitterPacket(), 5000) << "the one that is off";
    EXPECT_NEAR(clock.elapsedSeconds(), 4, 1e-9);
    const PeakProfile plot = clock.jitterOverTime();
    ASSERT_EQ(plot.peaks().size(), 5U);
    EXPECT_NEAR(plot.peaks()[2], 1, 0.01);
    EXPECT_NEAR(plot.peaks()[1], 0, 0.01);
}

TEST(Clock, JitterIsThatOfTheStretchesBetweenJumps) {
    ClockCheck clock;
    addSteady(clock, 101, 0, 0, 50, 54);
    addSteady(clock, 101, 90'000 * MS, 10'100, 50, 27);
    EXPECT_EQ(clock.jumps(), 1U);
    EXPECT_NEAR(clock.jitterUs().value_or(-1), 2, 0.03) << "the first stretch's";
    EXPECT_EQ(clock.jitterPacket(), 5000);
    EXPECT_NEAR(clock.elapsedSeconds(), 8, 1e-9) << "without the jump";
}

TEST(Clock, WithoutAConstantRateThereIsNoJitter) {
    ClockCheck brief;
    addSteady(brief, 40, 0, 0);
    EXPECT_EQ(brief.jitterUs(), std::nullopt) << "not two seconds of it";
    ClockCheck variable;
    for (int i = 0; i < 200; ++i)
        variable.reference(i * 40 * MS, i * 100 + (i > 100 ? (i - 100) * 50 : 0));
    EXPECT_EQ(variable.jitterUs(), std::nullopt);
    EXPECT_TRUE(variable.jitterOverTime().peaks().empty());
    EXPECT_EQ(ClockCheck().jitterUs(), std::nullopt);
    EXPECT_EQ(ClockCheck().jitterPacket(), std::nullopt);
}

// References of a multiplex of that many bits a second, in every twentieth packet, rounded to whole ticks as
// they are written. off: ticks that each is off by.
void addOfRate(
    ClockCheck& clock, double bitsPerSecond, int count, std::int64_t time = 0, std::int64_t packet = 0,
    const std::function<std::int64_t(int)>& off = [](int) { return 0; }) {
    for (int i = 0; i < count; ++i)
        clock.reference(time + std::llround(i * (20.0 * 188 * 8) * 27e6 / bitsPerSecond) + off(i),
                        packet + i * 20);
}

double bitsOf(const ClockCheck& clock) {
    const auto rate = clock.rate();
    return rate ? rate->packetsPerSecond * 188 * 8 : 0;
}

TEST(Clock, AConstantRateIsExactHoweverLongItLasts) {
    for (const double rate : {3'750'000.0, 3'750'001.0, 3'754'321.0, 19'000'000.0, 19'392'658.0})
        for (const double seconds : {0.8, 1.5, 2.1, 5.0, 8.3, 60.0, 3600.0}) {
            ClockCheck clock;
            addOfRate(clock, rate, static_cast<int>(seconds * rate / (20 * 188 * 8)));
            EXPECT_NEAR(bitsOf(clock), rate, 0.45) << rate << " for " << seconds << " s";
        }
}

TEST(Clock, AConstantRateIsExactWithTheJitterThatIsAllowed) {
    for (const double rate : {3'750'000.0, 19'000'000.0}) {
        ClockCheck clock;
        // Half a microsecond either way, at the worst places for a line from end to end.
        const int count = static_cast<int>(10 * rate / (20 * 188 * 8));
        addOfRate(clock, rate, count, 0, 0, [count](int i) {
            return i == 0 ? 13 : i == count - 1 ? -13 : i * 7 % 27 - 13;
        });
        EXPECT_NEAR(bitsOf(clock), rate, 0.45);
        EXPECT_LE(clock.rate()->farthestUs, ClockCheck::jitterLimitUs);
        addOfRate(clock, rate, count, 10'000 * MS, count * 20, [](int i) { return i == 99 ? 20 : 0; });
        EXPECT_GT(clock.rate()->farthestUs, ClockCheck::jitterLimitUs);
    }
}

TEST(Clock, ADamagedReferenceIsInNoRate) {
    for (const std::int64_t leap : {MS, 300 * MS, -300 * MS, 900 * MS, -900 * MS, 70'000 * MS, -5'000 * MS})
        for (const int which : {1, 700, 1243}) {
            ClockCheck clock;
            addOfRate(clock, 3'750'000, 1245, 10'000 * MS, 0, [=](int i) { return i == which ? leap : 0; });
            EXPECT_NEAR(bitsOf(clock), 3'750'000, std::abs(leap) == MS ? 50 : 0.45)
                << leap << " at " << which;
        }
}

TEST(Clock, SeveralStretchesOfOneRateHaveThatRate) {
    for (const bool announced : {false, true}) {
        ClockCheck clock;
        for (int i = 0; i < 5; ++i) {
            clock.reference(i * 100'000 * MS, i * 100'000, announced);
            addOfRate(clock, 3'750'000, 1000, (i * 100'000 + 8) * MS, i * 100'000 + 20);
        }
        EXPECT_EQ(clock.jumps() + clock.newTimeBases(), 4U);
        EXPECT_NEAR(bitsOf(clock), 3'750'000, announced ? 30 : 0.45);
        addOfRate(clock, 3'850'000, 1000, 900'000 * MS, 900'000);
        EXPECT_FALSE(clock.rate()) << "one of another rate";
    }
}

TEST(Clock, WithoutAConstantRateThereIsNone) {
    EXPECT_FALSE(ClockCheck().rate());
    ClockCheck brief;
    addOfRate(brief, 3'750'000, 60);
    EXPECT_FALSE(brief.rate()) << "not half a second";
    ClockCheck variable;
    for (int i = 0; i < 200; ++i)
        variable.reference(i * 40 * MS, i * 100 + (i > 100 ? (i - 100) * 50 : 0));
    EXPECT_FALSE(variable.rate());
    ClockCheck briefly;
    for (int i = 0; i < 30; ++i)
        briefly.reference(i * 40 * MS, i * 100 + (i > 20 ? (i - 20) * 50 : 0));
    EXPECT_FALSE(briefly.rate());
    ClockCheck standing;
    for (int i = 0; i < 200; ++i)
        standing.reference(i * 40 * MS, 7);
    EXPECT_FALSE(standing.rate());
}

TEST(Clock, IntervalsAreKeptOverTime) {
    ClockCheck clock;
    addSteady(clock, 51, 0, 0);
    clock.reference(2090 * MS, 9000);
    EXPECT_EQ(clock.intervals().stepSeconds(), 1);
    ASSERT_EQ(clock.intervals().peaks().size(), 3U);
    EXPECT_NEAR(clock.intervals().peaks()[0], 40, 1e-6);
    EXPECT_NEAR(clock.intervals().peaks()[2], 90, 1e-6);
}

TEST(Clock, AMillionReferencesTakeNoMoreRoom) {
    ClockCheck clock;
    for (int i = 0; i < 1'000'000; ++i)
        clock.reference(std::int64_t{i} * 40 * MS % ((std::int64_t{1} << 33) * 300), i * 100);
    EXPECT_EQ(clock.count(), 1'000'000U);
    EXPECT_NEAR(clock.jitterUs().value_or(-1), 0, 0.1);
}

TEST(Clock, OneReferenceThatIsOffCountsHoweverManyThereAre) {
    for (const int count : {5'000, 10'000, 100'000})
        for (const int off : {1, 2, 777, 2'501, 2'502, 2'503, 4'998}) {
            // By what is not allowed within what is, either way.
            for (const int ticks : {20, -20, 27'000}) {
                ClockCheck clock;
                for (int i = 0; i < count; ++i)
                    clock.reference((1000 + i * 40) * MS + (i == off ? ticks : i * 7 % 9 - 4), i * 100);
                EXPECT_NEAR(clock.jitterUs().value_or(-1), std::abs(ticks) / 27.0,
                            0.4 + std::abs(ticks) * 1e-3);
                EXPECT_EQ(clock.jitterPacket(), off * 100) << off << " of " << count << ", " << ticks;
                const auto peaks = clock.jitterOverTime().peaks();
                ASSERT_FALSE(peaks.empty());
                EXPECT_GT(*std::max_element(peaks.begin(), peaks.end()), ClockCheck::jitterLimitUs);
            }
        }
}

TEST(Clock, OneReferenceThatIsFarOffLeavesTheRateConstant) {
    for (const int count : {200, 5'000, 50'000, 450'000})
        for (const int off : {30, 75, 76, 77, 100, 101, 102, 150})
            for (const std::int64_t ticks : {5 * MS, 20 * MS, -20 * MS, 39 * MS}) {
                ClockCheck clock;
                addSteady(clock, count, 1000 * MS, 0, off * (count / 200), static_cast<int>(ticks));
                EXPECT_GT(clock.jitterUs().value_or(-1), 4'500) << off << " of " << count << ", " << ticks;
                ASSERT_TRUE(clock.rate()) << off << " of " << count << ", " << ticks;
                EXPECT_NEAR(clock.rate()->packetsPerSecond / 2500, 1, 1e-3);
            }
}

TEST(Clock, AStretchBehindALongOneIsLookedAtAsCloselyAsAny) {
    ClockCheck clock;
    addSteady(clock, 100'000, 0, 0);
    addSteady(clock, 101, 90'000'000 * MS, 10'000'000, 50, 27);
    EXPECT_EQ(clock.jumps(), 1U);
    EXPECT_NEAR(clock.jitterUs().value_or(-1), 1, 0.01);
    EXPECT_EQ(clock.jitterPacket(), 10'005'000);
}

TEST(Clock, NothingIsLostWhereNoPaceIsKnownYet) {
    for (const bool atBeginning : {true, false}) {
        ClockCheck clock;
        if (!atBeginning)
            addSteady(clock, 101, 1000 * MS, 0);
        for (int i = 0; i < 101; ++i) {
            clock.reference((90'000 + i * 40) * MS + (i == 2 ? 27 : 0), 20'000 + i * 100, i == 0);
            if (i == 3)
                clock.suspectLoss();
        }
        EXPECT_NEAR(clock.jitterUs().value_or(-1), 1, 0.05) << "of the reference before that";
    }
}

// --- rates and findings

TEST(Rates, AreThoseOfEachSecond) {
    RateProfile rates;
    rates.add(0.1, 1000);
    rates.add(0.9, 1000);
    rates.add(1.5, 500);
    rates.add(2.5, 1);
    EXPECT_EQ(rates.stepSeconds(), 1);
    EXPECT_EQ(rates.bitsPerSecond(), (std::vector<double>{16'000, 4'000})) << "the last second is not whole";
    rates.add(-5, 1000);
    EXPECT_EQ(rates.bitsPerSecond()[0], 24'000);
}

TEST(Rates, OfADayTakeNoMoreRoom) {
    RateProfile rates;
    for (int second = 0; second <= 86'400; ++second)
        rates.add(second, 1000);
    EXPECT_EQ(rates.stepSeconds(), 32);
    EXPECT_LE(rates.bitsPerSecond().size(), RateProfile::mostSteps);
    EXPECT_NEAR(rates.bitsPerSecond()[100], 8000, 1);
    rates.add(1e300, 1);
    EXPECT_LE(rates.bitsPerSecond().size(), RateProfile::mostSteps);
}

TEST(Rates, PeaksAreTheLargestOfEachStep) {
    PeakProfile peaks;
    peaks.add(0.5, 3);
    peaks.add(0.6, 2);
    peaks.add(1.5, 7);
    EXPECT_EQ(peaks.peaks(), (std::vector<double>{3, 7}));
    peaks.add(RateProfile::mostSteps, 1);
    EXPECT_EQ(peaks.stepSeconds(), 2);
    EXPECT_EQ(peaks.peaks()[0], 7) << "of two steps in one";
}

TEST(Rates, MeasuredOnesStandForTheNearestOfTheTable) {
    EXPECT_EQ(nominalFrameRate(29.9701).numerator, 30'000);
    EXPECT_EQ(nominalFrameRate(29.995).numerator, 30);
    EXPECT_EQ(nominalFrameRate(23.98).numerator, 24'000);
    EXPECT_EQ(nominalFrameRate(15.001).numerator, 15);
    EXPECT_EQ(nominalFrameRate(12.5).value(), 12.5);
    EXPECT_EQ(nominalFrameRate(0).numerator, 0);
}

void take(VideoTimes& times, PTS time, const VideoTimes::Place& place, Findings& findings) {
    times.settle(time, place, std::nullopt, findings);
    times.take(times.continued(time, time, place), place, findings);
}

// Decoding times of frames at that rate in ticks of 90 kHz, as they are rounded.
FrameRate rateOf(double rate, int count, double framesOfStep = 1) {
    VideoTimes times;
    Findings findings;
    for (int i = 0; i < count; ++i) {
        const PTS time = PTS::from_ticks(std::llround(i * 90'000 * framesOfStep / rate));
        const VideoTimes::Place place{0, 0x100, 0, framesOfStep};
        take(times, time, place, findings);
    }
    EXPECT_TRUE(findings.empty());
    return times.frameRate(static_cast<std::uint64_t>(std::llround(count * framesOfStep)));
}

TEST(Rates, AreToldByTheStepsOfTheTimes) {
    for (std::size_t code = 1; code < codedFrameRates.size(); ++code) {
        const double rate = codedFrameRates[code].value();
        EXPECT_EQ(rateOf(rate, 75).value(), rate);
        EXPECT_EQ(rateOf(rate, 75, 0.5).value(), rate) << "a PES packet for each field";
        EXPECT_EQ(rateOf(rate, 75, 12).value(), rate) << "one for each GOP";
    }
    EXPECT_EQ(rateOf(25, 1).numerator, 0) << "no step";
}

TEST(DecodingTimes, AreNoGapsWhereTheHeadersNameAnotherRate) {
    VideoTimes times;
    Findings findings;
    for (int i = 0; i < 50; ++i) {
        const PTS time = PTS::from_ticks(std::int64_t{i} * 3600 + (i >= 40 ? 36'000 : 0));
        const VideoTimes::Place place{0, 0x100, 50, 1};
        take(times, time, place, findings);
    }
    ASSERT_EQ(findings.total(), 1U) << "all at half of it, and one that is one";
    EXPECT_EQ(findings.first()[0].text, "packet 0, PID 256: a gap of 22.0 frames before DTS 180000");
}

TEST(DecodingTimes, StayInBoundsAtARateOfCenturies) {
    VideoTimes times;
    Findings findings;
    for (int i = 0; i < 10'000; ++i) {
        const PTS time = PTS::from_ticks(i % 2 == 0 ? (std::int64_t{1} << 33) - 1 : 0);
        const VideoTimes::Place place{0, 0x100, 1e-10, 1e9};
        if (i % 3 == 0)
            times.expectNewTimeBase();
        take(times, time, place, findings);
    }
    EXPECT_GE(times.shownSeconds(), 0);
}

TEST(FindingsList, KeepsTheFirstOfEachKindAndCountsAll) {
    Findings findings;
    EXPECT_TRUE(findings.empty());
    for (int i = 0; i < 1000; ++i)
        findings.add("continuity", std::to_string(i));
    findings.add("sync", "x");
    EXPECT_EQ(findings.first().size(), Findings::mostOfAKind + 1);
    EXPECT_EQ(findings.count("continuity"), 1000U);
    EXPECT_EQ(findings.count("sync"), 1U);
    EXPECT_EQ(findings.count("nothing"), 0U);
    EXPECT_EQ(findings.total(), 1001U);
    EXPECT_EQ(findings.counts(), (std::map<std::string, std::uint64_t>{{"continuity", 1000}, {"sync", 1}}));
}

TEST(Texts, OfRatesHaveNoZerosAtTheEnd) {
    EXPECT_EQ(rateText(25), "25");
    EXPECT_EQ(rateText(30000.0 / 1001), "29.97");
    EXPECT_EQ(rateText(24000.0 / 1001), "23.976");
    EXPECT_EQ(rateText(60000.0 / 1001), "59.94");
    EXPECT_EQ(rateText(0), "");
    EXPECT_EQ(bitRateText(1234567.8), "1234568");
    EXPECT_EQ(bitRateText(0), "");
}

} // namespace
