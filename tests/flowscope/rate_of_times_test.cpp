// A frame rate in the headers that the decoding times contradict.
#include "analysed.h"
#include "five_seconds.h"
#include "flowscope/Analysis.h"
#include "foundation/Bytes.h"
#include "multiplex.h"
#include "streams/stream_fixtures.h"

#include <cmath>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>

using namespace kestrel::flowscope;
using kestrel::test::makeStream;
using testing::HasSubstr;
using testing::Not;

namespace {

// Pictures whose headers name 25 a second, decoded when `at` says, in seconds.
Multiplex decodedAt(const std::function<double(int)>& at, int count = 125, int timed = 1) {
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
    for (int i = 0; i < count; ++i) {
        const std::int64_t dts = BEGIN + std::llround(at(i) * SECOND);
        made.clock(VIDEO_PID, (dts - 9000) * 300);
        made.pes(VIDEO_PID, i % timed == 0 ? pesHeader(dts, dts) : pesHeader(),
                 mpeg2Picture(i % 12 == 0 ? 1 : 2, 400));
    }
    return made;
}

std::string found(const Multiplex& made) {
    return texts(analysed(made.bytes));
}

TEST(TheRateOfTheHeaders, IsContradictedOnceByAllTimes) {
    for (const double rate : {30'000 / 1001.0, 24.0, 50.0, 12.5, 100.0})
        for (const int timed : {1, 3}) {
            const Analysis analysis = analysed(decodedAt([=](int i) { return i / rate; }, 125, timed).bytes);
            EXPECT_EQ(analysis.findings().count("timestamps"), 1U) << rate << "\n" << texts(analysis);
            EXPECT_EQ(analysis.findings().total(), 1U) << rate << "\n" << texts(analysis);
            EXPECT_THAT(texts(analysis),
                        HasSubstr(" frames are decoded a second, where the headers name 25\n"));
        }
    EXPECT_THAT(found(decodedAt([](int i) { return i * 1001 / 30'000.0; })),
                HasSubstr("packet 499, PID 257: up to its last time 29.97 frames are decoded a second"));
}

TEST(TheRateOfTheHeaders, IsContradictedBesideALossOrAGap) {
    const auto slow = [](int i) { return i / 20.0 + (i >= 60 ? 0.4 : 0); };
    EXPECT_THAT(found(decodedAt(slow)), HasSubstr(": up to its last time 20 frames are"));
    Multiplex made = decodedAt([](int i) { return i / 20.0; });
    made.bytes.erase(made.bytes.begin() + 188 * 200, made.bytes.begin() + 188 * 207);
    EXPECT_THAT(found(made), HasSubstr(": up to its last time 20 frames are"));
}

TEST(TheRateOfTheHeaders, IsNotContradictedByTimesThatAreRoundedOrShake) {
    for (const double rate : {24.9, 25.0, 25.2})
        EXPECT_EQ(found(decodedAt([=](int i) { return std::round(i / rate * 1000) / 1000; })), "") << rate;
    EXPECT_EQ(found(decodedAt([](int i) { return i / 25.0 + i % 2 * 0.018; })), "");
}

TEST(TheRateOfTheHeaders, IsNotContradictedByAFewTimes) {
    EXPECT_EQ(found(decodedAt([](int i) { return i / 30.0; }, 20)), "");
}

TEST(TheRateOfTheHeaders, IsNotContradictedWherePicturesAreLeftOut) {
    for (const auto& [in, of] : {std::pair{2, 5}, {5, 6}, {9, 10}}) {
        const auto at = [in = in, of = of](int i) { return (i / in * of + i % in) / 25.0; };
        EXPECT_THAT(found(decodedAt(at)), Not(HasSubstr("headers name"))) << in << " of " << of;
    }
}

TEST(TheRateOfTheHeaders, IsNotContradictedByStillPictures) {
    EXPECT_THAT(found(decodedAt([](int i) { return i * 0.8; }, 40)), Not(HasSubstr("headers name")));
}

TEST(TheRateOfTheHeaders, IsNotContradictedByLostPictures) {
    // Two pictures in each PES packet, of which the second is lost.
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, VIDEO_PID, {{MPEG2, VIDEO_PID}});
    Bytes lossy = made.bytes;
    for (int i = 0; i < 60; ++i) {
        made.bytes.clear();
        made.clock(VIDEO_PID, (BEGIN + i * 2 * FRAME - 9000) * 300);
        made.pes(VIDEO_PID, pesHeader(BEGIN + i * 2 * FRAME, -1),
                 mpeg2Picture(1, 400) + mpeg2Picture(2, 400));
        // The packet in which the second one begins.
        made.bytes.erase(made.bytes.begin() + 188 * 3, made.bytes.begin() + 188 * 4);
        lossy.insert(lossy.end(), made.bytes.begin(), made.bytes.end());
    }
    const Analysis analysis = analysed(lossy);
    EXPECT_EQ(analysis.video()->frames(), 60U) << "else nothing is shown here";
    EXPECT_THAT(texts(analysis), Not(HasSubstr("headers name"))) << texts(analysis);
}

TEST(TheRateOfTheHeaders, MayBeFasterThanTheFramesOfH264) {
    // No fixed_frame_rate_flag: frames may be shown for several ticks.
    const std::string file = makeStream(
        "rate_h264_half", "-f lavfi -i testsrc2=size=160x128:rate=25 -t 4 -threads 1 -c:v libx264 "
                          "-preset ultrafast -bsf:v h264_metadata=tick_rate=100:fixed_frame_rate_flag=0");
    EXPECT_THAT(texts(analysed(bytesOfFile(file))), Not(HasSubstr("headers name")));
}

TEST(TheRateOfTheHeaders, IsThatOfTheTimesInRealStreams) {
    for (const char* name : {"m2_sd_24", "m2_sd_25", "m2_sd_2997", "m2_sd_ip", "m2_delivery_pids"})
        EXPECT_THAT(texts(analysed(bytesOfFile(kestrel::test::streamFile(name)))),
                    Not(HasSubstr("headers name")))
            << name;
}

} // namespace
