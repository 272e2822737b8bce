// The recording of one encoder: from the wait for its stream to the closed file.
#pragma once

#include "ContinuityLog.h"
#include "Failure.h"
#include "Limits.h"
#include "SegmentFile.h"
#include "StreamAnalyzer.h"

#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <vector>

namespace kestrel::capture {

enum class CaptureMode { manual, timed, rolling };

// What is asked of a recording.
struct RecordingPlan {
    CaptureMode mode = CaptureMode::manual;
    std::string name;   // how the log names the encoder
    std::string output; // file; for rolling recordings the stem of the segments
    bool overwrite = false;
    std::string duration;     // timed: hh:mm:ss:ff
    int rollingMinutes = 0;   // rolling: length of a segment
    std::string shownAddress; // where the stream is looked for, for messages
    int shownPort = 0;
    Clock::time_point begin{}; // nothing is recorded before
};

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
};

//  state      event                                         next
//  waiting    random access point with both tables known    recording: file made, PAT, PMT, then that picture
//  waiting    no program or no random access point in time  ended, failed
//  waiting    cancel                                        ended
//  recording  first frame beyond the duration (timed)       ended
//  recording  random access point past the segment          recording, in the next file
//  recording  cancel                                        ended
//  recording  no frames any more past the duration (timed)  ended, failed
//  any        the file cannot be written                    ended, failed; what was written stays
//
// One thread calls it; the time is always given, so that tests need no clock.
class Recording {
public:
    Recording(RecordingPlan plan, const Timing& timing, Clock::time_point now);

    // Checks what can be checked before there is a stream: the output file and its directory, the duration.
    [[nodiscard]] MaybeFailure prepare();
    // The next packets of the stream.
    void take(std::span<const Packet> packets, Clock::time_point now);
    // To be called when deadline() has come.
    void tick(Clock::time_point now);
    // Ends it as the service or the operator asked.
    void cancel(Clock::time_point now);
    // Ends it as failed.
    void fail(const Failure& why);

    [[nodiscard]] Clock::time_point deadline() const;
    [[nodiscard]] RecordingState state() const noexcept { return m_state; }
    [[nodiscard]] RecordingStatus status() const;

private:
    void takePacket(const Packet& packet);
    void settleUnit(const VideoUnit& unit);
    void startRecording(const VideoUnit& unit);
    [[nodiscard]] bool openFile();
    void writeTables(bool first);
    void writeCopies(std::span<const Packet> packets, int pid, bool first);
    void writeHeld();
    void write(const Packet& packet);
    void countFrames(const VideoUnit& unit);
    void logProgram();
    [[nodiscard]] bool segmentDone() const;
    std::int64_t wantedFrames();
    [[nodiscard]] bool durationReached();
    [[nodiscard]] std::chrono::seconds nominalDuration() const;
    void finish(bool succeeded, std::string text);
    [[nodiscard]] std::string recorded() const;
    [[nodiscard]] std::string amount() const;

    RecordingPlan m_plan;
    Timing m_timing;
    RecordingState m_state = RecordingState::waiting;
    bool m_succeeded = false;
    std::string m_text;

    StreamAnalyzer m_analyzer;
    ContinuityLog m_continuity;
    SegmentFile m_file;
    std::uint64_t m_closedBytes = 0; // of the segments before
    unsigned m_segments = 0;

    // Packets from the beginning of a PES packet of video until its first picture is known.
    std::vector<Packet> m_held;
    bool m_holding = false;

    std::uint64_t m_frames = 0;
    std::uint64_t m_streamFrames = 0; // the same by the stream's clock, with those that were lost
    std::int64_t m_unitStart = 0;     // of the current unit, by that clock
    unsigned m_unitCounted = 0;       // frames of the current unit that are in m_frames
    std::int64_t m_segmentBegin = 0;  // by the stream's clock
    std::int64_t m_wanted = 0;        // timed: frames; 0 while the frame rate is unknown
    int m_durationFields[4] = {};
    unsigned m_loggedProgram = 0;

    Clock::time_point m_now;
    Clock::time_point m_armed; // the waits for the stream count from here
    Clock::time_point m_programSeen;
    Clock::time_point m_started;
    Clock::time_point m_lastPacket;
    Clock::time_point m_lastFrame;
    Clock::time_point m_lastWrite;
    bool m_stopped = false;
    unsigned m_stops = 0;
};

} // namespace kestrel::capture
