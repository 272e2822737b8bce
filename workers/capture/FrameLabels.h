// Timecode labels as numbers, and the labels of the frames of a stream: from its own timecodes, or, where it
// has none, counted on from a label that was told.
#pragma once

#include "Limits.h"
#include "VideoScanner.h"

#include <cstdint>
#include <optional>
#include <string>

namespace kestrel::capture {

// hh:mm:ss:ff, two digits each and nothing behind, with ';', '.' or ',' for a ':' too.
[[nodiscard]] bool parseTimecode(const std::string& text, int (&fields)[4]);

// Whether a label, by what is written before its frames, is one of a drop-frame count.
[[nodiscard]] bool tellsDropFrame(const std::string& text);

// How labels are counted: by a frame rate, dropping labels or not.
struct LabelRule {
    int rateCode = 0; // frame_rate_code; 0: not known yet
    bool drop = false;

    [[nodiscard]] bool known() const noexcept { return rateCode != 0; }
    bool operator==(const LabelRule&) const = default;
    // The code whose arithmetic these labels follow: that of the next integral rate when none are dropped.
    [[nodiscard]] int countingCode() const noexcept;
    // Labels of a day; 1 while the rate is unknown.
    [[nodiscard]] std::int64_t perDay() const;
    // Number of a label within the day; none when the text is no label that exists. In pairs the label counts
    // two frames, as those of a deck do at the double rates, and the number is that of the first.
    [[nodiscard]] std::optional<std::int64_t> number(const std::string& text, bool pairs = false) const;
    // The same of the 25 bits of a GOP header, whose label is taken as it stands.
    [[nodiscard]] std::int64_t numberOf(int packed) const;
    // Of a number, which may lie outside the day.
    [[nodiscard]] std::string text(std::int64_t number) const;
    // From one label to another the shorter way round the day.
    [[nodiscard]] std::int64_t distance(std::int64_t from, std::int64_t to) const;
    [[nodiscard]] double framesPerSecond() const;
    // Whether a label of a deck counts two frames.
    [[nodiscard]] bool doubled() const noexcept { return rateCode > 5; }
};

// A frame whose label is known from elsewhere.
struct LabelReference {
    std::string text;       // its label; ';' or '.' before the frames tells drop-frame
    Clock::time_point at{}; // when it arrives; not used where `first` is set
    bool first = false;     // it is the first random access point that comes from now on
    int offset = 0;         // frames by which the stream lags behind
};

enum class LabelOrigin { none, stream, deck, counted };

// The labels of the frames of one stream, in the order in which they are coded.
class FrameLabels {
public:
    // useStream: timecodes count where the stream has them. pairs: labels that are told are a deck's, which
    // counts pairs of frames at the double rates. tolerance: frames by which a reference may differ from what
    // was counted before it counts anew.
    FrameLabels(bool useStream, bool pairs, int tolerance)
        : m_useStream(useStream), m_pairs(pairs), m_tolerance(tolerance) {}

    // Starts over. Of what was told only a first frame that is still to come stays.
    void forget();
    // What the labels come from now stays, until forget(): nothing told, and no timecode that begins or
    // stands still, moves them any more.
    void keep() { m_kept = true; }
    // Other video begins: no label counts on into it.
    void breakOff();
    // Told anew from time to time.
    void refer(const LabelReference& reference);

    // The label of the unit's first picture, which is to be known and to begin a frame. elapsed: the stream's
    // clock where it begins, in PTS units. None while nothing tells it.
    [[nodiscard]] std::optional<std::int64_t> label(const VideoUnit& unit, std::int64_t elapsed, int rateCode,
                                                    VideoCodec codec, Clock::time_point now);
    // The highest label of a unit that was given last.
    [[nodiscard]] std::int64_t highest(const VideoUnit& unit) const;
    // The first label of the current group of pictures, in the order of display.
    [[nodiscard]] std::int64_t groupLabel() const noexcept { return m_group; }
    // When the first picture of the unit that was given last is shown, by the stream's clock.
    [[nodiscard]] std::int64_t shown() const noexcept { return m_shown; }
    // Of H.264, where the unit that was given last is shown before the timecode that came last: its label as
    // it goes on from the timecode before.
    [[nodiscard]] std::optional<std::int64_t> earlier() const;
    // It has that label.
    std::int64_t goBack();
    // When the frame of a label is shown, by the stream's clock.
    [[nodiscard]] std::int64_t presentation(std::int64_t label) const;

    [[nodiscard]] const LabelRule& rule() const noexcept { return m_rule; }
    [[nodiscard]] LabelOrigin origin() const noexcept { return m_origin; }

private:
    [[nodiscard]] bool runs(int packed);
    [[nodiscard]] std::optional<std::int64_t> referred(Clock::time_point now) const;
    void takeStream(const VideoUnit& unit, int rateCode);
    bool takeReference(const VideoUnit& unit, int rateCode, Clock::time_point now);
    [[nodiscard]] std::int64_t counted(const VideoUnit& unit) const;
    void anchor(const VideoUnit& unit, std::int64_t label);

    bool m_useStream;
    bool m_pairs;
    int m_tolerance;
    LabelOrigin m_origin = LabelOrigin::none;
    LabelRule m_rule;
    VideoCodec m_codec = VideoCodec::none;
    std::optional<LabelReference> m_reference;
    bool m_referenceTaken = false;

    // Timecodes that stand still while the deck runs are none.
    int m_stillPacked = -1;
    Clock::time_point m_stillSince{};
    std::string m_stillText; // of the reference at that time

    bool m_started = false;
    bool m_kept = false;
    bool m_byReferenceNumber = false; // temporal_reference counts from m_group
    std::int64_t m_group = 0;
    std::int64_t m_last = 0;
    std::int64_t m_shown = 0; // presentation of the current unit
    std::int64_t m_anchorLabel = 0;
    std::int64_t m_anchorShown = 0;
    // The timecode before the last one, of H.264.
    struct Anchor {
        std::int64_t label;
        std::int64_t shown;
    };
    std::optional<Anchor> m_earlier;
    std::int64_t m_period = 0;
};

} // namespace kestrel::capture
