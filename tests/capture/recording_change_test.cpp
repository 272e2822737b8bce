// Recordings of streams whose program or pictures are out of the ordinary.
#include "capture/recording_fixture.h"
#include "capture/stream_variants.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class RecordingChange : public RecordingFixture {
protected:
    StreamBuilder m_builder;
    Reprogrammer m_reprogram;
    Packets m_sent;

    void send(int frames, const ProgramShape& shape) {
        const Packets more = m_reprogram(m_builder.frames(frames), shape);
        m_sent.insert(m_sent.end(), more.begin(), more.end());
    }
    // The segments in the order of the stream.
    std::vector<Packets> segments(std::size_t tables) {
        std::vector<Packets> files;
        for (const std::string& name : filesIn(m_directory.path("")))
            files.push_back(readPackets(name));
        const auto place = [&](const Packets& file) {
            return positionOf(Packets(file.begin() + static_cast<std::ptrdiff_t>(tables), file.end()),
                              m_sent);
        };
        std::sort(files.begin(), files.end(),
                  [&](const Packets& a, const Packets& b) { return place(a) < place(b); });
        return files;
    }
    // What is in the files behind the tables they begin with, in one piece.
    static Packets joined(const std::vector<Packets>& files, std::size_t tables) {
        Packets all;
        for (const Packets& file : files)
            all.insert(all.end(), file.begin() + static_cast<std::ptrdiff_t>(tables), file.end());
        return all;
    }
};

const ProgramShape before;
const ProgramShape otherVideo{.videoPid = 0x333};
const ProgramShape otherPmt{.pmtPid = 0x500, .videoPid = 0x333, .audioPid = 0x334};

TEST_F(RecordingChange, AManualRecordingGoesOnOverOtherPids) {
    Recording r = recording(plan(CaptureMode::manual));
    send(24, before);
    send(20, otherVideo); // ends within a GOP
    send(28, otherPmt);
    r.take(m_sent, m_now);
    EXPECT_EQ(r.state(), RecordingState::recording);
    r.cancel(m_now);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:02:22 (72 frames"));
    EXPECT_THAT(r.status().text, HasSubstr(", 0 continuity errors"));
    const Packets file = readPackets(m_file);
    EXPECT_TRUE(Packets(file.begin() + 2, file.end()) == Packets(m_sent.begin() + 2, m_sent.end()));
}

TEST_F(RecordingChange, ATimedRecordingCountsTheFramesOfBothVideoPids) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:03:00"));
    send(24, before);
    send(20, otherVideo);
    send(60, otherPmt);
    r.take(m_sent, m_now);
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_TRUE(r.status().succeeded) << r.status().text;
    const Packets file = readPackets(m_file);
    EXPECT_EQ(pictureHeaders(file), 24);
    EXPECT_EQ(pictureHeaders(file, 0x333), 51);
    EXPECT_EQ(continuityErrors(file), 0);
}

TEST_F(RecordingChange, RollingSegmentsBeginWithTheTablesOfTheirOwnProgram) {
    Recording r = recording(plan(CaptureMode::rolling));
    send(700, before);
    send(2300, otherVideo);
    send(500, otherPmt); // exactly at the beginning of the third segment
    r.take(m_sent, m_now);
    r.cancel(m_now);
    EXPECT_TRUE(r.status().succeeded) << r.status().text;
    const auto files = segments(2);
    ASSERT_EQ(files.size(), 3u);
    const int pmtPids[] = {pmtPid, pmtPid, 0x500};
    const int videoPids[] = {videoPid, 0x333, 0x333};
    for (std::size_t i = 0; i < files.size(); ++i) {
        EXPECT_EQ(pid(files[i].at(0)), 0);
        EXPECT_EQ(pid(files[i].at(1)), pmtPids[i]) << i;
        EXPECT_EQ(pid(files[i].at(2)), videoPids[i]) << i;
        EXPECT_EQ(continuityErrors(files[i]), 0) << i;
    }
    const Packets all = joined(files, 2);
    EXPECT_EQ(all.size() + 2, m_sent.size());
    EXPECT_EQ(positionOf(all, m_sent), 2);
}

TEST_F(RecordingChange, AProgramChangeJustBeforeTheCutIsThatOfTheNewSegment) {
    Recording r = recording(plan(CaptureMode::rolling));
    send(1500, before);
    send(100, otherPmt);
    r.take(m_sent, m_now);
    r.cancel(m_now);
    const auto files = segments(2);
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(pictureHeaders(files[0]), 1500);
    EXPECT_EQ(pid(files[1].at(1)), 0x500);
    EXPECT_EQ(pid(files[1].at(2)), 0x333);
    EXPECT_EQ(pictureHeaders(files[1], 0x333), 100);
}

TEST_F(RecordingChange, SegmentsBeginWithAllPacketsOfALongPmt) {
    Recording r = recording(plan(CaptureMode::rolling));
    send(25 * 130, {.programInfo = 500});
    r.take(m_sent, m_now);
    r.cancel(m_now);
    const auto files = segments(4);
    ASSERT_EQ(files.size(), 3u);
    for (const Packets& file : files) {
        EXPECT_EQ(pid(file.at(0)), 0);
        for (std::size_t i = 1; i <= 3; ++i) {
            EXPECT_EQ(pid(file.at(i)), pmtPid);
            EXPECT_EQ((file.at(i)[1] & 0x40) != 0, i == 1) << "in their order";
        }
        EXPECT_EQ(pid(file.at(4)), videoPid);
        EXPECT_EQ(continuityErrors(file), 0);
    }
    const Packets all = joined(files, 4);
    EXPECT_EQ(all.size() + 4, m_sent.size());
    EXPECT_EQ(positionOf(all, m_sent), 4);
}

TEST_F(RecordingChange, PacketsSentTwiceAreWrittenTwiceAndCountedOnce) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:02:00"));
    m_sent = withDuplicates(m_builder.frames(80));
    r.take(m_sent, m_now);
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_EQ(r.status().frames, 50u);
    const Packets file = readPackets(m_file);
    EXPECT_EQ(pictureHeaders(file), 100) << "each twice";
    EXPECT_GE(positionOf(Packets(file.begin() + 2, file.end()), m_sent), 2);
}

TEST_F(RecordingChange, SeveralFramesInAPesPacketAreAllCounted) {
    for (const bool avc : {false, true}) {
        std::filesystem::remove(m_file);
        Recording r = recording(plan(CaptureMode::timed, "00:00:02:00"));
        r.take(StreamBuilder({.avc = avc, .framesPerUnit = 2}).frames(80), m_now);
        ASSERT_EQ(r.state(), RecordingState::ended) << avc;
        EXPECT_TRUE(r.status().succeeded);
        EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:02:00 (50 frames")) << avc;
        const Packets file = readPackets(m_file);
        EXPECT_EQ(std::count_if(file.begin(), file.end(),
                                [](const Packet& p) { return pid(p) == videoPid && (p[1] & 0x40); }),
                  25)
            << "PES packets";
    }
}

TEST_F(RecordingChange, ADurationThatEndsInsideAPesPacketIsRoundedUpToItsEnd) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:01:00"));
    r.take(StreamBuilder({.framesPerUnit = 2}).frames(80), m_now);
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_THAT(r.status().text, StartsWith("Recorded 00:00:01:01 (26 frames"));
    EXPECT_EQ(pictureHeaders(readPackets(m_file)), 26);
}

TEST_F(RecordingChange, TwoFieldPicturesOfH264AreOneFrame) {
    Recording r = recording(plan(CaptureMode::timed, "00:00:01:00"));
    r.take(StreamBuilder({.fieldPictures = true, .avc = true}).frames(60), m_now);
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_TRUE(r.status().succeeded);
    EXPECT_EQ(r.status().frames, 25u);
    const Packets file = readPackets(m_file);
    EXPECT_EQ(std::count_if(file.begin(), file.end(),
                            [](const Packet& p) { return pid(p) == videoPid && (p[1] & 0x40); }),
              50)
        << "fields";
}

TEST_F(RecordingChange, H264WithoutVuiTimingTakesItsRateFromTheTimestamps) {
    for (const auto& [rateCode, duration, frames, text] : {std::tuple{3, "00:00:02:00", 50, "00:00:02:00"},
                                                           {4, "00:00:02:00", 60, "00:00:02;00"},
                                                           {6, "00:00:01:00", 50, "00:00:01:00"}}) {
        std::filesystem::remove(m_file);
        Recording r = recording(plan(CaptureMode::timed, duration));
        r.take(StreamBuilder({.rateCode = rateCode, .avc = true, .avcTiming = false}).frames(frames + 40),
               m_now);
        ASSERT_EQ(r.state(), RecordingState::ended) << rateCode;
        EXPECT_TRUE(r.status().succeeded);
        EXPECT_EQ(r.status().frameRateCode, rateCode);
        EXPECT_THAT(r.status().text,
                    StartsWith(std::string("Recorded ") + text + " (" + std::to_string(frames) + " frames"));
    }
}

TEST_F(RecordingChange, NothingIsRecordedBeforeTheTimeItBegins) {
    RecordingPlan asked = plan(CaptureMode::rolling);
    asked.begin = m_now + 30s;
    Recording r = recording(asked);
    EXPECT_EQ(r.deadline(), m_now + 40s) << "the wait for a stream counts from there";
    const Packets early = m_builder.frames(125);
    m_now += 29s;
    r.take(early, m_now);
    EXPECT_EQ(r.state(), RecordingState::waiting);
    EXPECT_EQ(r.status().frames, 0u);
    EXPECT_TRUE(filesIn(m_directory.path("")).empty());
    m_now += 1s;
    const Packets later = m_builder.frames(30); // frame 125 is inside a GOP, which begins with frame 120
    r.take(later, m_now);
    r.cancel(m_now);
    EXPECT_TRUE(r.status().succeeded);
    const auto names = filesIn(m_directory.path(""));
    ASSERT_EQ(names.size(), 1u);
    const Packets file = readPackets(names[0]);
    EXPECT_EQ(pictures(file), 155 - 132);
    EXPECT_GT(positionOf(Packets(file.begin() + 2, file.end()), later), 0) << "nothing of what came before";
}

} // namespace
