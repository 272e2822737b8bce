// What a file that is to be re-encoded consists of: its frames, and where playing it can begin.
#pragma once

#include "Failure.h"
#include "FrameLabels.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::capture {

// A random access point of the first program's video.
struct AccessPoint {
    std::uint64_t offset = 0;    // of its first packet, in bytes
    std::uint64_t frame = 0;     // frames of the file before it
    std::optional<int> timecode; // of its GOP header, 25 bits
    int skipped = 0;             // frames of its GOP that cannot be shown when playing begins here
    bool exact = true;           // the timecode is that of the GOP's first frame; else, of H.264, its own
    int leading = 0;             // H.264: frames that are coded behind it and shown before it
    std::int64_t shown = 0;      // when the frame is that has its timecode, as in SourceIndex::shown
};

// The timestamps go on later than the frames before take, but what plays the file does not wait: its PCRs
// step there by more than a second, or are announced to.
struct SourceLeap {
    std::int64_t step = 0;   // from one PES packet to the next (PTS units)
    std::int64_t excess = 0; // by which that is longer than the frames of the first
};

struct SourceIndex {
    std::uint64_t frames = 0;
    int frameRateCode = 0;
    std::vector<AccessPoint> points; // in the order of the file
    bool uniform = true;             // one frame rate and one codec throughout
    // From the first random access point on, when it is played (PTS units): from the first frame that is
    // shown to the end of the last where it is known of each when it is shown, else by when they are decoded.
    std::int64_t time = 0;
    // Where that is longer than their number tells: when the frames from there on are shown, from the first
    // one, in that order (PTS units). Empty where that is not known of each.
    std::vector<std::int64_t> shown{};
    // Those that exist of the frames that cannot be shown when playing begins with the first random access
    // point; none where that is not known.
    std::optional<std::uint64_t> hidden{};
    std::vector<SourceLeap> leaps{}; // in the order of the file
};

// Reads the whole file. Ends early, with what was found until then, when cancel is set.
[[nodiscard]] MaybeFailure indexSource(const std::string& path, const std::atomic<bool>& cancel,
                                       SourceIndex& index);

// The frames of a file from its first random access point on, and how far their labels count on.
struct LabelledFrames {
    std::string first; // of the first frame that is shown
    std::string last;
    std::uint64_t count = 0;  // from the first to the last; 0 when the file has no timecodes
    std::uint64_t hidden = 0; // frames that cannot be shown when playing begins with that access point
};
[[nodiscard]] LabelledFrames labelledFrames(const SourceIndex& index);

// The part of a file around two marks.
struct MarkedPart {
    std::uint64_t begin = 0; // bytes
    std::uint64_t end = 0;
    std::string firstLabel; // of the first frame that is shown when it is played
    bool counted =
        false; // the file has no timecodes: labels count from its first frame, which is 00:00:00:00
    bool everyLabel = false; // each label from mark-in to mark-out is that of a frame
};

// Finds the part from a random access point so many seconds before mark-in to so many behind mark-out, cut at
// the ends of the file. A mark that is no timecode of this frame rate, lies outside the file or before the
// other is a failure.
[[nodiscard]] MaybeFailure findPart(const SourceIndex& index, const std::string& markIn,
                                    const std::string& markOut, int secondsBefore, int secondsBehind,
                                    MarkedPart& part);

} // namespace kestrel::capture
