// How a recording ends: what it waits for, how long, and what it says then.
#include "Recording.h"

#include "CountedNoun.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <cinttypes>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

} // namespace

// Finds how long the recording is to be by the stream's clock, once the frame rate is known; fails it when
// there is no such duration. Measured in time, it outlasts a change of the frame rate.
void Recording::measureDuration() {
    const int rate = m_analyzer.frameRateCode();
    if (m_plan.mode != CaptureMode::timed || m_wanted != 0 || rate == 0)
        return;
    std::uint64_t frames = 0;
    if (auto failed = m_duration.measure(rate, frames))
        return fail(*failed);
    const int measure = m_plan.sourceRateCode != 0 ? m_plan.sourceRateCode : rate;
    m_wanted = static_cast<std::int64_t>(frames) * MPEG::SH::decode_PCRs_per_frame(measure);
    m_played.measure(frames, rate);
    if (measure != rate)
        LogUtil::Warning(module, "%s: %s Measured in time.", m_plan.name.c_str(),
                         failure(error::sourceFrameRateMismatch, rate, measure).text.c_str());
}

// Whether all frames asked for have begun. A stream whose frame rate stays unknown is measured by its clock.
bool Recording::durationReached() const {
    if (m_plan.mode != CaptureMode::timed || m_state != RecordingState::recording)
        return false;
    if (m_wanted > 0)
        return m_clock.end() + m_clock.period() / 2 >= m_wanted;
    if (m_plan.wantedFrames != 0)
        return m_file.frames() >= m_plan.wantedFrames;
    constexpr std::uint64_t framesToLearnRate = 100;
    return m_file.frames() >= framesToLearnRate &&
           m_clock.elapsed() >= nominalDuration().count() * PTS::units_per_second;
}

bool Recording::lastFrameCame() const {
    if (m_plan.mode == CaptureMode::marks)
        return m_state == RecordingState::recording && m_range.complete();
    if (m_played.whole())
        return m_state == RecordingState::recording && m_played.lastCame(frame(), m_file.frames());
    return durationReached();
}

// Of what is played: whether no frame that was asked for can come any more, be they all there or not.
bool Recording::lastFramePassed() const {
    if (!m_plan.played || m_state != RecordingState::recording)
        return false;
    if (m_played.whole())
        return m_played.lastPassed(frame());
    // What is still to come of the frames up to mark-out is shown, so decoded, no later than mark-out is.
    return (m_range.highest() >= m_range.length() - 1 &&
            m_analyzer.clock().elapsed() >= m_labels.presentation(m_range.out())) ||
           m_clock.elapsed() > (m_leadIn + m_range.length()) * m_clock.period();
}

std::chrono::seconds Recording::nominalDuration() const {
    return m_plan.mode == CaptureMode::marks ? m_range.duration() : m_duration.nominal();
}

// Whether it is to end by itself.
bool Recording::bounded() const noexcept {
    return m_plan.mode == CaptureMode::timed || m_plan.mode == CaptureMode::marks;
}

// When a recording that is to end by itself, but gets no frames any more, is over.
Clock::time_point Recording::givenUp() const {
    return std::max(m_started + nominalDuration(), m_lastFrame) + m_timing.givenUp;
}

// When a recording gets no frames any more, but may get other packets, and has its last one, or all that the
// source had must have come back.
Clock::time_point Recording::framesOver() const {
    if (bounded() && lastFrameCame())
        return m_lastFrame + m_timing.stall;
    if (m_plan.played && m_sourceEnded)
        return std::max(m_lastFrame + m_timing.stall, *m_sourceEnded + m_timing.longestReturn);
    return Clock::time_point::max();
}

// Nothing comes back before the source is played, which may begin long after the recording was armed.
Clock::time_point Recording::waitsFrom() const {
    return m_plan.played ? std::max(m_armedAt, m_played.begin()) : m_armedAt;
}

// When a stream that was there, but of which nothing comes any more, counts as none. Where frames with labels
// are waited for, or what is played, that these are missing tells more.
Clock::time_point Recording::streamGone() const {
    return m_plan.mode == CaptureMode::marks || m_plan.played
               ? Clock::time_point::max()
               : std::max(waitsFrom(), m_lastPacket) + m_timing.noStream;
}

Clock::time_point Recording::deadline() const {
    if (m_state == RecordingState::ended || (m_state == RecordingState::waiting && !m_armed))
        return Clock::time_point::max();
    if (m_state == RecordingState::waiting) {
        if (const auto verdict = m_probe ? m_probe->deadline() : std::nullopt)
            return *verdict;
        const Clock::time_point from = waitsFrom();
        if (from == Clock::time_point::max())
            return from;
        if (!m_analyzer.programKnown())
            return from + m_timing.noStream;
        const auto found = std::max({m_programSeen, from, m_lastLabelled}) + m_timing.noRandomAccess;
        if (m_played.holdsPoint() && m_played.began())
            return std::max(m_played.begin(), m_armedAt) + m_timing.longestReturn;
        // Of a source that has ended no mark-in comes any more, however long its encoder goes on.
        return m_sourceEnded ? std::min(found, std::max(*m_sourceEnded, m_armedAt) + m_timing.noStream)
                             : std::min(found, streamGone());
    }
    Clock::time_point next = m_file.deadline(m_now);
    if (!m_stopped)
        next = std::min(next, m_lastPacket + m_timing.stall);
    if (m_sourceEnded)
        next = std::min(next, std::max(m_lastPacket, *m_sourceEnded) + m_timing.stall);
    return bounded() ? std::min({next, framesOver(), givenUp()}) : next;
}

void Recording::tick(Clock::time_point now) {
    m_now = now;
    if (m_state == RecordingState::waiting && now >= deadline())
        return tickWaiting();
    if (m_state != RecordingState::recording)
        return;
    if (auto failed = m_file.tick(now))
        return fail(*failed);
    tickStall();
    if (m_state == RecordingState::recording && now >= framesOver())
        return lastFrameCame() ? finishLastFrame() : finishSourceEnded();
    if (m_state == RecordingState::recording && bounded() && now >= givenUp())
        fail(failure(error::captureDiscontinuity));
}

void Recording::tickWaiting() {
    if (m_probe && m_probe->pointHeld())
        return endProbe(m_probe->verdict(m_now, m_played.sourceLabels()));
    if (m_played.holdsPoint() && m_played.began())
        return beginByTime();
    if (!m_analyzer.programKnown() || m_now >= streamGone())
        return fail(failure(error::noTransportStream, m_plan.shownAddress.c_str(), m_plan.shownPort));
    if (m_plan.mode == CaptureMode::marks && m_sourceEnded && m_label)
        return fail(detailed(failure(error::startTimecodeNotFound, m_plan.markIn.c_str()),
                             "the source has ended, the stream is at " + m_labels.rule().text(*m_label)));
    if (m_plan.mode == CaptureMode::marks && m_lastRandomAccess > m_lastLabelled)
        return fail(detailed(failure(error::vitcLockNoTimecode),
                             m_plan.useStreamLabels ? "the stream has no timecodes, and no other time is told"
                                                    : "no deck time is told"));
    fail(detailed(failure(error::startCaptureTimeout), m_analyzer.videoPid() < 0
                                                           ? "the program has no video that can be recorded"
                                                           : "no random access point in the video"));
}

// The video of a stream whose other parts go on. What stops with the stream is told by tickStall; that a
// source has ended, or that the last frame has come, is no trouble.
void Recording::noteVideoStall() {
    if (m_videoStopped || m_sourceEnded || m_state != RecordingState::recording ||
        m_now - std::max(m_lastFrame, m_videoFrom) < m_timing.stall || lastFrameCame())
        return;
    m_videoStopped = true;
    ++m_stops;
    LogUtil::Warning(module, "%s: the video has stopped after packet %" PRIu64 " of the file, PID %d",
                     m_plan.name.c_str(), m_lastVideo, m_analyzer.videoPid());
}

void Recording::tickStall() {
    if (!m_stopped && m_now - m_lastPacket >= m_timing.stall) {
        m_stopped = true;
        LogUtil::Warning(module, "%s: the stream has stopped after packet %" PRIu64 " of the file, PID %d",
                         m_plan.name.c_str(), m_file.packets(), m_lastPid);
        // The last frame asked for has come; the one beyond, which would show it, may never.
        if (lastFrameCame())
            return finishLastFrame();
        if (!m_videoStopped) // which is counted
            ++m_stops;
    }
    if (m_sourceEnded && m_now - std::max(m_lastPacket, *m_sourceEnded) >= m_timing.stall)
        finishSourceEnded();
}

void Recording::cancel(Clock::time_point now) {
    endEarly(now, true);
}

void Recording::stop(Clock::time_point now) {
    endEarly(now, false);
}

// With what has come until now. Only what was asked for is called cancelled.
void Recording::endEarly(Clock::time_point now, bool asked) {
    m_now = now;
    // What is held back until its labels are known has come all the same.
    if (m_state == RecordingState::waiting && m_probe && m_now >= m_played.begin()) {
        m_probeCut = m_plan.useStreamLabels;
        endProbe(ReturnProbe::Verdict::others);
    }
    if (m_state == RecordingState::ended)
        return;
    if (m_state == RecordingState::waiting && !asked)
        return finish(false, "Nothing recorded");
    if (m_state == RecordingState::waiting)
        return finish(m_plan.mode == CaptureMode::timed,
                      "Cancelled before the recording began: nothing recorded");
    const bool came = lastFrameCame() || lastFramePassed();
    const bool beyond = came && m_undecided && !m_held.empty();
    if (beyond)
        m_held.clear(); // they begin the frame after the last
    writeHeld();
    if (m_state == RecordingState::ended)
        return;
    weighLabels();
    const std::string open = beyond ? "" : openFrame();
    if (!bounded())
        return finish(true, recorded() + open);
    if (came)
        return finishComplete(open);
    finish(asked, (asked ? "Cancelled after " + amount() : recorded()) + open);
}

// What a recording that ends in the middle of the stream says of its last frame.
std::string Recording::openFrame() const {
    return m_file.frameOpen() ? ", the last frame may be incomplete" : "";
}

void Recording::fail(const Failure& why) {
    if (m_state == RecordingState::ended)
        return;
    weighLabels();
    finish(false, m_file.segments() != 0 ? why.text + " " + recorded() : why.text);
}

void Recording::finish(bool succeeded, std::string text) {
    m_state = RecordingState::ended;
    m_undecided = m_groupHeld = false;
    m_succeeded = succeeded;
    m_text = std::move(text);
    if (m_whenOver)
        m_whenOver();
    const std::uint64_t frames = m_file.frames();
    if (const auto failed = m_file.close(true); failed && succeeded) {
        m_succeeded = false;
        m_text = failed->text + " " + (frames == m_file.frames() ? m_text : recorded());
    }
}

// All that was asked for has come, as far as it was not lost on the way.
void Recording::finishComplete(const std::string& besides) {
    m_complete = true;
    weighLabels();
    if (m_played.beganLate() > Clock::duration::zero())
        return finish(false, format("Error: the stream had no random access point until %.1f s after the "
                                    "play-out began, frames of the source may be missing. ",
                                    std::chrono::duration<double>(m_played.beganLate()).count()) +
                                 recorded() + besides);
    const std::uint64_t returned = m_played.returned(m_file.frames());
    const std::uint64_t expected = m_played.expected(recordedRate(), m_file.frames());
    if (m_plan.mode == CaptureMode::timed && returned < expected)
        return finish(false, format("Error: %" PRIu64 " of %" PRIu64 " frames came back%s. ", returned,
                                    expected, m_played.othersMayBe(m_file.frames()) ? " for certain" : "") +
                                 recorded() + besides);
    if (countLeavesOut()) {
        if (const auto missed = missedByCount())
            return fail(*missed);
        m_unknown = true;
    } else if (m_plan.mode == CaptureMode::marks) {
        const bool each = m_plan.played && m_plan.labelsKnown;
        // Where it is not known which labels are those of frames, leaps may have left out so many.
        const std::int64_t leapt = each ? 0 : leapLabels();
        const std::int64_t absent = each ? m_range.absent() : m_range.missing() - leapt;
        if (m_plan.played && absent > 0)
            return fail(detailed(failure(error::captureDiscontinuity),
                                 ((each ? m_range.doubted() : leapt) > 0 ? "at least " : "") +
                                     counted(static_cast<std::uint64_t>(absent), "frame") +
                                     " between the marks did not come back"));
        // Where each is looked for, those that are missing here may have come with other labels.
        const std::int64_t missing = m_range.length() - 1 - m_range.highest() - leapt;
        if (!each && static_cast<double>(missing) > lostSeconds * m_rule.framesPerSecond())
            return fail(detailed(failure(error::captureDiscontinuity),
                                 "the timecode goes past mark-out, to " +
                                     m_rule.text(m_label.value_or(m_range.out()))));
        m_unknown = m_plan.played && (!each || m_range.doubted() > 0);
    }
    finish(true, recorded() + besides);
}

// Frames that a count over a leap has not seen, of which there are fewer than labels.
MaybeFailure Recording::missedByCount() const {
    const auto lacking = std::count(m_plan.labelsLacking.begin(), m_plan.labelsLacking.end(), true);
    // Others lack for short outages, or between the frames of a film: over these the count goes on by frames.
    const std::int64_t without =
        m_plan.labelsKnown ? std::min<std::int64_t>(lacking, leapLabels()) : leapLabels();
    const std::int64_t frames = std::max<std::int64_t>(m_range.length() - without, 0);
    const std::int64_t absent = m_range.unseen(frames);
    if (absent == 0)
        return std::nullopt;
    // Where a frame came behind these the gap may be one that an encoder made of the leap, and a leap before
    // mark-in moves the count.
    std::int64_t leapt = 0;
    for (const SourceLeap& leap : m_plan.sourceLeaps)
        leapt += labelsOf(leap);
    const bool certain = m_range.highest() < frames && leapt <= without;
    return detailed(failure(error::captureDiscontinuity),
                    counted(static_cast<std::uint64_t>(absent), "frame") + " between the marks " +
                        (certain ? "did not come back" : "may be missing"));
}

// What is held begins the frame after the last.
void Recording::finishLastFrame() {
    m_held.clear();
    finishComplete();
}

void Recording::finishSourceEnded() {
    writeHeld();
    if (m_state != RecordingState::recording)
        return;
    if (m_stopped || m_videoStopped)
        --m_stops;
    if (bounded() && m_plan.wantedFrames == 0 && !m_plan.played && !lastFrameCame())
        return fail(detailed(failure(error::captureDiscontinuity), "the source ended before the last frame"));
    finishComplete();
}

std::string Recording::recorded() const {
    return "Recorded " + amount();
}

std::string Recording::amount() const {
    const int rate = recordedRate();
    const std::uint64_t frames = m_file.frames();
    std::string text = lengthText(frames, rate) + " (" + counted(frames, "frame") +
                       format(", %.1f MB", static_cast<double>(m_file.bytes()) / 1e6);
    if (m_file.segments() > 1)
        text += ", " + counted(m_file.segments(), "segment");
    text += ')';
    text += describeUnknown();
    text += ", " + counted(m_file.continuityErrors(), "continuity error");
    if (m_stops != 0)
        text += ", stream stopped " + counted(m_stops, "time");
    if (m_plan.mode == CaptureMode::marks)
        text += m_range.describe(m_probeCut || (m_plan.played && m_labels.origin() == LabelOrigin::deck)
                                     ? LabelOrigin::none
                                     : m_labels.origin(),
                                 m_complete && !countLeavesOut());
    return text + describePlayed();
}

RecordingStatus Recording::status() const {
    RecordingStatus status;
    status.state = m_state;
    status.frames = m_file.frames();
    status.frameRateCode = recordedRate();
    status.bytes = m_file.bytesWritten();
    status.continuityErrors = m_file.continuityErrors();
    status.stops = m_stops;
    status.succeeded = m_succeeded;
    status.text = m_text;
    if (m_label)
        status.label = m_labels.rule().text(*m_label);
    status.running = m_played.sentBefore();
    status.pictures = m_played.ranBefore();
    status.pointHeld = m_probe ? m_probe->pointHeld() : m_played.holdsPoint();
    status.passedMarkIn = m_passed && m_state == RecordingState::waiting;
    status.markOutReached = m_plan.mode == CaptureMode::marks &&
                            (m_complete || (m_state == RecordingState::recording && m_range.complete()));
    return status;
}

} // namespace kestrel::capture
