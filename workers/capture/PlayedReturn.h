// Which of the frames that come back while a source is played are the source's.
#pragma once

#include "FrameLabels.h"
#include "MarkedRange.h"
#include "OwnLabels.h"
#include "PlayedPlaces.h"
#include "RecordingClock.h"
#include "RecordingPlan.h"
#include "SourceLabels.h"
#include "StreamAnalyzer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::capture {

// An encoder that is silent until the source is played returns its first frame as its first. What was there
// before the source began is told from it by the source's timecodes, or, without these, only by the time.
//
// Complete is only what the evidence shows to be complete:
// - by labels, where those of the source count its frames one by one and come back so: each of them has been
//   seen as one of the source's own (see OwnLabels). An encoder that was silent goes by count until they
//   come: then its first frame is one of theirs, or they tell which frame was the source's first;
// - else by count: as many frames as the source has. Where its time is longer than these take, each of them
//   at its own place, or one for each period of that time. Frames of another rate or codec than the
//   source's, once that was there, do not count, and neither do those that are shown before its first or
//   behind its last: one of these is coded before the last ones where frames are coded in another order than
//   they are shown;
// - by time it is never known, and the results say so.
// Rather some frames too many are taken than one too few.
//
// It is told of the frames of one recording and asked by it; the recording itself has the file.
class PlayedReturn {
public:
    // How the source's first frame was found.
    enum class By { count, labels, time };
    // A random access point with which the recording may begin.
    struct Point {
        std::size_t at = 0; // in the packets that are held
        VideoUnit unit;
        RecordingClock::Place place;
        Clock::time_point came;
        std::int64_t shown = 0; // by the stream's clock
        std::size_t noted = 0;  // frames before it of which it is noted when they are shown
    };
    // The frame that begins, or began last.
    struct Frame {
        Clock::time_point now;
        int rateCode = 0; // of the stream; 0: unknown
        const RecordingClock& clock;
        const FrameLabels& labels;
        std::optional<std::int64_t> label;
        int video = 0; // tells one codec and PID from another
    };

    PlayedReturn(const RecordingPlan& plan, const Timing& timing);

    // Something is played.
    [[nodiscard]] bool played() const noexcept { return m_played; }
    // All frames of a source are recorded, rather than those between two marks.
    [[nodiscard]] bool whole() const noexcept { return m_whole; }

    [[nodiscard]] By by() const noexcept { return m_by; }

    // The source is played from then on, with the frame of that label.
    void sourceBegins(const LabelReference& begin) { m_source = begin; }
    void sourceEnded(Clock::time_point now) { m_sourceEnded = now; }
    [[nodiscard]] bool began() const noexcept { return m_source.has_value(); }
    // The far future while that is not known.
    [[nodiscard]] Clock::time_point begin() const;
    // Marks: the reference by which frames are counted. An encoder that waits for its decoder returns the
    // first frame as its first; of one that goes on all the time only when it was played is known.
    [[nodiscard]] std::optional<LabelReference> reference() const;

    // Packets came.
    void came(Clock::time_point now);
    // A picture came, and nothing is recorded yet. True for the first that came before the source.
    [[nodiscard]] bool ranBefore(Clock::time_point now);
    [[nodiscard]] bool sentBefore() const noexcept { return m_sentBefore; }
    [[nodiscard]] bool ranBefore() const noexcept { return m_ranBefore; }

    // Whether a picture that has no timecode goes on from the source's, though another came since.
    [[nodiscard]] bool goesBack(const Frame& frame);
    // The first picture of a PES packet has that label, or none.
    void picture(const VideoUnit& unit, const Frame& frame);
    // Frames with these labels are taken. Those that have become the source's by them.
    [[nodiscard]] std::vector<OwnLabels::Range> note(std::int64_t first, std::int64_t last);
    // Those that came until now are not asked for.
    void dropLabels() noexcept { m_own.drop(); }
    // The stream's timecodes have been recognised as the source's.
    void trustLabels();
    // Other video begins.
    void breakOff() noexcept { m_own.breakOff(); }
    // Labels that came of which it is not known whether they are the source's.
    [[nodiscard]] std::vector<OwnLabels::Range> kept() const { return m_own.kept(); }
    // Frames behind one with a timecode up to the next, at the most, lost ones among them; 0 where the
    // encoder labels each.
    [[nodiscard]] std::int64_t countedOn() const noexcept { return m_labelledMore > 0 ? 0 : m_countedOn; }
    // Whether the current label is the source's; of labels that were told, always.
    [[nodiscard]] bool owns(const Frame& frame) const;

    // Whether that is another frame rate than the source's.
    [[nodiscard]] bool unlikeSource(int rateCode) const noexcept;
    // Whether a timecode can be the source's, of which those of a decoder that stops for a while come later
    // and later.
    [[nodiscard]] bool mayBeSources(const Frame& frame) const;
    [[nodiscard]] SourceLabels& sourceLabels() noexcept { return m_sourceLabels; }
    [[nodiscard]] const SourceLabels& sourceLabels() const noexcept { return m_sourceLabels; }

    // Points that are held until it is known which is the one.
    void hold(const Point& point);
    void dropPoints() { m_points.clear(); }
    [[nodiscard]] bool holdsPoint() const noexcept { return !m_points.empty(); }
    // Whether the stream's timecodes have become the source's.
    [[nodiscard]] bool firstCame(const VideoUnit& unit, const Frame& frame);
    // The point from which the source's first frame can be shown.
    [[nodiscard]] Point beginByLabels(const Frame& frame);
    // The point that came last before the source began.
    [[nodiscard]] Point beginByTime();
    // From the begin of the play-out to that point.
    [[nodiscard]] Clock::duration beganLate() const noexcept { return m_beganLate; }

    // The recording begins with frames of this rate, so many of which are wanted.
    void measure(std::uint64_t frames, int rateCode);
    // It begins with that frame.
    void recordingBegins(const Frame& frame);
    // So many frames were written. False when they are known not to be the source's.
    [[nodiscard]] bool recorded(unsigned frames, int recordedRate, const Frame& frame);

    // Whether the recording ends before the frame that begins.
    [[nodiscard]] bool endsBefore(const Frame& frame, int recordedRate, std::uint64_t frames) const;
    // Whether all frames that were played have begun.
    [[nodiscard]] bool lastCame(const Frame& frame, std::uint64_t frames) const;
    // By labels: whether the time of the last one has passed, be they all there or not.
    [[nodiscard]] bool lastPassed(const Frame& frame) const;
    // Of the frames recorded, those that count as the source's.
    [[nodiscard]] std::uint64_t returned(std::uint64_t frames) const;
    // Others may be, too, but have no label that shows it.
    [[nodiscard]] bool othersMayBe(std::uint64_t frames) const;
    // The source's frames that can come back, at the rate at which they come.
    [[nodiscard]] std::uint64_t expected(int recordedRate, std::uint64_t frames) const;
    // It is over, whatever still comes: all that was played must have come back.
    [[nodiscard]] bool late(Clock::time_point now) const;
    // What is to be said of a whole source: what is not known of it; and by what it was found, what is
    // missing. ended: nothing more comes.
    [[nodiscard]] std::string describeUnknown(int recordedRate, std::uint64_t frames, bool ended) const;
    [[nodiscard]] std::string describe(int recordedRate, bool ended) const;

private:
    // Frames by which what is coded may lag behind what is shown.
    static constexpr std::int64_t mostReordered = 4;
    // Pictures of H.264 that can be kept back until they are shown (ITU-T H.264, A.3.1: MaxDpbFrames).
    static constexpr std::int64_t mostDelayed = 16;
    // To the nearest.
    [[nodiscard]] static std::int64_t framesOf(std::int64_t time, std::int64_t period) {
        return (time + (time < 0 ? -period : period) / 2) / period;
    }

    [[nodiscard]] std::optional<std::int64_t> position(const Frame& frame);
    [[nodiscard]] bool dropsFrames() const;
    void takeOwn(const std::vector<OwnLabels::Range>& ranges);
    void agree(const std::vector<OwnLabels::Range>& ranges);
    void goOver(std::int64_t line, std::int64_t lowest);
    void noteTimecode(const ReturnedLabel& label, int leading, bool possible);
    void notePairs(const VideoUnit& unit, const Frame& frame);
    [[nodiscard]] bool mayGoOver() const noexcept;
    // Whether the timecodes that come back count pairs of frames, as those of a deck do at the double rates.
    [[nodiscard]] bool inPairs() const noexcept { return m_paired > m_single; }
    [[nodiscard]] std::int64_t absent() const;
    [[nodiscard]] bool through() const noexcept;
    [[nodiscard]] bool told() const noexcept;
    [[nodiscard]] bool otherVideo(int recordedRate, const Frame& frame) const noexcept;
    [[nodiscard]] std::int64_t placeOf(const OwnLabels::Range& range) const;
    void creditOpenGroup(const std::vector<Point>& points, const Point& begin, std::int64_t line,
                         std::int64_t period, std::int64_t lowest);
    void credit(const std::vector<Point>& points, const Point& begin, std::int64_t groupBegin,
                std::int64_t line, std::int64_t period, std::int64_t lowest);
    void noteShown(const Frame& frame);
    [[nodiscard]] std::uint64_t byNumber(std::uint64_t frames) const;
    [[nodiscard]] std::uint64_t inside(std::uint64_t frames) const;
    [[nodiscard]] std::int64_t shownEnd() const noexcept { return m_firstShown + m_wanted; }
    [[nodiscard]] bool shownBehind(const Frame& frame) const;
    [[nodiscard]] bool countComplete(std::uint64_t frames) const;
    void notePlace(const Frame& frame);
    void noteLeap(const VideoUnit& unit, const Frame& frame);
    [[nodiscard]] std::int64_t elapsed(const Frame& frame) const { return frame.clock.elapsed() - m_leapt; }
    [[nodiscard]] std::int64_t hiddenTime() const;
    [[nodiscard]] bool sourceJumps(const ReturnedLabel& label);
    [[nodiscard]] bool longer() const noexcept;
    [[nodiscard]] bool tooFew(int recordedRate) const noexcept;
    [[nodiscard]] std::optional<std::uint64_t> cameAsItIs() const;
    [[nodiscard]] std::uint64_t onePerPeriod() const;
    [[nodiscard]] bool notKnown(int recordedRate, std::uint64_t frames) const;
    [[nodiscard]] bool mayRepeat(std::uint64_t frames) const;
    [[nodiscard]] bool lastDecoded(const Frame& frame, std::uint64_t frames) const;
    [[nodiscard]] bool mayHold(const Frame& frame) const;
    [[nodiscard]] bool playedFor(Clock::time_point now) const;
    [[nodiscard]] bool labelledEndCame(const Frame& frame) const;
    [[nodiscard]] std::uint64_t total() const noexcept;

    // What is asked for, see RecordingPlan.
    bool m_played;
    bool m_whole;
    int m_sourceRateCode;
    bool m_uniform;
    std::int64_t m_sourceTime;
    std::uint64_t m_wantedFrames;
    std::uint64_t m_labelledFrames;
    std::uint64_t m_hiddenFrames;
    std::string m_firstLabel;
    milliseconds m_longestReturn;

    std::optional<LabelReference> m_source;
    std::optional<Clock::time_point> m_sourceEnded;
    bool m_sentBefore = false; // anything
    bool m_ranBefore = false;  // pictures
    SourceLabels m_sourceLabels;

    By m_by = By::count;
    std::vector<Point> m_points;
    Clock::duration m_beganLate{};
    MarkedRange m_range; // of the source's labels
    OwnLabels m_own;
    bool m_recording = false;
    std::optional<std::int64_t> m_firstLine;  // when the source's first frame is shown, by its first timecode
    bool m_jumps = false;                     // by the next ones it is shown at another time
    int m_video = 0;                          // of what is recorded
    bool m_rateVaried = false;                // its frame rate has changed
    std::optional<std::int64_t> m_firstTaken; // label of its first frame
    bool m_agreed = false;                    // by count: the source's labels have come back with it
    bool m_candidate = false; // by count: the last timecode may be the first of the source's behind others
    std::optional<std::int64_t> m_timecode; // the last, by its position
    std::int64_t m_offset = 0;              // by which these are ahead of the source's
    std::int64_t m_wanted = 0;              // by the stream's clock; 0 while the frame rate is unknown
    bool m_longer = false;                  // that is more than its number of frames takes
    std::int64_t m_leadIn = 0;              // frames from the beginning to the source's first
    // Of the frames recorded by the source's timecodes: those shown before the first of the source, and those
    // that certainly come behind its last.
    std::int64_t m_before = 0;
    std::int64_t m_leading = 0; // at most so many are coded behind the first but shown before it
    std::uint64_t m_others = 0;
    std::int64_t m_credited = 0; // of the source's first, those whose labels were not seen
    // By count: the labels that came as they are when they begin with the first frame that cannot be shown.
    std::optional<MarkedRange> m_fromHidden;
    std::int64_t m_hiddenBy = 0;
    // At the double rates: a timecode by the number of its frame, counted one by one and in pairs, and how
    // many others went on from it by the one count alone or by the other.
    struct LabelPair {
        std::int64_t label;
        std::int64_t pair;
        std::int64_t shown;
    };
    std::optional<LabelPair> m_pair;
    unsigned m_single = 0;
    unsigned m_paired = 0;
    bool m_eachLabelled = false; // the last picture that is no random access point has a timecode
    // Of the source's pictures that are no random access points, so many more have a timecode than have none:
    // an encoder that labels each.
    std::int64_t m_labelledMore = 0;
    std::optional<std::int64_t> m_countedFrom; // the first label of the group that had the last timecode
    std::int64_t m_countedOn = 0;

    // By count: when pictures are shown, from the beginning by the stream's clock.
    std::optional<std::int64_t> m_delay; // of the current picture, from when it is decoded; none: not known
    bool m_unstamped = false;            // of some it is not known
    std::int64_t m_period = 0;           // of the last one recorded
    std::int64_t m_firstShown = 0;       // the first that is shown
    std::vector<std::int64_t> m_early;   // those that come first; any may turn out to be it
    // By the clock of the labels: the first that is shown, and the one that came first. The random access
    // points that came last.
    std::int64_t m_firstSeen = 0;
    std::int64_t m_beginShown = 0;
    unsigned m_seen = 0;
    std::vector<Point> m_groups;
    // Of a source whose frames take longer than their number tells; and by labels, when its first is shown.
    PlayedPlaces m_places;
    std::int64_t m_sourceShown = 0;
    // What passes the source on returns its leaps: how many of them came, and the time that these do not
    // take.
    std::vector<SourceLeap> m_leaps;
    std::size_t m_leapsCame = 0;
    std::int64_t m_leapt = 0;
    std::int64_t m_begunAt = 0; // when the picture before is decoded
    PTS m_begunDts;
};

} // namespace kestrel::capture
