// What lies between mark-in and mark-out, and which of it has come.
#pragma once

#include "Failure.h"
#include "FrameLabels.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrel::capture {

// The labels of both marks belong to what is recorded. A recording can begin only where decoding can, and
// frames are coded in another order than they are shown, so it may begin before mark-in and hold a frame or
// two from beyond mark-out that the last ones refer to.
class MarkedRange {
public:
    // pairs: the marks count pairs of frames at the double rates. lacking: labels that no frame has, by the
    // distance to mark-in; lackingBefore: that of the last such before mark-in, 0: there is none. outage: the
    // part that is played has one, whether labels between the marks lack frames or not.
    MarkedRange(std::string in, std::string out, bool pairs, std::vector<bool> lacking = {},
                std::int64_t lackingBefore = 0, bool outage = false);

    // Checks what can be checked without a frame rate.
    [[nodiscard]] static MaybeFailure check(const std::string& in, const std::string& out);
    // Finds the numbers of the marks; again when the rule changes. Mark-out is the next one behind mark-in:
    // it may lie behind midnight.
    [[nodiscard]] MaybeFailure settle(const LabelRule& rule);

    // Frames from mark-in to mark-out, both counted.
    [[nodiscard]] std::int64_t length() const noexcept { return m_length; }
    // How long they take, rounded up.
    [[nodiscard]] std::chrono::seconds duration() const;
    // Frames from mark-in to a label, negative before it; the day wraps half way between mark-out and the
    // next mark-in.
    [[nodiscard]] std::int64_t position(std::int64_t label) const;
    [[nodiscard]] bool beyond(std::int64_t label) const { return position(label) >= m_length; }
    [[nodiscard]] std::int64_t out() const noexcept { return m_in + m_length - 1; }
    // Whether mark-in may lie in a group of pictures that begins with this label.
    [[nodiscard]] bool mayBeginAt(std::int64_t group) const;

    // What is taken begins with a group of pictures, of whose labels the first `leading` need the group
    // before.
    void begin(std::int64_t group, std::int64_t leading);
    // Frames with these labels were taken.
    void note(std::int64_t first, std::int64_t last);
    // Frames were taken that have these labels by the time at which they are shown; they carry none.
    void noteByClock(std::int64_t first, std::int64_t last);
    // Frames with these labels came that may be the source's.
    void keep(std::vector<std::pair<std::int64_t, std::int64_t>> labels);
    // Labels are merely counted on from a timecode, for so many frames at most as far as is known: over such
    // as no frame has these are wrong. 0: none is.
    void countsOn(std::int64_t frames) noexcept { m_countsOn = frames; }
    // A random access point without a timecode came.
    void bare() noexcept { m_bare = true; }
    // A timecode came for a group of pictures that begins with this label, and is shown then (PTS units).
    // By how many labels it is ahead of what was counted on from the one before.
    std::int64_t timecode(std::int64_t group, std::int64_t shown, std::int64_t period);
    // A group with this label had it as a timecode of its own.
    void labelled(std::int64_t group);
    // Those frames do not count after all: the source's carry labels.
    void dropByClock();
    // Whether the frame at mark-in has come, or may have, if with another label.
    [[nodiscard]] bool inMayHaveCome() const { return m_length > 0 && frames().front() != Frame::missing; }
    // Position of the highest label taken.
    [[nodiscard]] std::int64_t highest() const noexcept { return m_highest; }
    // The last frames up to mark-out have come, more of them than are coded in another order than they are
    // shown.
    [[nodiscard]] bool complete() const;
    // Frames that are missing just before mark-out; 0 when its own has come.
    [[nodiscard]] std::int64_t missing() const;
    // Frames from mark-in to mark-out that are missing for certain, wherever.
    [[nodiscard]] std::int64_t absent() const { return count(Frame::missing); }
    // Those of which it is not known whether they came, since their labels are not to be relied on.
    [[nodiscard]] std::int64_t doubted() const { return count(Frame::open); }
    // Labels among the first so many from mark-in on that were not seen.
    [[nodiscard]] std::int64_t unseen(std::int64_t labels) const;
    // The label at a position.
    [[nodiscard]] std::string text(std::int64_t position) const { return m_rule.text(m_in + position); }

    // ", from 10:00:00:00 to 10:00:10:00" and what else is to be said of what was taken. ended: nothing more
    // is to come before mark-out, and its label is that of its frame.
    [[nodiscard]] std::string describe(LabelOrigin origin, bool ended) const;

private:
    struct Timecode {
        std::int64_t position, shown;
    };
    // From the group of one timecode to that of the next, which is so many labels ahead of the count. bare: a
    // random access point without a timecode lies between.
    struct Moved {
        std::int64_t from, to, over;
        bool bare;
    };
    enum class Frame : char { came, missing, open };
    void take(std::int64_t position);
    [[nodiscard]] static bool holds(const std::vector<bool>& labels, std::int64_t position);
    [[nodiscard]] bool came(std::int64_t position) const;
    [[nodiscard]] bool lacks(std::int64_t position) const;
    [[nodiscard]] Frame given(std::int64_t position) const;
    [[nodiscard]] std::vector<Frame> frames() const;
    void shift(const Moved& group, std::vector<Frame>& frames) const;
    void openLast(std::vector<Frame>& frames) const;
    [[nodiscard]] std::int64_t count(Frame wanted) const;

    std::string m_inText, m_outText;
    bool m_pairs;
    std::vector<bool> m_lacking;
    std::int64_t m_lackingBefore;
    bool m_outage;
    LabelRule m_rule;
    std::int64_t m_in = 0, m_length = 0;

    // Positions.
    std::int64_t m_first = 0, m_highest = 0;
    std::int64_t m_leading = 0, m_beyond = 0;
    std::int64_t m_countsOn = 0;
    bool m_bare = false;
    std::vector<Moved> m_moved;
    std::optional<Timecode> m_timecode; // the last
    std::optional<std::int64_t> m_firstTimecode;
    std::vector<bool> m_taken; // by position, from a first one on
    std::int64_t m_takenFrom = 0;
    std::vector<bool> m_byClock;
    std::vector<std::pair<std::int64_t, std::int64_t>> m_kept;
};

} // namespace kestrel::capture
