// Counts the frames of a stream as they begin, by number and by the stream's own clock.
#pragma once

#include "StreamAnalyzer.h"

#include <cstdint>

namespace kestrel::capture {

// All times are in PTS units. Frames that were lost on the way take their time too, so a duration is measured
// in time; a change of the frame rate moves nothing.
class RecordingClock {
public:
    // A PES packet of the video begins.
    void openUnit() noexcept { m_unitFrames = 0; }
    // Counts the frames that have begun in it since the last call; their timestamps move the stream's clock.
    // Returns how many.
    unsigned count(const VideoUnit& unit, StreamClock& clock, int rateCode) noexcept;

    // Where a PES packet stands.
    struct Place {
        std::int64_t start = 0;
        std::uint64_t frames = 0; // before it
    };
    // Of the current one.
    [[nodiscard]] Place place() const noexcept { return {m_unitStart, m_frames - m_unitFrames}; }

    // What is recorded begins with the current PES packet, or with one since the last beginning.
    void begin() noexcept { begin(place()); }
    void begin(const Place& place) noexcept;
    // Frames that have begun since then.
    [[nodiscard]] std::uint64_t frames() const noexcept { return m_frames; }
    // Of the current PES packet.
    [[nodiscard]] unsigned unitFrames() const noexcept { return m_unitFrames; }
    // From the beginning to where the current PES packet begins.
    [[nodiscard]] std::int64_t elapsed() const noexcept { return m_unitStart - m_begin; }
    // From the beginning to the end of the last frame that has begun.
    [[nodiscard]] std::int64_t end() const noexcept { return elapsed() + m_period * m_lastUnitFrames; }
    // Length of a frame; 0 while the rate is unknown.
    [[nodiscard]] std::int64_t period() const noexcept { return m_period; }

private:
    std::uint64_t m_frames = 0;
    unsigned m_unitFrames = 0;
    unsigned m_lastUnitFrames = 1;
    std::int64_t m_period = 0;
    std::int64_t m_unitStart = 0; // by the stream's clock
    std::int64_t m_begin = 0;
};

} // namespace kestrel::capture
