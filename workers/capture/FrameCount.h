// Counts the frames of a file's video.
#pragma once

#include "RecordingClock.h"
#include "StreamAnalyzer.h"

#include <cstdint>

namespace kestrel::capture {

// Of the first program, with a frame rate by the timestamps where the headers have none.
class FrameCount {
public:
    // Takes the next packet. True when it begins a PES packet of the video: closedUnit() is then the one
    // before, with all its frames counted.
    bool take(const unsigned char* packet) noexcept {
        if (!m_analyzer.take(packet))
            return false;
        m_clock.count(m_analyzer.closedUnit(), m_analyzer.clock(), m_analyzer.frameRateCode());
        m_clock.openUnit();
        return true;
    }
    [[nodiscard]] const VideoUnit& unit() const noexcept { return m_analyzer.unit(); }
    [[nodiscard]] const VideoUnit& closedUnit() const noexcept { return m_analyzer.closedUnit(); }
    // Nothing comes any more: unit() has all its frames.
    void finish() noexcept { m_analyzer.endOfStream(); }
    // That have begun, if nothing comes any more.
    [[nodiscard]] std::uint64_t frames() const noexcept {
        return m_clock.frames() + m_analyzer.framesAtEnd();
    }
    // That had begun before the current PES packet.
    [[nodiscard]] std::uint64_t framesBefore() const noexcept { return m_clock.frames(); }
    // By the stream's clock, in PTS units: where the PES packet before the current one begins, and where the
    // last frame ends.
    [[nodiscard]] std::int64_t unitTime() const noexcept { return m_clock.place().start; }
    [[nodiscard]] std::int64_t time() noexcept {
        m_clock.count(unit(), m_analyzer.clock(), m_analyzer.frameRateCode());
        return m_clock.end();
    }
    [[nodiscard]] VideoCodec codec() const noexcept { return m_analyzer.codec(); }
    // 0 while unknown.
    [[nodiscard]] int frameRateCode() const noexcept { return m_analyzer.frameRateCode(); }

private:
    StreamAnalyzer m_analyzer;
    RecordingClock m_clock;
};

} // namespace kestrel::capture
