// A recording of what comes back of a source that is played, fed with prepared streams and a clock of the
// test's own: of encoders that wait for the source, and of some that send all the time.
#pragma once

#include "capture/labelled_stream.h"
#include "capture/recording_fixture.h"
#include "capture/stamped_frames.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace capture_test {

inline constexpr int sourceFrames = 100;

class PlayedRecording : public RecordingFixture {
protected:
    kestrel::capture::Clock::duration m_frameTime = std::chrono::milliseconds(40);

    // Of a source that has 100 frames from that label on; without one it has no timecodes.
    kestrel::capture::RecordingPlan plan(const std::string& first = "", const std::string& last = "") {
        kestrel::capture::RecordingPlan result = RecordingFixture::plan(kestrel::capture::CaptureMode::timed);
        result.wantedFrames = sourceFrames;
        result.armed = false;
        result.played = true;
        result.marksCountPairs = false;
        result.sourceRateCode = 3;
        result.markIn = first;
        result.markOut = last;
        result.labelledFrames = first.empty() ? 0 : sourceFrames;
        return result;
    }
    kestrel::capture::RecordingPlan labelledPlan() { return plan("10:00:00:00", "10:00:03:24"); }

    using RecordingFixture::feed;
    void feed(kestrel::capture::Recording& r, const std::vector<CodedFrame>& frames) {
        for (const CodedFrame& frame : frames) {
            r.take(frame.packets, m_now);
            m_now += m_frameTime;
            if (m_now >= r.deadline())
                r.tick(m_now);
        }
    }
    void feed(kestrel::capture::Recording& r, LabelledStream& stream, int count) {
        feed(r, stream.frames(count));
    }
    // Nothing comes.
    void pass(kestrel::capture::Recording& r, kestrel::capture::Clock::duration time) {
        for (const auto end = m_now + time; m_now < end; m_now += std::chrono::milliseconds(100))
            if (m_now >= r.deadline())
                r.tick(m_now);
    }
    // The stream is there before, and the source begins two seconds later.
    void beginRunning(kestrel::capture::Recording& r, LabelledStream& stream, const std::string& label = "") {
        feed(r, stream, 20);
        r.arm(m_now);
        feed(r, stream, 5);
        EXPECT_TRUE(r.status().running);
        m_begin = m_now + std::chrono::seconds(2);
        r.sourceBegins({label, m_begin, true, 0});
        feed(r, stream, 50);
        EXPECT_EQ(r.state(), kestrel::capture::RecordingState::waiting);
    }
    // The same; then the source's first frame, of that label, is the stream's next.
    void beginReturn(kestrel::capture::Recording& r, LabelledStream& stream, const std::string& label) {
        beginRunning(r, stream, label);
        stream.jumpTo(label);
        feed(r, stream, 5); // until the GOP ends
    }
    // Nothing comes before the source begins.
    void beginSilent(kestrel::capture::Recording& r, const std::string& label = "") {
        r.arm(m_now);
        EXPECT_FALSE(r.status().running);
        m_begin = m_now + std::chrono::milliseconds(100);
        r.sourceBegins({label, m_begin, true, 0});
        m_now = m_begin + std::chrono::milliseconds(10);
    }
    // It has ended and succeeded, or failed with a text that begins so.
    static void expectRecorded(const kestrel::capture::Recording& r) {
        ASSERT_EQ(r.state(), kestrel::capture::RecordingState::ended);
        EXPECT_TRUE(r.status().succeeded) << r.status().text;
    }
    static void expectFailed(const kestrel::capture::Recording& r, const std::string& begin) {
        ASSERT_EQ(r.state(), kestrel::capture::RecordingState::ended);
        EXPECT_FALSE(r.status().succeeded);
        EXPECT_TRUE(r.status().text.starts_with(begin)) << r.status().text;
    }
    // The labels of those of these frames that are in the file.
    std::vector<std::string> recordedOf(const std::vector<CodedFrame>& frames) {
        const Packets packets = readPackets(m_file);
        const std::set<Packet> file(packets.begin(), packets.end());
        std::vector<std::string> labels;
        for (const CodedFrame& frame : frames)
            if (file.contains(*std::ranges::find_if(frame.packets, startsPicture)))
                labels.push_back(frame.label);
        return labels;
    }
    std::size_t fileFrames() { return static_cast<std::size_t>(pictures(readPackets(m_file))); }

    kestrel::capture::Clock::time_point m_begin;
};

inline std::vector<std::string> labelsFrom(const std::string& first, int count, int rateCode = 3) {
    LabelledShape shape;
    shape.timecode = first;
    shape.rateCode = rateCode;
    std::vector<std::string> labels;
    for (const CodedFrame& frame : LabelledStream(shape).frames(count))
        labels.push_back(frame.label);
    return labels;
}

// What an encoder sends before the source.
inline LabelledShape idle(LabelledShape shape = {}) {
    shape.timecode = "00:00:00:00";
    shape.gop = 10;
    return shape;
}

} // namespace capture_test
