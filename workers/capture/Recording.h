// The recording of one encoder: from the wait for its stream to the closed file.
#pragma once

#include "CaptureDuration.h"
#include "FrameLabels.h"
#include "MarkedRange.h"
#include "PlayedReturn.h"
#include "RecordingClock.h"
#include "RecordingFile.h"
#include "RecordingPlan.h"
#include "ReturnProbe.h"
#include "StreamAnalyzer.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kestrel::capture {

enum class RecordingState { waiting, recording, ended };

// A recording at one moment.
struct RecordingStatus {
    RecordingState state = RecordingState::waiting;
    std::uint64_t frames = 0;
    int frameRateCode = 0;
    std::uint64_t bytes = 0;
    std::uint64_t continuityErrors = 0;
    unsigned stops = 0;     // times the stream stopped
    bool succeeded = false; // when ended
    std::string text;       // results, when ended
    // Marks only.
    std::optional<std::string> label; // of the newest frame of the stream, where it is known
    bool passedMarkIn = false;        // armed, beyond mark-in by more than a GOP, and nothing is recorded
    bool markOutReached = false;      // all frames up to mark-out have come
    // What is played only.
    bool running = false;   // something came before the source began
    bool pictures = false;  // pictures did
    bool pointHeld = false; // a random access point is kept back with which it can begin
};

//  state      event                                         next
//  waiting    random access point with both tables known    recording: file made, PAT, PMT, then that picture
//  waiting    the frame at mark-in (marks)                  recording, from the GOP it lies in
//  waiting    no program, random access point or timecode   ended, failed
//             in time
//  waiting    the first frame played has come back (played) recording, from the GOP it lies in
//  waiting    cancel                                        ended
//  recording  first frame beyond the duration (timed)       ended
//  recording  all frames up to mark-out have come (marks)   ended
//  recording  random access point past the segment          recording, in the next file
//  recording  cancel                                        ended
//  recording  no frames any more past the duration          ended, failed
//             (timed, marks)
//  recording  the source has ended, and so has the stream   ended
//  recording  all frames played must have come back, or     ended
//             have by their number or labels (played)
//  any        the file cannot be written                    ended, failed; what was written stays
//
// One that is not armed stays waiting: it learns the stream's tables, rate and labels, and nothing times out.
// One thread calls it; the time is always given, so that tests need no clock.
class Recording {
public:
    Recording(RecordingPlan plan, const Timing& timing, Clock::time_point now);

    // Checks what can be checked before there is a stream: the output file and its directory, the duration.
    [[nodiscard]] MaybeFailure prepare();
    // The next packets of the stream.
    void take(std::span<const Packet> packets, Clock::time_point now);
    // Something came at that time, but was lost before it could be taken: the stream has not stopped.
    void heard(Clock::time_point now);
    // To be called when deadline() has come, and all that had come by then has been taken.
    void tick(Clock::time_point now);
    // Ends it as the service or the operator asked.
    void cancel(Clock::time_point now);
    // Ends it likewise because the job is over for a reason of its own, which the job tells: failed, but for
    // one to which all it was asked for has come.
    void stop(Clock::time_point now);
    // Ends it as failed.
    void fail(const Failure& why);

    // The waits for the stream count from now, and recording may begin. Labels told before no longer count.
    void arm(Clock::time_point now);
    // Back to taking the stream in only, for another attempt; nothing once the recording has begun.
    void disarm();
    // A label that is known from elsewhere. Once the recording has begun its frames are counted, so labels
    // that come then change nothing.
    void refer(const LabelReference& reference);
    // What the stream is made from is played from then on. Marks: with the frame of this label, which counts
    // where the stream has no timecodes: against arrival when pictures came before, else as the first random
    // access point that comes.
    void sourceBegins(const LabelReference& begin);
    // What the stream is made from has ended: when the stream stops, it is over.
    void sourceEnded(Clock::time_point now);

    [[nodiscard]] Clock::time_point deadline() const;
    [[nodiscard]] RecordingState state() const noexcept { return m_state; }
    [[nodiscard]] RecordingStatus status() const;
    // Called when it has ended, before its file is closed, which may take a while.
    void whenOver(std::function<void()> what) { m_whenOver = std::move(what); }
    // Packets are kept back with which the recording may still begin.
    [[nodiscard]] bool holds() const noexcept {
        return !m_held.empty() || (m_probe && !m_probe->held().empty());
    }

private:
    void takePacket(const Packet& packet);
    void probe(const Packet& packet);
    void passHeld(std::size_t packets);
    void endProbe(ReturnProbe::Verdict verdict);
    void countFromBegin();
    [[nodiscard]] bool labelCounts() const;
    void openUnit();
    void hold(const Packet& packet);
    unsigned count(const VideoUnit& unit);
    void noteLabels(const VideoUnit& unit);
    void noteRecorded(unsigned frames);
    [[nodiscard]] int recordedRate() const noexcept;
    [[nodiscard]] bool rateChanges() const noexcept;
    [[nodiscard]] bool endsWithRule();
    void settleUnit(const VideoUnit& unit);
    void settleWaiting(const VideoUnit& unit);
    void settleMarks(const VideoUnit& unit);
    void noteBefore();
    void tellFirstPlayed();
    void settlePlayed(const VideoUnit& unit);
    void holdPoint(const VideoUnit& unit);
    void beginByTime();
    void beginWith(const PlayedReturn::Point& point);
    [[nodiscard]] PlayedReturn::Frame frame() const;
    void followVideo();
    [[nodiscard]] bool byStreamLabels() const noexcept;
    [[nodiscard]] bool countedOverLeap() const noexcept;
    [[nodiscard]] bool endsWithOthers() const;
    [[nodiscard]] bool unlikeSource() const noexcept;
    [[nodiscard]] std::int64_t labelsOf(const SourceLeap& leap) const;
    [[nodiscard]] std::int64_t leapLabels() const;
    [[nodiscard]] bool countLeavesOut() const;
    [[nodiscard]] MaybeFailure missedByCount() const;
    [[nodiscard]] std::string describeUnknown() const;
    [[nodiscard]] std::string describePlayed() const;
    std::int64_t noteTimecode(const VideoUnit& unit);
    void weighLabels();
    void openGroup(const VideoUnit& unit, std::int64_t over);
    void holdGroup(const VideoUnit& unit, std::int64_t group, std::int64_t leading);
    [[nodiscard]] MaybeFailure openGroupByClock(const VideoUnit& unit);
    [[nodiscard]] std::int64_t labelByClock() const;
    void noteByClock(const VideoUnit& unit);
    [[nodiscard]] bool endsBefore(const VideoUnit& unit);
    void startSegment();
    void startRecording();
    void write(const Packet& packet);
    void writeHeld();
    void logProgram();
    void measureDuration();
    [[nodiscard]] bool durationReached() const;
    [[nodiscard]] bool lastFrameCame() const;
    [[nodiscard]] bool lastFramePassed() const;
    [[nodiscard]] std::chrono::seconds nominalDuration() const;
    [[nodiscard]] bool bounded() const noexcept;
    [[nodiscard]] Clock::time_point givenUp() const;
    [[nodiscard]] Clock::time_point framesOver() const;
    [[nodiscard]] Clock::time_point waitsFrom() const;
    [[nodiscard]] Clock::time_point streamGone() const;
    [[nodiscard]] std::string openFrame() const;
    void tickWaiting();
    void tickStall();
    void noteVideoStall();
    void endEarly(Clock::time_point now, bool asked);
    void finish(bool succeeded, std::string text);
    void finishComplete(const std::string& besides = "");
    void finishLastFrame();
    void finishSourceEnded();
    [[nodiscard]] std::string recorded() const;
    [[nodiscard]] std::string amount() const;

    RecordingPlan m_plan;
    Timing m_timing;
    RecordingState m_state = RecordingState::waiting;
    bool m_armed;
    bool m_succeeded = false;
    bool m_complete = false; // what was asked for has come
    bool m_unknown = false;  // some of it may not have, between marks of what is played
    std::string m_text;
    std::function<void()> m_whenOver;

    StreamAnalyzer m_analyzer;
    RecordingClock m_clock;
    RecordingFile m_file;

    // Packets kept back: those of the current PES packet of video until its first picture is known, and those
    // of a group of pictures in which mark-in may lie.
    std::vector<Packet> m_held;
    std::size_t m_unitAt = 0; // where in them the current PES packet begins
    bool m_undecided = false;
    bool m_groupHeld = false;

    CaptureDuration m_duration;
    std::int64_t m_wanted = 0;       // timed: by the stream's clock; 0 while the frame rate is unknown
    std::int64_t m_segmentBegin = 0; // by that clock

    // Marks.
    FrameLabels m_labels;
    MarkedRange m_range;
    std::optional<std::int64_t> m_label;      // of the newest unit
    bool m_unitNoted = false;                 // that label is among those of the range
    std::optional<std::int64_t> m_groupLabel; // of the last random access point since it was armed
    std::int64_t m_leadIn = 0; // frames that take, with the range's length, the time up to mark-out
    bool m_passed = false;
    // Of a source that is played, whose labels have been recognised: while none has come with a random access
    // point, a group may be held by the time at which its pictures are shown.
    bool m_labelsOfSource = false;
    bool m_groupByClock = false;
    bool m_clockCounts = false;    // its pictures may be the source's
    std::int64_t m_clockLabel = 0; // of the source's first frame

    // What comes back of a source. Until its first frame is found all is held from the last random access
    // point before it began on.
    PlayedReturn m_played;
    std::optional<ReturnProbe> m_probe; // marks: what comes goes through it until its verdict
    bool m_probeCut = false;            // it ended while its verdict was open

    // Of the last frame recorded; what comes behind it may have others.
    int m_rate = 0;
    LabelRule m_rule;

    VideoUnit m_begin; // where the recording begins
    unsigned m_loggedProgram = 0;
    int m_lastPid = 0;
    int m_video = 0; // codec and PID of the video; 0: none yet

    Clock::time_point m_now;
    Clock::time_point m_armedAt; // the waits for the stream count from here
    Clock::time_point m_programSeen;
    Clock::time_point m_lastRandomAccess;
    Clock::time_point m_lastLabelled; // random access point with a label
    Clock::time_point m_started;
    Clock::time_point m_lastPacket;
    Clock::time_point m_lastFrame;
    std::optional<Clock::time_point> m_sourceEnded;
    bool m_stopped = false;
    // The video counts as missing from its last frame, or from here: when the stream came again after it had
    // stopped, and later by the gaps in which something was lost.
    Clock::time_point m_videoFrom;
    bool m_videoStopped = false;
    std::uint64_t m_lastVideo = 0; // the newest packet of the video, by its number in the file
    unsigned m_stops = 0;
};

} // namespace kestrel::capture
