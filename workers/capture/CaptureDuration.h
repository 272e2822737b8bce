// How long a timed capture is to be.
#pragma once

#include "Failure.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace kestrel::capture {

class CaptureDuration {
public:
    // hh:mm:ss:ff, hours of two or three digits, with ';', '.' or ',' for a ':' too. Fails with the text of
    // an invalid duration, or of one that is too long.
    [[nodiscard]] MaybeFailure set(const std::string& text);
    // So many frames, whatever their rate.
    void setFrames(std::uint64_t frames) { m_frames = frames; }

    // The duration in frames at a frame rate; fails when there is no such duration, or it is too short.
    [[nodiscard]] MaybeFailure measure(int rateCode, std::uint64_t& frames) const;
    // In whole seconds of the labels, rounded up; of frames at the slowest rate that is not film's.
    [[nodiscard]] std::chrono::seconds nominal() const;

private:
    std::string m_text;
    int m_hours = 0, m_minutes = 0, m_seconds = 0, m_label = 0;
    std::uint64_t m_frames = 0;
};

// The length of so many frames as a timecode, with days before it where they fill some; "an unknown time"
// while the frame rate is not known (0).
[[nodiscard]] std::string lengthText(std::uint64_t frames, int rateCode);

} // namespace kestrel::capture
