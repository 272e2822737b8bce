// A stream whose video stops while its sound, its tables or its null packets go on.
#include "capture/captured_log.h"
#include "capture/labelled_stream.h"
#include "capture/recording_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

using VideoStall = RecordingFixture;

// Without a duration nothing else would tell that there is nothing to be seen any more.
TEST_F(VideoStall, WhereTheVideoStoppedAndCameBackIsLoggedThoughTheStreamGoesOn) {
    for (const CaptureMode mode : {CaptureMode::manual, CaptureMode::rolling}) {
        const CapturedLog log;
        Recording r = recording(plan(mode));
        LabelledStream stream;
        const Packets sent = join(stream.frames(10));
        r.take(sent, m_now);
        const auto last = m_now;
        m_now += 40ms;
        feed(r, packetOf(audioPid), 2800ms);
        EXPECT_EQ(log.count("Encoder 1: the video has stopped after packet " + std::to_string(sent.size()) +
                            " of the file, PID 256"),
                  1)
            << log.text();
        EXPECT_EQ(r.status().stops, 1u);
        m_now = last + 3s;
        r.take(join(stream.frames(2)), m_now);
        EXPECT_EQ(log.count("Encoder 1: the video is back after 3.0 s, with PID 256"), 1) << log.text();
        EXPECT_EQ(log.count("the stream"), 0) << log.text();
        r.cancel(m_now);
        EXPECT_THAT(r.status().text, HasSubstr(", stream stopped 1 time"));
        std::filesystem::remove(m_file);
    }
}

TEST_F(VideoStall, AStreamThatStopsWithItsVideoAndComesBackWithItsSoundIsCountedOnce) {
    const CapturedLog log;
    Recording r = recording(plan(CaptureMode::manual));
    LabelledStream stream;
    r.take(join(stream.frames(10)), m_now);
    m_now += 3s;
    r.tick(m_now);
    feed(r, packetOf(audioPid), 1s);
    EXPECT_EQ(r.status().stops, 1u);
    EXPECT_EQ(log.count("the video has stopped"), 0)
        << log.text() << "there is time for it to come back, too";
    feed(r, packetOf(audioPid), 2s);
    EXPECT_EQ(r.status().stops, 2u);
    m_now += 3s;
    r.tick(m_now);
    EXPECT_EQ(r.status().stops, 2u) << "nothing more is lost now";
}

// Something is lost more often than that: what comes between tells that there is no video.
TEST_F(VideoStall, ALossExcusesOnlyTheGapItLiesIn) {
    Recording r = recording(plan(CaptureMode::manual));
    LabelledStream stream;
    r.take(join(stream.frames(10)), m_now);
    m_now += 40ms;
    for (int i = 0; i < 3; ++i) { // 0.6 s with sound alone, after 1 s in which all was lost
        EXPECT_EQ(r.status().stops, 0u);
        feed(r, packetOf(audioPid), 600ms);
        m_now += 960ms;
        r.heard(m_now - 500ms); // known before more comes
        r.heard(m_now);
    }
    feed(r, packetOf(audioPid), 400ms);
    EXPECT_EQ(r.status().stops, 1u);
}

TEST_F(VideoStall, AVideoThatIsLostWithAllElseHasNotStopped) {
    Recording r = recording(plan(CaptureMode::manual));
    LabelledStream stream;
    r.take(join(stream.frames(10)), m_now);
    for (int i = 0; i < 5; ++i) {
        m_now += 3s;
        r.heard(m_now);
        r.tick(m_now);
        feed(r, packetOf(audioPid), 400ms);
        r.take(join(stream.frames(2)), m_now);
    }
    EXPECT_EQ(r.status().stops, 0u);
}

} // namespace
