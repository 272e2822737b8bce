#include "RecordingClock.h"

#include "mpeg/mpeg2.h"

#include <algorithm>

namespace kestrel::capture {

unsigned RecordingClock::count(const VideoUnit& unit, StreamClock& clock, int rateCode) noexcept {
    if (unit.frames <= m_unitFrames)
        return 0;
    const unsigned begun = unit.frames - m_unitFrames;
    // The timestamp is that of the first frame; it comes after all those of the PES packet before.
    if (m_unitFrames == 0) {
        clock.advance(unit.dts, m_lastUnitFrames, rateCode);
        m_unitStart = clock.elapsed();
    }
    m_period = std::max<std::int64_t>(MPEG::SH::decode_PCRs_per_frame(rateCode), 0);
    m_unitFrames = m_lastUnitFrames = unit.frames;
    m_frames += begun;
    return begun;
}

void RecordingClock::begin(const Place& place) noexcept {
    m_begin = place.start;
    m_frames -= place.frames;
}

} // namespace kestrel::capture
