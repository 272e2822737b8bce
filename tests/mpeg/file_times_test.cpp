// First and last decoding time of files, and their duration.
#include "foundation/CapturedLog.h"
#include "mpeg/GetDTSBounds.h"
#include "mpeg/MpegWrapper.h"
#include "query_files.h"

#include <limits>

using testing::HasSubstr;

namespace {

class DtsBounds : public Queries {
protected:
    std::ostringstream log;

    void picture(std::int64_t pts, std::int64_t dts = -1) {
        maker.pes(VIDEO, pesHeader(pts, dts), filler(300));
    }
    std::pair<std::int64_t, std::int64_t> bounds(const std::string& path) {
        const File file(std::fopen(path.c_str(), "rb"));
        const auto [first, last] =
            GetDTSBounds::parse_file(file.get(), static_cast<long>(std::filesystem::file_size(path)));
        return {first.is_absent() ? -1 : first.ticks(), last.is_absent() ? -1 : last.ticks()};
    }
    using Bounds = std::pair<std::int64_t, std::int64_t>;
};

TEST_F(DtsBounds, AreTheFirstAndTheLastDecodingTime) {
    maker.tables({{0x02, VIDEO}});
    picture(7200, 3600);
    picture(18000, 7200);
    picture(14400, 10800);
    EXPECT_EQ(bounds(write()), Bounds(3600, 10800));
}

TEST_F(DtsBounds, TheFirstMayBeAPtsTheLastMustBeADts) {
    maker.tables({{0x02, VIDEO}});
    picture(-1);
    picture(3600);
    picture(9000, 7200);
    picture(10800);
    EXPECT_EQ(bounds(write()), Bounds(3600, 7200)) << "the last PES carries only a PTS";
}

TEST_F(DtsBounds, TheVideoPidIsTheFirstMpegEntryAndNeverH264) {
    maker.tables({{0x1B, 0x200}, {0x0F, 0x201}, {0x02, VIDEO}, {0x02, 0x300}});
    picture(7200, 3600);
    const std::string path = write();
    const File file(std::fopen(path.c_str(), "rb"));
    EXPECT_EQ(GetDTSBounds::get_video_PID(file.get()), VIDEO);
    maker = TsMaker();
    maker.tables({{0x1B, VIDEO}});
    picture(7200, 3600);
    EXPECT_EQ(bounds(write()), Bounds(-1, -1));
}

// Unlike the queries that stop after 20 MB: a time is looked for as far as it takes.
TEST_F(DtsBounds, AreLookedForToTheEndOfTheFile) {
    constexpr int NULL_PACKETS = 150'000; // 28 MB
    maker.tables({{0x1B, VIDEO}});
    const std::string path = write();
    mpeg_timecode length(0, 0, 0, 1, false, 3);
    EXPECT_EQ(MpegWrapper::GetDuration(path.c_str(), false, 3, length), 0);
    EXPECT_STREQ(length.windows_string(), "00:00:00:00") << "no video of MPEG-1 or MPEG-2";
    std::filesystem::resize_file(path, std::filesystem::file_size(path) + std::uintmax_t{188} * NULL_PACKETS);
    maker = TsMaker();
    maker.tables({{0x02, VIDEO}});
    std::ofstream(path, std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char*>(maker.bytes.data()),
               static_cast<std::streamsize>(maker.bytes.size()));
    const File file(std::fopen(path.c_str(), "rb"));
    EXPECT_EQ(GetDTSBounds::get_video_PID(file.get()), VIDEO);
}

TEST_F(DtsBounds, Mpeg1VideoCounts) {
    maker.tables({{0x01, VIDEO}});
    picture(7200, 3600);
    EXPECT_EQ(bounds(write()), Bounds(3600, 3600));
}

TEST_F(DtsBounds, TheFirstPatThatNamesAMapDecides) {
    constexpr int OTHER_MAP = 0x1001;
    maker.tables({{0x0F, 0x300}}); // no video
    maker.tables({{0x02, 0x300}}, OTHER_MAP);
    maker.map({{0x02, VIDEO}});
    picture(7200, 3600);
    EXPECT_EQ(bounds(write()), Bounds(3600, 3600));
}

TEST_F(DtsBounds, TheForbiddenFlagsAreNoTime) {
    maker.tables({{0x02, VIDEO}});
    Bytes header = pesHeader(9000, 1800);
    header[7] = 0x40; // a DTS without a PTS
    maker.pes(VIDEO, header, filler(20));
    picture(7200, 3600);
    maker.pes(VIDEO, header, filler(20));
    EXPECT_EQ(bounds(write()), Bounds(3600, 3600));
}

TEST_F(DtsBounds, AllBitsOfATimeCount) {
    constexpr std::int64_t LATEST = 0x1FFFFFFFF;
    maker.tables({{0x02, VIDEO}});
    picture(LATEST, LATEST);
    EXPECT_EQ(bounds(write()), Bounds(LATEST, LATEST));
}

TEST_F(DtsBounds, AHeaderThatDoesNotLieInItsPacketIsPassedOver) {
    const Bytes header = pesHeader(1800, 1800);
    for (std::size_t cut = 0; cut <= header.size(); ++cut) {
        maker = TsMaker();
        maker.tables({{0x02, VIDEO}});
        maker.pes(VIDEO, header, filler(20), cut);
        picture(7200, 3600);
        maker.pes(VIDEO, header, filler(20), cut);
        const std::int64_t expected = cut < header.size() ? 3600 : 1800;
        EXPECT_EQ(bounds(write()), Bounds(expected, expected)) << cut;
    }
}

TEST_F(DtsBounds, TheLengthThatIsGivenMayBeAnything) {
    maker.tables({{0x02, VIDEO}});
    picture(7200, 3600);
    picture(9000, 7200);
    const std::string path = write();
    const File file(std::fopen(path.c_str(), "rb"));
    const auto size = static_cast<long>(maker.bytes.size());
    const auto last = [&](long length) { return GetDTSBounds::get_last_DTS(file.get(), VIDEO, length); };
    EXPECT_EQ(last(size), PTS::from_ticks(7200));
    EXPECT_EQ(last(size + 187), PTS::from_ticks(7200)) << "rounded down";
    EXPECT_EQ(last(size - 2 * 188), PTS::from_ticks(3600)) << "without the last picture's two packets";
    EXPECT_EQ(last(size - 188 - 1), PTS::from_ticks(3600)) << "rounded down";
    for (const long length : {0L, 187L, -188L, -188'000L, std::numeric_limits<long>::min()})
        EXPECT_EQ(last(length), -1) << length;
    for (const long length : {size + 188, size + 188'000, std::numeric_limits<long>::max()})
        EXPECT_EQ(last(length), -1) << "there is nothing at that end: " << length;
}

TEST_F(DtsBounds, TheStreamsOwnPositionStays) {
    maker.tables({{0x02, VIDEO}});
    picture(7200, 3600);
    const std::string path = write();
    const File file(std::fopen(path.c_str(), "rb"));
    std::fseek(file.get(), 100, SEEK_SET);
    GetDTSBounds::parse_file(file.get(), static_cast<long>(maker.bytes.size()));
    EXPECT_EQ(std::ftell(file.get()), 100);
}

TEST_F(DtsBounds, TablesAreOnlyLookedAtBehindTheirPat) {
    maker.map({{0x02, 0x300}}); // a map before the PAT that names its PID
    maker.tables({{0x02, VIDEO}});
    picture(7200, 3600);
    EXPECT_EQ(bounds(write()), Bounds(3600, 3600));
}

TEST_F(DtsBounds, BothScansStopAtARecordWithoutSync) {
    maker.tables({{0x02, VIDEO}});
    picture(7200, 3600);
    picture(9000, 7200);
    const std::string good(maker.bytes.begin(), maker.bytes.end());
    std::string bad = good;
    bad[2 * 188] = 'x'; // before the first picture, behind the tables
    EXPECT_EQ(bounds(directory.file("bad.ts", bad)), Bounds(-1, 7200));
    bad = good;
    bad[good.size() - 188] = 'x';
    EXPECT_EQ(bounds(directory.file("bad.ts", bad)), Bounds(3600, -1));
}

TEST_F(DtsBounds, ACutLastPacketIsPassedOver) {
    maker.tables({{0x02, VIDEO}});
    picture(7200, 3600);
    picture(9000, 7200);
    const std::string good(maker.bytes.begin(), maker.bytes.end());
    for (std::size_t cut = 0; cut <= good.size(); cut += 47) {
        const Bounds found = bounds(directory.file("cut.ts", good.substr(0, cut)));
        EXPECT_TRUE(found.first == -1 || found.first == 3600) << cut;
        EXPECT_TRUE(found.second == -1 || found.second == 3600 || found.second == 7200) << cut;
    }
}

TEST_F(DtsBounds, ManyPacketsBetweenMakeNoDifference) {
    maker.tables({{0x02, VIDEO}});
    picture(7200, 3600);
    for (int i = 0; i < 5000; ++i)
        maker.packet(0x300, false, filler(184));
    picture(9000, 7200);
    for (int i = 0; i < 5000; ++i)
        maker.packet(0x300, false, filler(184));
    EXPECT_EQ(bounds(write()), Bounds(3600, 7200));
}

TEST_F(DtsBounds, HarnessComparesTicks) {
    maker.tables({{0x02, VIDEO}});
    picture(7200, 3600);
    picture(9000, 7200);
    const std::string path = write();
    const auto harness = [&](std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        LogUtil::GetInstance();
        log.str("");
        LogUtil::GetInstance()->addStreamLogger(&log);
        const int result = GetDTSBounds::testHarness(static_cast<int>(argv.size()), argv.data());
        LogUtil::Cleanup();
        return result;
    };
    EXPECT_EQ(harness({"GetDTSBounds", path, "3600", "7200"}), 0);
    EXPECT_EQ(harness({"GetDTSBounds", path, "3601", "7200"}), 1);
    EXPECT_THAT(log.str(), HasSubstr("First DTS = 3600, expected = 3601"));
    EXPECT_EQ(harness({"GetDTSBounds", path, "3600", "7201"}), 1);
    EXPECT_THAT(log.str(), HasSubstr("Last DTS = 7200, expected = 7201"));
    EXPECT_EQ(harness({"GetDTSBounds", path, "3600", "7200", "1"}), 1) << "a word too many";
    EXPECT_EQ(harness({"GetDTSBounds", path, "3600"}), 1);
    EXPECT_THAT(
        log.str(),
        HasSubstr("[captureEngLib:Error] Function testHarness requires args in.mpeg firstDTS lastDTS"));
    EXPECT_EQ(harness({"GetDTSBounds", directory.path("missing"), "1", "2"}), 1);
    EXPECT_THAT(log.str(), HasSubstr("Unable to open input file " + directory.path("missing")));
}

// A clock of 33 bits has run for a while when it reaches 2^31 ticks: after six hours and a half.
TEST_F(DtsBounds, HarnessTellsTicksOfAllBits) {
    maker.tables({{0x02, VIDEO}});
    picture(0x1'0000'0000, 0x8000'0000);
    picture(-1, -1);
    picture(0x1'FFFF'FFFF, 0x1'FFFF'FFFE);
    std::string words[] = {"GetDTSBounds", write(), "", ""};
    const auto complaint = [&](const char* first, const char* last) {
        words[2] = first;
        words[3] = last;
        char* argv[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data()};
        const CapturedLog told;
        EXPECT_EQ(GetDTSBounds::testHarness(4, argv), 1);
        return told.text();
    };
    EXPECT_THAT(complaint("4294967296", "1"), HasSubstr("First DTS = 2147483648, expected = 4294967296\r\n"));
    EXPECT_THAT(complaint("2147483648", "-2147483649"),
                HasSubstr("Last DTS = 8589934590, expected = -2147483649\r\n"));
}

// --- duration

class Duration : public DtsBounds {
protected:
    std::pair<int, std::string> duration(std::int64_t first, std::int64_t last, int rate, bool drop = false) {
        maker = TsMaker();
        maker.tables({{0x02, VIDEO}});
        picture(first + 3600, first);
        picture(last + 3600, last);
        return durationOf(write(), rate, drop);
    }
    std::pair<int, std::string> durationOf(const std::string& path, int rate, bool drop = false) {
        mpeg_timecode out;
        LogUtil::GetInstance();
        log.str("");
        LogUtil::GetInstance()->addStreamLogger(&log);
        const int result = MpegWrapper::GetDuration(path.c_str(), drop, rate, out);
        LogUtil::Cleanup();
        return {result, out.windows_string()};
    }
    using Result = std::pair<int, std::string>;
};

TEST_F(Duration, IsTheDistanceOfTheBoundsInFrames) {
    EXPECT_EQ(duration(0, 90'000, 3), Result(0, "00:00:01:00"));
    EXPECT_EQ(duration(3600, 3600 + 90'000 * 3600LL, 3), Result(0, "01:00:00:00"));
    EXPECT_EQ(duration(0, 1, 3), Result(0, "00:00:00:01")) << "a part of a frame is one";
    EXPECT_EQ(duration(0, 0, 3), Result(0, "00:00:00:00"));
    EXPECT_EQ(duration(0, 90'090 * 60LL, 4, true), Result(0, "00:01:00;02")) << "1800 frames at 29.97";
}

TEST_F(Duration, OfAMinuteAtEveryRate) {
    // A part of a frame counts as one where a minute is no whole number of frames.
    const char* const minutes[] = {"00:00:59:23", "00:01:00:00", "00:01:00:00", "00:00:59:29",
                                   "00:01:00:00", "00:01:00:00", "00:00:59:57", "00:01:00:00"};
    for (int rate = 1; rate <= 8; ++rate)
        EXPECT_EQ(duration(0, 90'000 * 60, rate), Result(0, minutes[rate - 1])) << rate;
}

TEST_F(Duration, OfAFileWithoutMpegVideoIsNothing) {
    maker.tables({{0x1B, VIDEO}});
    picture(7200, 3600);
    EXPECT_EQ(durationOf(write(), 3), Result(0, "00:00:00:00"));
    EXPECT_EQ(durationOf(directory.file("empty.ts", ""), 3), Result(0, "00:00:00:00"));
}

TEST_F(Duration, WithoutAnyDtsIsAnError) {
    maker.tables({{0x02, VIDEO}});
    picture(3600);
    picture(7200);
    EXPECT_EQ(durationOf(write(), 3).first, 20046) << "there is a first time and no last";
}

TEST_F(Duration, ThatRunsBackwardsIsAnError) {
    EXPECT_EQ(duration(90'000, 0, 3).first, 20046);
    EXPECT_THAT(log.str(),
                HasSubstr("[MpegWrapper:Error] Error: Invalid transport packet in the input file " + write() +
                          ", Unable to determine the duration!"));
}

TEST_F(Duration, LessThanAFrameBackwardsIsNothing) {
    EXPECT_EQ(duration(3600, 3599, 3), Result(0, "00:00:00:00"));
    EXPECT_EQ(duration(3600, 1, 3), Result(0, "00:00:00:00"));
    EXPECT_EQ(duration(3600, 0, 3).first, 20046) << "a whole frame";
}

TEST_F(Duration, OfAFileThatCannotBeOpenedIsAnError) {
    EXPECT_EQ(durationOf(directory.path("missing"), 3).first, 20045);
    EXPECT_THAT(log.str(), HasSubstr("[MpegWrapper:Error] Error: Unable to open input file " +
                                     directory.path("missing") + "."));
    EXPECT_EQ(durationOf(directory.path(""), 3).first, 20045) << "a directory";
}

TEST_F(Duration, AtARateThatIsNotInUseIsNothing) {
    for (const int rate : {0, 9, -1})
        EXPECT_EQ(duration(0, 90'000, rate, true), Result(0, "00:00:00:00")) << rate;
    EXPECT_THAT(log.str(), HasSubstr("[mpegParseLib:Error] Invalid Frame Rate Code -1 in Function:  fps"));
}

TEST_F(Duration, FollowsTheFlagInPrintAndTheRateInCount) {
    EXPECT_EQ(duration(0, 90'090 * 60LL, 4, false), Result(0, "00:01:00:02"));
    EXPECT_EQ(duration(0, 90'000, 3, true), Result(0, "00:00:01;00"));
}

TEST_F(Duration, ThatFailsLeavesTheTimecodeAsItWas) {
    maker.tables({{0x02, VIDEO}});
    picture(9000, 7200);
    picture(7200, 3600);
    const std::string backwards = write();
    for (const std::string& path : {backwards, directory.path("missing")}) {
        mpeg_timecode out(1, 2, 3, 4, false, 3);
        EXPECT_GT(MpegWrapper::GetDuration(path.c_str(), false, 5, out), 20'000);
        EXPECT_TRUE(out == mpeg_timecode(1, 2, 3, 4, false, 3)) << path;
    }
}

TEST_F(Duration, OfMoreThanADayWrapsIntoIt) {
    EXPECT_EQ(duration(0, 90'000 * 90'000LL, 3), Result(0, "01:00:00:00")) << "25 hours";
}

} // namespace
