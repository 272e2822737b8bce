// Questions about files: headers, rates, types, on streams made packet by packet.
#include "mpeg/MpegWrapper.h"
#include "mpeg/grab_video_header.h"
#include "query_files.h"

#include <cmath>
#include <limits>

using testing::HasSubstr;

namespace {

// --- rates

TEST(FrameRates, TheTableHasItsValues) {
    EXPECT_EQ(MpegWrapper::GetFrameRate(0), 0.0);
    // Not 24000/1001: values that came from this table are compared with it.
    EXPECT_EQ(MpegWrapper::GetFrameRate(1), 23000.0 / 1001);
    const double rates[] = {24, 25, 30000.0 / 1001, 30, 50, 60000.0 / 1001, 60};
    for (int code = 2; code <= 8; ++code)
        EXPECT_EQ(MpegWrapper::GetFrameRate(code), rates[code - 2]);
    for (int code = 9; code <= 15; ++code) {
        EXPECT_EQ(MpegWrapper::FrameRateTable[code], -1.0);
        EXPECT_EQ(MpegWrapper::GetFrameRate(code), 0.0);
    }
    EXPECT_EQ(MpegWrapper::GetFrameRate(16), 0.0);
    EXPECT_EQ(MpegWrapper::GetFrameRate(-1), 0.0);
}

TEST(FrameRates, CodesByRate) {
    const std::pair<double, int> rows[] = {{0, 0},     {23.976, 1}, {1, 1},  {24, 2},   {24.5, 4}, {25, 3},
                                           {26, 4},    {29.97, 4},  {30, 5}, {30.5, 7}, {40, 7},   {50, 6},
                                           {59.94, 7}, {60, 8},     {61, 0}, {-5, 1},   {1e9, 0}};
    for (const auto& [fps, code] : rows)
        EXPECT_EQ(MpegWrapper::GetFrameRateCode(fps), code) << fps;
    EXPECT_EQ(MpegWrapper::GetFrameRateCode(std::numeric_limits<double>::quiet_NaN()), 0);
}

TEST(FrameRates, TheAc3RateIsAPlaceholder) {
    EXPECT_EQ(MpegWrapper::GetAC3Bitrate("/dev/null", 0), -1.0);
    EXPECT_EQ(MpegWrapper::GetAC3Bitrate("/no/such/file", 7), -1.0);
}

TEST_F(Queries, FrameRateOfEveryMpeg2Code) {
    const double rates[] = {24000.0 / 1001, 24, 25, 30000.0 / 1001, 30, 50, 60000.0 / 1001, 60};
    for (int code = 0; code <= 15; ++code) {
        maker = TsMaker();
        gops(3, code);
        EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(write().c_str()),
                  code >= 1 && code <= 8 ? rates[code - 1] : -1.0)
            << code;
    }
}

TEST_F(Queries, FrameRateNeedsTheSecondGop) {
    gops(1);
    EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(write().c_str()), 0.0);
}

TEST_F(Queries, AGopWithoutASequenceHeaderIsPassedOver) {
    maker.tables({{0x02, VIDEO}});
    gop(5);
    maker.pes(VIDEO, pesHeader(1), gopHeader(0, 0, 1, 0) + pictureHeader() + filler(500));
    gop(3);
    EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(write().c_str()), 25.0);
}

TEST_F(Queries, FrameRateOfH264IsHalfItsTimeScale) {
    const auto stream = [&](std::uint64_t units, std::uint64_t scale, int pocType, bool timed = true) {
        BitString sps;
        sps.u(8, 77).u(8, 0).u(8, 40).ue(0).ue(0).ue(static_cast<unsigned>(pocType)).ue(0).ue(4).u(1, 0);
        sps.ue(119).ue(67).u(1, 1).u(1, 1).u(1, 0).u(1, timed);
        if (timed)
            sps.u(4, 0).u(1, 1).u(32, units).u(32, scale).u(1, 1);
        TsMaker h264;
        h264.tables({{0x1B, VIDEO}});
        for (int i = 0; i < 3; ++i)
            h264.pes(VIDEO, pesHeader(1),
                     Bytes{0, 0, 1, 0x67} + escaped(sps.bytes()) + Bytes{0, 0, 1, 0x65, 0x88, 0x55, 0x55});
        return MpegWrapper::GetFrameRateFromFile(h264.write(directory).c_str());
    };
    EXPECT_EQ(stream(1, 50, 0), 25.0);
    EXPECT_DOUBLE_EQ(stream(1001, 60000, 0), 30000.0 / 1001);
    EXPECT_NEAR(stream(0, 0, 0, false), 29.97, 0.001) << "without timing";
    EXPECT_EQ(stream(1, 50, 2), 0.5) << "timing that is not parsed stays -1 by -1";
    EXPECT_EQ(stream(1, 0, 0), 0.0);
    EXPECT_EQ(stream(0, 50, 0), 0.0) << "a tick of no length";
}

TEST_F(Queries, TheLastVideoEntryOfTheTableDecidesTheFrameRate) {
    maker.tables({{0x1B, VIDEO + 1}, {0x02, VIDEO}});
    for (int i = 0; i < 3; ++i)
        gop(3);
    EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(write().c_str()), 25.0);
    maker = TsMaker();
    maker.tables({{0x02, VIDEO}, {0x1B, VIDEO + 1}});
    for (int i = 0; i < 3; ++i)
        gop(3);
    EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(write().c_str()), 0.0);
}

TEST_F(Queries, OfTwoMpeg2EntriesTheLastGivesTheRateAndTheFirstAllElse) {
    constexpr int SECOND = VIDEO + 1;
    maker.tables({{0x02, VIDEO}, {0x02, SECOND}});
    for (int i = 0; i < 3; ++i) {
        maker.pes(SECOND, pesHeader(3600),
                  sequenceHeader(1920, 1080, 5) + sequenceExtension(0x14) + gopHeader(0, 0, 0, 0) +
                      filler(500));
        gop(3, 0x48, 720, 576);
    }
    std::string path = write();
    EXPECT_EQ(MpegWrapper::GetFrameRateFromFile(path.c_str()), 30.0);
    int width = 0;
    int height = 0;
    grab_video_header::getDimensions(path.data(), width, height, 0);
    EXPECT_EQ(width, 720);
    EXPECT_EQ(height, 576);
    MpegWrapper::videoProfile profile{};
    MpegWrapper::videoLevel level{};
    EXPECT_TRUE(MpegWrapper::GetMpeg2VideoProfileAndLevel(path.c_str(), profile, level));
    EXPECT_EQ(profile, MpegWrapper::profileMain);
    EXPECT_EQ(level, MpegWrapper::levelMain);
}

// --- transport stream or not

TEST_F(Queries, FortyFourSyncBytesMakeATransportStream) {
    TsMaker good;
    for (int i = 0; i < 60; ++i)
        good.packet(0x200, false, filler(184));
    const auto withBadPacket = [&](std::size_t index, std::size_t packets = 60) {
        std::string bytes(good.bytes.begin(), good.bytes.begin() + static_cast<long>(packets * 188));
        if (index < packets)
            bytes[index * 188] = '\0';
        return MpegWrapper::IsTransportStreamFile(directory.file("sync.ts", bytes).c_str());
    };
    EXPECT_TRUE(withBadPacket(60));
    EXPECT_FALSE(withBadPacket(0));
    EXPECT_FALSE(withBadPacket(43)) << "43 good ones and one bad";
    EXPECT_TRUE(withBadPacket(44));
    EXPECT_TRUE(withBadPacket(45)) << "45 good ones, then garbage";
    EXPECT_TRUE(withBadPacket(60, 3)) << "short, but good";
    EXPECT_TRUE(withBadPacket(60, 0)) << "empty";
    EXPECT_TRUE(MpegWrapper::IsTransportStreamFile(directory.path("missing").c_str())) << "like an empty one";
}

// --- profile and level

TEST_F(Queries, ProfileAndLevelOfEveryIndication) {
    struct Row {
        int indication, profile, level;
    };
    for (const Row& row :
         {Row{0x48, 4, 8}, Row{0x44, 4, 4}, Row{0x46, 4, 6}, Row{0x58, 5, 8}, Row{0x5A, 5, 10},
          Row{0x14, 1, 4}, Row{0x28, 2, 8}, Row{0x38, 3, 8}, Row{0x82, 7, 4}, Row{0x85, 7, 8},
          Row{0x8A, 6, 4}, Row{0x8B, 6, 6}, Row{0x8D, 6, 8}, Row{0x8E, 6, 10}, Row{0x81, 0, 0},
          Row{0xFF, 0, 0}, Row{0x7F, 7, 15}}) {
        maker = TsMaker();
        gops(3, 3, row.indication);
        MpegWrapper::videoProfile profile{};
        MpegWrapper::videoLevel level{};
        EXPECT_TRUE(MpegWrapper::GetMpeg2VideoProfileAndLevel(write().c_str(), profile, level));
        EXPECT_EQ(static_cast<int>(profile), row.profile) << std::hex << row.indication;
        EXPECT_EQ(static_cast<int>(level), row.level) << std::hex << row.indication;
    }
}

TEST_F(Queries, ProfileAndLevelAreZeroWhereThereAreNone) {
    const auto none = [&](const std::string& path) {
        auto profile = MpegWrapper::profileMain;
        auto level = MpegWrapper::levelMain;
        const bool found = MpegWrapper::GetMpeg2VideoProfileAndLevel(path.c_str(), profile, level);
        EXPECT_EQ(profile, 0);
        EXPECT_EQ(level, 0);
        return !found;
    };
    gops(1);
    EXPECT_TRUE(none(write())) << "one GOP";
    maker = TsMaker();
    maker.tables({{0x1B, VIDEO + 1}, {0x02, VIDEO}});
    for (int i = 0; i < 3; ++i)
        gop();
    EXPECT_TRUE(none(write())) << "H.264 comes first";
    maker = TsMaker();
    maker.tables({{0x02, VIDEO}, {0x1B, VIDEO + 1}});
    for (int i = 0; i < 3; ++i)
        gop();
    EXPECT_TRUE(none(write())) << "H.264 beside it";
    maker = TsMaker();
    maker.tables({{0x02, VIDEO}});
    gop();
    maker.map({{0x02, VIDEO}, {0x1B, VIDEO + 1}});
    gop();
    EXPECT_TRUE(none(write())) << "H.264 comes later";
    maker = TsMaker();
    maker.tables({{0x01, VIDEO}});
    for (int i = 0; i < 3; ++i)
        maker.pes(VIDEO, pesHeader(1), sequenceHeader(352, 288, 3) + gopHeader(0, 0, 0, 0) + filler(500));
    EXPECT_TRUE(none(write())) << "MPEG-1 has no sequence extension";
    maker = TsMaker();
    maker.tables({{0x02, VIDEO}});
    gop();
    maker.pes(VIDEO, pesHeader(1), gopHeader(0, 0, 1, 0) + pictureHeader() + filler(500));
    gop();
    EXPECT_TRUE(none(write())) << "the second GOP has no sequence extension";
}

TEST_F(Queries, HdIsAnythingButLowAndMainLevel) {
    const auto hd = [&](int indication, const char* line) {
        maker = TsMaker();
        gops(3, 3, indication);
        LogUtil::GetInstance();
        std::ostringstream log;
        LogUtil::GetInstance()->addStreamLogger(&log);
        const std::string path = write();
        const bool is = MpegWrapper::IsMpeg2HD(path.c_str());
        LogUtil::Cleanup();
        EXPECT_THAT(log.str(), HasSubstr("[MpegWrapper:Info] " + path + line));
        return is;
    };
    EXPECT_FALSE(hd(0x48, " is an SD asset"));
    EXPECT_FALSE(hd(0x4A, " is an SD asset"));
    EXPECT_TRUE(hd(0x44, " is an HD asset"));
    EXPECT_TRUE(hd(0x46, " is an HD asset"));
    EXPECT_TRUE(hd(0x81, " is an HD asset")) << "level 0, too";
}

TEST_F(Queries, H264IsNoMpeg2File) {
    maker.tables({{0x1B, VIDEO}});
    const std::string path = write();
    LogUtil::GetInstance();
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    EXPECT_FALSE(MpegWrapper::IsMpeg2HD(path.c_str()));
    LogUtil::Cleanup();
    EXPECT_THAT(log.str(),
                HasSubstr("[MpegWrapper:Error] " + path +
                          " is not an MPEG2 file, IsMpeg2HD function only supports MPEG2 input files"));
    EXPECT_EQ(MpegWrapper::GetVideoType(path.c_str()), 1);
    EXPECT_EQ(MpegWrapper::GetMpeg2FirstGopTimeCode(path.c_str()), -10);
}

// --- type and PID

TEST_F(Queries, TheVideoTypeIsThatOfTheLastTablesLastVideoEntry) {
    const auto type = [&](const std::vector<std::vector<Stream>>& tables) {
        TsMaker stream;
        for (const auto& table : tables)
            stream.tables(table);
        return MpegWrapper::GetVideoType(stream.write(directory).c_str());
    };
    EXPECT_EQ(type({}), 3);
    EXPECT_EQ(type({{{0x0F, 1}}}), 3);
    EXPECT_EQ(type({{{0x01, 1}}}), 0);
    EXPECT_EQ(type({{{0x02, 1}}}), 0);
    EXPECT_EQ(type({{{0x1B, 1}}}), 1);
    EXPECT_EQ(type({{{0x1B, 1}, {0x02, 2}}}), 0);
    EXPECT_EQ(type({{{0x02, 1}, {0x1B, 2}, {0x0F, 3}}}), 1);
    EXPECT_EQ(type({{{0x02, 1}}, {{0x1B, 1}}}), 1);
    EXPECT_EQ(type({{{0x02, 1}}, {{0x0F, 1}}}), 0);
}

TEST_F(Queries, TheVideoPidIsAlwaysThree) {
    gops(2);
    EXPECT_EQ(MpegWrapper::GetVideoPid(write().c_str()), 3);
    EXPECT_EQ(MpegWrapper::GetVideoPid(directory.path("missing").c_str()), 3);
    EXPECT_EQ(MpegWrapper::GetMpeg2FirstGopTimeCode(write().c_str()), 0);
    EXPECT_EQ(MpegWrapper::GetMpeg2FirstGopTimeCode(directory.path("missing").c_str()), -10);
}

// --- dimensions

TEST_F(Queries, DimensionsHaveFourteenBits) {
    struct Row {
        int width, height, widthHigh, heightHigh;
    };
    for (const Row& row : {Row{720, 576, 0, 0}, Row{1920, 1080, 0, 0}, Row{4095, 4095, 0, 0}, Row{1, 1, 3, 3},
                           Row{0, 0, 1, 2}, Row{0, 0, 2, 1}}) {
        maker = TsMaker();
        maker.tables({{0x02, VIDEO}});
        for (int i = 0; i < 3; ++i)
            maker.pes(VIDEO, pesHeader(1),
                      sequenceHeader(row.width, row.height, 3) +
                          sequenceExtension(0x48, false, row.widthHigh, row.heightHigh) +
                          gopHeader(0, 0, 0, 0) + filler(500));
        std::string path = write();
        int width = 0;
        int height = 0;
        EXPECT_EQ(grab_video_header::getDimensions(path.data(), width, height, 0), 0);
        EXPECT_EQ(width, row.widthHigh << 12 | row.width);
        EXPECT_EQ(height, row.heightHigh << 12 | row.height);
    }
}

TEST_F(Queries, DimensionsOfMpeg1ComeFromTheHeaderAlone) {
    maker.tables({{0x01, VIDEO}});
    for (int i = 0; i < 3; ++i)
        maker.pes(VIDEO, pesHeader(1), sequenceHeader(352, 288, 3) + gopHeader(0, 0, 0, 0) + filler(500));
    std::string path = write();
    int width = 0;
    int height = 0;
    grab_video_header::getDimensions(path.data(), width, height, 0);
    EXPECT_EQ(width, 352);
    EXPECT_EQ(height, 288);
}

TEST_F(Queries, WithoutVideoTheDimensionsAreMinusOne) {
    maker.tables({{0x0F, VIDEO}});
    std::string path = write();
    int width = 0;
    int height = 0;
    EXPECT_EQ(grab_video_header::getDimensions(path.data(), width, height, 0), 0);
    EXPECT_EQ(width, -1);
    EXPECT_EQ(height, -1);
}

TEST_F(Queries, DimensionsLogTheirPidAndContinuityFailures) {
    gops(1);
    maker.skipCounter(VIDEO);
    gop();
    std::string path = write();
    LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Debug);
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    int width = 0;
    int height = 0;
    grab_video_header::getDimensions(path.data(), width, height, 0);
    LogUtil::Cleanup();
    EXPECT_THAT(log.str(), HasSubstr("[captureEngLib:Debug] video PID is 256"));
    EXPECT_THAT(log.str(), HasSubstr("[captureEngLib:Debug] Continuity error: expected "));
}

// --- the command form

TEST_F(Queries, HarnessPrintsProfileLevelAndSize) {
    const auto harness = [&](std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        testing::internal::CaptureStdout();
        const int result = MpegWrapper::testHarness(static_cast<int>(argv.size()), argv.data());
        return std::pair{result, testing::internal::GetCapturedStdout()};
    };
    using Result = std::pair<int, std::string>;
    gops(3, 3, 0x48);
    EXPECT_EQ(harness({"MpegWrapper", write()}),
              Result(0, "Video Profile 4:\tMain\nVideo Level 8:\tMain\nThis is an SD file"));
    const struct {
        int indication;
        const char* text;
    } rows[] = {{0x14, "Video Profile 1:\tHigh\nVideo Level 4:\tHigh\nThis is an HD file"},
                {0x26, "Video Profile 2:\tSpatial\nVideo Level 6:\tHigh 1440\nThis is an HD file"},
                {0x3A, "Video Profile 3:\tSNR\nVideo Level 10:\tLow\nThis is an SD file"},
                {0x58, "Video Profile 5:\tSimple\nVideo Level 8:\tMain\nThis is an SD file"},
                {0x8D, "Video Profile 6:\tMultiview\nVideo Level 8:\tMain\nThis is an SD file"},
                {0x85, "Video Profile 7:\t422\nVideo Level 8:\tMain\nThis is an SD file"},
                {0x81, "Video Profile 0:\tReserved\nVideo Level 0:\tReserved\nThis is an HD file"},
                {0x43, "Video Profile 4:\tMain\nVideo Level 3:\t???\nThis is an HD file"}};
    for (const auto& row : rows) {
        maker = TsMaker();
        gops(3, 3, row.indication);
        EXPECT_EQ(harness({"MpegWrapper", write()}), Result(0, row.text));
    }
    LogUtil::GetInstance();
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    EXPECT_EQ(harness({"MpegWrapper"}), Result(1, ""));
    EXPECT_EQ(harness({"MpegWrapper", write(), "1"}), Result(1, ""));
    EXPECT_EQ(harness({"MpegWrapper", directory.path("missing")}), Result(1, ""));
    LogUtil::Cleanup();
    EXPECT_THAT(log.str(), HasSubstr("[CaptureTests:Error] Function testHarness requires arg filename.mpg"));
    EXPECT_THAT(log.str(),
                HasSubstr("[CaptureTests:Error] Error getting MPEG2 Video Profile and Level.  Is this a "
                          "valid MPEG2 file?"));
}

// --- whatever is asked of whatever file

TEST_F(Queries, HostileFilesAreAnsweredAndLeftAlone) {
    gops(5);
    for (const std::string& path : hostileFiles()) {
        SCOPED_TRACE(path);
        std::string name = path;
        int width = 0;
        int height = 0;
        MpegWrapper::videoProfile profile{};
        MpegWrapper::videoLevel level{};
        mpeg_timecode out;
        grab_video_header::getDimensions(name.data(), width, height, 0);
        MpegWrapper::GetMpeg2VideoProfileAndLevel(path.c_str(), profile, level);
        MpegWrapper::GetFrameRateFromFile(path.c_str());
        EXPECT_GE(MpegWrapper::GetVideoType(path.c_str()), 0);
        EXPECT_EQ(MpegWrapper::GetVideoPid(path.c_str()), 3);
        MpegWrapper::IsTransportStreamFile(path.c_str());
        MpegWrapper::GetDuration(path.c_str(), false, 3, out);
        MpegWrapper::rebaseFile(path.c_str(), directory.path("rebased.ts").c_str(), 0, mpeg_timecode());
    }
}

} // namespace
