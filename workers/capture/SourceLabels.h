// Whether the timecodes that come back while a source is played are the source's own. Encoders may count by
// themselves instead, and equipment that went on before may still show what it showed then.
#pragma once

#include "Limits.h"

#include <cstdint>
#include <optional>

namespace kestrel::capture {

// A timecode that came, by what it would mean if it were one of the source's.
struct ReturnedLabel {
    std::int64_t frame = 0;  // counted from the first frame played; negative before it
    std::int64_t shown = 0;  // when its picture is shown, by the stream's clock (PTS units)
    std::int64_t period = 0; // length of a frame (PTS units)
    Clock::duration since{}; // from the begin of the play-out to its arrival; negative before
    bool back = false; // it goes on from the source's timecode before the last one, which is shown behind it
};

class SourceLabels {
public:
    // unplayed: by so much the source's timecodes may get ahead of its play-out, see SourceLeap (PTS units).
    explicit SourceLabels(milliseconds longestReturn, std::int64_t unplayed = 0)
        : m_longestReturn(longestReturn), m_unplayed(unplayed) {}

    // Takes a timecode. True when it and the one before can be the source's and go on from each other. None
    // of the source's comes back more than the longest return behind its time.
    [[nodiscard]] bool confirms(const ReturnedLabel& label);
    // Whether it can be one of the source's, however late: none of them goes on from what came before the
    // play-out or was refused since, or comes back before it is due.
    [[nodiscard]] bool possible(const ReturnedLabel& label) const;
    // What came until now is no candidate any more.
    void refuse() noexcept;
    // The only one that came since the begin was plausible; so no other could go on from it.
    [[nodiscard]] bool onlyOne() const noexcept { return m_line && m_taken == 1; }
    // When the first frame played is shown, by the last candidate.
    [[nodiscard]] std::optional<std::int64_t> line() const noexcept { return m_line; }

private:
    milliseconds m_longestReturn;
    std::int64_t m_unplayed;
    // When the first frame played would be shown, by the last timecode before the begin, by the last that
    // could not be the source's, and by the last that can.
    std::optional<std::int64_t> m_before;
    std::optional<std::int64_t> m_refused;
    std::optional<std::int64_t> m_line;
    unsigned m_taken = 0; // plausible ones since the begin
};

} // namespace kestrel::capture
