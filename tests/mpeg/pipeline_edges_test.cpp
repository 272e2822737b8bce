// Source, sink and look-ahead buffer at their edges: the end of a file, a full disk, a half-full buffer.
#include "mpeg/CaptureEngUtils.h"
#include "mpeg/mpeg.h"
#include "mpeg/ts_file.h"
#include "mpeg/unibuffer.h"
#include "ts_maker.h"

#include <algorithm>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A packet of a PID, all payload.
Bytes packet(int pid, bool start = false, unsigned char fill = 0x55) {
    Bytes one{0x47, static_cast<unsigned char>((start ? 0x40 : 0) | pid >> 8),
              static_cast<unsigned char>(pid), 0x10};
    one.resize(188, fill);
    return one;
}

// --- source

TEST(TsFileEdges, ThePacketPutBackAfterTheEndIsTheEnd) {
    std::istringstream in(asText(packet(1)));
    ts_file source(in);
    EXPECT_EQ(source.get_ts()[2], 1);
    EXPECT_EQ(source.get_ts(), nullptr);
    source.unget_ts();
    EXPECT_EQ(source.get_ts(), nullptr) << "what the last call returned";
    EXPECT_EQ(source.get_ts(), nullptr);
}

TEST(TsFileEdges, TheLastPacketPutBackComesOnceMoreBeforeTheEnd) {
    std::istringstream in(asText(packet(1) + packet(2)));
    ts_file source(in);
    source.get_ts();
    const unsigned char* const last = source.get_ts();
    source.unget_ts();
    EXPECT_EQ(source.get_ts(), last) << "the same bytes, also as they were changed";
    EXPECT_EQ(source.get_ts(), nullptr);
}

TEST(TsFileEdges, PuttingBackTwiceCountsOnce) {
    std::istringstream in(asText(packet(1) + packet(2)));
    ts_file source(in);
    source.get_ts();
    source.unget_ts();
    source.unget_ts();
    EXPECT_EQ(source.get_ts()[2], 1);
    EXPECT_EQ(source.get_ts()[2], 2);
}

TEST(TsFileEdges, NothingHasBeenReturnedBeforeTheFirstPacket) {
    std::istringstream in(asText(packet(1)));
    ts_file source(in);
    source.unget_ts();
    EXPECT_EQ(source.get_ts(), nullptr);
    EXPECT_EQ(source.get_ts()[2], 1) << "and none is lost";
    ts_file missing("/nonexistent");
    missing.unget_ts();
    EXPECT_EQ(missing.get_ts(), nullptr);
}

TEST(TsFileEdges, AStreamIsReadFromWhereItStandsWhateverItsBytes) {
    Bytes bad = packet(2);
    bad[0] = 0x00; // sync bytes are for others to check
    std::istringstream in("head" + asText(packet(1) + bad));
    in.seekg(4);
    ts_file source(in);
    EXPECT_EQ(source.get_ts()[2], 1);
    EXPECT_EQ(source.get_ts()[0], 0x00);
    EXPECT_EQ(source.get_ts(), nullptr);
}

// --- sink

// A file stream whose state is known when it has been deleted.
class Watched : public std::ofstream {
public:
    Watched(const std::string& path, std::ios_base::iostate& last)
        : std::ofstream(path, std::ios::binary), m_last(last) {}
    ~Watched() override { m_last = rdstate(); }

private:
    std::ios_base::iostate& m_last;
};

TEST(FilePacketSinkEdges, EveryWriteIsABlock) {
    // 65,536 bytes are full with the 349th, 698th, 1046th ... packet.
    std::ostringstream out;
    Bytes expected;
    {
        file_packet_sink sink(&out, false, 0);
        for (int i = 0; i < 2000; ++i) {
            Bytes each = packet(i % 0x2000);
            sink.process(each.data(), i);
            expected.insert(expected.end(), each.begin(), each.end());
            ASSERT_EQ(out.str().size(), expected.size() / 65'536 * 65'536) << i;
        }
    }
    EXPECT_EQ(out.str(), asText(expected)) << "nothing lost, doubled or moved from block to block";
}

TEST(FilePacketSinkEdges, AFullDiskIsTakenInSilence) {
    std::ofstream out("/dev/full", std::ios::binary);
    ASSERT_TRUE(out.is_open());
    {
        file_packet_sink sink(&out, false, 0);
        Bytes each = packet(5);
        for (int i = 0; i < 2000; ++i)
            sink.process(each.data(), i);
        sink.flush(2000);
        EXPECT_TRUE(out.fail()) << "whoever opened the stream can ask it";
        sink.process(each.data(), 2000);
    }
    EXPECT_TRUE(out.is_open()) << "a stream that is not its own stays open";
}

TEST(FilePacketSinkEdges, AFullDiskIsFoundAtTheEndOfTheSinkToo) {
    std::ofstream out("/dev/full", std::ios::binary);
    Bytes each = packet(5);
    {
        file_packet_sink sink(&out, false, 0);
        sink.process(each.data(), 0);
        sink.flush(1);
        EXPECT_FALSE(out.fail()) << "nothing has been written yet";
    }
    EXPECT_TRUE(out.fail());
}

TEST(FilePacketSinkEdges, AnOwnedStreamOnAFullDiskIsDeletedInItsFailureState) {
    std::ios_base::iostate last = std::ios_base::goodbit;
    Bytes each = packet(5);
    {
        file_packet_sink sink(new Watched("/dev/full", last), true, 0);
        sink.process(each.data(), 0);
        EXPECT_EQ(last, std::ios_base::goodbit);
    }
    EXPECT_NE(last & (std::ios_base::failbit | std::ios_base::badbit), 0U);

    const ScratchDir directory;
    {
        file_packet_sink sink(new Watched(directory.path("out.ts"), last), true, 0);
        sink.process(each.data(), 0);
    }
    EXPECT_EQ(last, std::ios_base::goodbit);
    EXPECT_EQ(contentOf(directory.path("out.ts")), asText(each));
}

TEST(FilePacketSinkEdges, AnOwnedStreamThatIsClosedAlreadyFailsAtItsClose) {
    std::ios_base::iostate last = std::ios_base::goodbit;
    const ScratchDir directory;
    auto* const stream = new Watched(directory.path("out.ts"), last);
    {
        file_packet_sink sink(stream, true, 0);
        stream->close();
        EXPECT_TRUE(stream->good());
    }
    EXPECT_NE(last & std::ios_base::failbit, 0U);
}

TEST(FilePacketSinkEdges, AStreamThatThrowsOnErrorsThrowsAtNobody) {
    for (const bool owned : {false, true}) {
        auto* const stream = new std::ofstream("/dev/full", std::ios::binary);
        stream->exceptions(std::ios_base::badbit | std::ios_base::failbit);
        Bytes each = packet(5);
        {
            file_packet_sink sink(stream, owned, 0);
            EXPECT_NO_THROW({
                for (int i = 0; i < 1000; ++i)
                    sink.process(each.data(), i);
                sink.flush(1000);
            });
        }
        if (!owned) {
            stream->exceptions(std::ios_base::goodbit);
            delete stream;
        }
    }
}

TEST(FilePacketSinkEdges, AnOwnedStreamNeedNotBeAFile) {
    file_packet_sink sink(new std::ostringstream, true, 0);
    Bytes each = packet(5);
    sink.process(each.data(), 0);
    sink.flush(1);
}

TEST(FilePacketSinkEdges, ThePacketStaysAsItIs) {
    std::ostringstream out;
    file_packet_sink sink(&out, false, 0);
    Bytes each = packet(5);
    const Bytes before = each;
    sink.process(each.data(), 0);
    EXPECT_EQ(each, before);
}

// --- look-ahead

class Recorder : public packet_mangler {
public:
    Recorder() : packet_mangler(0) {}
    void process(unsigned char* bytes, long index) override {
        pids.push_back((bytes[1] & 0x1F) << 8 | bytes[2]);
        fills.push_back(bytes[187]);
        indices.push_back(index);
    }
    void flush(long /*index*/) override { ++flushes; }

    std::vector<int> pids;
    std::vector<int> fills;
    std::vector<long> indices;
    int flushes = 0;
};

class UnibufferEdges : public testing::Test {
protected:
    void save(int pid) { buffer.preload_buffer(packet(pid).data()); }
    void queue(int pid, long index) {
        Bytes each = packet(pid);
        buffer.queue_intervening(&end, each.data(), index);
    }

    Recorder end;
    unibuffer buffer;
};

TEST_F(UnibufferEdges, FlushingWhatIntervenedLeavesTheSavedPacket) {
    save(100);
    queue(200, 7);
    queue(300, 11);
    buffer.flush_intervening(&end);
    EXPECT_THAT(end.pids, ElementsAre(200, 300)) << "oldest first";
    EXPECT_THAT(end.indices, ElementsAre(7, 11)) << "each with its own index";
    EXPECT_TRUE(buffer.has_saved());
    EXPECT_EQ(end.flushes, 0) << "the stage behind is not flushed";
    buffer.flush_intervening(&end);
    EXPECT_EQ(end.pids.size(), 2U) << "each record goes once";
    queue(400, 12);
    EXPECT_EQ(end.pids.size(), 2U) << "a packet is still saved, so the next one waits";
    buffer.flush_buffer(&end, 13);
    EXPECT_THAT(end.pids, ElementsAre(200, 300, 100, 400));
    EXPECT_THAT(end.indices, ElementsAre(7, 11, 11, 12))
        << "the saved one before the first that is queued now";
}

TEST_F(UnibufferEdges, FlushingNothingDoesNothing) {
    buffer.flush_intervening(&end);
    buffer.flush_buffer(&end, 5);
    EXPECT_THAT(end.pids, IsEmpty());
    EXPECT_FALSE(buffer.has_saved());
}

TEST_F(UnibufferEdges, TheFirstPacketIsOnlySaved) {
    buffer.process_buffer(&end, 0, packet(100).data());
    EXPECT_THAT(end.pids, IsEmpty());
    EXPECT_TRUE(buffer.has_saved());
    EXPECT_EQ(Bytes(buffer.saved_packet(), buffer.saved_packet() + 188), packet(100));
    buffer.process_buffer(&end, 1, packet(101).data());
    EXPECT_THAT(end.pids, ElementsAre(100));
    EXPECT_THAT(end.indices, ElementsAre(0));
}

TEST_F(UnibufferEdges, AnotherPacketReplacesTheOneThatIsSaved) {
    save(100);
    save(101);
    buffer.flush_buffer(&end, 2);
    EXPECT_THAT(end.pids, ElementsAre(101));
    EXPECT_FALSE(buffer.has_saved());
    queue(200, 3);
    EXPECT_THAT(end.pids, ElementsAre(101, 200)) << "nothing is saved, so it passes straight on";
}

TEST_F(UnibufferEdges, HoldsCopiesSoThatTheCallersBufferIsFree) {
    Bytes own = packet(100, false, 1);
    buffer.preload_buffer(own.data());
    Bytes other = packet(200, false, 2);
    buffer.queue_intervening(&end, other.data(), 1);
    own.assign(188, 0xEE);
    other.assign(188, 0xEE);
    buffer.saved_packet()[187] = 9; // to be changed before it goes on
    buffer.flush_buffer(&end, 2);
    EXPECT_THAT(end.pids, ElementsAre(100, 200));
    EXPECT_THAT(end.fills, ElementsAre(9, 2));
}

TEST_F(UnibufferEdges, WhatIsStillHeldAtItsEndIsDropped) {
    {
        unibuffer shortLived;
        shortLived.preload_buffer(packet(100).data());
        Bytes other = packet(200);
        shortLived.queue_intervening(&end, other.data(), 1);
    }
    EXPECT_THAT(end.pids, IsEmpty());
}

TEST_F(UnibufferEdges, WhatWasDiscardedDoesNotCountForTheIndex) {
    save(100);
    queue(200, 3);
    buffer.discard_intervening();
    EXPECT_TRUE(buffer.has_saved()) << "only the queue is dropped";
    buffer.flush_buffer(&end, 9);
    EXPECT_THAT(end.indices, ElementsAre(8));
}

TEST(PesBeginning, WrittenThroughItLandsInBothPackets) {
    Bytes saved = packet(100, true, 1);
    Bytes next = packet(100, false, 2);
    const std::unique_ptr<byte_sequence> both(unibuffer::pes_beginning(saved.data(), next.data()));
    (*both)[0] = 0xA0;
    (*both)[183] = 0xA1;
    (*both)[184] = 0xA2;
    (*both)[367] = 0xA3;
    EXPECT_EQ(saved[4], 0xA0);
    EXPECT_EQ(saved[187], 0xA1);
    EXPECT_EQ(next[4], 0xA2);
    EXPECT_EQ(next[187], 0xA3);
}

TEST(PesBeginning, BeginsBehindTheAdaptationFieldOfEachPacket) {
    const auto length = [](int savedField, int nextField) {
        Bytes saved = packet(100, true);
        Bytes next = packet(100);
        const auto adapt = [](Bytes& each, int field) {
            if (field < 0)
                return;
            each[3] = 0x30;
            each[4] = static_cast<unsigned char>(field);
        };
        adapt(saved, savedField);
        adapt(next, nextField);
        const std::unique_ptr<byte_sequence> both(unibuffer::pes_beginning(saved.data(), next.data()));
        return both->get_length();
    };
    EXPECT_EQ(length(-1, -1), 184 + 184);
    EXPECT_EQ(length(0, -1), 183 + 184);
    EXPECT_EQ(length(-1, 100), 184 + 83);
    EXPECT_EQ(length(182, 183), 1 + 0);
    EXPECT_EQ(length(183, 183), 0);
    EXPECT_EQ(length(184, 255), 0) << "a field that overruns its packet";
}

// --- first pass

TEST(BasicPidsEdges, AtLeastOnePacketIsReadAndOneMoreThanTheBoundHolds) {
    const ScratchDir directory;
    TsMaker maker;
    maker.tables({{0x02, 0x100}});
    const std::string path = maker.write(directory);
    const auto pids = [&](long long limit) {
        int pcr = 7;
        int pmt = 7;
        int video = 7;
        const int result = CaptureEngUtils::GetStreamBasicPidInfo(path.c_str(), pcr, pmt, video, limit);
        return std::vector<int>{result, pcr, pmt, video};
    };
    const std::vector<int> patOnly{-1, -1, TsMaker::PMT_PID, -1};
    EXPECT_EQ(pids(-1), patOnly);
    EXPECT_EQ(pids(0), patOnly);
    EXPECT_EQ(pids(187), patOnly);
    EXPECT_EQ(pids(188), (std::vector<int>{0, 0x100, TsMaker::PMT_PID, 0x100}))
        << "188 are not more than 188";
}

TEST(BasicPidsEdges, WithoutAProgramTheAssociationTableIsTakenForItsOwnMap) {
    // PID 0 is what a table without programs names, and it is compared with -1 only.
    const ScratchDir directory;
    Bytes pat{0x47, 0x40, 0x00, 0x10, 0,    0x00, 0xB0, 13, 0, 1, 0xC1,
              0,    0,    0x00, 0x00, 0xE0, 0x10, 1,    2,  3, 4};
    pat.resize(188, 0xFF);
    int pcr = 7;
    int pmt = 7;
    int video = 7;
    EXPECT_EQ(CaptureEngUtils::GetStreamBasicPidInfo(directory.file("in.ts", asText(pat)).c_str(), pcr, pmt,
                                                     video, 500'000),
              -1);
    EXPECT_EQ(pmt, 0);
    EXPECT_EQ(pcr, 0) << "what stands there is the network's program_number";
    EXPECT_EQ(video, -1);
}

} // namespace
