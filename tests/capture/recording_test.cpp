// The recording of one encoder, fed with prepared packets and a clock of the test's own.
#include "capture/captured_log.h"
#include "capture/recording_fixture.h"
#include "capture/stream_builder.h"
#include "capture/stream_variants.h"
#include "foundation/ErrorCodes.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <span>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class RecordingTest : public RecordingFixture {
protected:
    // The packets without the copies of PAT and PMT at the beginning.
    static Packets body(Packets file) {
        EXPECT_EQ(pid(file.at(0)), 0);
        EXPECT_EQ(pid(file.at(1)), pmtPid);
        file.erase(file.begin(), file.begin() + 2);
        return file;
    }
};

TEST_F(RecordingTest, ATimedCaptureHoldsExactlyTheFramesAskedForAndNothingOfTheNext) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:02:00"));
    const Packets sent = StreamBuilder().frames(120);
    r.take(sent, m_now);
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:02:00 (50 frames, 0.0 MB), 0 continuity errors"));
    const Packets file = readPackets(m_file);
    EXPECT_EQ(pictures(file), 50);
    EXPECT_EQ(continuityErrors(file), 0);
    EXPECT_EQ(positionOf(body(file), sent), 2);
    EXPECT_EQ(sent[2 + body(file).size()][1] & 0x40, 0x40) << "cut where a PES packet or a section begins";
}

// The encoder goes on without video.
TEST_F(RecordingTest, ATimedCaptureIsCompleteWhenNoFrameComesBehindTheLast) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:02:00"));
    r.take(StreamBuilder().frames(50), m_now);
    const auto last = m_now;
    Packet null{};
    null[0] = 0x47;
    null[1] = 0x1F;
    null[2] = 0xFF;
    null[3] = 0x10;
    for (; r.state() == RecordingState::recording && m_now < last + 30s; m_now += 40ms) {
        r.take(std::span(&null, 1), m_now);
        if (m_now >= r.deadline())
            r.tick(m_now);
    }
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_TRUE(r.status().succeeded) << r.status().text;
    EXPECT_EQ(pictures(readPackets(m_file)), 50);
    EXPECT_LE(m_now, last + 2200ms);
}

TEST_F(RecordingTest, ARecordingBeginsAtTheFirstRandomAccessPoint) {
    Recording r = recording(plan(CaptureMode::manual));
    StreamBuilder builder;
    Packets sent = builder.frames(40);
    // Joined in the middle of the first GOP, behind the tables of frame 4.
    const Packets joined(sent.begin() + 23, sent.end());
    r.take(joined, m_now);
    r.cancel(m_now);
    const Packets file = readPackets(m_file);
    EXPECT_EQ(pictures(file), 28);
    EXPECT_EQ(continuityErrors(file), 0);
    EXPECT_EQ(pid(file.at(2)), videoPid);
    EXPECT_TRUE(file.at(2)[1] & 0x40);
    EXPECT_EQ(positionOf(body(file), sent) + static_cast<int>(body(file).size()),
              static_cast<int>(sent.size()))
        << "every packet after the beginning is kept";
}

TEST_F(RecordingTest, DropFrameDurationsCountRealFrames) {
    for (const auto& [duration, frames, text] : {std::tuple{"00:00:02:00", 60, "00:00:02;00"},
                                                 {"00:01:00:02", 1800, "00:01:00;02"},
                                                 {"00:01:00:00", 1800, "00:01:00;02"}}) {
        std::filesystem::remove(m_file);
        Recording r = recording(plan(CaptureMode::timed, duration));
        r.take(StreamBuilder({.rateCode = 4}).frames(frames + 10), m_now);
        EXPECT_TRUE(r.status().succeeded);
        EXPECT_EQ(pictures(readPackets(m_file)), frames) << duration;
        EXPECT_THAT(r.status().text, StartsWith(std::string("Recorded ") + text));
    }
}

TEST_F(RecordingTest, TwoFieldPicturesAreOneFrame) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:01:00"));
    r.take(StreamBuilder({.fieldPictures = true}).frames(60), m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_EQ(r.status().frames, 25u);
    EXPECT_EQ(pictures(readPackets(m_file)), 50);
}

TEST_F(RecordingTest, H264IsCountedByAccessUnitsAtItsVuiRate) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:01:00"));
    r.take(StreamBuilder({.avc = true}).frames(60), m_now);
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:01:00 (25 frames"));
    EXPECT_EQ(continuityErrors(readPackets(m_file)), 0);
}

TEST_F(RecordingTest, NeitherTheWrapOfTheClockNorAJumpBreaksTheCount) {
    StreamBuilder builder({.dts = (std::int64_t{1} << 33) - 20 * 3600});
    Packets sent = builder.frames(36);
    builder.setDts(5000);
    const Packets more = builder.frames(60);
    sent.insert(sent.end(), more.begin(), more.end());
    Recording r = recording(plan(CaptureMode::timed, "00:00:03:00"));
    r.take(sent, m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_EQ(pictures(readPackets(m_file)), 75);
}

TEST_F(RecordingTest, ADurationIsOneOfTheStreamsClockSoLostFramesCount) {
    StreamBuilder builder;
    Packets sent = builder.frames(20);
    // 25 frames are lost on the way: the next is the 46th.
    builder.setDts(126000 + 45 * 3600);
    const Packets more = builder.frames(60);
    sent.insert(sent.end(), more.begin(), more.end());
    Recording r = recording(plan(CaptureMode::timed, "00:00:03:00"));
    r.take(sent, m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_EQ(pictures(readPackets(m_file)), 50) << "75 less those that were lost";
    EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:02:00 (50 frames")) << "what is there";
}

TEST_F(RecordingTest, RollingSegmentsBeginAtRandomAccessPointsAndLoseNothing) {
    Recording r = recording(plan(CaptureMode::rolling));
    const Packets sent = StreamBuilder({.dts = (std::int64_t{1} << 33) - 1000000}).frames(25 * 150);
    r.take(sent, m_now);
    r.cancel(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr("3 segments"));
    // Segments of one second share a name but for the number behind it.
    Packets joined;
    auto names = filesIn(m_directory.path(""));
    ASSERT_EQ(names.size(), 3u);
    std::vector<Packets> segments;
    for (const std::string& name : names) {
        EXPECT_THAT(name, testing::ContainsRegex("out_[0-9]{8}_[0-9]{6}(-[0-9]+)?\\.ts$"));
        const Packets file = readPackets(name);
        EXPECT_EQ(continuityErrors(file), 0);
        EXPECT_TRUE(file.at(2)[1] & 0x40);
        segments.push_back(body(file));
    }
    std::sort(segments.begin(), segments.end(),
              [&](const Packets& a, const Packets& b) { return positionOf(a, sent) < positionOf(b, sent); });
    for (const Packets& segment : segments)
        joined.insert(joined.end(), segment.begin(), segment.end());
    EXPECT_EQ(positionOf(joined, sent), 2);
    EXPECT_EQ(joined.size() + 2, sent.size());
    EXPECT_EQ(pictures(segments[0]), 1500);
}

TEST_F(RecordingTest, ContinuityErrorsAreCountedAndNotFatal) {
    Packets sent = StreamBuilder().frames(60);
    sent.erase(sent.begin() + 20);
    Recording r = recording(plan(CaptureMode::manual));
    r.take(sent, m_now);
    r.cancel(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr(", 1 continuity error"));
}

TEST_F(RecordingTest, AStreamThatStopsAndComesBackGoesOnInTheSameFile) {
    StreamBuilder builder;
    Recording r = recording(plan(CaptureMode::timed, "00:00:02:00"));
    r.take(builder.frames(20), m_now);
    m_now += 2s;
    r.tick(m_now);
    EXPECT_EQ(r.status().stops, 1u);
    m_now += 3s;
    r.take(builder.frames(40), m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_EQ(pictures(readPackets(m_file)), 50);
    EXPECT_THAT(r.status().text, HasSubstr("stream stopped 1 time"));
}

TEST_F(RecordingTest, ATimedCaptureWhoseStreamIsGoneEndsAfterItsDurationAndTenSeconds) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:05:00"));
    const Clock::time_point begin = m_now;
    r.take(StreamBuilder().frames(20), m_now);
    while (r.state() == RecordingState::recording && m_now < begin + 60s) {
        ASSERT_GT(r.deadline(), m_now) << "a wait that does not advance";
        m_now = r.deadline();
        r.tick(m_now);
    }
    EXPECT_EQ(m_now, begin + 15s);
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Error: Capture discontinuity."));
    EXPECT_THAT(r.status().text, HasSubstr("Recorded 00:00:00:20 (20 frames"));
    EXPECT_EQ(pictures(readPackets(m_file)), 20);
}

TEST_F(RecordingTest, AStreamThatEndsWithTheLastFrameAskedForIsASuccess) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:02:00"));
    r.take(StreamBuilder().frames(50), m_now);
    EXPECT_EQ(r.state(), RecordingState::recording);
    m_now += 2s;
    r.tick(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:02:00 (50 frames"));
}

TEST_F(RecordingTest, NoStreamIsNamedWithAddressAndPort) {
    Recording r = recording(plan(CaptureMode::manual));
    r.take(Packets(100, Packet{0x47, 0x1F, 0xFF, 0x10}), m_now); // packets, but no program
    m_now += 10s;
    EXPECT_EQ(r.deadline(), m_now);
    r.tick(m_now);
    EXPECT_EQ(r.status().text,
              "Error: Do not see MPEG transport stream for capture at IP address 10.1.2.3:5000.");
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_FALSE(std::filesystem::exists(m_file));
}

// Its program is known, so that only the packets that do not come tell that it is gone.
TEST_F(RecordingTest, AStreamThatIsGoneBeforeTheRecordingCanBeginIsNamedLikewise) {
    RecordingPlan asked = plan(CaptureMode::timed, "00:00:05:00");
    asked.begin = m_now + 30s;
    Recording r = recording(asked);
    r.take(StreamBuilder().frames(30), m_now + 5s);
    EXPECT_EQ(r.deadline(), asked.begin + 10s);
    r.tick(asked.begin + 10s - 1ms);
    EXPECT_EQ(r.state(), RecordingState::waiting);
    r.tick(asked.begin + 10s);
    EXPECT_EQ(r.status().text,
              "Error: Do not see MPEG transport stream for capture at IP address 10.1.2.3:5000.");
    EXPECT_FALSE(r.status().succeeded);
}

// While anything comes it is there, though it may not be recorded.
TEST_F(RecordingTest, AStreamThatIsGoneAfterTheBeginIsMeasuredFromItsLastPacket) {
    RecordingPlan asked = plan(CaptureMode::manual);
    asked.begin = m_now + 30s;
    Recording r = recording(asked);
    r.take(StreamBuilder().frames(30), m_now);
    const Packet sound = packetOf(audioPid);
    r.take(std::span(&sound, 1), asked.begin + 15s);
    EXPECT_EQ(r.deadline(), asked.begin + 25s);
    r.take(std::span(&sound, 1), asked.begin + 24s);
    EXPECT_EQ(r.deadline(), asked.begin + 30s) << "no random access point in all the time";
    r.tick(asked.begin + 30s);
    EXPECT_THAT(r.status().text, HasSubstr("(no random access point in the video)"));
}

TEST_F(RecordingTest, AProgramWithoutVideoIsToldAsSuch) {
    const CapturedLog log;
    Recording r = recording(plan(CaptureMode::manual));
    const Packets sound = Reprogrammer()(StreamBuilder().frames(30), {.videoType = 3});
    r.take(sound, m_now);
    EXPECT_EQ(log.count("[Capture:Warning] Encoder 1: the program has no video that can be recorded\r\n"), 1)
        << log.text();
    feed(r, packetOf(audioPid), 31s);
    EXPECT_EQ(r.status().text,
              "Error: Start Capture timed out. (the program has no video that can be recorded)");
    EXPECT_FALSE(r.status().succeeded);
}

TEST_F(RecordingTest, CancelWhileWaitingEndsAtOnceAndSaysSo) {
    Recording r = recording(plan(CaptureMode::manual));
    r.cancel(m_now);
    EXPECT_EQ(r.state(), RecordingState::ended);
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text, HasSubstr("nothing recorded"));
}

TEST_F(RecordingTest, ACancelledTimedCaptureTellsAfterHowMuch) {
    Recording r = recording(plan(CaptureMode::timed, "00:01:00:00"));
    r.take(StreamBuilder().frames(30), m_now);
    r.cancel(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Cancelled after 00:00:01:05 (30 frames"));
}

TEST_F(RecordingTest, AnExistingFileIsNotOverwritten) {
    std::ofstream(m_file) << "precious";
    Recording r(plan(CaptureMode::manual), Timing{}, m_now);
    const MaybeFailure failed = r.prepare();
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, kestrel::error::fileAlreadyExists);
    EXPECT_THAT(failed->text,
                StartsWith("Warning: The file specified already exists.  Overwrite existing file?"));
    EXPECT_EQ(readText(m_file), "precious");
}

TEST_F(RecordingTest, DurationsThatCannotBeAreRefused) {
    for (const char* bad : {"", "1:2:3:4", "00:00:00", "00:00:00:0x", "00:00:10:00 "}) {
        Recording r(plan(CaptureMode::timed, bad), Timing{}, m_now);
        const MaybeFailure failed = r.prepare();
        ASSERT_TRUE(failed) << bad;
        EXPECT_EQ(failed->code, kestrel::error::invalidDuration);
    }
    Recording frames = recording(plan(CaptureMode::timed, "00:00:00:25"));
    frames.take(StreamBuilder().frames(5), m_now);
    EXPECT_EQ(frames.status().text, "Error: Invalid Duration 00:00:00:25 for rate_code 3 and drop frame 0.");
    Recording tiny = recording(plan(CaptureMode::timed, "00:00:00:04"));
    tiny.take(StreamBuilder().frames(5), m_now);
    EXPECT_EQ(tiny.status().text, "Error: Use a minimum of 5 frames for the capture duration.");
    EXPECT_FALSE(std::filesystem::exists(m_file));
}

TEST_F(RecordingTest, MissingDirectoriesAreMade) {
    m_file = m_directory.path("a/b/out.ts");
    Recording r = recording(plan(CaptureMode::timed, "00:00:01:00"));
    r.take(StreamBuilder().frames(30), m_now);
    EXPECT_EQ(pictures(readPackets(m_file)), 25);
}

TEST_F(RecordingTest, ADiskThatIsFullEndsTheCapture) {
    std::filesystem::create_symlink("/dev/full", m_file);
    RecordingPlan asked = plan(CaptureMode::manual);
    asked.overwrite = true;
    Recording r = recording(asked);
    r.take(StreamBuilder().frames(200), m_now);
    EXPECT_FALSE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Error: Disk Full.  Ending Capture."));
}

} // namespace
