// A recording that is fed with prepared packets and given the time, and the file that it writes.
#pragma once

#include "capture/Recording.h"
#include "capture/stream_builder.h"

#include <gtest/gtest.h>
#include <string>

namespace capture_test {

class RecordingFixture : public testing::Test {
protected:
    TemporaryDirectory m_directory;
    kestrel::capture::Clock::time_point m_now{std::chrono::seconds(1000)};
    std::string m_file = m_directory.path("out.ts");

    kestrel::capture::RecordingPlan plan(kestrel::capture::CaptureMode mode,
                                         const std::string& duration = "") {
        kestrel::capture::RecordingPlan result;
        result.mode = mode;
        result.name = "Encoder 1";
        result.output = m_file;
        result.duration = duration;
        result.rollingMinutes = 1;
        result.shownAddress = "10.1.2.3";
        result.shownPort = 5000;
        return result;
    }
    kestrel::capture::Recording recording(const kestrel::capture::RecordingPlan& asked) {
        kestrel::capture::Recording made(asked, kestrel::capture::Timing{}, m_now);
        EXPECT_FALSE(made.prepare());
        return made;
    }
};

} // namespace capture_test
