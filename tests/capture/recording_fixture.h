// A recording that is fed with prepared packets and given the time, and the file that it writes.
#pragma once

#include "capture/Recording.h"
#include "capture/stream_builder.h"

#include <chrono>
#include <gtest/gtest.h>
#include <span>
#include <string>

namespace capture_test {

class RecordingFixture : public testing::Test {
protected:
    TemporaryDirectory m_directory;
    kestrel::capture::Clock::time_point m_now{std::chrono::seconds(1000)};
    std::string m_file = m_directory.path("out.ts");
    int m_recordings = 0;

    // What is recorded next goes to a file of its own.
    void nextFile() { m_file = m_directory.path(std::to_string(++m_recordings) + ".ts"); }
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
    // Only this packet comes, again and again.
    void feed(kestrel::capture::Recording& r, const Packet& packet, kestrel::capture::Clock::duration time) {
        for (const auto end = m_now + time;
             m_now < end && r.state() != kestrel::capture::RecordingState::ended;
             m_now += std::chrono::milliseconds(40)) {
            r.take(std::span(&packet, 1), m_now);
            if (m_now >= r.deadline())
                r.tick(m_now);
        }
    }
};

} // namespace capture_test
