// Which of the labels that come back are the source's own, as far as the stream shows.
#pragma once

#include "SourceLabels.h"

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace kestrel::capture {

// Labels run when each is shown as much later than another as it counts more frames. Those of a run are the
// source's once a further timecode goes on from its first, or it goes on from what is known to be the
// source's: a timecode that stands still, or one that another encoder counts by itself, does neither. Until
// then they are kept back, also while others come between: in coding order the frames from before the source
// lie among its first. Frames without a timecode are counted on from the last one, but not beyond a
// random access point that lacks one, unless the next timecode shows that they were right.
// Of H.264 some may be coded behind another timecode and shown before it: they go on from the source's.
class OwnLabels {
public:
    using Range = std::pair<std::int64_t, std::int64_t>; // the first and the last

    // The first frame of the source is shown at that time, by the stream's clock.
    void trust(std::int64_t line, std::int64_t period);
    // A picture comes. timecode: its label was not counted on from others. point: it is a random access
    // point. possible: labels that do not go on from what came before can be the source's.
    void begin(const ReturnedLabel& label, bool timecode, bool point, bool possible);
    // Frames with these labels are there from that picture on.
    void add(std::int64_t first, std::int64_t last);
    // A picture comes whose label cannot be one of the source's.
    void refuse() noexcept;
    // What came until now goes on in nothing that comes.
    void breakOff() noexcept;

    // Labels that came until now are not asked for.
    void drop() noexcept;

    // The current labels cannot be the source's.
    [[nodiscard]] bool refused() const noexcept { return !m_run; }
    // They are known to be.
    [[nodiscard]] bool own() const noexcept { return m_own || m_back; }
    // When the source's first frame is shown, by the labels that have become the source's last.
    [[nodiscard]] std::optional<std::int64_t> line() const noexcept { return m_line; }
    // Labels go on from a timecode that can be the source's. Once they were the source's, no random access
    // point without one has come since, unless the stream has such.
    [[nodiscard]] bool counts() const noexcept { return m_run && !m_lacking; }
    // Labels of which it is not known whether they are the source's, without those that were counted on
    // beyond a random access point.
    [[nodiscard]] std::vector<Range> kept() const;
    // The labels that have become the source's since the last call.
    [[nodiscard]] std::vector<Range> take() { return std::exchange(m_confirmed, {}); }

private:
    // Labels that are kept back, and when the source's first frame is shown by them. counted: those behind a
    // random access point without a timecode, of labels that had been the source's.
    struct Kept {
        std::int64_t line;
        std::vector<Range> ranges{};
        std::vector<Range> counted{};
    };
    [[nodiscard]] bool keeps(std::int64_t line) const;
    void keep(const Range& range);
    void confirm();
    void dropRun() noexcept;

    std::optional<std::int64_t> m_line; // when the source's first frame is shown, by what is known
    std::optional<std::int64_t>
        m_run; // likewise by the current labels; none when they cannot be the source's
    bool m_own = false;
    bool m_back = false;    // the current picture goes on from the source's, before what came last
    bool m_lacking = false; // a random access point without a timecode came since the last
    bool m_sparse = false;  // the stream has such
    std::int64_t m_period = 0;
    std::vector<Kept> m_pending; // the one that came last is the last
    std::vector<Range> m_confirmed;
};

} // namespace kestrel::capture
