// Each delivery rule on real streams: one that passes it, one that fails it, from the file to the message.
#include "flowscope/Analysis.h"
#include "flowscope/Reports.h"
#include "foundation/Bytes.h"
#include "foundation/ScratchDir.h"
#include "mpeg/ts_file.h"
#include "mpeg/ts_maker.h"
#include "streams/stream_fixtures.h"
#include "verifier/VerifierJob.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <tuple>
#include <vector>

using namespace kestrel::test;

namespace {

kestrel::flowscope::Analysis passOver(const std::string& file, std::optional<int> seconds = std::nullopt) {
    kestrel::flowscope::Analysis analysis(seconds);
    ts_file source(file.c_str());
    while (const unsigned char* const packet = source.get_ts())
        if (!analysis.take(packet))
            break;
    analysis.end();
    return analysis;
}

// What the rule alone says of the file, or of so many seconds of it; FILE for its name.
std::string judged(const std::string& rule, const std::string& file,
                   std::optional<int> seconds = std::nullopt) {
    const ScratchDir directory;
    static_cast<void>(
        directory.file("G-x.ts.report.xml", kestrel::flowscope::xmlReport(passOver(file, seconds), file)));
    std::string others;
    for (const char* name : VerifierJob::ValidationErrorEnabledStr)
        if (rule != name)
            others += std::string(name) + ";";
    VerifierJob job("x.ts", directory.path("").c_str(), "G", "VALIDATION_ERRORS", 0, false, false,
                    others.c_str(), 0, "");
    char out[2001];
    EXPECT_EQ(job.getJobResults(out, sizeof out), 0);
    return out;
}

#define SD_VIDEO "-f lavfi -i testsrc2=size=528x480:rate=30000/1001 "
#define TONE "-f lavfi -i sine=frequency=440:sample_rate=48000,aformat=channel_layouts=stereo "
#define SHORT "-t 2 -threads 1 "

std::string sd(const std::string& name, const std::string& options) {
    return makeStream(name,
                      std::string(SD_VIDEO TONE SHORT "-c:v mpeg2video -b:v 2500k -g 15 -bf 2 ") + options);
}
// Null packets make the multiplex fast, not the video.
std::string padded(const std::string& name, const char* size, const char* rates) {
    return makeStream(name, std::string("-f lavfi -i testsrc2=size=") + size +
                                ":rate=25 " TONE SHORT "-c:v mpeg2video -c:a ac3 " + rates);
}
// Almost nothing but video, of a constant rate that only the limit of the video forbids.
std::string full(const std::string& name, const char* size, const char* rate) {
    const std::string each(rate);
    return makeStream(name, std::string("-f lavfi -i testsrc2=size=") + size +
                                ":rate=25,noise=alls=8:allf=t " SHORT "-c:v mpeg2video -g 15 -bf 2 -b:v " +
                                each + " -minrate " + each + " -maxrate " + each + " -bufsize 1000k");
}
std::string fastSdMultiplex() {
    return padded("rule_sd_tx", "528x480", "-b:v 2000k -maxrate 2500k -bufsize 1000k -b:a 192k -muxrate 5M");
}
std::string fastSdVideo() {
    return full("rule_sd_video", "528x480", "3300k");
}
std::string fastHdMultiplex() {
    return padded("rule_hd_tx", "1280x720",
                  "-b:v 6000k -maxrate 8000k -bufsize 2000k -b:a 192k -muxrate 22M");
}
std::string fastHdVideo() {
    return full("rule_hd_video", "1280x720", "18300k");
}

// The pictures of the delivery, with zero bytes before each header so that it begins at a multiple of four: a
// start code may have any number of them before it (ISO/IEC 13818-2, 5.2.3).
std::string aligned(const ScratchDir& directory) {
    const std::string plain = directory.path("plain.m2v");
    EXPECT_EQ(std::system(("ffmpeg -v error -nostdin -y -i " + streamFile("m2_delivery_pids") +
                           " -map 0:v -c copy -f mpeg2video " + plain)
                              .c_str()),
              0);
    Bytes padded;
    const auto bytes = bytesOfFile(plain);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i + 3 < bytes.size() && bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1)
            while (padded.size() % 4 != 0)
                padded.push_back(0);
        padded.push_back(bytes[i]);
    }
    TsMaker maker;
    maker.tables({{0x02, 481}});
    constexpr std::size_t PES_BYTES = 30'000;
    std::int64_t time = 3600;
    for (std::size_t at = 0; at < padded.size(); at += PES_BYTES)
        maker.pes(481, pesHeader(time += 3003),
                  Bytes(padded.begin() + static_cast<long>(at),
                        padded.begin() + static_cast<long>(std::min(at + PES_BYTES, padded.size()))));
    return maker.write(directory, "aligned.ts");
}

const ScratchDir& scratch() {
    static const ScratchDir directory;
    return directory;
}

struct Row {
    const char* rule;
    std::function<std::string()> passes;
    std::function<std::string()> fails;
    const char* message;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.rule;
}

std::function<std::string()> fixture(const char* name) {
    return [name] { return streamFile(name); };
}

// Of the two limits of a rate each has a stream that only it forbids: what fails the one passes the other.
const Row ROWS[] = {
    {"File_isMpeg2", fixture("m2_sd_25"), fixture("h264_main"), "The file x.ts is not MPEG2.\t"},
    {"PMTPid_480", fixture("m2_delivery_pids"), fixture("m2_sd_25"),
     "The PMT PID 4096 must be 480 decimal/0x1E0 Hex.\t"},
    {"PCRPid_481", fixture("m2_delivery_pids"), fixture("m2_sd_25"),
     "The PCR PID 256 must be 481 decimal/0x1E1 Hex.\t"},
    {"VideoPid_481", fixture("m2_delivery_pids"), fixture("m2_sd_25"),
     "The Video PID 256 must be 481 decimal/0x1E1 Hex.\t"},
    {"GOPLength_FPS24_12", fixture("m2_sd_24"),
     [] {
         return makeStream("rule_24_g15",
                           "-f lavfi -i testsrc2=size=352x480:rate=24 " SHORT "-c:v mpeg2video -g 15 -bf 2");
     },
     "The GOP length must be 12 for 24 Frames Per Second material.\t"},
    {"GOPLength_FPSnot24_15", fixture("m2_sd_2997"), fixture("m2_sd_25"), "The GOP length must be 15.\t"},
    {"GOPStructure_IBBP", fixture("m2_sd_25"), fixture("m2_sd_ip"), "The GOP structure must be IBBP.\t"},
    {"SD_Resolution_352x480_or_528x480", fixture("m2_delivery_pids"), fixture("m2_sd_25"),
     "The file x.ts is not 1/2 D1 or 3/4 D1.\t"},
    {"Mpeg2SD_QuadByteAligned", [] { return aligned(scratch()); }, fixture("m2_delivery_pids"),
     "The file x.ts does not satisfy the Quad Byte Alignment requirement.\t"},
    {"SD_TxRate_3p75Mbs", fastSdVideo, fastSdMultiplex,
     "The transport rate of the SD file x.ts is greater than 3.75 Mbs.\t"},
    {"SD_VidBR_3p18Mbs", fastSdMultiplex, fastSdVideo,
     "The video bit rate in SD file x.ts cannot be greater than 3.18 Mbs.\t"},
    {"HD_TxRate_19Mbs", fastHdVideo, fastHdMultiplex,
     "The transport rate of the HD file x.ts is greater than 19.0 Mbs.\t"},
    {"HD_VidBR_18p1Mbs", fastHdMultiplex, fastHdVideo,
     "The video bit rate in HD file x.ts cannot be greater than 18.1 Mbs.\t"},
    {"Audio_FirstPid_482", fixture("m2_delivery_pids"), fixture("m2_sd_25"),
     "The first audio PID in the file x.ts must start at 482 Decimal or 0x1E2 Hex.\t"},
    {"Audio_PidsIncBy1", fixture("m2_delivery_pids"),
     [] {
         return makeStream(
             "rule_audio_pids", SD_VIDEO TONE TONE SHORT
             "-map 0 -map 1 -map 2 -c:v mpeg2video -c:a ac3 -streamid 0:481 -streamid 1:482 -streamid 2:490");
     },
     "The audio PIDs in the file x.ts must start at 482 and increment by 1.  The last PID was 482 and this "
     "PID is 490"},
    {"AudioRate_192or384Kbps", fixture("m2_sd_25"), [] { return sd("rule_ac3_256", "-c:a ac3 -b:a 256k"); },
     "The audio rate in the file x.ts for PID 257 must be either 192 or 384 Kbs.\t"},
    {"AudioRate_DD5p1_384Kbps", fixture("m2_surround"),
     [] { return sd("rule_ac3_51_448", "-af aformat=channel_layouts=5.1 -c:a ac3 -b:a 448k"); },
     "The AC3 audio rate in the file x.ts for PID 257 for Dolby 5.1 must be 384 Kbs.\t"},
    {"AC3_AudioSamplingRate_48kHz", fixture("m2_sd_25"),
     [] { return sd("rule_ac3_44100", "-ar 44100 -c:a ac3 -b:a 192k"); },
     "The audio sampling rate in the file x.ts for PID 257 must be 48kHz.\t"},
    {"Audio_isAC3", fixture("m2_sd_25"), fixture("m2_aac"),
     "The audio in the file x.ts for PID 257 is not AC3.\t"},
};
static_assert(std::size(ROWS) == VerifierJob::RULE_COUNT);

class RuleOnStreams : public testing::TestWithParam<Row> {};

TEST_P(RuleOnStreams, HasAStreamThatPassesAndOneThatFails) {
    const Row& row = GetParam();
    EXPECT_EQ(judged(row.rule, row.passes()), "");
    EXPECT_EQ(judged(row.rule, row.fails()), row.message);
}

TEST(RulesOnStreams, SoundThatIsNotLookedIntoIsJudgedByItsKind) {
    const std::string latm = makeStream("rule_latm", SD_VIDEO TONE SHORT "-c:v mpeg2video -c:a aac "
                                                                         "-mpegts_flags +latm");
    EXPECT_EQ(judged("Audio_isAC3", latm), "The audio in the file x.ts for PID 257 is not AC3.\t");
    EXPECT_EQ(judged("Audio_FirstPid_482", latm),
              "The first audio PID in the file x.ts must start at 482 Decimal or 0x1E2 Hex.\t");
}

// --- rates that are as high as they may be

#define LASTING(seconds) "-t " #seconds " -threads 1 -c:v mpeg2video -c:a ac3 -b:a 192k "

std::string sdMultiplex(const std::string& rate) {
    return makeStream("limit_sd_tx_" + rate, SD_VIDEO TONE LASTING(8) "-g 15 -bf 2 -b:v 2500k -maxrate 3000k "
                                                                      "-bufsize 1835k -muxrate " +
                                                 rate);
}
std::string hdMultiplex(const std::string& rate) {
    return makeStream("limit_hd_tx_" + rate, "-f lavfi -i testsrc2=size=1280x720:rate=25 " TONE LASTING(
                                                 5) "-b:v 6000k -maxrate 8000k "
                                                    "-bufsize 2000k -muxrate " +
                                                 rate);
}
std::string sdVideo(const std::string& rate) {
    return makeStream("limit_sd_video_" + rate, SD_VIDEO TONE LASTING(4) "-g 15 -bf 2 -bufsize 1835k "
                                                                         "-muxrate 3750000 -b:v " +
                                                    rate + " -minrate " + rate + " -maxrate " + rate);
}
std::string hdVideo(const std::string& rate) {
    return makeStream("limit_hd_video_" + rate,
                      "-f lavfi -i testsrc2=size=1280x720:rate=25,noise=alls=8:allf=t " LASTING(
                          2) "-g 15 -bf 2 -bufsize 9781k -b:v " +
                          rate + " -minrate " + rate + " -maxrate " + rate);
}

struct Limit {
    const char* rule;
    std::string (*made)(const std::string& rate);
    const char* rate;
    const char* above;
};

const Limit LIMITS[] = {
    {"SD_TxRate_3p75Mbs", sdMultiplex, "3750000", "3750400"},
    {"HD_TxRate_19Mbs", hdMultiplex, "19000000", "19002000"},
    {"SD_VidBR_3p18Mbs", sdVideo, "3180000", "3181000"},
    {"HD_VidBR_18p1Mbs", hdVideo, "18100000", "18101000"},
};

class RateAtTheLimit : public testing::TestWithParam<Limit> {};

TEST_P(RateAtTheLimit, PassesAndALittleMoreFailsHoweverMuchIsRead) {
    const Limit& limit = GetParam();
    for (const std::optional<int> seconds :
         {std::optional<int>(), std::optional(1), std::optional(2), std::optional(3), std::optional(4)}) {
        SCOPED_TRACE(testing::Message() << seconds.value_or(-1) << " s");
        EXPECT_EQ(judged(limit.rule, limit.made(limit.rate), seconds), "");
        EXPECT_NE(judged(limit.rule, limit.made(limit.above), seconds), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Each, RateAtTheLimit, testing::ValuesIn(LIMITS),
                         [](const auto& each) { return std::string(each.param.rule); });

TEST(RatesOnStreams, OfOneMultiplexAreOneWhereverItIsCut) {
    for (const auto& [file, rate] :
         {std::pair{sdMultiplex("3750000"), 3'750'000}, {sdMultiplex("3750400"), 3'750'400}}) {
        const auto bytes = bytesOfFile(file);
        const auto second = static_cast<std::size_t>(rate / 8 / 188 * 188);
        const ScratchDir directory;
        for (const std::size_t begin : {std::size_t{0}, std::size_t{188 * 777}, second * 3})
            for (std::size_t end = begin + second; end <= bytes.size(); end += second / 188 / 3 * 188) {
                const std::string cut =
                    directory.file("cut.ts", std::string(bytes.begin() + static_cast<long>(begin),
                                                         bytes.begin() + static_cast<long>(end)));
                EXPECT_EQ(passOver(cut).muxBitsPerSecond(), rate)
                    << "packets " << begin / 188 << " to " << end / 188;
            }
        for (int seconds = 1; seconds <= 9; ++seconds)
            EXPECT_EQ(passOver(file, seconds).muxBitsPerSecond(), rate) << seconds << " s";
    }
}

TEST(RatesOnStreams, OfAConstantMultiplexAreOneWhateverIsLostOfIt) {
    const auto lossy = [](const std::string& file, const std::function<bool(std::size_t)>& lost) {
        std::string rest;
        const auto bytes = bytesOfFile(file);
        for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188)
            if (!lost(at / 188))
                rest.append(bytes.begin() + static_cast<long>(at),
                            bytes.begin() + static_cast<long>(at + 188));
        return rest;
    };
    const auto burst = [](std::size_t packet) { return packet >= 9000 && packet < 9100; };
    const auto scattered = [](std::size_t packet) { return packet / 7 * 2'654'435'761U % 60 == 7; };
    const ScratchDir directory;
    for (const auto& lost :
         {std::function<bool(std::size_t)>(burst), std::function<bool(std::size_t)>(scattered)}) {
        const std::string at = directory.file("at.ts", lossy(sdMultiplex("3750000"), lost));
        const std::string above = directory.file("above.ts", lossy(sdMultiplex("3750400"), lost));
        EXPECT_EQ(passOver(at).muxBitsPerSecond(), 3'750'000);
        EXPECT_EQ(judged("SD_TxRate_3p75Mbs", at), "");
        EXPECT_NE(judged("SD_TxRate_3p75Mbs", above), "");
    }
}

TEST(RatesOnStreams, OfConstantVideoAreThoseOfTheHeadersWhateverIsLostOfIt) {
    const std::string file = sdVideo("3181000");
    const auto bytes = bytesOfFile(file);
    std::string rest;
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188)
        if (at / 188 / 7 % 5 != 3)
            rest.append(bytes.begin() + static_cast<long>(at), bytes.begin() + static_cast<long>(at + 188));
    const ScratchDir directory;
    const auto analysis = passOver(directory.file("lossy.ts", rest));
    constexpr double CODED = 3'181'200; // in units of 400 b/s
    EXPECT_LT(static_cast<double>(analysis.video()->bytes()) * 8,
              CODED * analysis.videoSeconds() - analysis.video()->codedRate()->bufferBits)
        << "else nothing is shown here";
    EXPECT_EQ(analysis.videoBitsPerSecond(), CODED);
}

// Multiplexes as fast as they may be, and too small for what is put into them: of constant rate, without null
// packets, but ever later, at last behind the decoding times.
std::string overloadedSd(const std::string& name = "over_sd", const std::string& options = "") {
    return makeStream(name, "-f lavfi -i testsrc2=size=528x480:rate=30000/1001,noise=alls=12:allf=t " TONE
                            "-map 0 -map 1 -map 1 -t 20 -threads 1 -c:v mpeg2video -g 15 -bf 2 -b:v 3100k "
                            "-minrate 3100k -maxrate 3100k -bufsize 1835k -c:a ac3 -b:a 384k "
                            "-muxrate 3750000 " +
                                options);
}
std::string overloadedHd() {
    return makeStream("over_hd", "-f lavfi -i testsrc2=size=1280x720:rate=25,noise=alls=8:allf=t " TONE
                                 "-map 0 -map 1 -map 1 -map 1 -map 1 -map 1 -map 1 -map 1 -map 1 -t 6 "
                                 "-threads 1 -c:v mpeg2video -g 15 -bf 2 -b:v 17900k -minrate 17900k "
                                 "-maxrate 17900k -bufsize 9781k -c:a ac3 -b:a 640k -muxrate 19M");
}

TEST(RatesOnStreams, OfAMultiplexThatIsTooSmallAreThoseOfWhatItCarries) {
    for (const auto& [rule, file, clock, bytes] :
         {std::tuple{"SD_TxRate_3p75Mbs", overloadedSd(), 3'750'000, 4'118'600},
          {"HD_TxRate_19Mbs", overloadedHd(), 19'000'000, 23'949'000}}) {
        const auto analysis = passOver(file);
        EXPECT_EQ(analysis.nullPackets(), 0U);
        ASSERT_TRUE(analysis.clock().rate());
        EXPECT_NEAR(analysis.clock().rate()->packetsPerSecond * 188 * 8, clock, 1);
        EXPECT_LT(analysis.clock().rate()->farthestUs, 0.5);
        EXPECT_NEAR(analysis.muxBitsPerSecond() / bytes, 1, 0.01);
        EXPECT_NE(judged(rule, file), "");
        const std::string sdRule = "SD_TxRate_3p75Mbs";
        for (const int seconds : rule == sdRule ? std::vector{10, 15, 19} : std::vector{5}) {
            EXPECT_NE(judged(rule, file, seconds), "") << seconds << " s";
            EXPECT_NEAR(passOver(file, seconds).muxBitsPerSecond() / bytes, 1, 0.03) << seconds << " s";
        }
        EXPECT_EQ(judged(rule, file, 1), "") << "it has not come too late yet";
    }
}

TEST(RatesOnStreams, OfAMultiplexThatIsTooSmallAreSoInJoinedFilesToo) {
    const std::string before = overloadedSd();
    const std::string hourLater = overloadedSd("over_sd_later", "-output_ts_offset 3600");
    const std::string overTheTurn = overloadedSd("over_sd_turn", "-output_ts_offset 95435");
    const std::string good = sdMultiplex("3750000");
    const ScratchDir directory;
    const auto joined = [&directory](const std::string& first, const std::string& second) {
        auto bytes = bytesOfFile(first);
        const auto behind = bytesOfFile(second);
        bytes.insert(bytes.end(), behind.begin(), behind.end());
        return directory.file("joined.ts", std::string(bytes.begin(), bytes.end()));
    };
    for (const auto& [first, second] : {std::pair{before, before},
                                        {before, hourLater},
                                        {hourLater, before},
                                        {good, before},
                                        {before, good},
                                        {good, hourLater},
                                        {overTheTurn, before},
                                        {good, overTheTurn}}) {
        const std::string file = joined(first, second);
        EXPECT_NE(judged("SD_TxRate_3p75Mbs", file), "") << first << " and " << second;
        const bool both = first != good && second != good;
        EXPECT_NEAR(passOver(file).muxBitsPerSecond() / (both ? 4'118'600 : 4'010'000), 1, 0.01)
            << first << " and " << second;
    }
    EXPECT_EQ(judged("SD_TxRate_3p75Mbs", joined(good, good)), "") << "a join alone is not late";
    EXPECT_EQ(passOver(joined(good, good)).muxBitsPerSecond(), 3'750'000);
    EXPECT_NEAR(passOver(overTheTurn).muxBitsPerSecond() / 4'118'600, 1, 0.01);
}

#define CIF_VIDEO(rate) "-f lavfi -i testsrc2=size=352x288:rate=" #rate ",noise=alls=12:allf=t "
#define FAST_H264 "-threads 1 -c:v libx264 -preset ultrafast "

std::string overloadedCif() {
    return makeStream("over_cif",
                      CIF_VIDEO(25) TONE "-t 10 " FAST_H264 "-g 25 -b:v 1500k -maxrate 1500k -bufsize 1000k "
                                         "-c:a ac3 -b:a 192k -muxrate 1500k");
}

TEST(RatesOnStreams, OfAMultiplexThatIsTooSmallAreSoWhateverTheHeadersSayOfTheFrameRate) {
    // As many bytes a second, of twice the frame rate by the VUI.
    const std::string plain = overloadedCif();
    const std::string twice =
        makeStream("over_cif_tick",
                   CIF_VIDEO(25) TONE "-t 10 " FAST_H264 "-g 25 -b:v 1500k -maxrate 1500k -bufsize 1000k "
                                      "-c:a ac3 -b:a 192k -muxrate 1500k -bsf:v h264_metadata=tick_rate=100");
    for (const std::string& file : {plain, twice})
        EXPECT_NEAR(passOver(file).muxBitsPerSecond() / 1'858'000, 1, 0.01) << file;
    // Half of the pictures from the middle on: too much before, and room enough behind.
    const std::string sparse = makeStream(
        "over_vfr", "-f lavfi -i testsrc2=size=352x288:rate=30,noise=alls=20:allf=t " TONE
                    "-t 20 -vf select='lt(t\\,10)+not(mod(n\\,2))' -vsync vfr " FAST_H264
                    "-tune zerolatency -g 60 -b:v 1500k -maxrate 1500k -bufsize 400k -c:a aac -b:a 96k "
                    "-muxrate 1500k");
    EXPECT_EQ(passOver(sparse).muxBitsPerSecond(), 1'500'000) << "on the whole it is large enough";
    EXPECT_GT(passOver(sparse, 8).muxBitsPerSecond(), 1'600'000) << "of its first half it is not";
    // A picture a second, as of 25.
    const std::string slides = makeStream("over_slides", CIF_VIDEO(25) TONE
                                          "-t 30 -vf select='not(mod(n\\,25))' -vsync vfr " FAST_H264
                                          "-g 1 -crf 20 -bf 0 -c:a ac3 -b:a 384k -muxrate 900k");
    const auto analysis = passOver(slides);
    EXPECT_NEAR(analysis.muxBitsPerSecond() * analysis.seconds() /
                    (static_cast<double>(analysis.packets()) * 188 * 8),
                1, 0.03);
}

TEST(RatesOnStreams, OfAMultiplexThatIsTooSmallAreSoWhereStartsOfPesPacketsAreDamagedOrLost) {
    const auto bytes = bytesOfFile(overloadedCif());
    const ScratchDir directory;
    for (const bool lose : {false, true})
        for (const int every : {5, 20}) {
            std::string damaged;
            int starts = 0;
            for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188) {
                std::string packet(bytes.begin() + static_cast<long>(at),
                                   bytes.begin() + static_cast<long>(at + 188));
                const bool start = (bytes[at + 1] & 0x5F) == 0x41 && bytes[at + 2] == 0;
                if (start && ++starts > 5 && starts % every == every / 2) {
                    if (lose)
                        continue;
                    const std::size_t header =
                        4 + ((bytes[at + 3] & 0x20) != 0 ? 1 + std::size_t{bytes[at + 4]} : 0);
                    packet[header + 2] = '\x80'; // of the start code prefix
                }
                damaged += packet;
            }
            const std::string file = directory.file("damaged.ts", damaged);
            EXPECT_NEAR(passOver(file).muxBitsPerSecond() / 1'858'000, 1, 0.01)
                << (lose ? "lost" : "damaged") << ", one of " << every;
        }
}

TEST(RatesOnStreams, OfAMultiplexThatIsSentWithLittleDelayAreItsClocks) {
    // Video comes up to a third of a second late for a while, as its buffer allows for more than the delay.
    for (const char* delay : {"0", "0.1", "0.3"}) {
        const std::string file = makeStream(
            std::string("limit_sd_delay_") + delay,
            std::string(
                "-f lavfi -i testsrc2=size=528x480:rate=30000/1001,noise=alls=25:allf=t:enable='lt(mod("
                "t\\,4)\\,2)' " TONE LASTING(8) "-g 15 -bf 2 -b:v 3180k -minrate 3180k -maxrate 3180k "
                                                "-bufsize 1835k -muxrate 3750000 -muxpreload 0 "
                                                "-muxdelay ") +
                delay);
        for (const std::optional<int> seconds :
             {std::optional<int>(), std::optional(2), std::optional(3), std::optional(5)}) {
            EXPECT_EQ(passOver(file, seconds).muxBitsPerSecond(), 3'750'000)
                << delay << ", " << seconds.value_or(-1) << " s";
            EXPECT_EQ(judged("SD_TxRate_3p75Mbs", file, seconds), "") << delay;
        }
    }
}

TEST(RatesOnStreams, OfConstantVideoAreThoseOfTheHeadersAndNotOfItsFewSeconds) {
    const auto mpeg2 = passOver(sdVideo("3180000"));
    EXPECT_EQ(mpeg2.videoBitsPerSecond(), 3'180'000);
    const std::string file = makeStream(
        "limit_h264_video", SD_VIDEO TONE SHORT
        "-c:v libx264 -preset ultrafast -g 15 -b:v 1500k -minrate 1500k -maxrate 1500k -bufsize 1000k "
        "-x264-params nal-hrd=cbr:filler=1 -c:a ac3 -muxrate 3M");
    const auto h264 = passOver(file);
    EXPECT_NEAR(h264.videoBitsPerSecond(), 1'500'000, 64) << "in units of 64 b/s";
    for (const auto* each : {&mpeg2, &h264}) {
        const double measured = static_cast<double>(each->video()->bytes()) * 8 / each->videoSeconds();
        EXPECT_GT(std::abs(each->videoBitsPerSecond() / measured - 1), 0.002) << "else nothing is shown here";
    }
}

TEST(RatesOnStreams, ThatAreNotConstantAreThoseOfTheBytes) {
    const auto whole = [](const kestrel::flowscope::Analysis& analysis) {
        return static_cast<double>(analysis.packets()) * 188 * 8 / analysis.seconds();
    };
    const auto ofVideo = [](const kestrel::flowscope::Analysis& analysis) {
        return static_cast<double>(analysis.video()->bytes()) * 8 / analysis.videoSeconds();
    };
    const auto variable = passOver(streamFile("m2_sd_25"));
    EXPECT_EQ(variable.nullPackets(), 0U);
    EXPECT_EQ(variable.muxBitsPerSecond(), whole(variable));
    EXPECT_EQ(variable.videoBitsPerSecond(), ofVideo(variable));
    const auto constant = passOver(sdMultiplex("3750000"));
    EXPECT_NE(constant.muxBitsPerSecond(), whole(constant));
    EXPECT_EQ(constant.videoBitsPerSecond(), ofVideo(constant)) << "of variable rate in a constant one";
    // Two multiplexes of different rates, one behind the other.
    auto bytes = bytesOfFile(sdMultiplex("3750000"));
    const auto faster = bytesOfFile(sdMultiplex("5000000"));
    bytes.insert(bytes.end(), faster.begin(), faster.end());
    const ScratchDir directory;
    const auto joined = passOver(directory.file("joined.ts", std::string(bytes.begin(), bytes.end())));
    EXPECT_EQ(joined.muxBitsPerSecond(), whole(joined));
}

TEST(RatesOnStreams, OfVideoOfWhichPacketsAreLostAreThoseOfAllThatCame) {
    // One packet of every picture, behind which nothing can be read of it.
    auto bytes = bytesOfFile(fastSdVideo());
    Bytes damaged;
    int sinceStart = 0;
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188) {
        const bool video = (bytes[at + 1] & 0x1F) == 1 && bytes[at + 2] == 0;
        if (video)
            sinceStart = (bytes[at + 1] & 0x40) != 0 ? 0 : sinceStart + 1;
        if (!video || sinceStart != 3)
            damaged.insert(damaged.end(), bytes.begin() + static_cast<long>(at),
                           bytes.begin() + static_cast<long>(at + 188));
    }
    const ScratchDir directory;
    const std::string file = directory.file("lost.ts", std::string(damaged.begin(), damaged.end()));
    const auto whole = passOver(fastSdVideo());
    const auto lossy = passOver(file);
    EXPECT_EQ(lossy.video()->frames(), whole.video()->frames());
    EXPECT_EQ(lossy.findings().count("continuity"), whole.video()->frames());
    const auto lost = (bytes.size() - damaged.size()) / 188;
    EXPECT_LE(lossy.video()->bytes() + lost * 184, whole.video()->bytes());
    EXPECT_GE(lossy.video()->bytes() + lost * 184, whole.video()->bytes() - 184);
    EXPECT_EQ(judged("SD_VidBR_3p18Mbs", file),
              "The video bit rate in SD file x.ts cannot be greater than 3.18 Mbs.\t");
}

TEST(RatesOnStreams, OfH264AreOneWhateverDelimitersTheMultiplexerPutIn) {
    const auto analysis = passOver(
        makeStream("limit_h264_delimiters",
                   "-f lavfi -i testsrc2=size=176x144:rate=60,noise=alls=20:allf=t -t 30 -threads 1 "
                   "-c:v libx264 -preset ultrafast -g 15 -b:v 300k -minrate 300k -maxrate 300k -bufsize 60k "
                   "-x264-params nal-hrd=cbr:filler=1"));
    ASSERT_TRUE(analysis.video()->codedRate());
    const double more = static_cast<double>(analysis.video()->bytes()) * 8 -
                        analysis.video()->codedRate()->bitsPerSecond * analysis.videoSeconds();
    EXPECT_GT(more, analysis.video()->codedRate()->bufferBits) << "else nothing is shown here";
    EXPECT_EQ(analysis.video()->delimiterBits(), 48 * 1800);
    EXPECT_EQ(analysis.videoBitsPerSecond(), analysis.video()->codedRate()->bitsPerSecond);
}

INSTANTIATE_TEST_SUITE_P(Each, RuleOnStreams, testing::ValuesIn(ROWS),
                         [](const auto& each) { return std::string(each.param.rule); });

} // namespace
