// What a recording counts and says is what is in its file.
#include "capture/captured_log.h"
#include "capture/labelled_stream.h"
#include "capture/recording_fixture.h"
#include "mpeg/CaptureEngUtils.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

using namespace kestrel::capture;
using namespace capture_test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::Not;

namespace {

// A file of this process may not grow beyond so many bytes while it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) {
        m_action = std::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        rlimit limit = m_before;
        limit.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &m_before);
        std::signal(SIGXFSZ, m_action);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    rlimit m_before{};
    void (*m_action)(int) = SIG_DFL;
};

class RecordingTruth : public RecordingFixture {
protected:
    Recording recording(CaptureMode mode, bool overwrite = false) {
        RecordingPlan asked = plan(mode, "00:00:30:00");
        asked.overwrite = overwrite;
        return RecordingFixture::recording(asked);
    }
};

TEST_F(RecordingTruth, FramesThatNeverReachedTheFileAreNotCounted) {
    std::filesystem::create_symlink("/dev/full", m_file);
    Recording r = recording(CaptureMode::manual, true);
    r.take(StreamBuilder().frames(200), m_now);
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_EQ(r.status().frames, 0u);
    EXPECT_EQ(r.status().bytes, 0u);
    EXPECT_THAT(r.status().text, HasSubstr("Disk Full"));
    EXPECT_THAT(r.status().text, HasSubstr("(0 frames, 0.0 MB"));
}

TEST_F(RecordingTruth, OfAFileThatReachedItsLimitTheFramesInItAreCounted) {
    constexpr rlim_t limit = 1000 * 188 + 77;
    Recording r = recording(CaptureMode::manual);
    const Packets sent = StreamBuilder().frames(600);
    {
        const FileSizeLimit limited(limit);
        r.take(sent, m_now);
    }
    ASSERT_EQ(r.state(), RecordingState::ended);
    EXPECT_FALSE(r.status().succeeded);
    const Packets file = readPackets(m_file);
    EXPECT_EQ(file.size(), 1000u);
    EXPECT_EQ(r.status().bytes, file.size() * 188);
    EXPECT_EQ(r.status().frames, static_cast<std::uint64_t>(pictures(file)));
}

TEST_F(RecordingTruth, ARecordingCancelledWithinAFrameSaysThatItMayBeIncomplete) {
    for (const CaptureMode mode : {CaptureMode::manual, CaptureMode::timed}) {
        std::filesystem::remove(m_file);
        Recording r = recording(mode);
        Packets sent = join(LabelledStream({.packetsPerFrame = 5}).frames(30));
        sent.resize(sent.size() - 2);
        r.take(sent, m_now);
        r.cancel(m_now);
        EXPECT_THAT(r.status().text, HasSubstr("(30 frames"));
        EXPECT_THAT(r.status().text, HasSubstr(", the last frame may be incomplete"));
    }
}

TEST_F(RecordingTruth, ARecordingCancelledBetweenFramesDoesNot) {
    for (const CaptureMode mode : {CaptureMode::manual, CaptureMode::timed}) {
        std::filesystem::remove(m_file);
        Recording r = recording(mode);
        r.take(join(LabelledStream({.packetsPerFrame = 5}).frames(30)), m_now);
        r.cancel(m_now);
        EXPECT_THAT(r.status().text, HasSubstr("(30 frames"));
        EXPECT_THAT(r.status().text, Not(HasSubstr("incomplete")));
    }
}

TEST_F(RecordingTruth, ACancelBehindTheLastFrameAskedForLeavesTheNextOut) {
    Recording r = recording(CaptureMode::timed);
    LabelledStream stream({.packetsPerFrame = 5});
    r.take(join(stream.frames(750)), m_now);
    // The next frame begins, but not with its picture: that its head is missing keeps it undecided.
    auto next = stream.frames(13).back().packets;
    next.resize(1);
    std::fill(next[0].begin() + 23, next[0].end(), 0x55);
    r.take(next, m_now);
    ASSERT_EQ(r.state(), RecordingState::recording);
    r.cancel(m_now);
    EXPECT_THAT(r.status().text, HasSubstr("(750 frames"));
    EXPECT_THAT(r.status().text, Not(HasSubstr("incomplete")));
    const Packets file = readPackets(m_file);
    EXPECT_TRUE(file.back() != next[0]) << "nothing of the next";
}

TEST_F(RecordingTruth, WhereAStreamStoppedAndCameBackIsLogged) {
    const CapturedLog log;
    Recording r = recording(CaptureMode::manual);
    LabelledStream stream;
    const Packets sent = join(stream.frames(10));
    r.take(sent, m_now);
    m_now += 2s;
    r.tick(m_now);
    m_now += 1s;
    r.take(join(stream.frames(2)), m_now);
    r.cancel(m_now);
    // The tables that were sent are the copies the file begins with, so both hold as many packets.
    EXPECT_EQ(log.count("Encoder 1: the stream has stopped after packet " + std::to_string(sent.size()) +
                        " of the file, PID 256"),
              1)
        << log.text();
    EXPECT_EQ(log.count("Encoder 1: the stream is back after 3.0 s, with PID 256"), 1) << log.text();
}

TEST_F(RecordingTruth, ARollingRecordingIsCutOnlyWithBothTablesOfItsProgram) {
    Recording r = recording(CaptureMode::rolling);
    LabelledStream stream;
    r.take(join(stream.frames(25 * 58)), m_now);

    // From here on the program's map is announced in another PID, and for some seconds does not come.
    constexpr int newPmt = 0x1001;
    const auto moved = [](Packets packets, bool withMap) {
        Packets out;
        for (Packet& packet : packets) {
            if (pid(packet) == 0) {
                packet[4 + 1 + 11] = static_cast<unsigned char>(newPmt & 0xFF);
                const std::uint32_t crc = crc32(reinterpret_cast<const char*>(packet.data() + 5), 12);
                for (int i = 0; i < 4; ++i)
                    packet[static_cast<std::size_t>(17 + i)] =
                        static_cast<unsigned char>(crc >> (24 - 8 * i));
            } else if (pid(packet) == pmtPid) {
                if (!withMap)
                    continue;
                packet[2] = static_cast<unsigned char>(newPmt & 0xFF);
            }
            out.push_back(packet);
        }
        return out;
    };
    r.take(moved(join(stream.frames(25 * 6)), false), m_now);
    EXPECT_EQ(filesIn(m_directory.path("")).size(), 1u) << "past a minute, but the map is not known";
    r.take(moved(join(stream.frames(25 * 2)), true), m_now);
    r.cancel(m_now);
    const auto names = filesIn(m_directory.path(""));
    ASSERT_EQ(names.size(), 2u);
    bool found = false;
    for (const std::string& name : names)
        found = found || pid(readPackets(name).at(1)) == newPmt;
    EXPECT_TRUE(found) << "the new file begins with the new map";
}

} // namespace
