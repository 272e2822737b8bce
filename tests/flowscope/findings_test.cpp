// What the verifier finds wrong with edited streams, and what it does not.
#include "analysed.h"
#include "flowscope/Analysis.h"
#include "flowscope/ReportValues.h"
#include "flowscope/Reports.h"
#include "foundation/Bytes.h"
#include "mpeg/ts_maker.h"
#include "multiplex.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::test;
using kestrel::flowscope::analysed;

namespace {

#define TONE "-f lavfi -i sine=frequency=440:sample_rate=48000,aformat=channel_layouts=stereo "

int pidOf(const std::vector<unsigned char>& bytes, std::size_t packet) {
    return (bytes[packet * 188 + 1] & 0x1F) << 8 | bytes[packet * 188 + 2];
}

TEST(FindingsOnStreams, AGapIsFoundWhereFramesAreMissing) {
    const auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    // All of the video between two PES packets a second apart, counters going on.
    std::vector<unsigned char> cut;
    int starts = 0;
    int counter = -1;
    for (std::size_t packet = 0; packet < bytes.size() / 188; ++packet) {
        const bool video = pidOf(bytes, packet) == 0x100;
        if (video && (bytes[packet * 188 + 1] & 0x40) != 0)
            ++starts;
        if (video && starts > 25 && starts <= 50)
            continue;
        cut.insert(cut.end(), bytes.begin() + static_cast<long>(packet * 188),
                   bytes.begin() + static_cast<long>((packet + 1) * 188));
        if (video) {
            unsigned char& field = cut[cut.size() - 188 + 3];
            if ((field & 0x10) != 0)
                counter = counter < 0 ? field & 0x0F : (counter + 1) & 0x0F;
            field = static_cast<unsigned char>((field & 0xF0) | (counter < 0 ? field & 0x0F : counter));
        }
    }
    const auto analysis = analysed(cut);
    EXPECT_EQ(analysis.findings().count("continuity"), 0U);
    ASSERT_GE(analysis.findings().count("timestamps"), 1U);
    const auto& found = analysis.findings().first();
    const auto gap =
        std::find_if(found.begin(), found.end(), [](const auto& each) { return each.kind == "timestamps"; });
    ASSERT_NE(gap, found.end());
    EXPECT_THAT(gap->text, testing::HasSubstr("a gap of 26.0 frames before DTS"));
    EXPECT_GE(analysis.findings().count("PCR interval") + analysis.findings().count("PCR jump"), 1U)
        << "the clock is sent with the video";
    EXPECT_EQ(analysis.video()->frames(), 50U);
}

TEST(FindingsOnStreams, TimeThatRunsBackwardsIsFound) {
    const auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    std::vector<unsigned char> twice = bytes;
    twice.insert(twice.end(), bytes.begin(), bytes.end());
    const auto analysis = analysed(twice);
    EXPECT_GE(analysis.findings().count("timestamps"), 1U);
    EXPECT_GE(analysis.findings().count("PCR jump"), 1U);
    EXPECT_GE(analysis.findings().count("time code"), 1U);
    EXPECT_GE(analysis.findings().count("continuity"), 1U);
}

TEST(FindingsOnStreams, OfSeveralProgramsTheFirstWithVideoIsTheAsset) {
    const std::string file =
        makeStream("two_programs",
                   "-f lavfi -i sine=frequency=300 -f lavfi -i testsrc2=size=352x288:rate=25 " TONE
                   "-t 2 -threads 1 -map 0 -map 1 -map 2 -c:v mpeg2video -c:a mp2 -program title=radio:st=0 "
                   "-program title=tv:st=1:st=2");
    const auto analysis = analysed(bytesOfFile(file));
    ASSERT_EQ(analysis.programs().size(), 2U);
    ASSERT_NE(analysis.asset(), nullptr);
    EXPECT_EQ(analysis.asset()->number, 2);
    EXPECT_EQ(analysis.audios().size(), 1U) << "not the other program's";
    EXPECT_THAT(kestrel::flowscope::xmlReport(analysis, file),
                testing::HasSubstr("<OtherProgram number=\"1\" pmtPid="));
    EXPECT_TRUE(analysis.findings().empty());
}

TEST(FindingsOnStreams, NullPacketsOfAConstantMultiplexAreSharedOut) {
    const std::string file =
        makeStream("padded", "-f lavfi -i testsrc2=size=352x288:rate=25 " TONE
                             "-t 3 -threads 1 -c:v mpeg2video -b:v 1500k -c:a ac3 -b:a 192k -muxrate 4M");
    const auto analysis = analysed(bytesOfFile(file));
    EXPECT_GT(analysis.nullPackets(), analysis.packets() / 5);
    EXPECT_LT(analysis.pcrJitterUs().value_or(1e9), 50) << "ffmpeg's own rounding of packets to the rate";
    EXPECT_NEAR(analysis.muxBitsPerSecond() / 4e6, 1, 0.02);
    const auto offset = analysis.audioOffsetMs();
    ASSERT_TRUE(offset.has_value());
    EXPECT_NEAR(*offset, 0, 50);
}

TEST(FindingsOnStreams, JitterOverTheLimitIsOne) {
    const std::string file =
        makeStream("padded", "-f lavfi -i testsrc2=size=352x288:rate=25 " TONE
                             "-t 3 -threads 1 -c:v mpeg2video -b:v 1500k -c:a ac3 -b:a 192k -muxrate 4M");
    auto bytes = bytesOfFile(file);
    const auto before = analysed(bytes);
    ASSERT_TRUE(before.pcrJitterUs());
    EXPECT_LE(*before.pcrJitterUs(), 0.5);
    EXPECT_EQ(before.findings().count("PCR jitter"), 0U);
    // The twentieth reference a microsecond later.
    int references = 0;
    for (std::size_t at = 0; at < bytes.size(); at += 188)
        if ((bytes[at + 3] & 0x20) != 0 && bytes[at + 4] > 0 && (bytes[at + 5] & 0x10) != 0 &&
            ++references == 20) {
            const int extension = ((bytes[at + 10] & 1) << 8 | bytes[at + 11]) + 27;
            ASSERT_LT(extension, 512);
            bytes[at + 10] = static_cast<unsigned char>((bytes[at + 10] & 0xFE) | extension >> 8);
            bytes[at + 11] = static_cast<unsigned char>(extension);
        }
    const auto after = analysed(bytes);
    EXPECT_NEAR(after.pcrJitterUs().value_or(0), 1, 0.2);
    ASSERT_EQ(after.findings().count("PCR jitter"), 1U);
    EXPECT_THAT(
        after.findings().first()[0].text,
        testing::MatchesRegex("packet [0-9]+, PID 256: a PCR lies [0-9.]+ us from the constant rate of "
                              "the multiplex, more than the 0.5 us that are allowed"));
    EXPECT_THAT(kestrel::flowscope::xmlReport(after, "f"), testing::HasSubstr("<PcrJitterUs value=\""));
    EXPECT_THAT(kestrel::flowscope::htmlReport(after, "f"), testing::HasSubstr("PCR jitter over time"));
}

TEST(FindingsOnStreams, AFewNullPacketsDoNotMakeAConstantMultiplex) {
    auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    std::vector<unsigned char> null(188, 0xFF);
    null[0] = 0x47;
    null[1] = 0x1F;
    null[3] = 0x10;
    bytes.insert(bytes.begin() + 188 * 900, null.begin(), null.end());
    const auto analysis = analysed(bytes);
    EXPECT_EQ(analysis.nullPackets(), 1U);
    EXPECT_EQ(analysis.pcrJitterUs(), std::nullopt);
    EXPECT_TRUE(analysis.findings().empty());
    EXPECT_EQ(kestrel::flowscope::xmlReport(analysis, "f").find("PcrJitterUs"), std::string::npos);
}

// The packets of one PID between two of its PES packets are left out, counters going on.
std::vector<unsigned char> without(const std::vector<unsigned char>& bytes, int pid, int first, int last) {
    std::vector<unsigned char> cut;
    int starts = 0;
    int counter = -1;
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188) {
        const bool mine = pidOf(bytes, at / 188) == pid;
        if (mine && (bytes[at + 1] & 0x40) != 0)
            ++starts;
        if (mine && starts > first && starts <= last)
            continue;
        cut.insert(cut.end(), bytes.begin() + static_cast<long>(at),
                   bytes.begin() + static_cast<long>(at + 188));
        if (!mine)
            continue;
        unsigned char& field = cut[cut.size() - 188 + 3];
        if ((field & 0x10) != 0)
            counter = counter < 0 ? field & 0x0F : (counter + 1) & 0x0F;
        field = static_cast<unsigned char>((field & 0xF0) | (counter < 0 ? field & 0x0F : counter));
    }
    return cut;
}

TEST(FindingsOnStreams, AGapInTheSoundIsFoundWithItsLength) {
    const auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    const auto analysis = analysed(without(bytes, 0x101, 5, 6));
    ASSERT_EQ(analysis.findings().total(), 1U);
    EXPECT_EQ(analysis.findings().count("audio timestamps"), 1U);
    const std::string text = analysis.findings().first()[0].text;
    EXPECT_THAT(text, testing::ContainsRegex("packet [0-9]+, PID 257: PTS [0-9]+ is [0-9.]+ ms later than"));
}

TEST(FindingsOnStreams, SoundThatRunsBackwardsIsFound) {
    const auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    std::vector<unsigned char> twice = bytes;
    twice.insert(twice.end(), bytes.begin(), bytes.end());
    const auto analysis = analysed(twice);
    EXPECT_EQ(analysis.findings().count("audio timestamps"), 1U);
    bool found = false;
    for (const auto& each : analysis.findings().first())
        found = found ||
                (each.kind == "audio timestamps" && each.text.find("does not follow") != std::string::npos);
    EXPECT_TRUE(found);
}

TEST(FindingsOnStreams, BytesThatAreNoFrameAreFoundInTheSound) {
    auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    int starts = 0;
    for (std::size_t at = 0; at < bytes.size(); at += 188)
        if (pidOf(bytes, at / 188) == 0x101 && (bytes[at + 1] & 0x40) != 0 && ++starts == 4) {
            // The sync word of the frame with which the PES packet begins.
            for (std::size_t i = at + 4; i + 1 < at + 188; ++i)
                if (bytes[i] == 0x0B && bytes[i + 1] == 0x77) {
                    bytes[i] = 0;
                    break;
                }
        }
    const auto analysis = analysed(bytes);
    ASSERT_EQ(analysis.findings().count("audio format"), 1U);
    EXPECT_THAT(analysis.findings().first().back().text,
                testing::MatchesRegex("packet [0-9]+, PID 257: no frame follows the one before"));
}

TEST(FindingsOnStreams, EachIsToldWithPacketAndPid) {
    // A file twice, with damage in it.
    auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    bytes[188 * 700] = 0x46;
    bytes[188 * 500 + 1] |= 0x80;
    const std::vector<unsigned char> once = bytes;
    bytes.insert(bytes.end(), once.begin(), once.end());
    const auto analysis = analysed(bytes);
    for (const char* kind :
         {"sync", "transport error", "continuity", "PCR jump", "timestamps", "time code", "audio timestamps"})
        EXPECT_GE(analysis.findings().count(kind), 1U) << kind;
    for (const auto& each : analysis.findings().first())
        EXPECT_THAT(each.text, testing::ContainsRegex("^packet [0-9]+.*PID [0-9]+")) << each.kind;
}

TEST(FindingsOnStreams, PacketsWithoutSyncByteAreFound) {
    auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    bytes[188 * 700] = 0x46;
    const auto analysis = analysed(bytes);
    ASSERT_EQ(analysis.findings().count("sync"), 1U);
    EXPECT_EQ(analysis.findings().first()[0].text, "packet 700, PID 256: it does not begin with 0x47");
    EXPECT_EQ(analysis.findings().count("continuity"), 1U) << "what it carried is missing";
}

TEST(FindingsOnStreams, AreAllCountedWhereNotAllAreTold) {
    auto bytes = bytesOfFile(streamFile("m2_sd_25"));
    for (std::size_t packet = 0; packet < 400; ++packet)
        bytes[packet * 188 + 1] |= 0x80;
    const auto analysis = analysed(bytes);
    EXPECT_EQ(analysis.findings().first().size(), 50U);
    EXPECT_THAT(kestrel::flowscope::summary(analysis), testing::EndsWith(" audio, 400 findings"));
    const std::string xml = kestrel::flowscope::xmlReport(analysis, "f");
    EXPECT_THAT(xml, testing::HasSubstr("<Findings count=\"400\">"));
    EXPECT_THAT(xml, testing::HasSubstr("<Kind name=\"transport error\" count=\"400\" />"));
    const std::string html = kestrel::flowscope::htmlReport(analysis, "f");
    EXPECT_THAT(html, testing::HasSubstr("<div class=\"verdict bad\">400 findings: see below.</div>"));
    EXPECT_THAT(html, testing::HasSubstr("Of each kind the first 50 are shown."));
    EXPECT_THAT(html, testing::HasSubstr("<tr><th scope=\"row\">transport error</th><td>400</td></tr>"));
}

// --- reports

TEST(Html, TellsEveryProperty) {
    const auto analysis = analysed(bytesOfFile(streamFile("m2_delivery_pids")));
    const std::string html = kestrel::flowscope::htmlReport(analysis, "f");
    const auto has = [&](const std::string& name, const std::string& text) {
        EXPECT_THAT(html, testing::HasSubstr("<tr><th scope=\"row\">" + name + "</th><td>" + text));
    };
    has("Video", "PID 481, MPEG2 Main</td>");
    has("Picture", "528x480, ");
    has("Frame rate", "29.97</td>");
    has("Duration", "00:00:03;00 (90 frames)</td>");
    has("Video bit rate", "");
    has("GOP", "15 frames, IBBP</td>");
    has("First time code", "01:00:00;02</td>");
    has("Drop-frame", "yes</td>");
    has("Closed captions", "no</td>");
    has("Quad-byte aligned", "no</td>");
    has("Audio", "PID 482, AC3 Audio (ATSC A/52), 2/0, 2 channels, 48000 Hz, 192 kb/s</td>");
    has("Audio", "PID 483, AC3 Audio (ATSC A/52), 2/0, 2 channels, 48000 Hz, 192 kb/s</td>");
    has("Program", "1, PMT PID 480, PCR PID 481</td>");
    has("Multiplex", "");
    has("PCR", "at most every ");
    has("Audio begins", "");
    EXPECT_THAT(html, testing::HasSubstr("@media print{"));
    EXPECT_THAT(html, testing::HasSubstr("svg,tr{break-inside:avoid}"));
}

TEST(Html, OneOfAThingIsToldAsOne) {
    EXPECT_EQ(kestrel::flowscope::counted(0, "jump"), "0 jumps");
    EXPECT_EQ(kestrel::flowscope::counted(1, "jump"), "1 jump");
    EXPECT_EQ(kestrel::flowscope::counted(2, "jump"), "2 jumps");
}

TEST(Html, PlotsTheBitRateAndTheClock) {
    const auto analysis = analysed(bytesOfFile(streamFile("m2_sd_25")));
    const std::string html = kestrel::flowscope::htmlReport(analysis, "f");
    std::size_t plots = 0;
    for (std::size_t at = 0; (at = html.find("<polyline ", at)) != std::string::npos; ++at)
        ++plots;
    EXPECT_EQ(plots, 2U);
    EXPECT_THAT(html, testing::HasSubstr("aria-label=\"Bit rate over time\""));
    EXPECT_THAT(html, testing::HasSubstr("aria-label=\"Longest PCR interval over time\""));
    EXPECT_THAT(html, testing::HasSubstr("<line class=\"limit\"")) << "the 100 ms";
}

// The right end of each plot's axis, and the first and the last time that each line shows.
struct Axis {
    std::string end;
    double from;
    double to;
};

std::vector<Axis> axes(const std::string& html) {
    std::vector<Axis> all;
    const std::string points = "points=\"";
    const std::string end = "text-anchor=\"end\">";
    for (std::size_t at = 0; (at = html.find(points, at)) != std::string::npos;) {
        at += points.size();
        const std::string line = html.substr(at, html.find('"', at) - at);
        const std::size_t last = line.rfind(' ', line.size() - 2);
        const std::size_t label = html.find(end, at) + end.size();
        all.push_back({html.substr(label, html.find('<', label) - label), std::stod(line),
                       std::stod(line.substr(last == std::string::npos ? 0 : last + 1))});
    }
    return all;
}

TEST(Html, PlotsAllOverTheSameSeconds) {
    // The clock comes 5 s before the pictures, and two announced bases and a jump are in it.
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, 0x101, {{0x02, 0x101}});
    for (int i = 0; i < 50; ++i)
        made.clock(0x101, std::int64_t{8'550'000 + i * 9000} * 300);
    for (int i = 0; i < 500; ++i) {
        const std::int64_t dts = 9'000'000 + i * 3600 + i / 100 * 9'000'000;
        made.clock(0x101, (dts - 9000) * 300, i % 100 == 0 && i != 200);
        made.pes(0x101, pesHeader(dts, dts), mpeg2Picture(i % 12 == 0 ? 1 : 2));
        if (i % 4 == 0)
            made.null();
    }
    const auto analysis = analysed(made.bytes);
    const auto shown = axes(kestrel::flowscope::htmlReport(analysis, "f"));
    ASSERT_GE(shown.size(), 2U);
    const double second = (900.0 - 70) / std::stod(shown[0].end);
    for (const Axis& axis : shown) {
        EXPECT_EQ(axis.end, shown[0].end);
        EXPECT_LE(axis.to, 900);
        EXPECT_GE(axis.to, 900 - 2 * second);
    }
    EXPECT_NEAR(shown[0].from, 70, 0.1) << "both begin with the first picture";
    EXPECT_NEAR(shown[1].from, 70, 0.1);
    EXPECT_NEAR(analysis.seconds(), std::stod(shown[0].end), 1.1);
}

TEST(Html, PlotsTheJitterWhereItsStretchIs) {
    // A constant rate of which the clock jumps in its sixth second.
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, 0x101, {{0x02, 0x101}});
    for (int i = 0; i < 250; ++i) {
        const std::int64_t dts = 9'000'000 + i * 3600;
        made.clock(0x101, (dts - 9000 + (i >= 137 ? 9'000'000 : 0)) * 300);
        const std::size_t before = made.packets();
        made.pes(0x101, pesHeader(dts, dts), mpeg2Picture(i % 12 == 0 ? 1 : 2, 100));
        while (made.packets() < before + 4 + (i == 200 ? 1 : 0))
            made.null();
    }
    const auto analysis = analysed(made.bytes);
    ASSERT_TRUE(analysis.pcrJitterUs().has_value());
    const auto shown = axes(kestrel::flowscope::htmlReport(analysis, "f"));
    ASSERT_EQ(shown.size(), 3U);
    const double second = (900.0 - 70) / std::stod(shown[2].end);
    EXPECT_NEAR(shown[2].from, 70 + 5 * second, 0.1);
    EXPECT_EQ(shown[2].end, shown[0].end);
}

TEST(Xml, TellsMoreThanTheServiceReads) {
    const auto analysis = analysed(bytesOfFile(streamFile("m2_delivery_pids")));
    const std::string xml = kestrel::flowscope::xmlReport(analysis, "f");
    for (const char* each :
         {"<AudioType value=\"AC3 Audio (ATSC A/52)\" />", "<NullPacketPercent value=\"0.00\" />",
          "<DuplicatePackets value=\"0\" />", "<PcrNewTimeBases value=\"0\" />",
          "<FirstTimecode value=\"01:00:00;02\" />", "<AudioOffsetMs value=\"",
          "<BitrateOverTime stepSeconds=\"1\" value=\"", "<Findings count=\"0\" />"})
        EXPECT_THAT(xml, testing::HasSubstr(each));
}

} // namespace
