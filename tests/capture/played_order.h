// Recordings of what comes back of a source that is played, from encoders that code frames in another order
// than they are shown.
#pragma once

#include "capture/played_fixture.h"
#include "capture/stamped_frames.h"

#include <algorithm>
#include <string>
#include <vector>

namespace capture_test {

inline std::string nameOf(const LabelledShape& shape) {
    return std::string(shape.avc ? "H264" : "Mpeg2") + "With" + std::to_string(shape.bFrames) + "BFrames" +
           (shape.open ? "InOpenGops" : "") + (shape.fields ? "OfFields" : "") +
           (shape.delay != 0 ? "Delayed" : "") + (shape.rateCode == 6 ? "At50" : "");
}

class PlayedOrder : public PlayedRecording {
protected:
    static std::vector<CodedFrame> unstamped(std::vector<CodedFrame> frames) {
        std::ranges::for_each(frames, unstamp);
        return frames;
    }
};

} // namespace capture_test
