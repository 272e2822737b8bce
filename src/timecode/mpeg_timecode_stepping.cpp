// Validity of labels, the labels that drop-frame counting skips, and stepping by frames.
#include "timecode/frame_rates.h"
#include "timecode/mpeg_timecode.h"

#include <cmath>
#include <cstdint>

namespace {

using kestrel::findFrameRate;

// The second-0 labels of a minute that is no multiple of ten, below the given one, do not exist. Compared as
// unsigned: a negative label is not among them.
bool isDroppedLabel(int m, int s, int f, unsigned dropped) {
    return m % 10 != 0 && s == 0 && static_cast<unsigned>(f) < dropped;
}

constexpr unsigned twoLabels = 2;
constexpr unsigned fourLabels = 4;

unsigned droppedLabels(int code) {
    const auto* rate = findFrameRate(code);
    return rate != nullptr ? static_cast<unsigned>(rate->droppedLabels) : 0;
}

int skip(int m, int s, int& f, unsigned dropped) {
    if (isDroppedLabel(m, s, f, dropped))
        f = static_cast<int>(dropped);
    return 0;
}

} // namespace

bool mpeg_timecode::TimeCodeInbounds(int h, int m, int s, int f, double fps) {
    // The comparison in double is the same as with (int)ceil(fps), and defined for every rate.
    return std::ceil(fps) > f && s <= 59 && m <= 59 && h <= 23;
}

bool mpeg_timecode::DropFrameTimeCodeIsValid(int /*h*/, int m, int s, int f) {
    return !isDroppedLabel(m, s, f, twoLabels);
}

bool mpeg_timecode::DropFrameTimeCodeIsValid(int h, int m, int s, int f, int code) {
    if (code == 7)
        return !isDroppedLabel(m, s, f, fourLabels);
    return DropFrameTimeCodeIsValid(h, m, s, f);
}

bool mpeg_timecode::IsTimecodeValid(int h, int m, int s, int f, int code) {
    if (!TimeCodeInbounds(h, m, s, f, fps(code)))
        return false;
    return IsFrameRateIntegral(code) || DropFrameTimeCodeIsValid(h, m, s, f, code);
}

int mpeg_timecode::SkipOverDropFrames(int& /*h*/, int& m, int& s, int& f) {
    return skip(m, s, f, twoLabels);
}

// The 59.94 rule, named for the encoder whose 720p output it was first met on.
int mpeg_timecode::SkipOverDropFrames_6140_720p59(int& /*h*/, int& m, int& s, int& f) {
    return skip(m, s, f, fourLabels);
}

int mpeg_timecode::SkipOverDropFrames(int& /*h*/, int& m, int& s, int& f, int code) {
    return skip(m, s, f, droppedLabels(code));
}

bool mpeg_timecode::NeedToSkipOverDropFrames(const int& /*h*/, const int& m, const int& s, const int& f) {
    return isDroppedLabel(m, s, f, twoLabels);
}

bool mpeg_timecode::NeedToSkipOverDropFrames_6140_720p59(const int& /*h*/, const int& m, const int& s,
                                                         const int& f) {
    return isDroppedLabel(m, s, f, fourLabels);
}

bool mpeg_timecode::NeedToSkipOverDropFrames(const int& /*h*/, const int& m, const int& s, const int& f,
                                             int code) {
    return isDroppedLabel(m, s, f, droppedLabels(code));
}

void mpeg_timecode::IncTimeCode(int& h, int& m, int& s, int& f, bool /*dropFrame*/, int code) {
    // Each field is looked at, not only the one below that carried: a time given out of bounds comes back in.
    // Without a rate every label is the last of its second.
    const int labels = static_cast<int>(std::ceil(fps(code)));
    std::int64_t nextFrame = std::int64_t{f} + 1;
    std::int64_t nextSecond = s;
    std::int64_t nextMinute = m;
    std::int64_t nextHour = h;
    if (nextFrame >= labels) {
        nextFrame = 0;
        ++nextSecond;
    }
    if (nextSecond > 59) {
        nextSecond = 0;
        ++nextMinute;
    }
    if (nextMinute > 59) {
        nextMinute = 0;
        ++nextHour;
    }
    if (nextHour > 23)
        nextHour = 0;
    h = static_cast<int>(nextHour);
    m = static_cast<int>(nextMinute);
    s = static_cast<int>(nextSecond);
    f = static_cast<int>(nextFrame);
    SkipOverDropFrames(h, m, s, f, code);
}

void mpeg_timecode::IncTimeCode(int n, int& h, int& m, int& s, int& f, bool /*dropFrame*/, int code) {
    const int labels = static_cast<int>(std::ceil(fps(code)));
    if (labels <= 0)
        return; // no rate, so no way to tell what n frames are

    // Moves whole units of the lower field, when it is over its last value, into the higher one.
    const auto carry = [](std::int64_t& lower, std::int64_t& higher, int unit) {
        if (lower >= unit) {
            higher += lower / unit;
            lower %= unit;
        }
    };
    std::int64_t newHour = h;
    std::int64_t newMinute = m;
    std::int64_t newSecond = s;
    std::int64_t newFrame = std::int64_t{f} + n;
    carry(newFrame, newSecond, labels);
    carry(newSecond, newMinute, 60);
    carry(newMinute, newHour, 60);
    if (newHour > 23)
        newHour %= 24;
    h = static_cast<int>(newHour);
    m = static_cast<int>(newMinute);
    s = static_cast<int>(newSecond);
    f = static_cast<int>(newFrame);
    SkipOverDropFrames(h, m, s, f, code);
}

int mpeg_timecode::CountFrames(int h1, int m1, int s1, int f1, int h2, int m2, int s2, int f2, bool dropFrame,
                               int code) {
    const double rate = fps(code);
    if (!TimeCodeInbounds(h2, m2, s2, f2, rate))
        return -10;
    // The two-label test even at 59.94: it lets labels 2 and 3 pass, which that rate never produces.
    if (dropFrame && !DropFrameTimeCodeIsValid(h2, m2, s2, f2))
        return -20;
    if (!TimeCodeInbounds(h1, m1, s1, f1, rate))
        return -30;
    if (dropFrame && !DropFrameTimeCodeIsValid(h1, m1, s1, f1))
        return -40;

    // From inside the day one day of steps meets every label there is.
    const int limit = rollover_frames_count(dropFrame, code);
    int count = 0;
    while (count < limit && !(f1 == f2 && s1 == s2 && m1 == m2 && h1 == h2)) {
        IncTimeCode(h1, m1, s1, f1, dropFrame, code);
        ++count;
    }
    return count;
}
