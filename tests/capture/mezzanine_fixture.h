// A recording between two marks of what comes back of a part that is played.
#pragma once

#include "capture/played_fixture.h"

namespace capture_test {

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
};

} // namespace capture_test
