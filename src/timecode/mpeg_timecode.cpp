// Construction, the text and packed forms, and the way to a frame number and back.
#include "timecode/mpeg_timecode.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "timecode/frame_rates.h"

#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>

namespace {

using kestrel::findFrameRate;
using kestrel::FrameRate;

constexpr const char* moduleName = "mpegParseLib";
constexpr int fallbackFrameRateCode = 5;

void logInvalidCode(int code, const char* function) {
    LogUtil::Error(moduleName, "Invalid Frame Rate Code %d in Function:  %s", code, function);
}

mpeg_timecode neutralTimecode() {
    return {0, 0, 0, 0, false, fallbackFrameRateCode};
}

// Two's complement wrap into a field: defined for every value.
constexpr std::int32_t narrow(std::int64_t value) {
    return static_cast<std::int32_t>(value);
}

// Reads a text the way scanf's "%d%c%d%c..." does, without its undefined results on long numbers.
class LabelReader {
public:
    explicit LabelReader(std::string_view text) : m_rest(text) {}

    // "%d"; false when no number stands here.
    bool number(std::int32_t& value) {
        const std::size_t start = m_rest.find_first_not_of(" \t\n\v\f\r");
        if (start == std::string_view::npos)
            return false;
        m_rest.remove_prefix(start);
        const bool negative = m_rest.front() == '-';
        if (m_rest.front() == '+' && m_rest.size() > 1 && m_rest[1] != '-')
            m_rest.remove_prefix(1);
        const auto [end, error] = std::from_chars(m_rest.data(), m_rest.data() + m_rest.size(), value);
        if (error == std::errc::invalid_argument)
            return false;
        if (error == std::errc::result_out_of_range)
            value = negative ? std::numeric_limits<std::int32_t>::min()
                             : std::numeric_limits<std::int32_t>::max();
        m_rest.remove_prefix(static_cast<std::size_t>(end - m_rest.data()));
        return true;
    }

    // "%c": any one character.
    bool separator() {
        if (m_rest.empty())
            return false;
        m_rest.remove_prefix(1);
        return true;
    }

private:
    std::string_view m_rest;
};

} // namespace

mpeg_timecode::mpeg_timecode(int hours_, int minutes_, int seconds_, int frames_, bool dropFrame_,
                             int frameRateCode_)
    : hours(hours_ % 24), minutes(minutes_), seconds(seconds_), frames(frames_), dropFrame(dropFrame_),
      frameRateCode(frameRateCode_) {
    if (hours < 0)
        hours += 24;
    if (!supportedFrameRate(frameRateCode))
        logInvalidCode(frameRateCode, "mpeg_timecode");
    const double rate = fps(frameRateCode);
    if (!TimeCodeInbounds(hours, minutes, seconds, frames, rate))
        LogUtil::Error(moduleName, "Time code out of bounds:  %d:%d:%d:%d  FPS: %f Function:  %s", hours,
                       minutes, seconds, frames, rate, "mpeg_timecode");
    SkipOverDropFrames(hours, minutes, seconds, frames, frameRateCode);
}

mpeg_timecode::mpeg_timecode(const char* label, bool dropFrame_, int frameRateCode_)
    : dropFrame(dropFrame_), frameRateCode(frameRateCode_) {
    LabelReader reader(label != nullptr ? std::string_view(label) : std::string_view());
    // Stops at the first thing missing; what follows stays 0.
    (void)(reader.number(hours) && reader.separator() && reader.number(minutes) && reader.separator() &&
           reader.number(seconds) && reader.separator() && reader.number(frames));
}

mpeg_timecode::mpeg_timecode(const mpeg_timecode& other) noexcept
    : hours(other.hours), minutes(other.minutes), seconds(other.seconds), frames(other.frames),
      dropFrame(other.dropFrame), frameRateCode(other.frameRateCode) {}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): numbers only.
mpeg_timecode& mpeg_timecode::operator=(const mpeg_timecode& other) noexcept {
    hours = other.hours;
    minutes = other.minutes;
    seconds = other.seconds;
    frames = other.frames;
    dropFrame = other.dropFrame;
    frameRateCode = other.frameRateCode;
    return *this;
}

// time_code, ISO/IEC 13818-2, 6.3.8: drop_frame_flag 1, hours 5, minutes 6, marker 1, seconds 6, pictures 6.
mpeg_timecode mpeg_timecode::parse_GOP(int packed, int code) {
    const auto bits = static_cast<std::uint32_t>(packed);
    const auto field = [bits](unsigned shift, std::uint32_t mask) {
        return static_cast<int>(bits >> shift & mask);
    };
    return {field(19, 0x1f), field(13, 0x3f), field(6, 0x3f), field(0, 0x3f), field(24, 1) != 0, code};
}

int mpeg_timecode::pack_int() const {
    const auto field = [](std::int32_t value, unsigned shift) {
        return static_cast<std::uint32_t>(value) << shift;
    };
    constexpr std::uint32_t markerBit = 0x1000;
    return static_cast<int>(field(frames, 0) | markerBit | field(seconds, 6) | field(minutes, 13) |
                            field(hours, 19) | field(dropFrame ? 1 : 0, 24));
}

mpeg_timecode mpeg_timecode::from_seconds(int total, bool drop, int code) {
    if (!supportedFrameRate(code)) {
        logInvalidCode(code, "from_seconds");
        return neutralTimecode();
    }
    return {total / 3600, total % 3600 / 60, total % 60, 0, drop, code};
}

mpeg_timecode mpeg_timecode::from_frames(int frameNumber, bool drop, int code) {
    return from_wide_frames(frameNumber, drop, code);
}

mpeg_timecode mpeg_timecode::from_wide_frames(std::int64_t frameNumber, bool drop, int code) {
    const FrameRate* rate = findFrameRate(code);
    if (rate == nullptr) {
        logInvalidCode(code, "from_frames");
        return neutralTimecode();
    }
    // One modulo instead of adding days one by one: a number far below zero costs no more than -1.
    std::int64_t inDay = frameNumber % rate->framesPerDay();
    if (inDay < 0)
        inDay += rate->framesPerDay();
    const int n = narrow(inDay);

    int h = n / rate->framesPerHour();
    int r = n % rate->framesPerHour();
    int m = 0;
    if (rate->integral()) {
        m = r / rate->framesPerTensMinute();
        r %= rate->framesPerTensMinute();
    } else {
        m = r / rate->framesPerTenMinutes() * 10;
        r %= rate->framesPerTenMinutes();
        if (r >= rate->framesPerTensMinute()) {
            r -= rate->framesPerTensMinute();
            m += r / rate->framesPerDroppingMinute() + 1;
            r %= rate->framesPerDroppingMinute();
        }
    }
    int s = r / rate->labelsPerSecond;
    int f = r % rate->labelsPerSecond;
    // A dropping minute begins behind its dropped labels.
    if (!rate->integral() && m % 10 > 0)
        IncTimeCode(rate->droppedLabels, h, m, s, f, drop, code);
    return {h, m, s, f, drop, code};
}

int mpeg_timecode::frame_count() const {
    return narrow(wide_frame_count());
}

std::int64_t mpeg_timecode::wide_frame_count() const {
    const FrameRate* rate = findFrameRate(frameRateCode);
    if (rate == nullptr) {
        logInvalidCode(frameRateCode, "frame_count");
        return 0;
    }
    // 64 bits: a caller may have put anything into the fields.
    const std::int64_t h = hours;
    const std::int64_t m = minutes;
    const std::int64_t s = seconds;
    if (rate->integral())
        return ((h * 60 + m) * 60 + s) * rate->labelsPerSecond + frames;

    const std::int64_t tens = m / 10;
    const std::int64_t rest = m - tens * 10;
    std::int64_t n = rate->framesPerTenMinutes() * tens + rate->framesPerHour() * h;
    if (rest > 0)
        n += rate->framesPerDroppingMinute() * (rest - 1) - rate->droppedLabels + rate->framesPerTensMinute();
    return n + rate->labelsPerSecond * s + frames;
}

char* mpeg_timecode::windows_string() {
    kestrel::formatText(text, "%02d:%02d:%02d%c%02d", hours, minutes, seconds, dropFrame ? ';' : ':', frames);
    return text;
}

mpeg_timecode mpeg_timecode::operator+(int n) const {
    return from_wide_frames(wide_frame_count() + n, dropFrame, frameRateCode);
}

mpeg_timecode mpeg_timecode::operator-(int n) const {
    return from_wide_frames(wide_frame_count() - n, dropFrame, frameRateCode);
}

mpeg_timecode mpeg_timecode::operator+(const mpeg_timecode& b) const {
    return from_wide_frames(wide_frame_count() + b.wide_frame_count(), dropFrame, frameRateCode);
}

mpeg_timecode mpeg_timecode::operator-(const mpeg_timecode& b) const {
    return from_wide_frames(wide_frame_count() - b.wide_frame_count(), dropFrame, frameRateCode);
}

bool mpeg_timecode::operator==(const mpeg_timecode& b) const noexcept {
    return hours == b.hours && minutes == b.minutes && seconds == b.seconds && frames == b.frames &&
           dropFrame == b.dropFrame && frameRateCode == b.frameRateCode;
}

bool operator<(const mpeg_timecode& a, const mpeg_timecode& b) {
    return a.frame_count() < b.frame_count();
}

bool operator<=(const mpeg_timecode& a, const mpeg_timecode& b) {
    return a.frame_count() <= b.frame_count();
}

bool operator>(const mpeg_timecode& a, const mpeg_timecode& b) {
    return a.frame_count() > b.frame_count();
}

bool operator>=(const mpeg_timecode& a, const mpeg_timecode& b) {
    return a.frame_count() >= b.frame_count();
}

void mpeg_timecode::NormalizeFromVtr() {
    if (frameRateCode > 5)
        frames = narrow(std::int64_t{frames} * 2);
}

void mpeg_timecode::NormalizeToVtr() {
    if (frameRateCode > 5)
        frames /= 2;
}

void mpeg_timecode::UpConvert(int factor) {
    if (factor == 2 && frameRateCode >= 6)
        frames = narrow(std::int64_t{frames} * 2);
}

void mpeg_timecode::DownConvert(int factor) {
    if (factor == 2 && frameRateCode >= 6)
        frames /= 2;
}
