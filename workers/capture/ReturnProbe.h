// Looks ahead in what comes back of a part that is played, until it is known whether its timecodes are the
// source's. What it has looked at is held back until then, from the random access point before the play-out
// began on, so that a recording by either count still has all of it.
#pragma once

#include "FrameLabels.h"
#include "RecordingClock.h"
#include "SourceLabels.h"
#include "StreamAnalyzer.h"

#include <optional>
#include <vector>

namespace kestrel::capture {

class ReturnProbe {
public:
    // otherRate: what comes back is of another frame rate than the source.
    enum class Verdict { open, theSources, others, otherRate };
    struct Held {
        Packet packet;
        Clock::time_point came;
    };

    // useLabels: false where the stream's timecodes are not to be looked for at all.
    ReturnProbe(bool useLabels, int sourceRateCode, milliseconds longestReturn)
        : m_useLabels(useLabels), m_sourceRateCode(sourceRateCode), m_longestReturn(longestReturn) {}

    // The source is played from then on, with the frame of that label.
    void sourceBegins(const LabelReference& begin) { m_begin = begin; }
    // Takes the next packet. The packets before the returned number need not be held any more.
    [[nodiscard]] std::size_t take(const Packet& packet, Clock::time_point now, SourceLabels& labels);
    // What is known at that time.
    [[nodiscard]] Verdict verdict(Clock::time_point now, const SourceLabels& labels) const;

    // A random access point is held with which a recording can begin.
    [[nodiscard]] bool pointHeld() const noexcept { return m_pointHeld; }
    [[nodiscard]] const std::vector<Held>& held() const noexcept { return m_held; }
    void drop(std::size_t packets);
    [[nodiscard]] int frameRateCode() const noexcept { return m_analyzer.frameRateCode(); }
    // When the verdict falls even if nothing comes any more.
    [[nodiscard]] std::optional<Clock::time_point> deadline() const;

private:
    [[nodiscard]] bool begun(Clock::time_point now) const { return m_begin && now >= m_begin->at; }
    void count(const VideoUnit& unit, Clock::time_point now, SourceLabels& labels);
    [[nodiscard]] std::size_t settle(Clock::time_point now);
    [[nodiscard]] std::size_t releasable() noexcept;
    [[nodiscard]] bool otherRate() const noexcept;

    bool m_useLabels;
    int m_sourceRateCode;
    milliseconds m_longestReturn;
    std::optional<LabelReference> m_begin;

    StreamAnalyzer m_analyzer;
    RecordingClock m_clock;
    FrameLabels m_labels{true, false, 0};
    std::vector<Held> m_held;
    std::size_t m_unitAt = 0; // where in them the current PES packet of the video begins
    bool m_unitOpen = false;  // it is not known yet what it begins
    bool m_pointHeld = false;
    bool m_pointOfOthers = false; // it is of another frame rate
    bool m_confirmed = false;
    std::optional<ReturnedLabel> m_before; // the last one from before the begin; its frame is the label
};

} // namespace kestrel::capture
