// What a file that is to be re-encoded consists of: its frames, and where playing it can begin.
#pragma once

#include "Failure.h"

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
    int reference = 0;           // MPEG-2: frames of its GOP that are shown before it (temporal_reference)
};

// The timestamps go on later than the frames before take, but what plays the file does not wait: its PCRs
// step there by more than a second, or are announced to.
struct SourceLeap {
    std::int64_t step = 0; // from one PES packet to the next (PTS units)
    std::int64_t excess =
        0;                 // by which that is longer than the frames of the first, as far as it is not played
    std::size_t frame = 0; // the first one behind it, from the first random access point on
};

struct SourceIndex {
    std::uint64_t frames = 0;
    int frameRateCode = 0;
    std::vector<AccessPoint> points; // in the order of the file
    bool uniform = true;             // one frame rate and one codec throughout
    // From the first random access point on, when it is played (PTS units): from the first frame that is
    // shown to the end of the last where it is known of each when it is shown, else by when they are decoded.
    std::int64_t time = 0;
    // When each of these frames is shown, by the timestamps, in the order of the file (PTS units). Empty
    // where that is not known of each.
    std::vector<std::int64_t> shown{};
    // Those that exist of the frames that cannot be shown when playing begins with the first random access
    // point; none where that is not known.
    std::optional<std::uint64_t> hidden{};
    std::vector<SourceLeap> leaps{}; // in the order of the file
};

// Reads the whole file. Ends early, with what was found until then, when cancel is set.
[[nodiscard]] MaybeFailure indexSource(const std::string& path, const std::atomic<bool>& cancel,
                                       SourceIndex& index);

// SourceIndex::shown without the time over leaps that is not played.
[[nodiscard]] std::vector<std::int64_t> playedTimes(const SourceIndex& index);
// Where the file takes longer than the number of its frames tells: when these are shown when it is played,
// from the first one, in that order (PTS units). Empty where that is not known of each.
[[nodiscard]] std::vector<std::int64_t> longerPlaces(const SourceIndex& index);

} // namespace kestrel::capture
