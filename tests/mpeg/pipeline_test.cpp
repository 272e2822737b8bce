// Packets from a file through stages to a sink.
#include "foundation/Logger.h"
#include "mpeg/CaptureEngUtils.h"
#include "mpeg/mpeg.h"
#include "mpeg/mpeg2.h"
#include "mpeg/ts_file.h"
#include "mpeg/unibuffer.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using Packet = std::array<unsigned char, 188>;

Packet packet(int pid, int counter = 0, bool payload = true, bool start = false, unsigned char fill = 0) {
    Packet result;
    result.fill(fill);
    result[0] = 0x47;
    result[1] = static_cast<unsigned char>((start ? 0x40 : 0) | pid >> 8);
    result[2] = static_cast<unsigned char>(pid);
    result[3] = static_cast<unsigned char>((payload ? 0x10 : 0x20) | counter);
    if (!payload)
        result[4] = 183;
    return result;
}

class File {
public:
    explicit File(const std::string& content = {}) {
        const int fd = mkstemp(m_path);
        close(fd);
        std::ofstream(m_path, std::ios::binary) << content;
    }
    ~File() { unlink(m_path); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    [[nodiscard]] const char* path() const { return m_path; }

private:
    char m_path[30] = "/tmp/kestrel-ts-XXXXXX";
};

std::string bytesOf(const std::vector<Packet>& packets) {
    std::string bytes;
    for (const Packet& each : packets)
        bytes.append(reinterpret_cast<const char*>(each.data()), each.size());
    return bytes;
}

TEST(TsFile, HandsOutWholePacketsAndEndsBeforeAShortOne) {
    const File file(bytesOf({packet(1), packet(2)}) + std::string(100, 'x'));
    ts_file source(file.path());
    EXPECT_EQ(source.get_ts()[2], 1);
    EXPECT_EQ(source.get_ts()[2], 2);
    EXPECT_EQ(source.get_ts(), nullptr);
    EXPECT_EQ(source.get_ts(), nullptr);
}

TEST(TsFile, APacketPutBackComesAgain) {
    std::istringstream in(bytesOf({packet(1), packet(2)}));
    ts_file source(in);
    source.get_ts();
    source.unget_ts();
    EXPECT_EQ(source.get_ts()[2], 1);
    EXPECT_EQ(source.get_ts()[2], 2);
    EXPECT_EQ(source.get_ts(), nullptr);
}

TEST(TsFile, WhatIsNoFileHasNoPackets) {
    EXPECT_EQ(ts_file("/nonexistent").get_ts(), nullptr);
    EXPECT_EQ(ts_file("/tmp").get_ts(), nullptr);
    const File empty;
    EXPECT_EQ(ts_file(empty.path()).get_ts(), nullptr);
    const File shortFile(std::string(187, 'x'));
    EXPECT_EQ(ts_file(shortFile.path()).get_ts(), nullptr);
}

TEST(FilePacketSink, WritesBlocksOf65536AndTheRestAtItsEnd) {
    std::ostringstream out;
    {
        file_packet_sink sink(&out, false, 0);
        Packet each = packet(5);
        for (int i = 0; i < 348; ++i)
            sink.process(each.data(), i);
        EXPECT_EQ(out.str().size(), 0U);
        sink.process(each.data(), 348);
        EXPECT_EQ(out.str().size(), 65'536U);
        sink.flush(349);
        EXPECT_EQ(out.str().size(), 65'536U) << "a flush does not write what the sink holds";
    }
    EXPECT_EQ(out.str().size(), 349U * 188);
    EXPECT_EQ(out.str().substr(188 * 348, 4), bytesOf({packet(5)}).substr(0, 4));
}

TEST(FilePacketSink, WithoutAStreamItTakesPacketsAndDoesNothing) {
    file_packet_sink sink(nullptr, false, 0);
    Packet each = packet(5);
    sink.process(each.data(), 0);
    sink.flush(1);
}

TEST(FilePacketSink, AStreamItOwnsIsFlushedClosedAndDeleted) {
    const File file;
    {
        file_packet_sink sink(new std::ofstream(file.path(), std::ios::binary), true, 0);
        Packet each = packet(5);
        sink.process(each.data(), 0);
    }
    std::ifstream in(file.path(), std::ios::binary | std::ios::ate);
    EXPECT_EQ(in.tellg(), 188);
}

TEST(FilePacketSink, AStreamThatCouldNotBeOpenedStillAcceptsPackets) {
    file_packet_sink sink(new std::ofstream("/nonexistent/file"), true, 0);
    Packet each = packet(5);
    for (int i = 0; i < 1000; ++i)
        sink.process(each.data(), i);
}

// Records what reaches the end of a pipeline.
class Recorder : public packet_mangler {
public:
    Recorder() : packet_mangler(0) {}
    void process(unsigned char* bytes, long index) override {
        order.push_back((bytes[1] & 0x1F) << 8 | bytes[2]);
        indices.push_back(index);
    }
    void flush(long index) override { flushed = index; }

    std::vector<int> order;
    std::vector<long> indices;
    long flushed = -1;
};

class PassOn : public pipeline_mangler {
public:
    explicit PassOn(packet_mangler* next) : pipeline_mangler(next, 0) {}
    void process(unsigned char* bytes, long index) override { m_next->process(bytes, index); }
};

TEST(Pipeline, AFlushGoesDownTheStages) {
    Recorder end;
    PassOn second(&end);
    PassOn first(&second);
    Packet each = packet(9);
    first.process(each.data(), 0);
    first.flush(1);
    EXPECT_THAT(end.order, ElementsAre(9));
    EXPECT_EQ(end.flushed, 1);
}

TEST(Unibuffer, KeepsTheOrderOfPackets) {
    Recorder end;
    unibuffer buffer;
    Packet a1 = packet(100);
    Packet b1 = packet(200);
    Packet c1 = packet(300);
    Packet a2 = packet(101);
    buffer.queue_intervening(&end, b1.data(), 0);
    EXPECT_THAT(end.order, ElementsAre(200)) << "nothing is saved, so it passes straight on";
    buffer.preload_buffer(a1.data());
    buffer.queue_intervening(&end, b1.data(), 2);
    buffer.queue_intervening(&end, c1.data(), 3);
    EXPECT_EQ(end.order.size(), 1U);
    buffer.process_buffer(&end, 4, a2.data());
    EXPECT_THAT(end.order, ElementsAre(200, 100, 200, 300));
    EXPECT_THAT(end.indices, ElementsAre(0, 1, 2, 3)) << "the saved packet goes before the first queued one";
    buffer.flush_buffer(&end, 9);
    EXPECT_EQ(end.order.back(), 101);
    EXPECT_EQ(end.indices.back(), 8) << "nothing was queued: one before the current index";
    buffer.flush_buffer(&end, 10);
    EXPECT_EQ(end.order.size(), 5U);
}

TEST(Unibuffer, WhatIsDiscardedIsNotProcessed) {
    Recorder end;
    unibuffer buffer;
    Packet a = packet(100);
    Packet b = packet(200);
    buffer.preload_buffer(a.data());
    buffer.queue_intervening(&end, b.data(), 1);
    buffer.discard_intervening();
    buffer.flush_buffer(&end, 2);
    EXPECT_THAT(end.order, ElementsAre(100));
}

TEST(Unibuffer, APesBeginningJoinsTwoPayloadsUnlessTheNextStartsAnew) {
    Packet saved = packet(100, 0, true, true, 1);
    Packet next = packet(100, 1, true, false, 2);
    const std::unique_ptr<byte_sequence> both(unibuffer::pes_beginning(saved.data(), next.data()));
    EXPECT_EQ(both->get_length(), 368);
    EXPECT_EQ((*both)[183], 1);
    EXPECT_EQ((*both)[184], 2);
    next[1] |= 0x40;
    const std::unique_ptr<byte_sequence> one(unibuffer::pes_beginning(saved.data(), next.data()));
    EXPECT_EQ(one->get_length(), 184);
    saved[3] = 0x30;
    saved[4] = 10;
    const std::unique_ptr<byte_sequence> shorter(unibuffer::pes_beginning(saved.data(), next.data()));
    EXPECT_EQ(shorter->get_length(), 188 - 15);
}

TEST(Continuity, CountersAdvanceWithPayloadOnly) {
    continuity_nazi checker;
    EXPECT_TRUE(checker.packetIsCool(packet(256, 3).data(), false));
    EXPECT_TRUE(checker.packetIsCool(packet(256, 3, false).data(), false));
    EXPECT_TRUE(checker.packetIsCool(packet(256, 4).data(), false));
}

TEST(Continuity, ADuplicateIsAnErrorWithItsNumbers) {
    continuity_nazi checker;
    checker.packetIsCool(packet(256, 4).data(), false);
    EXPECT_FALSE(checker.packetIsCool(packet(256, 4).data(), false));
    EXPECT_STREQ(checker.message(), "expected 5 not 4 : PID 256");
    EXPECT_TRUE(checker.packetIsCool(packet(256, 5).data(), false))
        << "the counter was recorded all the same";
    EXPECT_STREQ(checker.message(), "expected 5 not 4 : PID 256") << "stays until the next failure";
}

TEST(Continuity, CountersWrapAtSixteenEachPidByItself) {
    continuity_nazi checker;
    EXPECT_TRUE(checker.packetIsCool(packet(1, 15).data(), false));
    EXPECT_TRUE(checker.packetIsCool(packet(2, 7).data(), false));
    EXPECT_TRUE(checker.packetIsCool(packet(1, 0).data(), false));
    EXPECT_TRUE(checker.packetIsCool(packet(2, 8).data(), false));
    EXPECT_EQ(continuity_nazi::getCounter(packet(1, 9).data()), 9);
}

TEST(Continuity, NullPacketsNeverFail) {
    continuity_nazi checker;
    for (const int counter : {0, 5, 5, 1})
        EXPECT_TRUE(checker.packetIsCool(packet(0x1FFF, counter).data(), false));
}

TEST(Continuity, AVerboseCheckLogsWhatItExpects) {
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    continuity_nazi checker;
    checker.packetIsCool(packet(256, 4).data(), true);
    checker.packetIsCool(packet(256, 9).data(), true);
    LogUtil::Cleanup();
    EXPECT_THAT(log.str(), HasSubstr("[mpegParseLib:Debug] PredictCC = 5\r\n"));
    EXPECT_THAT(log.str(), HasSubstr("[mpegParseLib:Debug] CC = 9\r\n"));
    EXPECT_THAT(log.str(),
                HasSubstr("[mpegParseLib:Info] ContinuityNazi: error in countinuity counter!\r\n"));
}

std::string ffmpegFile(const std::string& options) {
    const std::string path = testing::TempDir() + "kestrel-mpeg-" + std::to_string(getpid()) + ".ts";
    const std::string command = "ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i "
                                "testsrc2=size=352x288:rate=25:duration=2 -f lavfi -i sine=duration=2 " +
                                options + " -f mpegts " + path;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return path;
}

TEST(RealStreams, TheirPidsAreFoundAndTheyAreContinuous) {
    for (const char* options : {"-c:v mpeg2video -c:a ac3", "-c:v libx264 -pix_fmt yuv420p -c:a aac"}) {
        const std::string path = ffmpegFile(options);
        int pcr = 0;
        int pmt = 0;
        int video = 0;
        EXPECT_EQ(CaptureEngUtils::GetStreamBasicPidInfo(path.c_str(), pcr, pmt, video, 500'000), 0);
        EXPECT_EQ(pcr, 0x100);
        EXPECT_EQ(pmt, 0x1000);
        EXPECT_EQ(video, 0x100);
        ts_file source(path.c_str());
        continuity_nazi checker;
        long packets = 0;
        while (const unsigned char* each = source.get_ts()) {
            EXPECT_TRUE(checker.packetIsCool(each, false)) << checker.message();
            ++packets;
        }
        EXPECT_GT(packets, 100);
        unlink(path.c_str());
    }
}

TEST(BasicPids, TheScanEndsAtItsBound) {
    std::vector<Packet> packets(2'660, packet(0x1FFF));
    Packet pat = packet(0, 0, true, true, 0xFF);
    const unsigned char section[] = {0, 0x00, 0xB0, 13, 0, 1, 0xC1, 0, 0, 0, 1, 0xF0, 0};
    std::copy(std::begin(section), std::end(section), pat.begin() + 4);
    int pcr = 0;
    int pmt = 0;
    int video = 0;
    packets[2'659] = pat;
    const File within(bytesOf(packets));
    EXPECT_EQ(CaptureEngUtils::GetStreamBasicPidInfo(within.path(), pcr, pmt, video, 500'000), -1);
    EXPECT_EQ(pmt, 0x1000) << "packet 2660 is read";
    packets[2'659] = packet(0x1FFF);
    packets.push_back(pat);
    const File beyond(bytesOf(packets));
    EXPECT_EQ(CaptureEngUtils::GetStreamBasicPidInfo(beyond.path(), pcr, pmt, video, 500'000), -1);
    EXPECT_EQ(pmt, -1) << "packet 2661 is not";
    EXPECT_EQ(pcr, -1);
    EXPECT_EQ(video, -1);
}

TEST(BasicPids, AMissingFileHasNone) {
    int pcr = 0;
    int pmt = 0;
    int video = 0;
    EXPECT_EQ(CaptureEngUtils::GetStreamBasicPidInfo("/nonexistent", pcr, pmt, video, 1000), -1);
    EXPECT_EQ(video, -1);
}

} // namespace
