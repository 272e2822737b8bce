// The checks of mpeg_timecode::testHarness and testEntireTimeCodeRange, apart from the arithmetic that they
// check, so that their failures can be shown with results that are wrong on purpose.
#pragma once

#include "timecode/mpeg_timecode.h"

#include <functional>

namespace kestrel {

// Steps from 00:00:00:00 through one day at that frame_rate_code and compares each label with its frame
// number, in both directions; step moves a label one frame on. 1 after more than nine mismatches, else 0.
// Each mismatch is logged at Info under "mpegParseLib". An unsupported code has no frames: logged, 0.
int check_time_code_range(int code, bool dropFrame, const std::function<void(mpeg_timecode&)>& step);

// Compares results with what they should be, and counts and logs (at Info) those that are not.
class TimecodeChecks {
public:
    void label(mpeg_timecode actual, const char* expected);
    void number(int expected, int actual);
    // Logs how many have failed; 0 when none has, else 1.
    [[nodiscard]] int finish() const;

private:
    int m_failures = 0;
};

} // namespace kestrel
