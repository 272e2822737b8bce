// A recording between two marks of what comes back of a part that is played.
#pragma once

#include "capture/played_fixture.h"

#include <algorithm>

namespace capture_test {

// Timestamps that leave out so many labels, at 25 frames a second.
inline kestrel::capture::SourceLeap leapOver(std::int64_t labels) {
    return {(labels + 1) * PTS::units_per_second / 25, labels * PTS::units_per_second / 25};
}

class MezzanineRecording : public PlayedRecording {
protected:
    // The part that is played begins with 10:00:00:00.
    kestrel::capture::RecordingPlan marks() {
        kestrel::capture::RecordingPlan result = plan();
        result.mode = kestrel::capture::CaptureMode::marks;
        result.wantedFrames = 0;
        result.markIn = "10:00:01:00";
        result.markOut = "10:00:01:24";
        result.useStreamLabels = false;
        return result;
    }
    // The source has no frame for so many labels, from one by its distance to mark-in on.
    static void lack(kestrel::capture::RecordingPlan& plan, int from, int labels) {
        plan.labelsLacking.resize(static_cast<std::size_t>(from + labels));
        std::fill(plan.labelsLacking.begin() + from, plan.labelsLacking.end(), true);
    }
    // Running: the encoder sends before.
    void begin(kestrel::capture::Recording& r, LabelledStream& stream, bool running) {
        if (running)
            beginRunning(r, stream, "10:00:00:00");
        else
            beginSilent(r, "10:00:00:00");
    }
};

} // namespace capture_test
