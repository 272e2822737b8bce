// The frame-rate helpers.
#include "foundation/Logger.h"
#include "timecode/frame_rates.h"
#include "timecode/mpeg_timecode.h"

#include <atomic>

namespace {

using kestrel::findFrameRate;
using kestrel::FrameRate;

void logInvalidCode(int code, const char* function) {
    LogUtil::Error("mpegParseLib", "Invalid Frame Rate Code %d in Function:  %s", code, function);
}

} // namespace

double mpeg_timecode::fps(int code) {
    const FrameRate* rate = findFrameRate(code);
    if (rate == nullptr) {
        logInvalidCode(code, "fps");
        return 0.0;
    }
    return rate->fps;
}

int mpeg_timecode::fps_ceil(int code) {
    const FrameRate* rate = findFrameRate(code);
    if (rate != nullptr)
        return rate->labelsPerSecond;

    // Asked once a frame by some callers: a wrong code must not fill the log. The counter stops at the limit,
    // so that it never wraps round to zero.
    constexpr int maxLoggedErrors = 5;
    static std::atomic<int> iMaxErrorCount{0};
    int count = iMaxErrorCount.load(std::memory_order_relaxed);
    while (count < maxLoggedErrors) {
        if (iMaxErrorCount.compare_exchange_weak(count, count + 1, std::memory_order_relaxed)) {
            logInvalidCode(code, "fps_ceil");
            break;
        }
    }
    return 0;
}

bool mpeg_timecode::IsFrameRateIntegral(int code) {
    const FrameRate* rate = findFrameRate(code);
    return rate != nullptr && rate->integral();
}

bool mpeg_timecode::supportedFrameRate(int code) {
    return findFrameRate(code) != nullptr;
}

// The order is the definition: a measured rate is rarely exact, and 24.5 means 29.97 here, 40 means 59.94.
int mpeg_timecode::GetFrameRateCode(double rate) {
    if (rate == 0.0)
        return 0;
    if (rate < 24.0)
        return 1;
    if (rate == 24.0)
        return 2;
    if (rate == 25.0)
        return 3;
    if (rate < 30.0)
        return 4;
    if (rate == 30.0)
        return 5;
    if (rate == 50.0)
        return 6;
    if (rate < 60.0)
        return 7;
    if (rate == 60.0)
        return 8;
    return 0;
}

bool mpeg_timecode::frameRateCodeToDropFrame(int code) {
    const FrameRate* rate = findFrameRate(code);
    if (rate == nullptr) {
        logInvalidCode(code, "frameRateCodeToDropFrame");
        return true;
    }
    return !rate->integral();
}

int mpeg_timecode::rollover_frames_count(bool /*dropFrame*/, int code) {
    const FrameRate* rate = findFrameRate(code);
    if (rate == nullptr) {
        logInvalidCode(code, "rollover_frames_count");
        return 0;
    }
    return rate->framesPerDay();
}
