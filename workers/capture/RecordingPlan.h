// What is asked of a recording, and what of it can be checked before there is a stream.
#pragma once

#include "Failure.h"
#include "Limits.h"
#include "SourceIndex.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::capture {

enum class CaptureMode { manual, timed, rolling, marks };

struct RecordingPlan {
    CaptureMode mode = CaptureMode::manual;
    std::string name;   // how the log names the encoder
    std::string output; // file; for rolling recordings the stem of the segments
    bool overwrite = false;
    std::string duration;           // timed: hh:mm:ss:ff, hours of two or three digits
    std::uint64_t wantedFrames = 0; // timed: so many frames rather than a duration
    // What comes back of a source that is played: it begins when the source does, see
    // Recording::sourceBegins(). Timed: wantedFrames are the source's, and where those have labels that count
    // on, markIn and markOut are the first and the last of labelledFrames of them.
    bool played = false;
    int sourceRateCode = 0; // frame_rate_code of those frames; 0: unknown
    // All of the source has that rate and one codec. Its frames take sourceTime, in PTS units, be it longer
    // than their number tells: some of a film are shown for three fields.
    bool sourceUniform = true;
    std::int64_t sourceTime = 0;
    std::vector<std::int64_t> sourceShown; // then: see longerPlaces()
    std::vector<SourceLeap> sourceLeaps;   // that time is without those; of what is played
    std::size_t leapsBefore = 0;           // marks: so many of them are before mark-in for certain
    // Marks: it is known which labels from mark-in to mark-out are those of frames of the source. All but
    // these, by the distance to mark-in; and how far before mark-in the last such is, 0: none is known.
    bool labelsKnown = true;
    std::vector<bool> labelsLacking;
    std::int64_t lackingBefore = 0;
    std::uint64_t labelledFrames = 0;
    std::uint64_t hiddenFrames = 0; // of those wanted, before the first that has such a label
    int rollingMinutes = 0;         // rolling: length of a segment
    std::string shownAddress;       // where the stream is looked for, for messages
    int shownPort = 0;
    Clock::time_point begin{}; // nothing is recorded before

    // Marks: the labels of the first and the last frame.
    std::string markIn;
    std::string markOut;
    bool marksCountPairs = true; // they are a deck's, which counts pairs of frames at the double rates
    bool useStreamLabels = true; // the stream's own timecodes count where it has them
    int labelTolerance = 0;      // frames by which a label that is told may differ from what was counted
    bool armed = true;           // false: it starts nothing and waits for nothing until it is armed

    // The directory that the output must not leave when it is locked; empty: none.
    std::string mainDirectory;
    bool lockDirectory = false;
    // A file that the job reads, and the output must therefore not be; empty: none.
    std::string source;
};

// Checks the output and its directory, which is made where it is missing: its name, the lock, the source, and
// whether it exists.
[[nodiscard]] MaybeFailure checkOutput(const RecordingPlan& plan);

// Checks the output and its directory, which is made where it is missing, and what the mode is given: its
// duration, its marks, the length of its segments.
[[nodiscard]] MaybeFailure checkPlan(const RecordingPlan& plan);

} // namespace kestrel::capture
