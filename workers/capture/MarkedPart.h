// The part of a file that a mezzanine needs.
#pragma once

#include "Failure.h"
#include "SourceIndex.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::capture {

// The part of a file around two marks.
struct MarkedPart {
    std::uint64_t begin = 0; // bytes
    std::uint64_t end = 0;
    std::string firstLabel; // of the first frame that is shown when it is played
    bool counted =
        false; // the file has no timecodes: labels count from its first frame, which is 00:00:00:00
    // Whether it is known which labels from mark-in to mark-out are those of frames: all but these, by the
    // distance to mark-in.
    bool labelsKnown = false;
    std::vector<bool> lacking{};
    // Frames from the last label before mark-in that is that of no frame of the part; 0: none is known.
    std::int64_t lackingBefore = 0;
    std::vector<SourceLeap> leaps{}; // within the part, up to the random access point behind mark-out
    std::size_t leapsBefore = 0;     // so many of them are before mark-in for certain
};

// Finds the part from a random access point so many seconds before mark-in to so many behind mark-out, cut at
// the ends of the file. A mark that is no timecode of this frame rate, lies outside the file or before the
// other is a failure.
[[nodiscard]] MaybeFailure findPart(const SourceIndex& index, const std::string& markIn,
                                    const std::string& markOut, int secondsBefore, int secondsBehind,
                                    MarkedPart& part);

} // namespace kestrel::capture
