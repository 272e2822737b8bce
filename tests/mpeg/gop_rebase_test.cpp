// GOP time codes rewritten in a transport stream.
#include "foundation/Logger.h"
#include "mpeg/gop_rebase.h"

#include "mpeg/MpegWrapper.h"
#include "mpeg/mpeg2.h"
#include "ts_maker.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using testing::ElementsAre;

namespace {

constexpr int VIDEO = 0x100;

// Keeps what comes out, with the indices.
class Collector : public packet_mangler {
public:
    Collector() : packet_mangler(0) {}
    void process(unsigned char* packet, long index) override {
        bytes.insert(bytes.end(), packet, packet + 188);
        indices.push_back(index);
    }
    void flush(long index) override { flushed = index; }

    Bytes bytes;
    std::vector<long> indices;
    long flushed = -1;
};

// Time codes of the GOP headers whose fields lie in one packet, in order: "hh:mm:ss:ff" (";" when drop).
std::vector<std::string> timecodes(const Bytes& bytes) {
    std::vector<std::string> found;
    for (std::size_t i = 0; i + 8 <= bytes.size(); ++i)
        if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1 && bytes[i + 3] == 0xB8) {
            const unsigned code = static_cast<unsigned>(bytes[i + 4] << 17 | bytes[i + 5] << 9 |
                                                        bytes[i + 6] << 1 | bytes[i + 7] >> 7);
            char text[20];
            std::snprintf(text, sizeof text, "%02u:%02u:%02u%c%02u", code >> 19 & 31, code >> 13 & 63,
                          code >> 6 & 63, code >> 24 ? ';' : ':', code & 63);
            found.emplace_back(text);
        }
    return found;
}

class GopRebase : public testing::Test {
protected:
    // A GOP's first picture: sequence header, GOP header, picture.
    void gop(int h, int m, int s, int f, bool drop = false, int rateCode = 3) {
        maker.pes(VIDEO, pesHeader(3600),
                  sequenceHeader(720, 576, rateCode) + gopHeader(h, m, s, f, drop) + pictureHeader() +
                      filler(300));
    }
    Bytes run(int mode, const mpeg_timecode& offset = mpeg_timecode()) {
        Collector out;
        gop_rebase stage(VIDEO, &out, mode, offset, 0);
        for (std::size_t i = 0; i < maker.packets(); ++i)
            stage.process(maker.bytes.data() + i * 188, static_cast<long>(i));
        stage.flush(static_cast<long>(maker.packets()));
        EXPECT_EQ(out.flushed, static_cast<long>(maker.packets()));
        EXPECT_EQ(out.bytes.size(), maker.bytes.size());
        return out.bytes;
    }

    TsMaker maker;
    ScratchDir directory;
};

TEST_F(GopRebase, TheFirstGopBecomesZeroAndLaterOnesKeepTheirDistance) {
    gop(1, 0, 0, 0);
    gop(1, 0, 10, 0);
    gop(1, 0, 10, 12);
    EXPECT_THAT(timecodes(run(0)), ElementsAre("00:00:00:00", "00:00:10:00", "00:00:10:12"));
}

TEST_F(GopRebase, DropFrameStaysDropFrame) {
    gop(0, 59, 59, 29, true, 4);
    gop(1, 0, 0, 0, true, 4);
    gop(1, 1, 0, 2, true, 4);
    EXPECT_THAT(timecodes(run(0)), ElementsAre("00:00:00;00", "00:00:00;01", "00:01:00;03"));
}

TEST_F(GopRebase, AnOffsetIsAddedOrSubtractedAroundTheDay) {
    gop(1, 0, 0, 0);
    gop(23, 59, 59, 24);
    EXPECT_THAT(timecodes(run(1, mpeg_timecode(0, 0, 0, 1, false, 3))),
                ElementsAre("01:00:00:01", "00:00:00:00"));
    EXPECT_THAT(timecodes(run(2, mpeg_timecode(2, 0, 0, 0, false, 3))),
                ElementsAre("23:00:00:00", "21:59:59:24"))
        << "an offset larger than the time code wraps";
}

TEST_F(GopRebase, AnyOtherModeChangesNothing) {
    gop(1, 2, 3, 4);
    for (const int mode : {3, -1, 99})
        EXPECT_EQ(run(mode), maker.bytes) << mode;
}

TEST_F(GopRebase, WithoutAnOffsetAddingChangesNothing) {
    gop(1, 2, 3, 4);
    Collector out;
    gop_rebase stage(VIDEO, &out, 0, gop_rebase::add_offset);
    stage.process(maker.bytes.data(), 0);
    stage.flush(1);
    EXPECT_THAT(timecodes(out.bytes), ElementsAre("01:02:03:04"));
}

TEST_F(GopRebase, NotOneOtherBitChanges) {
    maker.tables({{0x02, VIDEO}, {0x81, 0x101}});
    gop(10, 11, 12, 13, true, 4);
    maker.packet(0x101, true, filler(100));
    gop(10, 11, 13, 13, true, 4);
    const Bytes out = run(0);
    for (std::size_t i = 0; i < out.size(); ++i) {
        bool inTimeCode = false;
        for (std::size_t back = 4; back <= 7 && back <= i; ++back)
            inTimeCode |= std::memcmp(maker.bytes.data() + i - back, "\0\0\1\xB8", 4) == 0;
        if (!inTimeCode) {
            ASSERT_EQ(out[i], maker.bytes[i]) << i;
        }
    }
    // closed_gop and broken_link stand in the byte in which time_code ends.
    for (std::size_t i = 0; i + 8 <= out.size(); ++i)
        if (std::memcmp(out.data() + i, "\0\0\1\xB8", 4) == 0) {
            EXPECT_EQ(out[i + 7] & 0x7F, maker.bytes[i + 7] & 0x7F);
        }
}

TEST_F(GopRebase, PacketsKeepTheirOrderAndGetIndicesInOrder) {
    maker.packet(0x200, false, filler(184));
    gop(1, 0, 0, 0);
    maker.packet(0x200, false, filler(184)).packet(0x201, false, filler(184));
    gop(1, 0, 1, 0);
    maker.packet(0x200, false, filler(184));
    Collector out;
    gop_rebase stage(VIDEO, &out, 0, 0);
    for (std::size_t i = 0; i < maker.packets(); ++i)
        stage.process(maker.bytes.data() + i * 188, static_cast<long>(i));
    stage.flush(static_cast<long>(maker.packets()));
    ASSERT_EQ(out.indices.size(), maker.packets());
    for (std::size_t i = 0; i < out.indices.size(); ++i) {
        EXPECT_EQ(out.indices[i], static_cast<long>(i));
        EXPECT_EQ(out.bytes[i * 188 + 2], maker.bytes[i * 188 + 2]) << "PID of packet " << i;
    }
}

TEST_F(GopRebase, AHeaderThatTwoPacketsShareIsRewritten) {
    // The GOP header is cut at every place between the two packets of its PES.
    const Bytes head = pesHeader(3600) + sequenceHeader(720, 576, 3);
    for (std::size_t cut = 0; cut <= 8; ++cut) {
        TsMaker shared;
        shared.pes(VIDEO, pesHeader(3600), sequenceHeader(720, 576, 3) + gopHeader(1, 0, 0, 0) + filler(150),
                   head.size() + cut);
        shared.packet(0x300, false, filler(184));
        shared.pes(VIDEO, pesHeader(7200), filler(20));
        maker = shared;
        const Bytes out = run(0);
        // Joined as the decoder joins them.
        Bytes stream;
        for (std::size_t at = 0; at < out.size(); at += 188)
            if (out[at + 2] == (VIDEO & 0xFF) && (out[at + 1] & 0x1F) == VIDEO >> 8) {
                const std::size_t payload = at + ((out[at + 3] & 0x20) != 0 ? 5U + out[at + 4] : 4U);
                stream.insert(stream.end(), out.begin() + static_cast<long>(payload),
                              out.begin() + static_cast<long>(at + 188));
            }
        EXPECT_THAT(timecodes(stream), ElementsAre("00:00:00:00")) << cut;
    }
}

TEST_F(GopRebase, AHeaderDeeperInThePesStays) {
    maker.pes(VIDEO, pesHeader(3600), filler(400) + gopHeader(1, 0, 0, 0) + filler(20));
    maker.pes(VIDEO, pesHeader(7200), filler(20));
    EXPECT_EQ(run(0), maker.bytes);
}

TEST_F(GopRebase, AGopInTheLastPacketIsNotRewritten) {
    // Nothing comes after it: the stage rewrites a packet when the next one of the PID arrives.
    maker.pes(VIDEO, pesHeader(3600), gopHeader(1, 0, 0, 0));
    EXPECT_EQ(run(0), maker.bytes);
}

TEST_F(GopRebase, TheFrameRateIsThirtyUntilASequenceHeaderSaysOtherwise) {
    maker.pes(VIDEO, pesHeader(1), gopHeader(0, 0, 0, 29));
    maker.pes(VIDEO, pesHeader(2), gopHeader(0, 0, 1, 0));
    maker.pes(VIDEO, pesHeader(3), filler(10));
    EXPECT_THAT(timecodes(run(1, mpeg_timecode(0, 0, 0, 1, false, 5))),
                ElementsAre("00:00:01:00", "00:00:01:01"));
    maker = TsMaker();
    gop(0, 0, 0, 24, false, 3);
    maker.pes(VIDEO, pesHeader(2), filler(10));
    EXPECT_THAT(timecodes(run(1, mpeg_timecode(0, 0, 0, 1, false, 3))), ElementsAre("00:00:01:00"));
}

TEST_F(GopRebase, MangleLeavesACutHeaderAlone) {
    const Bytes whole = sequenceHeader(720, 576, 3) + gopHeader(1, 2, 3, 4);
    for (std::size_t length = 0; length <= whole.size(); ++length) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<long>(length));
        cut.shrink_to_fit();
        const Bytes before = cut;
        Collector out;
        gop_rebase stage(VIDEO, &out, 0, 0);
        array_byte_sequence view(cut.data(), static_cast<int>(cut.size()));
        stage.mangle(view, 0);
        if (length < whole.size()) {
            EXPECT_EQ(cut, before) << length;
        } else {
            EXPECT_THAT(timecodes(cut), ElementsAre("00:00:00:00"));
        }
    }
}

TEST_F(GopRebase, TheSearchGoesOnOneByteBehindEachCode) {
    const auto mangled = [](Bytes bytes) {
        Collector out;
        gop_rebase stage(VIDEO, &out, 0, 0);
        array_byte_sequence view(bytes.data(), static_cast<int>(bytes.size()));
        stage.mangle(view, 0);
        return bytes;
    };
    const Bytes overlapping = Bytes{0, 0, 1} + gopHeader(1, 2, 3, 4) + filler(20);
    EXPECT_EQ(mangled(overlapping), overlapping) << "its first byte is the value of the code before";
    EXPECT_THAT(timecodes(mangled(Bytes{0, 0, 1, 9} + gopHeader(1, 2, 3, 4) + filler(20))),
                ElementsAre("00:00:00:00"));
}

// From file to file.
class RebaseFile : public GopRebase {
protected:
    // Long enough for several blocks of 65,536 bytes.
    void longStream(int gops = 400) {
        maker.tables({{0x02, VIDEO}});
        for (int i = 0; i < gops; ++i) {
            gop(1, i / 60, i % 60, 0);
            if (i % 7 == 0)
                maker.packet(0x300, false, filler(184));
        }
    }
    Bytes output() const { return bytesOfFile(directory.path("out.ts")); }
    int rebase(const std::string& in) const {
        return gop_rebase::rebaseFile(in.c_str(), directory.path("out.ts").c_str(), 0);
    }
};

TEST_F(RebaseFile, TheOutputIsThatOfTheStagesWithoutItsTail) {
    longStream();
    const Bytes expected = run(0);
    EXPECT_EQ(rebase(maker.write(directory)), 0);
    const Bytes out = output();
    EXPECT_EQ(out.size(), expected.size() / 65536 * 65536) << "what does not fill a block is lost";
    EXPECT_GE(out.size(), 2 * 65536U);
    EXPECT_TRUE(std::equal(out.begin(), out.end(), expected.begin()));
    EXPECT_EQ(timecodes(out)[1], "00:00:01:00");
}

TEST_F(RebaseFile, AnOutputShorterThanABlockIsEmpty) {
    maker.tables({{0x02, VIDEO}});
    gop(1, 0, 0, 0);
    EXPECT_EQ(rebase(maker.write(directory)), 0);
    EXPECT_TRUE(output().empty());
    EXPECT_TRUE(std::filesystem::exists(directory.path("out.ts")));
}

TEST_F(RebaseFile, MpegWrapperPassesModeAndOffsetOn) {
    longStream();
    const mpeg_timecode offset(0, 30, 0, 0, false, 3);
    for (const int mode : {0, 1, 2, 5}) {
        const Bytes expected = run(mode, offset);
        EXPECT_EQ(MpegWrapper::rebaseFile(maker.write(directory).c_str(), directory.path("out.ts").c_str(),
                                          mode, offset),
                  0);
        const Bytes out = output();
        ASSERT_FALSE(out.empty());
        EXPECT_TRUE(std::equal(out.begin(), out.end(), expected.begin())) << mode;
    }
}

TEST_F(RebaseFile, WithoutVideoItIsMinusOneAndNothingIsWritten) {
    maker.tables({{0x0F, VIDEO}});
    EXPECT_EQ(rebase(maker.write(directory)), -1);
    EXPECT_EQ(rebase(directory.path("missing.ts")), -1);
    EXPECT_EQ(rebase(directory.path("")), -1) << "a directory";
    EXPECT_FALSE(std::filesystem::exists(directory.path("out.ts")));
}

TEST_F(RebaseFile, AVideoPidOfZeroIsMinusTwo) {
    maker.tables({{0x02, 0}});
    EXPECT_EQ(rebase(maker.write(directory)), -2);
}

TEST_F(RebaseFile, TheTwoFormsLookForTheVideoPidInDifferentStretches) {
    for (int i = 0; i < 60; ++i) // 11,280 bytes
        maker.packet(0x300, false, filler(184));
    longStream();
    const std::string in = maker.write(directory);
    EXPECT_EQ(MpegWrapper::rebaseFile(in.c_str(), directory.path("out.ts").c_str(), 0, mpeg_timecode()), -1);
    EXPECT_FALSE(std::filesystem::exists(directory.path("out.ts")));
    EXPECT_EQ(rebase(in), 0);
}

TEST_F(RebaseFile, AContinuityErrorIsMinusThreeWithWhatCameBefore) {
    longStream(200);
    const std::size_t good = maker.packets();
    maker.skipCounter(VIDEO);
    gop(2, 0, 0, 0);
    EXPECT_EQ(rebase(maker.write(directory)), -3);
    const Bytes out = output();
    // All but the last video packet, which waits for the next one, and what followed it.
    EXPECT_GE(out.size(), (good - 3) * 188);
    EXPECT_LT(out.size(), good * 188);
    EXPECT_EQ(out.size() % 188, 0U);
    const Bytes expected = run(0);
    EXPECT_TRUE(std::equal(out.begin(), out.end(), expected.begin()));
}

TEST_F(RebaseFile, AFileIsNotRebasedOntoItself) {
    longStream(50);
    const std::string in = maker.write(directory);
    EXPECT_EQ(gop_rebase::rebaseFile(in.c_str(), in.c_str(), 0), -1);
    EXPECT_EQ(std::filesystem::file_size(in), maker.bytes.size()) << "nothing is lost";
}

TEST_F(RebaseFile, AnOutputThatCannotBeMadeIsNotReported) {
    longStream(50);
    LogUtil::GetInstance();
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    EXPECT_EQ(
        gop_rebase::rebaseFile(maker.write(directory).c_str(), directory.path("no/such/out.ts").c_str(), 0),
        0);
    LogUtil::Cleanup();
    for (const char* level : {":Error]", ":Warning]", ":Info]"})
        EXPECT_EQ(log.str().find(level), std::string::npos) << level;
}

TEST_F(RebaseFile, AVideoPidThatFallsSilentDoesNotTakeAllMemory) {
    maker.tables({{0x02, VIDEO}});
    gop(1, 0, 0, 0);
    TsMaker other;
    for (int i = 0; i < 16; ++i)
        other.packet(0x300, false, filler(184));
    Bytes bytes = maker.bytes;
    const std::size_t count = unibuffer::max_intervening / 16 + 100;
    for (std::size_t i = 0; i < count; ++i)
        bytes.insert(bytes.end(), other.bytes.begin(), other.bytes.end());
    EXPECT_EQ(rebase(directory.file("in.ts", asText(bytes))), 0);
    EXPECT_EQ(output().size(), bytes.size() / 65536 * 65536);
}

TEST_F(RebaseFile, HarnessNeedsTwoFiles) {
    char name[] = "gop_rebase";
    char in[] = "in.ts";
    char* argv[] = {name, in};
    LogUtil::GetInstance();
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    EXPECT_EQ(gop_rebase::testHarness(2, argv), 1);
    LogUtil::Cleanup();
    EXPECT_THAT(log.str(),
                testing::HasSubstr("[captureEngLib:Error] Function testHarness requires args in.mpeg "
                                   "out.mpeg [mode] [timecode]"));
}

TEST_F(RebaseFile, HarnessWorksOnPid481) {
    for (int i = 0; i < 400; ++i)
        maker.pes(481, pesHeader(1), sequenceHeader(720, 480, 5) + gopHeader(1, 0, i % 60, 0) + filler(300));
    std::string in = maker.write(directory);
    std::string out = directory.path("out.ts");
    const auto harness = [&](std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        return gop_rebase::testHarness(static_cast<int>(argv.size()), argv.data());
    };
    EXPECT_EQ(harness({"gop_rebase", in, out}), 0);
    EXPECT_EQ(timecodes(output())[1], "00:00:01:00");
    EXPECT_EQ(harness({"gop_rebase", in, out, "1", "0:0:10:5"}), 0);
    EXPECT_EQ(timecodes(output())[1], "01:00:11:05");
    EXPECT_EQ(harness({"gop_rebase", in, out, "2", "0:0:0:1"}), 0);
    EXPECT_EQ(timecodes(output())[1], "01:00:00:29");
    EXPECT_EQ(harness({"gop_rebase", in, out, "3", "0:0:10:5"}), 0) << "becomes mode 0";
    EXPECT_EQ(timecodes(output())[1], "00:00:01:00");
    maker.skipCounter(481);
    maker.pes(481, pesHeader(1), filler(20));
    in = maker.write(directory);
    EXPECT_EQ(harness({"gop_rebase", in, out}), -3);
}

} // namespace
