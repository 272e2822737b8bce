// The labels of the frames of a file that is to be re-encoded.
#pragma once

#include "FrameLabels.h"
#include "SourceIndex.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::capture {

// Those of its own timecodes, or counted from its first frame, which is 00:00:00:00, when it has none or the
// same one in every GOP. Positions are counted from the label of its first random access point.
//
// Where it is known of each frame when it is shown, and the last timecode agrees with that, it is known which
// labels are those of frames: timecodes go on by the time that timestamps tell, or by the time that is
// played, which is less over a leap.
class FileLabels {
public:
    // From the frame that has the label of one access point to that of a later one.
    static std::int64_t framesBetween(const AccessPoint& from, const AccessPoint& to) {
        return static_cast<std::int64_t>(to.frame - from.frame) + to.leading - from.leading;
    }

    // The index must have a random access point and a frame rate, and outlive this.
    explicit FileLabels(const SourceIndex& index);

    [[nodiscard]] bool counted() const noexcept { return m_counted; }
    [[nodiscard]] const LabelRule& rule() const noexcept { return m_rule; }
    [[nodiscard]] std::int64_t of(const AccessPoint& point) const {
        return !m_counted && point.timecode ? m_rule.numberOf(*point.timecode)
                                            : static_cast<std::int64_t>(point.frame);
    }
    [[nodiscard]] std::int64_t position(std::int64_t label) const {
        return m_rule.distance(of(m_index.points.front()), label);
    }
    // Of the label behind the last.
    [[nodiscard]] std::int64_t length() const;
    // Whether a frame may have the label at that position. One that is missing before the last access point
    // may have been lost; behind that it was still to come.
    [[nodiscard]] bool has(std::int64_t at) const;

    // Whether it is known which labels from one position to another are those of frames.
    [[nodiscard]] bool known(std::int64_t from, std::int64_t to) const;
    // Then: those of no frame, by the distance to the first.
    [[nodiscard]] std::vector<bool> lacking(std::int64_t from, std::int64_t to) const;
    // The distance to that position from the last one before it whose label is that of no frame, as far as
    // that is known; 0: none is.
    [[nodiscard]] std::int64_t lackingBefore(std::int64_t at) const;

    // Whether frames take more time than their number gives: some are shown for longer, or were lost.
    [[nodiscard]] bool takesLonger() const;

private:
    [[nodiscard]] bool countOn(std::int64_t from, std::int64_t to) const;
    [[nodiscard]] std::int64_t between(const AccessPoint& from, const AccessPoint& to) const;
    [[nodiscard]] std::int64_t frames() const noexcept {
        return static_cast<std::int64_t>(m_index.frames - m_index.points.front().frame);
    }
    [[nodiscard]] std::int64_t stampedTime() const;
    [[nodiscard]] std::int64_t shown(const AccessPoint& point) const;
    [[nodiscard]] std::int64_t placeOf(std::int64_t time) const;
    bool agrees(std::vector<std::int64_t> shown);

    const SourceIndex& m_index;
    bool m_counted = false;
    LabelRule m_rule;
    std::int64_t m_period = 0;
    // As in SourceIndex::shown, by the time with which the labels go on; empty where they do not tell. Then
    // the labels that frames have, by position, and the last one of those coded before the last access point.
    std::vector<std::int64_t> m_shown;
    std::vector<bool> m_has;
    std::int64_t m_lastBefore = -1;
};

// The frames of a file from its first random access point on, and how far their labels count on.
struct LabelledFrames {
    std::string first; // of the first frame that is shown
    std::string last;
    std::uint64_t count = 0;  // from the first to the last; 0 when the file has no timecodes
    std::uint64_t hidden = 0; // frames that cannot be shown when playing begins with that access point
};
[[nodiscard]] LabelledFrames labelledFrames(const SourceIndex& index);

} // namespace kestrel::capture
