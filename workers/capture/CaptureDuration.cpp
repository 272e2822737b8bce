#include "CaptureDuration.h"

#include "Limits.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kestrel::capture {
namespace {

constexpr std::string_view separators = ":;.,";

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

// The number of decimal digits at a position.
std::size_t digitsAt(std::string_view text, std::size_t at) noexcept {
    std::size_t count = 0;
    while (at + count < text.size() && isDigit(text[at + count]))
        ++count;
    return count;
}

} // namespace

MaybeFailure CaptureDuration::set(const std::string& text) {
    constexpr std::size_t mostHourDigits = 3;
    m_text = text;
    std::array<int, 4> fields{};
    std::array<std::size_t, 4> digits{};
    std::size_t at = 0;
    for (std::size_t field = 0; field < fields.size(); ++field) {
        digits[field] = digitsAt(text, at);
        // Of a number beyond every bound only the first digits are read: it is refused anyway.
        for (std::size_t i = 0; i < std::min<std::size_t>(digits[field], 4); ++i)
            fields[field] = fields[field] * 10 + (text[at + i] - '0');
        at += digits[field];
        const bool ends = field + 1 == fields.size();
        if (digits[field] == 0 || (ends ? at != text.size() : at == text.size()))
            return failure(error::invalidDuration, text.c_str(), 0, 0);
        if (!ends && separators.find(text[at++]) == std::string_view::npos)
            return failure(error::invalidDuration, text.c_str(), 0, 0);
    }
    const auto [h, m, s, f] = fields;
    // The service's own record holds eleven characters, so of 100:00:00:00 its last digit is missing.
    const bool cut = digits[0] == mostHourDigits && digits[3] == 1 && f == 0;
    if (digits[0] < 2 || digits[1] != 2 || digits[2] != 2 || (digits[3] != 2 && !cut) || m > 59 || s > 59 ||
        f > 59)
        return failure(error::invalidDuration, text.c_str(), 0, 0);
    if (digits[0] > mostHourDigits)
        return failure(error::durationTooLong, text.c_str(), "999:59:59:59");
    m_hours = h;
    m_minutes = m;
    m_seconds = s;
    m_label = f;
    return std::nullopt;
}

MaybeFailure CaptureDuration::measure(int rateCode, std::uint64_t& frames) const {
    frames = m_frames;
    if (m_frames != 0)
        return std::nullopt;
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(rateCode);
    const int days = m_hours / 24;
    const int hours = m_hours % 24;
    if (!mpeg_timecode::TimeCodeInbounds(hours, m_minutes, m_seconds, m_label, mpeg_timecode::fps(rateCode)))
        return failure(error::invalidDuration, m_text.c_str(), rateCode, drop ? 1 : 0);
    // The constructor moves a label that drop-frame counting skips to the next existing one: one minute at
    // 29.97 is asked for as 00:01:00:00 and is 00:01:00;02.
    mpeg_timecode rest(hours, m_minutes, m_seconds, m_label, drop, rateCode);
    const std::int64_t perDay = mpeg_timecode::rollover_frames_count(drop, rateCode);
    frames = static_cast<std::uint64_t>(days * perDay + rest.frame_count());
    if (frames < static_cast<std::uint64_t>(minimumFrames))
        return failure(error::durationTooShort);
    LogUtil::Info("Capture", "Duration %s is %llu frames", m_text.c_str(),
                  static_cast<unsigned long long>(frames));
    return std::nullopt;
}

std::chrono::seconds CaptureDuration::nominal() const {
    constexpr std::uint64_t slowestRate = 24;
    if (m_frames != 0)
        return std::chrono::seconds(m_frames / slowestRate + 1);
    return std::chrono::seconds(m_hours * 3600 + m_minutes * 60 + m_seconds + (m_label > 0 ? 1 : 0));
}

std::string lengthText(std::uint64_t frames, int rateCode) {
    if (rateCode == 0)
        return "an unknown time";
    const bool drop = mpeg_timecode::frameRateCodeToDropFrame(rateCode);
    const auto day = static_cast<std::uint64_t>(mpeg_timecode::rollover_frames_count(drop, rateCode));
    mpeg_timecode timecode = mpeg_timecode::from_frames(static_cast<int>(frames % day), drop, rateCode);
    return (frames >= day ? std::to_string(frames / day) + "d " : "") + timecode.windows_string();
}

} // namespace kestrel::capture
