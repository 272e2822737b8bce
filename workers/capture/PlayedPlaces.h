// When the frames of a source are shown of which some are shown for longer, and when what came back of it is.
#pragma once

#include "VideoScanner.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kestrel::capture {

// From when the first picture of a PES packet is decoded to when it is shown, in PTS units; none where that
// is not known.
[[nodiscard]] std::optional<std::int64_t> displayDelay(const VideoUnit& unit);

// A film in video shows frames for two fields and for three, and in a source that has lost some the frame
// before each gap stands. An encoder behind a decoder returns one frame for each period of such a source;
// what passes the source on returns its own frames, with the same gaps. Which of both it was is told only by
// where the gaps are.
//
// All times are in PTS units; those of the stream are by its clock.
class PlayedPlaces {
public:
    // When the source's frames are shown, from the first on and in that order; the first `hidden` of them may
    // come back or not. Empty: not known.
    PlayedPlaces(std::vector<std::int64_t> source, std::uint64_t hidden);

    [[nodiscard]] bool sourceKnown() const noexcept { return !m_source.empty(); }
    // From its first frame to its first that is not hidden; 0 while it is not known.
    [[nodiscard]] std::int64_t hiddenTime() const noexcept {
        return m_source.empty() ? 0 : m_source[m_hidden] - m_source.front();
    }
    // Of each frame that came it is known when it is shown.
    [[nodiscard]] bool known() const noexcept { return m_unknown == 0; }

    // A frame that is shown then came, or one of which that is not known.
    void came(std::optional<std::int64_t> shown);
    // Frames that came until now.
    [[nodiscard]] std::size_t count() const noexcept { return m_came.size(); }
    // So many that came first do not count.
    void drop(std::size_t frames);

    // When the first of them is shown; 0 where none came.
    [[nodiscard]] std::int64_t earliest() const;
    // When those are shown that are not further than that from some time.
    [[nodiscard]] std::vector<std::int64_t> around(std::int64_t time, std::int64_t distance) const;
    // Frames that are shown from that time on, but before that other.
    [[nodiscard]] std::uint64_t between(std::int64_t from, std::int64_t to) const;
    // The source's first frame, or its first that is not hidden, is shown at that time: so many of those that
    // are not hidden came, if nothing else came between its first and its last.
    [[nodiscard]] std::optional<std::uint64_t> own(std::int64_t first, std::int64_t period,
                                                   bool fromHidden) const;

private:
    std::vector<std::int64_t> m_source;
    std::size_t m_hidden;
    std::vector<std::int64_t> m_came; // in coding order
    std::size_t m_unknown = 0;        // so many first ones have all of which it is not known
};

} // namespace kestrel::capture
