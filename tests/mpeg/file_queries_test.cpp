// Questions about files: bounds, headers, rates, types, on streams made packet by packet.
#include "mpeg/GetDTSBounds.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/grab_video_header.h"
#include "ts_maker.h"

#include "foundation/Logger.h"

#include <cmath>
#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <random>
#include <sys/stat.h>

using testing::HasSubstr;

namespace {

constexpr int VIDEO = 0x100;

struct Close {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, Close>;

class Queries : public testing::Test {
protected:
    // One GOP of one picture; the PES header is 14 or 19 bytes.
    void gop(int rateCode = 3, int profileAndLevel = 0x48, int width = 720, int height = 576,
             std::int64_t pts = 3600, std::int64_t dts = -1) {
        maker.pes(VIDEO, pesHeader(pts, dts),
                  sequenceHeader(width, height, rateCode) + sequenceExtension(profileAndLevel) +
                      gopHeader(0, 0, 0, 0) + pictureHeader() + filler(500));
    }
    void gops(int count, int rateCode = 3, int profileAndLevel = 0x48) {
        maker.tables({{0x02, VIDEO}});
        for (int i = 0; i < count; ++i)
            gop(rateCode, profileAndLevel);
    }
    std::string write(const char* name = "in.ts") const { return maker.write(directory, name); }

    // What must never be misread, whatever is asked.
    std::vector<std::string> hostileFiles() const {
        std::vector<std::string> paths{directory.path("missing.ts"), directory.path(""),
                                       directory.file("empty.ts", ""),
                                       directory.file("short.ts", std::string(187, 'G'))};
        const std::string fifo = directory.path("fifo");
        mkfifo(fifo.c_str(), 0600);
        paths.push_back(fifo);
        std::mt19937 random(6);
        std::string noise(188 * 300, '\0');
        for (char& c : noise)
            c = static_cast<char>(random());
        paths.push_back(directory.file("noise.ts", noise));
        // Tables and video whose every other byte is wild.
        std::string wild(maker.bytes.begin(), maker.bytes.end());
        for (int round = 0; round < 20; ++round) {
            for (int i = 0; i < 400 && !wild.empty(); ++i) {
                const std::size_t at = random() % wild.size();
                if (at % 188 > 3)
                    wild[at] = static_cast<char>(random());
            }
            paths.push_back(directory.file("wild" + std::to_string(round) + ".ts", wild));
        }
        return paths;
    }

    ScratchDir directory;
    TsMaker maker;
};

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
    const auto stream = [&](std::uint64_t units, std::uint64_t scale, int pocType) {
        BitString sps;
        sps.u(8, 77).u(8, 0).u(8, 40).ue(0).ue(0).ue(static_cast<unsigned>(pocType)).ue(0).ue(4).u(1, 0);
        sps.ue(119).ue(67).u(1, 1).u(1, 1).u(1, 0).u(1, units != 0);
        if (units != 0)
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
    EXPECT_NEAR(stream(0, 0, 0), 29.97, 0.001) << "without timing";
    EXPECT_EQ(stream(1, 50, 2), 0.0) << "timing that is not parsed tells nothing";
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
    maker.tables({{0x01, VIDEO}});
    for (int i = 0; i < 3; ++i)
        maker.pes(VIDEO, pesHeader(1), sequenceHeader(352, 288, 3) + gopHeader(0, 0, 0, 0) + filler(500));
    EXPECT_TRUE(none(write())) << "MPEG-1 has no sequence extension";
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

// --- the header grabber itself

class GrabVideo : public Queries {
protected:
    void feed() {
        for (std::size_t at = 0; at + 188 <= maker.bytes.size(); at += 188)
            grabber.process(maker.bytes.data() + at, 0);
        maker.bytes.clear();
    }
    void feedPes(const Bytes& stream, std::int64_t pts = 3600) {
        Bytes padded = stream;
        padded.resize(500, 0x55);
        maker.pes(VIDEO, pesHeader(pts), padded);
        feed();
    }

    grab_video_header grabber{VIDEO, 0};
};

TEST_F(GrabVideo, KeepsTheHeadersOfTheLastPesThatHadOne) {
    feedPes(sequenceHeader(720, 576, 3) + sequenceExtension(0x48) + gopHeader(1, 2, 3, 4));
    ASSERT_NE(grabber.sequence_header(), nullptr);
    ASSERT_NE(grabber.sequence_extension(), nullptr);
    ASSERT_NE(grabber.gop_header(), nullptr);
    EXPECT_EQ(grabber.gop_count(), 1);
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(3600));
    feedPes(pictureHeader(2), 7200);
    EXPECT_NE(grabber.sequence_header(), nullptr) << "a PES without any is discarded";
    EXPECT_EQ(grabber.pts(), PTS::from_ticks(7200));
    feedPes(gopHeader(1, 2, 3, 5));
    EXPECT_EQ(grabber.sequence_header(), nullptr) << "what was not found becomes null";
    EXPECT_EQ(grabber.sequence_extension(), nullptr);
    EXPECT_NE(grabber.gop_header(), nullptr);
    EXPECT_EQ(grabber.gop_count(), 2);
}

TEST_F(GrabVideo, HeadersMayLieAcrossThreePackets) {
    for (std::size_t before = 0; before < 150; ++before) {
        grab_video_header fresh(VIDEO, 0);
        TsMaker stream;
        stream.pes(VIDEO, pesHeader(1), filler(before) + sequenceHeader(720, 576, 3) + filler(500), 100);
        for (std::size_t at = 0; at + 188 <= stream.bytes.size(); at += 188)
            fresh.process(stream.bytes.data() + at, 0);
        ASSERT_NE(fresh.sequence_header(), nullptr) << before;
        EXPECT_EQ(fresh.sequence_header()[7] & 0xF, 3);
    }
}

TEST_F(GrabVideo, TheScanEndsWithTheFirstCodeInTheSecondHalf) {
    // 552 bytes of payload: the search from 276 on finds nothing more.
    const auto gopsSeen = [](std::size_t first, std::size_t second) {
        grab_video_header fresh(VIDEO, 0);
        Bytes payload = pesHeader(1) + filler(538);
        const Bytes header = gopHeader(0, 0, 0, 0);
        std::copy(header.begin(), header.end(), payload.begin() + static_cast<long>(first));
        std::copy(header.begin(), header.end(), payload.begin() + static_cast<long>(second));
        TsMaker stream;
        stream.pes(VIDEO, Bytes(payload.begin(), payload.begin() + 14),
                   Bytes(payload.begin() + 14, payload.end()));
        for (std::size_t at = 0; at + 188 <= stream.bytes.size(); at += 188)
            fresh.process(stream.bytes.data() + at, 0);
        return fresh.gop_count();
    };
    EXPECT_EQ(gopsSeen(100, 200), 2);
    EXPECT_EQ(gopsSeen(100, 300), 2) << "the first one in the second half";
    EXPECT_EQ(gopsSeen(300, 400), 1) << "and no other";
}

TEST_F(GrabVideo, FieldsOfTheFirstGopAreCounted) {
    EXPECT_EQ(grabber.field_counter(), 0);
    feedPes(pictureHeader());
    EXPECT_EQ(grabber.field_counter(), 0) << "no GOP yet";
    feedPes(gopHeader(0, 0, 0, 0) + pictureHeader());
    EXPECT_EQ(grabber.field_counter(), 2);
    feedPes(pictureHeader() + pictureCodingExtension(3, true, false));
    EXPECT_EQ(grabber.field_counter(), 4) << "a frame picture";
    feedPes(pictureHeader() + pictureCodingExtension(1, false, false));
    EXPECT_EQ(grabber.field_counter(), 5) << "a field picture";
    feedPes(pictureHeader() + pictureCodingExtension(3, true, true));
    EXPECT_EQ(grabber.field_counter(), 8) << "one field repeated";
    feedPes(gopHeader(0, 0, 0, 0) + pictureHeader());
    EXPECT_EQ(grabber.field_counter(), 8) << "the second GOP";
}

TEST_F(GrabVideo, AProgressiveSequenceRepeatsWholeFrames) {
    const auto counted = [](bool progressive, bool topFirst) {
        grab_video_header fresh(VIDEO, 0);
        TsMaker stream;
        stream.pes(VIDEO, pesHeader(1),
                   sequenceExtension(0x48, progressive) + gopHeader(0, 0, 0, 0) + pictureHeader() +
                       pictureCodingExtension(3, topFirst, true) + filler(500));
        for (std::size_t at = 0; at + 188 <= stream.bytes.size(); at += 188)
            fresh.process(stream.bytes.data() + at, 0);
        return fresh.field_counter();
    };
    EXPECT_EQ(counted(true, true), 2 + 4);
    EXPECT_EQ(counted(true, false), 2 + 2);
    EXPECT_EQ(counted(false, true), 2 + 1);
}

TEST_F(GrabVideo, HostilePacketsStayInside) {
    std::mt19937 random(13818);
    for (int round = 0; round < 20'000; ++round) {
        const auto packet = std::make_unique<unsigned char[]>(188);
        for (int i = 0; i < 188; ++i)
            packet[static_cast<std::size_t>(i)] =
                static_cast<unsigned char>(random() % 3 == 0 ? random() % 2 : random());
        packet[1] = static_cast<unsigned char>(random() % 2 == 0 ? 0x41 : 0x01);
        packet[2] = 0x00;
        if (random() % 2 == 0)
            packet[184] = packet[185] = 0, packet[186] = 1, packet[187] = 0xB3;
        grabber.process(packet.get(), round);
    }
    grabber.flush(0);
    SUCCEED();
}

// --- DTS bounds

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
    EXPECT_EQ(harness({"GetDTSBounds", path, "3600"}), 1);
    EXPECT_THAT(
        log.str(),
        HasSubstr("[captureEngLib:Error] Function testHarness requires args in.mpeg firstDTS lastDTS"));
    EXPECT_EQ(harness({"GetDTSBounds", directory.path("missing"), "1", "2"}), 1);
    EXPECT_THAT(log.str(), HasSubstr("Unable to open input file " + directory.path("missing")));
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

TEST_F(Duration, ThatRunsBackwardsIsAnError) {
    EXPECT_EQ(duration(90'000, 0, 3).first, 20046);
    EXPECT_THAT(log.str(),
                HasSubstr("[MpegWrapper:Error] Error: Invalid transport packet in the input file " + write() +
                          ", Unable to determine the duration!"));
}

TEST_F(Duration, OfAFileThatCannotBeOpenedIsAnError) {
    EXPECT_EQ(durationOf(directory.path("missing"), 3).first, 20045);
    EXPECT_THAT(log.str(), HasSubstr("[MpegWrapper:Error] Error: Unable to open input file " +
                                     directory.path("missing") + "."));
    EXPECT_EQ(durationOf(directory.path(""), 3).first, 20045) << "a directory";
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
              Result(0, "Video Profile 4:\tMain\nVideo Level 8:\tMain\nThis is an SD file\n"));
    const struct {
        int indication;
        const char* text;
    } rows[] = {{0x14, "Video Profile 1:\tHigh\nVideo Level 4:\tHigh\nThis is an HD file\n"},
                {0x26, "Video Profile 2:\tSpatial\nVideo Level 6:\tHigh 1440\nThis is an HD file\n"},
                {0x3A, "Video Profile 3:\tSNR\nVideo Level 10:\tLow\nThis is an SD file\n"},
                {0x58, "Video Profile 5:\tSimple\nVideo Level 8:\tMain\nThis is an SD file\n"},
                {0x8D, "Video Profile 6:\tMultiview\nVideo Level 8:\tMain\nThis is an SD file\n"},
                {0x85, "Video Profile 7:\t422\nVideo Level 8:\tMain\nThis is an SD file\n"},
                {0x81, "Video Profile 0:\tReserved\nVideo Level 0:\tReserved\nThis is an HD file\n"},
                {0x43, "Video Profile 4:\tMain\nVideo Level 3:\t???\nThis is an HD file\n"}};
    for (const auto& row : rows) {
        maker = TsMaker();
        gops(3, 3, row.indication);
        EXPECT_EQ(harness({"MpegWrapper", write()}), Result(0, row.text));
    }
    LogUtil::GetInstance();
    std::ostringstream log;
    LogUtil::GetInstance()->addStreamLogger(&log);
    EXPECT_EQ(harness({"MpegWrapper"}), Result(1, ""));
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
