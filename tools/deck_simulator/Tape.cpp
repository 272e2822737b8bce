#include "Tape.h"

#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cmath>

namespace kestrel::deck_simulator {
namespace {

constexpr double ntsc = 1000.0 / 1001.0;

constexpr TapeRate rates[] = {
    {"23.976", 24 * ntsc, 2, false, 1},
    {"24", 24, 2, false, 1},
    {"25", 25, 3, false, 1},
    {"29.97", 30 * ntsc, 5, false, 1},
    {"29.97df", 30 * ntsc, 4, true, 1},
    {"30", 30, 5, false, 1},
    {"50", 25, 3, false, 2},
    {"59.94", 30 * ntsc, 4, true, 2},
    {"60", 30, 5, false, 2},
};

int numberOf(const TapeTime& time, const TapeRate& rate) {
    return mpeg_timecode(time.hours, time.minutes, time.seconds, time.frames, rate.dropFrame,
                         rate.countingCode)
        .frame_count();
}

} // namespace

std::optional<TapeRate> findRate(std::string_view name) noexcept {
    const auto* const found = std::ranges::find(rates, name, &TapeRate::name);
    return found == std::end(rates) ? std::nullopt : std::optional(*found);
}

std::string rateNames() {
    std::string text;
    for (const TapeRate& rate : rates)
        text += (text.empty() ? "" : ", ") + std::string(rate.name);
    return text;
}

Tape::Tape(const TapeRate& rate, const TapeTime& start, double seconds)
    : m_rate(rate), m_start(numberOf(start, rate)),
      m_last(std::max(0.0, std::floor(seconds * rate.labelsPerSecond + 0.5) - 1)) {}

TapeTime Tape::label(double position) const {
    // A hair more, so that a position computed back from a label is that label again.
    const auto number = m_start + static_cast<int>(std::floor(position + 1e-6));
    const mpeg_timecode time = mpeg_timecode::from_frames(number, m_rate.dropFrame, m_rate.countingCode);
    return {time.hours, time.minutes, time.seconds, time.frames, m_rate.dropFrame};
}

std::optional<double> Tape::position(const TapeTime& time) const {
    if (!mpeg_timecode::IsTimecodeValid(time.hours, time.minutes, time.seconds, time.frames,
                                        m_rate.countingCode))
        return std::nullopt;
    const int day = mpeg_timecode::rollover_frames_count(m_rate.dropFrame, m_rate.countingCode);
    int distance = (numberOf(time, m_rate) - m_start) % day;
    if (distance < 0)
        distance += day;
    // The shorter way round midnight, unless the tape itself goes the longer one.
    if (distance > m_last && distance > day / 2)
        distance -= day;
    return distance;
}

} // namespace kestrel::deck_simulator
