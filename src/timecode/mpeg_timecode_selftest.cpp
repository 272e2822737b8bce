// The built-in self-test, run on an installed system to check the timecode arithmetic in place.
#include "foundation/Logger.h"
#include "timecode/time_code_range_check.h"

#include <cstring>

namespace {

constexpr const char* testModule = "CaptureTests";
constexpr const char* libraryModule = "mpegParseLib";

// label stepped by frames is expected; a negative count steps back.
struct StepCase {
    int code;
    bool dropFrame;
    const char* label;
    int frames;
    const char* expected;
};

constexpr StepCase stepCases[] = {
    // 25: the flag never selects the counting rule
    {3, false, "00:00:00:00", -1, "23:59:59:24"},
    {3, true, "00:00:00:00", -1, "23:59:59;24"},
    {3, true, "23:59:59:24", 1, "00:00:00;00"},
    {3, true, "23:59:59:24", 2, "00:00:00;01"},
    {3, true, "23:59:59:24", 25, "00:00:00;24"},
    {3, true, "23:59:59:24", 1500, "00:00:59;24"},
    {3, true, "23:59:59:24", 90000, "00:59:59;24"},
    // 29.97
    {4, true, "00:00:00;00", -1, "23:59:59;29"},
    {4, true, "23:59:59;29", 1, "00:00:00;00"},
    {4, true, "23:59:59;29", -1, "23:59:59;28"},
    {4, true, "00:09:59;29", -1, "00:09:59;28"},
    {4, true, "00:10:00;02", -1, "00:10:00;01"},
    {4, false, "00:01:00:02", -1, "00:00:59:29"},
    // 30
    {5, false, "00:00:00:00", -1, "23:59:59:29"},
    {5, false, "00:01:00:02", -1, "00:01:00:01"},
    // 59.94
    {7, true, "00:00:00;00", -1, "23:59:59;59"},
};

struct FrameCountCase {
    int code;
    const char* label;
    int frameCount;
};

constexpr FrameCountCase frameCountCases[] = {
    {4, "23:59:59;29", 2589407},
    {4, "00:01:00;02", 1800},
    {4, "00:09:59;29", 17981},
    {4, "00:00:00;00", 0},
};

struct SecondsCase {
    int seconds;
    const char* expected;
};

constexpr SecondsCase secondsCases[] = {
    {3705, "01:01:45;00"},
    {7260, "02:01:00;02"},
    {360225, "04:03:45;00"},
};

struct RateCase {
    double fps;
    int code;
};

constexpr RateCase rateCases[] = {{23.976, 1}, {29.97, 4}, {59.94, 7}, {0.0, 0}, {61.0, 0}};

void checkArithmetic(kestrel::TimecodeChecks& checks) {
    for (const StepCase& c : stepCases)
        checks.label(mpeg_timecode(c.label, c.dropFrame, c.code) + c.frames, c.expected);
    for (const FrameCountCase& c : frameCountCases)
        checks.number(c.frameCount, mpeg_timecode(c.label, true, c.code).frame_count());

    const mpeg_timecode last(23, 59, 59, 24, true, 3);
    checks.number(1, ((last + 2) - 1) == (last + 1) ? 1 : 0);
    checks.label(mpeg_timecode("20:04:52;22", true, 4) - mpeg_timecode("20:00:00;00", true, 4),
                 "00:04:52;22");
    checks.label(mpeg_timecode("00:05:00:00", false, 5) - mpeg_timecode("00:00:01:10", false, 5),
                 "00:04:58:20");
}

void checkConversions(kestrel::TimecodeChecks& checks) {
    for (const SecondsCase& c : secondsCases)
        checks.label(mpeg_timecode::from_seconds(c.seconds, true, 4), c.expected);
    for (const RateCase& c : rateCases)
        checks.number(c.code, mpeg_timecode::GetFrameRateCode(c.fps));

    mpeg_timecode gop = mpeg_timecode::parse_GOP(540868, 5);
    checks.label(gop, "01:02:03:04");
    gop.dropFrame = true;
    checks.number(17322180, gop.pack_int());

    checks.number(23, mpeg_timecode(-1, 0, 0, 0, false, 5).hours);
    checks.number(1, mpeg_timecode(25, 0, 0, 0, false, 5).hours);
}

} // namespace

void kestrel::TimecodeChecks::label(mpeg_timecode actual, const char* expected) {
    if (std::strcmp(actual.windows_string(), expected) == 0)
        return;
    LogUtil::Info(libraryModule, "\t%s != %s", expected, actual.text);
    ++m_failures;
}

void kestrel::TimecodeChecks::number(int expected, int actual) {
    if (!mpeg_timecode::assertEquals(expected, actual))
        ++m_failures;
}

int kestrel::TimecodeChecks::finish() const {
    LogUtil::Info(testModule, "Timecode tests: %d failed", m_failures);
    return m_failures == 0 ? 0 : 1;
}

int mpeg_timecode::testHarness() {
    LogUtil::Info(testModule, "Timecode tests");
    kestrel::TimecodeChecks checks;
    checkArithmetic(checks);
    checkConversions(checks);
    for (const int code : {7, 1, 4, 5, 3})
        checks.number(0, testEntireTimeCodeRange(code, frameRateCodeToDropFrame(code)));
    return checks.finish();
}

int mpeg_timecode::testEntireTimeCodeRange(int code, bool dropFrame) {
    return kestrel::check_time_code_range(code, dropFrame, [](mpeg_timecode& label) {
        IncTimeCode(label.hours, label.minutes, label.seconds, label.frames, label.dropFrame,
                    label.frameRateCode);
    });
}

int kestrel::check_time_code_range(int code, bool dropFrame,
                                   const std::function<void(mpeg_timecode&)>& step) {
    constexpr int toleratedMismatches = 9;
    const mpeg_timecode start(0, 0, 0, 0, dropFrame, code);
    const int day = mpeg_timecode::rollover_frames_count(dropFrame, code);
    mpeg_timecode stepped = start;
    int mismatches = 0;
    for (int i = 0; i < day; ++i) {
        if (!mpeg_timecode::assertEquals(i, stepped.frame_count()))
            ++mismatches;
        if (!(start + i == stepped)) {
            mpeg_timecode computed = start + i;
            LogUtil::Info(libraryModule, "\tframe %d: %s != %s", i, stepped.windows_string(),
                          computed.windows_string());
            ++mismatches;
        }
        if (mismatches > toleratedMismatches)
            return 1;
        step(stepped);
    }
    // One day of steps leads back to the start.
    if (!mpeg_timecode::assertEquals(0, stepped.frame_count()))
        ++mismatches;
    return mismatches > toleratedMismatches ? 1 : 0;
}

bool mpeg_timecode::assertEquals(int expected, int actual) {
    if (expected == actual)
        return true;
    LogUtil::Info(libraryModule, "\t%d != %d", expected, actual);
    return false;
}
