#include "StepsByRate.h"

#include "mpeg/pts.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {

void StepsByRate::add(double step, double mostFrames, double leastFrames, double frameRate) {
    if (!(frameRate > 0) || leastFrames <= 0 || step <= 0) {
        leaveOut();
        return;
    }
    const double frame = static_cast<double>(PTS::units_per_second) / frameRate;
    // Which way of counting is right changes from frame to frame; in the end both come to the same.
    const double frames = (mostFrames + leastFrames) / 2;
    m_passed += step;
    m_frames += frames;
    m_byRate += frames * frame;
    m_mostOfAll = std::max(m_mostOfAll, step / (mostFrames * frame));
    m_leastOfAll = std::min(m_leastOfAll, step / (leastFrames * frame));
}

std::optional<StepsByRate::Rates> StepsByRate::contradiction() const {
    constexpr double LEAST_SECONDS = 1;
    constexpr double SEVERAL_PERCENT = 0.02;
    constexpr double ALIKE = 0.1;
    // Where one is left out the two ways of counting may part by a field.
    constexpr double LEFT_OUT = 0.5;
    const double seconds = m_passed / static_cast<double>(PTS::units_per_second);
    if (seconds < LEAST_SECONDS)
        return std::nullopt;
    // Still pictures, of which times may come as seldom as that (13818-1, 2.7.4), have no rate.
    constexpr double STILL_SECONDS = 0.7;
    if (seconds > STILL_SECONDS * m_frames)
        return std::nullopt;
    const double share = m_passed / m_byRate;
    const double framesOff = std::abs(share - 1) * m_frames;
    if (std::abs(share - 1) < SEVERAL_PERCENT || framesOff <= 1 + LEFT_OUT * m_leftOut)
        return std::nullopt;
    // Where pictures come now and then only, or some are missing, each step has been judged.
    if (m_mostOfAll > share * (1 + ALIKE) || m_leastOfAll < share * (1 - ALIKE))
        return std::nullopt;
    const double measured = m_frames / seconds;
    return Rates{measured, measured * share};
}

} // namespace kestrel::flowscope
