// The report reader.
#include "verifier/VerifierXml.h"

#include "reports.h"

#include <gmock/gmock.h>

namespace {

class VerifierXmlTest : public testing::Test {
protected:
    VerifierXml& read(const Report& report) { return readText(report.xml()); }
    VerifierXml& readText(const std::string& text) {
        reader = std::make_unique<VerifierXml>(directory.file("report.xml", text).c_str());
        return *reader;
    }

    ScratchDir directory;
    std::unique_ptr<VerifierXml> reader;
};

TEST_F(VerifierXmlTest, TextsComeAsTheyStandInTheReport) {
    const VerifierXml& report = read({});
    EXPECT_TRUE(report.loaded);
    EXPECT_STREQ(report.getPmtPid(), "480");
    EXPECT_STREQ(report.getPcrPid(), "481");
    EXPECT_STREQ(report.getVideoPid(), "481");
    EXPECT_STREQ(report.getVideoBitrate(), "3000000");
    EXPECT_STREQ(report.getGopLength(), "15");
    EXPECT_STREQ(report.getGopStructure(), "IBBP");
    EXPECT_STREQ(report.getVideoFrameRate(), "29.97");
    EXPECT_STREQ(report.getVideoAspectRatio(), "4:3");
    EXPECT_STREQ(report.getVideoRes(), "528x480");
    EXPECT_STREQ(report.getDuration(), "00:30:00:00");
    EXPECT_STREQ(report.getTransportRate(), "3750000");
    EXPECT_STREQ(report.getVideoEncodingDesc(), "MPEG-2 Video");
    EXPECT_STREQ(report.getAudioPid(0), "482");
    EXPECT_STREQ(report.getAudioMode(0), "2/0");
    EXPECT_STREQ(report.getAudioSurroundMode(0), "2/0");
    EXPECT_STREQ(report.getAudioBitrate(0), "192000");
    EXPECT_STREQ(report.getAudioSamplingRate(0), "48000");
    EXPECT_STREQ(report.getAudioType(0), "AC3 audio");
}

TEST_F(VerifierXmlTest, NumbersComeBesideTheTexts) {
    const VerifierXml& report = read({});
    int number = -1;
    double rate = -1;
    report.getVideoPid(&number);
    EXPECT_EQ(number, 481);
    report.getAudioPid(0, &number);
    EXPECT_EQ(number, 482);
    report.getAudioSamplingRate(0, &number);
    EXPECT_EQ(number, 48000);
    report.getAudioBitrate(0, &rate);
    EXPECT_EQ(rate, 192000.0);
    EXPECT_EQ(report.getAudioPid(1, &number), nullptr);
    EXPECT_EQ(number, 0) << "absent";
    EXPECT_EQ(report.getAudioBitrate(1, &rate), nullptr);
    EXPECT_EQ(rate, 0.0);
}

TEST_F(VerifierXmlTest, AFileThatCannotBeReadIsNotLoaded) {
    EXPECT_FALSE(VerifierXml(directory.path("missing.xml").c_str()).loaded);
    EXPECT_FALSE(VerifierXml(nullptr).loaded);
    EXPECT_FALSE(readText("").loaded);
    EXPECT_FALSE(readText("no XML at all").loaded);
    EXPECT_FALSE(readText("<!-- only a comment -->").loaded);
    EXPECT_FALSE(readText("<Report><Media>").loaded);
    EXPECT_FALSE(VerifierXml(directory.path("").c_str()).loaded) << "a directory";
    EXPECT_EQ(reader->getPmtPid(), nullptr);
    EXPECT_EQ(reader->getNumAudios(), 0);
}

TEST_F(VerifierXmlTest, SaysWhyAReportCannotBeRead) {
    EXPECT_EQ(read({}).problem(), "");
    EXPECT_EQ(readText("<a>\n</b>").problem().substr(0, 18), "at or before line ");
    EXPECT_NE(VerifierXml(directory.path("no.xml").c_str()).problem(), "");
    EXPECT_NE(VerifierXml(nullptr).problem(), "");
    // XML without an element is no fault of its text.
    const VerifierXml& empty = readText("<!-- -->");
    EXPECT_FALSE(empty.loaded);
    EXPECT_EQ(empty.problem(), "");
}

TEST_F(VerifierXmlTest, InitTellsAndCanReadAnother) {
    VerifierXml& report = readText("nothing");
    EXPECT_EQ(report.init(directory.path("missing.xml").c_str()), 1);
    EXPECT_EQ(report.init(directory.file("other.xml", Report{.pmtPid = "99"}.xml()).c_str()), 0);
    EXPECT_TRUE(report.loaded);
    EXPECT_STREQ(report.getPmtPid(), "99");
}

TEST_F(VerifierXmlTest, TheRootsNameIsNotLookedAt) {
    std::string text = Report{}.xml();
    text.replace(text.find("<Report>"), 8, "<Wrench>");
    text.replace(text.find("</Report>"), 9, "</Wrench>");
    EXPECT_STREQ(readText(text).getPmtPid(), "480");
}

TEST_F(VerifierXmlTest, AReportWithoutMediaHasNeutralValues) {
    const VerifierXml& report = readText("<Report/>");
    EXPECT_TRUE(report.loaded);
    for (const char* text :
         {report.getPmtPid(), report.getPcrPid(), report.getVideoPid(), report.getVideoBitrate(),
          report.getGopLength(), report.getGopStructure(), report.getVideoFrameRate(),
          report.getVideoAspectRatio(), report.getVideoRes(), report.getDuration(), report.getTransportRate(),
          report.getAudioPid(0), report.getAudioMode(0), report.getAudioSurroundMode(0),
          report.getAudioSamplingRate(0), report.getAudioBitrate(0), report.getVideoEncodingDesc(),
          report.getAudioType(0)})
        EXPECT_EQ(text, nullptr);
    EXPECT_EQ(report.getNumAudios(), 0);
    EXPECT_EQ(report.getAudioBitrateKbps(0), -1);
    EXPECT_EQ(report.numAudioChannels(0), 0);
    EXPECT_FALSE(report.isHd());
    EXPECT_FALSE(report.isAC3(0));
    EXPECT_FALSE(report.isDolby5p1(0));
    EXPECT_EQ(report.horResolution(), -1);
    EXPECT_EQ(report.vertResolution(), -1);
    for (const char* answer :
         {report.getIsMpeg4(), report.getIsHd(), report.getQuadByteAligned(), report.getVideoCbr(),
          report.getIsCC(), report.getDropFrame(), report.getVariableGops()})
        EXPECT_STREQ(answer, "FALSE");
    // An absent description counts as not H.264.
    EXPECT_STREQ(report.getIsMpeg2(), "TRUE");
    EXPECT_STREQ(report.getNeedsReEncoding(), "TRUE");
    EXPECT_STREQ(report.getVideoEncoding(), "MPEG2");
}

TEST_F(VerifierXmlTest, StreamsAreFoundByTheirPid) {
    const VerifierXml& report = read({.audios = {{.pid = "482"}, {.pid = "500", .type = "MPEG audio"}}});
    ASSERT_NE(report.getStreamXmlElement(500), nullptr);
    EXPECT_STREQ(report.getAudioType(1), "MPEG audio");
    EXPECT_EQ(report.getStreamXmlElement(499), nullptr);
}

TEST_F(VerifierXmlTest, OfTwoEntriesOfAPidTheFirstIsTaken) {
    const VerifierXml& report = read({.audios = {{.pid = "481", .type = "AC3"}}});
    EXPECT_STREQ(report.getAudioType(0), "MPEG-2 Video");
}

TEST_F(VerifierXmlTest, EntriesWithoutPidOrTypeDoNotMatch) {
    const VerifierXml& report = readText(
        "<R><Media><SystemInformation><PMTTable><Elements>"
        "<Stream><StreamType Desc='nothing'/></Stream>"
        "<Stream><Pid value='7'/></Stream>"
        "</Elements></PMTTable></SystemInformation><VideoStream><Pid value='7'/></VideoStream></Media></R>");
    EXPECT_EQ(report.getStreamXmlElement(0), nullptr);
    EXPECT_NE(report.getStreamXmlElement(7), nullptr);
    EXPECT_EQ(report.getVideoEncodingDesc(), nullptr);
    EXPECT_TRUE(report.isMpeg2());
}

TEST_F(VerifierXmlTest, ResolutionsAreTakenApart) {
    struct Row {
        const char* text;
        int width, height;
        bool hd;
    };
    for (const Row& row : {Row{"1920x1080", 1920, 1080, true}, Row{"720x576", 720, 576, false},
                           Row{"528x480", 528, 480, false}, Row{"1280x577", 1280, 577, true},
                           Row{"1920", -1, -1, false}, Row{"x480", 0, 480, false}}) {
        const VerifierXml& report = read({.resolution = row.text});
        EXPECT_EQ(report.horResolution(), row.width) << row.text;
        EXPECT_EQ(report.vertResolution(), row.height) << row.text;
        EXPECT_EQ(report.isHd(), row.hd) << row.text;
        EXPECT_STREQ(report.getIsHd(), row.hd ? "TRUE" : "FALSE");
    }
}

TEST_F(VerifierXmlTest, AResolutionOfAnyLengthIsKeptWhole) {
    const std::string text = std::string(500, '0') + "1920x1080";
    EXPECT_EQ(read({.resolution = text}).getVideoRes(), text);
    EXPECT_EQ(reader->horResolution(), 1920);
}

TEST_F(VerifierXmlTest, AudioRatesAreCutToKilobits) {
    const auto kbps = [&](const char* rate) {
        return read({.audios = {{.bitrate = rate}}}).getAudioBitrateKbps(0);
    };
    EXPECT_EQ(kbps("191999"), 191);
    EXPECT_EQ(kbps("384000"), 384);
    EXPECT_EQ(kbps("192000.9"), 192);
    EXPECT_EQ(kbps(""), -1);
    EXPECT_EQ(kbps("1e300"), -1) << "no rate that an int holds";
}

TEST_F(VerifierXmlTest, TheOlderNameOfTheSamplingRateCountsOnlyAlone) {
    EXPECT_STREQ(read({.audios = {{.rate = "", .frequency = "44100"}}}).getAudioSamplingRate(0), "44100");
    EXPECT_STREQ(read({.audios = {{.rate = "48000", .frequency = "44100"}}}).getAudioSamplingRate(0),
                 "48000");
    EXPECT_EQ(read({.audios = {{.rate = ""}}}).getAudioSamplingRate(0), nullptr);
}

TEST_F(VerifierXmlTest, FiveChannelsAreDolbyFivePointOne) {
    for (const auto& [channels, is] : {std::pair{"2", false}, {"5", true}, {"6", false}, {"", false}})
        EXPECT_EQ(read({.audios = {{.channels = channels}}}).isDolby5p1(0), is) << channels;
    EXPECT_EQ(read({.audios = {{.channels = "012"}}}).numAudioChannels(0), 12) << "decimal";
}

TEST_F(VerifierXmlTest, TypesAreRecognisedByPartsOfTheirDescription) {
    EXPECT_TRUE(read({.audios = {{.type = "Dolby AC3 (ATSC)"}}}).isAC3(0));
    EXPECT_FALSE(read({.audios = {{.type = "ac3"}}}).isAC3(0));
    EXPECT_FALSE(read({.audios = {{.type = ""}}}).isAC3(0));
    const VerifierXml& avc = read({.videoType = "ITU-T H.264 video"});
    EXPECT_TRUE(avc.isMpeg4());
    EXPECT_FALSE(avc.isMpeg2());
    EXPECT_STREQ(avc.getIsMpeg4(), "TRUE");
    EXPECT_STREQ(avc.getIsMpeg2(), "FALSE");
    EXPECT_STREQ(avc.getNeedsReEncoding(), "FALSE");
    EXPECT_STREQ(avc.getVideoEncoding(), "H264");
}

TEST_F(VerifierXmlTest, YesAndNoAreReadWithoutRegardToCase) {
    const VerifierXml& yes =
        read({.aligned = "TRUE", .cbr = "True", .captions = "tRuE", .dropFrame = "true"});
    EXPECT_STREQ(yes.getQuadByteAligned(), "TRUE");
    EXPECT_STREQ(yes.getVideoCbr(), "TRUE");
    EXPECT_STREQ(yes.getIsCC(), "TRUE");
    EXPECT_STREQ(yes.getDropFrame(), "TRUE");
    const VerifierXml& no = read({.aligned = "truer", .cbr = "1", .captions = "yes", .dropFrame = "false"});
    EXPECT_STREQ(no.getQuadByteAligned(), "FALSE");
    EXPECT_STREQ(no.getVideoCbr(), "FALSE");
    EXPECT_STREQ(no.getIsCC(), "FALSE");
    EXPECT_STREQ(no.getDropFrame(), "FALSE");
}

TEST_F(VerifierXmlTest, OnlyASecondStructureSaysThatGopsVary) {
    const auto varies = [&](std::vector<std::string> structures) {
        return std::string(read({.gopStructures = std::move(structures)}).getVariableGops());
    };
    EXPECT_EQ(varies({"IBBP", "Adaptive Gop"}), "TRUE");
    EXPECT_EQ(varies({"Adaptive Gop"}), "FALSE");
    EXPECT_EQ(varies({"IBBP", "adaptive gop"}), "FALSE");
    EXPECT_EQ(varies({"IBBP", "IBP", "Adaptive Gop"}), "FALSE");
    EXPECT_EQ(varies({}), "FALSE");
}

TEST_F(VerifierXmlTest, AudioStreamsAreCounted) {
    EXPECT_EQ(read({.audios = {}}).getNumAudios(), 0);
    const VerifierXml& report = read({.audios = {{}, {.pid = "483"}, {.pid = "484"}}});
    EXPECT_EQ(report.getNumAudios(), 3);
    EXPECT_STREQ(report.getAudioPid(2), "484");
    EXPECT_EQ(report.getAudioPid(3), nullptr);
    EXPECT_EQ(report.getAudioPid(-1), nullptr);
}

TEST_F(VerifierXmlTest, ACutReportIsReadOrRefusedAtEveryLength) {
    const std::string text = Report{}.xml();
    for (std::size_t length = 0; length < text.size(); length += 3) {
        const VerifierXml& report = readText(text.substr(0, length));
        if (report.loaded) {
            EXPECT_GE(report.getNumAudios(), 0);
        }
        EXPECT_NE(report.getVideoEncoding(), nullptr);
    }
}

} // namespace
