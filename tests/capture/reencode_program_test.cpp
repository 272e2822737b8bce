// Re-encodes with the real worker: a decoder and an encoder on loopback that return what they are sent, as it
// is or encoded anew by ffmpeg.
#include "capture/SourceIndex.h"
#include "capture/normalize_streams.h"
#include "capture/reencode_job.h"
#include "capture/stamped_frames.h"
#include "foundation/ErrorCodes.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace capture_test;
using Job = ReencodeJob;
using kestrel::test::readGops;
using kestrel::test::streamFile;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

TEST(Reencode, RecordsAllFramesThatComeBack) {
    const std::string source = streamFile("m2_sd_25");
    Job job(source);
    job.equipment();
    EXPECT_EQ(job.run(), 0) << job.log();
    EXPECT_THAT(job.results(), StartsWith("Recorded 00:00:03:00 (75 frames, "));
    EXPECT_EQ(kestrel::test::Ffprobe(job.output()).packets("v:0").size(), 75U);
    EXPECT_EQ(continuityErrors(readPackets(job.output())), 0);
    EXPECT_THAT(job.log(), HasSubstr("The source has 75 frames"));
    EXPECT_THAT(job.log(), HasSubstr("Played 75 frames"));
    EXPECT_THAT(job.log(), Not(HasSubstr("Error]"))) << "nothing went wrong";
}

// Of its first GOP only the end is there, which no decoder can show.
TEST(Reencode, WantsNoFramesFromBeforeTheFirstRandomAccessPointOfItsSource) {
    Job job("");
    Packets packets = readPackets(streamFile("m2_sd_25"));
    std::size_t pictureStarts = 0;
    std::erase_if(packets, [&](const Packet& packet) {
        pictureStarts += pid(packet) == 0x100 && (packet[1] & 0x40) ? 1 : 0;
        return pid(packet) == 0x100 && pictureStarts <= 4;
    });
    writePackets(packets, job.path("source.ts"));
    job.source(job.path("source.ts"));
    job.equipment();
    EXPECT_EQ(job.run(), 0) << job.log() << job.results();
    EXPECT_THAT(job.log(), HasSubstr("The source has 71 frames"));
    EXPECT_THAT(job.results(), testing::ContainsRegex("^Recorded .*[(]6[0-9] frames"));
}

// It was cut out of another file: the first two frames refer to a GOP that is not there any more.
TEST(Reencode, OfASourceThatBeginsWithAnOpenGopWantsTheFramesThatCanBeShown) {
    for (const bool timecodes : {true, false}) {
        Job job("");
        const std::string whole = streamFile("m2_sd_25");
        const std::atomic<bool> never{false};
        kestrel::capture::SourceIndex index;
        ASSERT_FALSE(kestrel::capture::indexSource(whole, never, index));
        ASSERT_GT(index.points.at(1).skipped, 0);
        Packets packets = readPackets(whole);
        const auto first = static_cast<std::ptrdiff_t>(index.points.at(1).offset / 188);
        Packets cut;
        std::copy_if(packets.begin(), packets.begin() + first, std::back_inserter(cut),
                     [](const Packet& packet) { return pid(packet) == 0 || pid(packet) == 0x1000; });
        cut.insert(cut.end(), packets.begin() + first, packets.end());
        writePackets(cut, job.path("source.ts"));
        job.source(job.path("source.ts"));
        job.settings.vtr.vitcSupport = timecodes;
        job.equipment({.encode = "-an -c:v libx264 -preset ultrafast -g 12 -vsync passthrough"});
        EXPECT_EQ(job.runUntil("Played 65 frames"), 0) << job.log() << job.results();
        EXPECT_THAT(job.log(), HasSubstr("The first 2 of them cannot be shown"));
        EXPECT_THAT(job.results(), HasSubstr("(63 frames, "));
    }
}

TEST(Reencode, NeverRecordsOntoItsSource) {
    for (const char* way : {"same", "symbolic", "hard"}) {
        Job job("");
        job.equipment();
        std::filesystem::create_directories(job.path("out"));
        const std::string source = way == std::string("same") ? job.output() : job.path("source.ts");
        std::filesystem::copy(streamFile("m2_sd_25"), source);
        const Packets before = readPackets(source);
        job.source(source);
        if (way == std::string("symbolic"))
            std::filesystem::create_symlink(source, job.output());
        if (way == std::string("hard"))
            std::filesystem::create_hard_link(source, job.output());
        job.extraOptions = {"-overwrite"};
        EXPECT_EQ(job.run(), 1) << way;
        EXPECT_EQ(job.results(),
                  "Error: Invalid path and file combination. (the output file is the source file)");
        EXPECT_EQ(readPackets(source), before) << way;
    }
}

TEST(Reencode, RecordsWhatARealEncoderMakesOfIt) {
    Job job(streamFile("m2_sd_25"));
    job.equipment({.encode = "-an -c:v libx264 -preset ultrafast -g 12 -vsync passthrough"});
    EXPECT_EQ(job.runUntil("Played 75 frames"), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), StartsWith("Recorded 00:00:03:00 (75 frames, "));
    EXPECT_EQ(kestrel::test::Ffprobe(job.output()).stream("v:0", "codec_name"), "h264");
}

// The source has 25 frames a second, what comes back has 50.
TEST(Reencode, IsMeasuredInTimeWhenTheEncoderHasAnotherFrameRate) {
    Job job(streamFile("m2_sd_25"));
    job.equipment({.encode = "-an -c:v mpeg2video -b:v 2000k -g 12 -bf 0 -s 1280x720 -r 50 -vsync cfr"});
    EXPECT_EQ(job.runUntil("Played 75 frames"), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), HasSubstr(", at frame rate code 6, the source has 3"));
    EXPECT_THAT(job.log(),
                HasSubstr("Encoder profile frc 6 does not match source file frc 3. Measured in time."));
    EXPECT_NEAR(static_cast<double>(kestrel::test::Ffprobe(job.output()).packets("v:0").size()), 150, 1);
}

TEST(Reencode, RecordsTwoEncodersBesideEachOther) {
    Job job(streamFile("m2_sd_25"));
    const int second = job.addEncoder();
    job.equipment({.otherEncoders = {second}});
    EXPECT_EQ(job.run(), 0) << job.log();
    EXPECT_THAT(job.results(), StartsWith("Encoder 1: Recorded 00:00:03:00 (75 frames, "));
    EXPECT_THAT(job.results(), HasSubstr("; Encoder 2: Recorded 00:00:03:00 (75 frames, "));
    EXPECT_EQ(kestrel::test::Ffprobe(job.output()).packets("v:0").size(), 75U);
    EXPECT_EQ(readPackets(job.output()), readPackets(job.path("out/news_2.ts")));
}

// The other one has its frames none the less, and so the whole source is played.
TEST(Reencode, OfTwoEncodersFailsWhenNothingComesBackFromOne) {
    Job job(streamFile("m2_sd_25"));
    job.addEncoder();
    job.equipment();
    EXPECT_EQ(job.run(), 1) << job.log();
    EXPECT_THAT(job.results(), StartsWith("Encoder 2: Error: Do not see MPEG transport stream"));
    EXPECT_THAT(job.results(), HasSubstr("; Encoder 1: Recorded 00:00:03:00 (75 frames, "));
    EXPECT_EQ(kestrel::test::Ffprobe(job.output()).packets("v:0").size(), 75U);
    EXPECT_THAT(job.log(), HasSubstr("Played 75 frames"));
}

TEST(Reencode, OfAnEncoderThatSendsAllTheTimeRecordsTheFramesWithTheSourcesTimecodes) {
    Job job(streamFile("m2_sd_25"));
    job.running({}, {.firstLabel = "10:00:00:00", .frames = 75});
    EXPECT_EQ(job.run(), 0) << job.log();
    EXPECT_THAT(job.results(), StartsWith("Recorded 00:00:03:00 (75 frames, "));
    EXPECT_THAT(job.results(), HasSubstr(", by the source's timecodes from 10:00:00:00 to 10:00:02:24"));
    const std::vector<std::string> labels = labelsOf(readPackets(job.output()), 3);
    ASSERT_EQ(labels.size(), 75U);
    EXPECT_EQ(labels.front(), "10:00:00:00");
    EXPECT_EQ(labels.back(), "10:00:02:24");
    EXPECT_THAT(job.log(), HasSubstr("Played 75 frames"));
}

// Pictures from before the source are not counted as the source's: all of it comes back while it is recorded.
TEST(Reencode, OfAnEncoderThatSendsAllTheTimeWithoutTimecodesSaysThatItsEndsAreNotExact) {
    Job job(streamFile("m2_sd_25"));
    job.running({.gopHeaders = false}, {.frames = 75});
    EXPECT_EQ(job.run(), 0) << job.log();
    EXPECT_THAT(job.results(), HasSubstr(", not known whether it is complete: the stream ran before the "
                                         "play-out and no timecodes of the source "
                                         "were recognised in it: up to 5 s of other pictures at either end"));
    // Three seconds of the source, and five behind it.
    EXPECT_GE(pictures(readPackets(job.output())), 8 * 25 - 5);
    EXPECT_THAT(job.log(), HasSubstr("recording from when the play-out began"));
    EXPECT_THAT(job.log(), HasSubstr("Played 75 frames"));
}

// Its next random access point is up to five seconds away when the worker begins to listen.
TEST(Reencode, PlaysNothingBeforeAnEncoderThatSendsAllTheTimeHasShownARandomAccessPoint) {
    Job job(streamFile("m2_sd_25"));
    RunningEncoder& encoder = job.running({.tables = true}, {.gop = 125});
    EXPECT_EQ(job.run(), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), HasSubstr("no timecodes of the source were recognised"));
    const std::vector<std::string> labels = labelsOf(readPackets(job.output()), 3);
    ASSERT_FALSE(labels.empty());
    EXPECT_EQ(labels.front(), "00:00:05:00") << "its second GOP";
    EXPECT_GE(encoder.framesBefore(), 125);
    // All that was played in three seconds, and what is still on its way behind it.
    EXPECT_GE(static_cast<int>(labels.size()), encoder.framesBefore() - 125 + 75 + 5 * 25 - 10);
}

// Its stream is there before, but pictures come only once its decoder has some.
TEST(Reencode, PlaysToAnEncoderThatShowsNoPicturesBefore) {
    Job job(streamFile("m2_sd_25"));
    job.equipment();
    job.start();
    Sender("127.0.0.1", job.encoderPort).send(Packets(2000, nullPacket()), 1e6); // three seconds
    EXPECT_EQ(job.wait(std::chrono::seconds(60)), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), StartsWith("Recorded 00:00:03:00 (75 frames, "));
}

// Its datagrams are far apart, as those of a still picture are; they are found none the less.
TEST(Reencode, KnowsAnEncoderThatRarelySendsForOneThatSendsAllTheTime) {
    Job job(streamFile("m2_sd_25"));
    job.running({.gopHeaders = false}, {.frames = 75, .burst = 12});
    EXPECT_EQ(job.run(), 0) << job.log();
    EXPECT_THAT(job.results(),
                HasSubstr(", not known whether it is complete: the stream ran before the play-out"));
}

// It starts up: nothing listens at its port yet.
TEST(Reencode, SaysHowManyDatagramsTheDecoderDidNotTake) {
    Job job(streamFile("m2_sd_25"));
    const int port = freePort();
    job.settings.decoder.port = port;
    job.start();
    job.waitForLog(" does not take the stream: ");
    job.equipment({.port = port});
    EXPECT_EQ(job.wait(std::chrono::seconds(60)), 1) << job.log();
    EXPECT_THAT(job.results(), testing::ContainsRegex("^Error: [0-9]+ of 75 frames came back\\. Recorded "));
    EXPECT_THAT(job.results(), testing::ContainsRegex(", [0-9]+ datagrams? (was|were) not taken by the "
                                                      "decoder$"));
}

// What either encoder has recorded until then stays, and is told.
TEST(Reencode, TellsWhatWasRecordedBeforeTheDecoderWentAway) {
    for (const bool first : {true, false}) {
        Job job(streamFile("m2_sd_25"));
        const int second = job.addEncoder();
        std::optional<Equipment> equipment;
        equipment.emplace(first ? job.encoderPort : second, Equipment::Behaviour{});
        job.settings.decoder.port = equipment->port();
        job.start();
        job.waitForLog(first ? "Encoder 1: recording into" : "Encoder 2: recording into");
        equipment.reset();
        EXPECT_EQ(job.wait(std::chrono::seconds(60)), 1) << job.log();
        EXPECT_THAT(job.results(),
                    StartsWith("Error: Start re-encode returned 111 Exiting. (decoder 127.0.0.1:"));
        EXPECT_THAT(job.results(), HasSubstr(first ? "Encoder 1: Recorded " : "Encoder 2: Recorded "));
        EXPECT_THAT(job.results(),
                    HasSubstr(first ? "Encoder 2: Nothing recorded" : "Encoder 1: Nothing recorded"));
        EXPECT_FALSE(readPackets(first ? job.output() : job.path("out/news_2.ts")).empty());
    }
}

// A timed capture may be cancelled before it begins, one between marks has failed then.
TEST(Reencode, TellsThatItWasCancelledWhileItsSourceWasRead) {
    for (const int type : {CSettings::JOB_MEZZANINE, CSettings::JOB_TIMED_REENCODE}) {
        Job job("", type);
        job.endlessSource();
        job.marks("10:00:01:00", "10:00:01:24");
        job.equipment();
        job.start();
        job.waitForLog("Reading ");
        job.queues.send(CANCEL_MSG);
        EXPECT_EQ(job.wait(std::chrono::seconds(20)), type == CSettings::JOB_MEZZANINE ? 1 : 0) << job.log();
        EXPECT_EQ(job.results(), "Cancelled before the recording began: nothing recorded");
        EXPECT_FALSE(std::filesystem::exists(job.output()));
    }
}

TEST(Reencode, SaysHowManyFramesAreMissing) {
    Job job(streamFile("m2_sd_25"));
    job.equipment({.encode = "", .mostBytes = 400'000});
    EXPECT_EQ(job.run(), 1) << job.log();
    EXPECT_THAT(job.results(), testing::ContainsRegex("^Error: [0-9]+ of 75 frames came back\\. Recorded "));
    EXPECT_GT(readPackets(job.output()).size(), 1000U);
}

TEST(Reencode, SaysThatNothingComesBackAndWhereItListened) {
    Job job(streamFile("m2_sd_25"));
    job.equipment({.encode = "", .mostBytes = 0});
    EXPECT_EQ(job.run(), 1) << job.log();
    // On a busy host the play-out may have been interrupted, which is told behind it.
    EXPECT_THAT(job.results(),
                StartsWith("Error: Do not see MPEG transport stream for capture at IP address 127.0.0.1:" +
                           std::to_string(job.encoderPort) + "."));
    EXPECT_FALSE(std::filesystem::exists(job.output()));
}

TEST(Reencode, EndsWithTheCancelMessageAndKeepsWhatIsRecorded) {
    Job job(streamFile("m2_sd_25"));
    Equipment& equipment = job.equipment();
    job.start();
    job.waitForLog("recording into");
    job.queues.send(CANCEL_MSG);
    EXPECT_EQ(job.wait(std::chrono::seconds(20)), 0) << job.log();
    EXPECT_THAT(job.results(), StartsWith("Cancelled after "));
    EXPECT_FALSE(readPackets(job.output()).empty());
    EXPECT_LT(equipment.received(), std::filesystem::file_size(streamFile("m2_sd_25")));
}

TEST(Reencode, SendsRtpToADecoderThatTheMapNames) {
    Job job(streamFile("m2_sd_25"));
    job.settings.decoder.controlAddress = 0x0A010204;
    std::ofstream(job.path("map.xml"))
        << "<Encoders><Decoder CONTROL_ADDRESS=\"10.1.2.4\" RTP=\"TRUE\"/></Encoders>";
    job.extraOptions = {"-encoders", job.path("map.xml")};
    job.equipment();
    EXPECT_EQ(job.run(), 0) << job.log();
    EXPECT_THAT(job.log(), HasSubstr(", in RTP"));
}

TEST(Reencode, OfAMezzanineRecordsFromMarkInToMarkOut) {
    Job job(streamFile("m2_sd_25"), CSettings::JOB_MEZZANINE);
    job.marks("10:00:01:00", "10:00:01:24");
    job.settings.decoder.startAppend = 1;
    job.settings.decoder.endAppend = 1;
    job.equipment();
    EXPECT_EQ(job.run(), 0) << job.log();
    EXPECT_THAT(job.results(), HasSubstr(", from 10:00:00:22 to 10:00:02:01, 3 frames before mark-in, "));
    EXPECT_THAT(job.log(), HasSubstr("Using DECODER_START_APPEND_v3.1.0.4 setting from capture.ini = 1"));
    EXPECT_THAT(job.log(), testing::ContainsRegex("Playing from 10:00:00:00, bytes [0-9]+ to the end"));
    const auto frames = kestrel::test::Ffprobe(job.output()).packets("v:0").size();
    EXPECT_GE(frames, 25U);
    EXPECT_LT(frames, 25U + 12 + 3);
}

// Its own timecodes begin at zero, so they say nothing.
TEST(Reencode, OfAMezzanineCountsFromTheFirstFramePlayedWhenTheEncoderHasNoTimecode) {
    Job job(streamFile("m2_sd_25"), CSettings::JOB_MEZZANINE);
    job.marks("10:00:01:00", "10:00:01:24");
    job.settings.vtr.vitcSupport = false;
    job.equipment({.encode = "-an -c:v mpeg2video -b:v 2000k -g 12 -bf 0 -vsync passthrough"});
    EXPECT_EQ(job.runUntil("Played "), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), HasSubstr(", counted from the first frame"));
    const auto frames = kestrel::test::Ffprobe(job.output()).packets("v:0").size();
    EXPECT_GE(frames, 25U);
    EXPECT_LT(frames, 25U + 12);
    // The encoder's own count begins at the first frame played: mark-in is its frame 25.
    const auto first = readGops(job.output(), 0x100).front();
    const int number = first.seconds * 25 + first.frames;
    EXPECT_LE(number, 25) << first.text();
    EXPECT_GT(number, 25 - 12) << first.text();
}

struct Counted {
    const char* name;
    const char* encoder; // ffmpeg's options
    const char* markIn;
    const char* markOut;
};

void PrintTo(const Counted& source, std::ostream* out) {
    *out << source.name;
}

class CountedMezzanine : public testing::TestWithParam<Counted> {};

// The equipment passes the source on: what plays it must let it know the program with the first frame, or it
// begins with the next GOP, and the count with it.
TEST_P(CountedMezzanine, OfThePartInTheMiddleHasExactlyTheFramesOfTheMarks) {
    const std::string source = kestrel::test::makeStream(
        std::string("counted_middle_") + GetParam().name,
        std::string("-f lavfi -i testsrc2=s=352x288:r=25 -t 12 ") + GetParam().encoder +
            " -g 25 -keyint_min 25 -bf 0 -b:v 1000k -f mpegts");
    Job job(source, CSettings::JOB_MEZZANINE);
    job.marks(GetParam().markIn, GetParam().markOut);
    job.settings.decoder.startAppend = 2;
    job.settings.decoder.endAppend = 1;
    job.settings.vtr.vitcSupport = false;
    job.equipment();
    EXPECT_EQ(job.run(), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), HasSubstr(", counted from the first frame"));
    const auto played = kestrel::test::Ffprobe(source).packets("v:0");
    const auto recorded = kestrel::test::Ffprobe(job.output()).packets("v:0");
    ASSERT_EQ(played.size(), 300U);
    ASSERT_EQ(recorded.size(), 25U) << job.results();
    EXPECT_EQ(recorded.front().pts, played[150].pts);
    EXPECT_EQ(recorded.back().pts, played[174].pts);
    EXPECT_EQ(continuityErrors(readPackets(job.output())), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, CountedMezzanine,
    testing::Values(Counted{"h264", "-c:v libx264 -preset ultrafast -sc_threshold 0", "00:00:06:00",
                            "00:00:06:24"},
                    Counted{"mpeg2", "-c:v mpeg2video -sc_threshold 1000000000 -timecode 10:00:00:00",
                            "10:00:06:00", "10:00:06:24"}),
    [](const auto& source) { return std::string(source.param.name); });

// It counts its frames from zero, and its count goes through the marks a second too late.
TEST(Reencode, OfAMezzanineDoesNotTakeTheCountOfARealEncoderForTheSourcesTimecodes) {
    // Labels from 00:00:00:00 on.
    Job job(
        kestrel::test::makeStream("played_from_zero",
                                  "-f lavfi -i testsrc2=s=352x288:r=25 -t 8 -c:v mpeg2video -b:v 1000k -g 12 "
                                  "-bf 0 -timecode 00:00:00:00 -f mpegts"),
        CSettings::JOB_MEZZANINE);
    job.marks("00:00:03:00", "00:00:03:24");
    job.settings.decoder.startAppend = 1;
    job.settings.decoder.endAppend = 4;
    job.equipment({.encode = "-an -c:v mpeg2video -q:v 4 -g 12 -bf 0 -vsync passthrough"});
    EXPECT_EQ(job.runUntil("Played "), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), HasSubstr(", counted from the first frame"));
    // Played from 00:00:01:23 on, the random access point before 00:00:02:00; so mark-in is its frame 27.
    const auto first = readGops(job.output(), 0x100).front();
    const int number = first.seconds * 25 + first.frames;
    EXPECT_LE(number, 27) << first.text();
    EXPECT_GT(number, 27 - 12) << first.text();
}

// Likewise of one that has counted all the time.
TEST(Reencode, OfAMezzanineDoesNotTakeTheCountOfAnEncoderThatSendsAllTheTimeForTheSourcesTimecodes) {
    Job job(
        kestrel::test::makeStream("played_from_zero",
                                  "-f lavfi -i testsrc2=s=352x288:r=25 -t 8 -c:v mpeg2video -b:v 1000k -g 12 "
                                  "-bf 0 -timecode 00:00:00:00 -f mpegts"),
        CSettings::JOB_MEZZANINE);
    job.marks("00:00:03:00", "00:00:03:24");
    job.settings.decoder.startAppend = 1;
    job.settings.decoder.endAppend = 4;
    RunningEncoder& encoder = job.running({}, {.frames = 200});
    EXPECT_EQ(job.run(), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), HasSubstr(", counted from when the play-out began"));
    const std::vector<std::string> labels = labelsOf(readPackets(job.output()), 3);
    ASSERT_FALSE(labels.empty());
    // Its frames count from 00:00:00:00; mark-in is played 27 frames behind the begin.
    const std::string& last = labels.back();
    const int number = std::stoi(last.substr(6, 2)) * 25 + std::stoi(last.substr(9, 2));
    EXPECT_NEAR(number, encoder.framesBefore() + 27 + 24, 5) << last;
}

TEST(Reencode, OfAMezzanineFindsTheMarksInAStreamThatWasThereBefore) {
    Job job(streamFile("m2_sd_25"), CSettings::JOB_MEZZANINE);
    job.marks("10:00:01:00", "10:00:01:24");
    job.settings.decoder.startAppend = 1;
    job.settings.decoder.endAppend = 1;
    job.running({}, {.firstLabel = "10:00:00:00", .frames = 75});
    EXPECT_EQ(job.run(), 0) << job.log();
    const std::vector<std::string> labels = labelsOf(readPackets(job.output()), 3);
    ASSERT_FALSE(labels.empty());
    EXPECT_EQ(labels.front(), "10:00:01:00");
    EXPECT_EQ(labels.back(), "10:00:01:24");
}

// The source's timestamps and timecodes leave three seconds out behind its 30th frame, in the middle of a GOP
// of the encoder, which counts on over that.
TEST(Reencode, OfAMezzanineBehindAnOutageKnowsFramesWhoseLabelsWereCountedOn) {
    LabelledStream stream({.gop = 10});
    std::vector<CodedFrame> frames = stream.frames(30);
    stream.jumpTo("10:00:04:05");
    for (CodedFrame& frame : stream.frames(60)) {
        delay(frame, 3 * 90000);
        frames.push_back(frame);
    }
    for (CodedFrame& frame : frames)
        addPcr(frame);
    Job job("", CSettings::JOB_MEZZANINE);
    writePackets(join(frames), job.path("source.ts"));
    job.source(job.path("source.ts"));
    job.marks("10:00:04:08", "10:00:06:05");
    job.settings.decoder.startAppend = 10;
    job.running(
        {}, {.firstLabel = "10:00:00:00", .frames = 90, .gop = 12, .leapAt = 30, .leapTo = "10:00:04:05"});
    EXPECT_EQ(job.run(), 0) << job.log() << job.results();
    EXPECT_THAT(job.results(), Not(HasSubstr("not known")));
    EXPECT_THAT(job.results(), HasSubstr(", from 10:00:00:24 to 10:00:06:05"));
    EXPECT_THAT(job.results(), Not(HasSubstr("missing")));
    EXPECT_THAT(job.results(), Not(HasSubstr("before mark-in")));
}

// The first picture that comes after the beginning is not the first that was played.
TEST(Reencode, OfAMezzanineCountsFromTheBeginOfThePlayOutInAStreamThatWasThereBefore) {
    Job job(streamFile("m2_sd_25"), CSettings::JOB_MEZZANINE);
    job.marks("10:00:01:00", "10:00:01:24");
    job.settings.vtr.vitcSupport = false;
    job.settings.encoders[0].frameOffsetNoVitc = 10; // as long as the encoder takes
    job.running({}, {.firstLabel = "10:00:00:00", .frames = 75});
    EXPECT_EQ(job.run(), 0) << job.log();
    EXPECT_THAT(job.results(), HasSubstr(", counted from when the play-out began"));
    const std::vector<std::string> labels = labelsOf(readPackets(job.output()), 3);
    ASSERT_FALSE(labels.empty());
    // The encoder's timecode began with its next GOP of five frames, and a busy machine delays it too.
    EXPECT_THAT(labels, testing::Contains("10:00:01:10"));
}

TEST(Reencode, RefusesMarksThatTheSourceDoesNotHave) {
    Job job(streamFile("m2_sd_25"), CSettings::JOB_MEZZANINE);
    job.marks("11:00:01:00", "11:00:01:24");
    job.equipment();
    EXPECT_EQ(job.run(), 1);
    EXPECT_EQ(
        job.results(),
        "Error: Start timecode 11:00:01:00 cannot be found. (the source has 10:00:00:00 to 10:00:02:24)");
}

TEST(Reencode, TellsWhatIsMissingInItsSettings) {
    Job sourceless("");
    EXPECT_EQ(sourceless.run(), 1);
    EXPECT_EQ(sourceless.results(), LOG_MSG(kestrel::error::sourceFileNotSpecified));
    Job missing("/nowhere/at/all.ts");
    EXPECT_EQ(missing.run(), 1);
    EXPECT_THAT(missing.results(), StartsWith("Error: Unable to open input file /nowhere/at/all.ts."));
    Job decoderless(streamFile("m2_sd_25"));
    decoderless.settings.decoder.ipAddress = 0;
    EXPECT_EQ(decoderless.run(), 1);
    EXPECT_EQ(decoderless.results(), "Error: Could not retrieve multicast ip and port for decoder 0.0.0.0.");
}

TEST(Reencode, TellsThatTheDecoderIsNotReached) {
    Job job(streamFile("m2_sd_25"));
    job.settings.decoder.port = freePort();
    EXPECT_EQ(job.run(), 1);
    EXPECT_THAT(job.results(),
                StartsWith("Error: Start re-encode returned 111 Exiting. (decoder 127.0.0.1:"));
}

TEST(Reencode, KeepsAnExistingFile) {
    Job job(streamFile("m2_sd_25"));
    job.equipment();
    std::filesystem::create_directories(job.path("out"));
    std::ofstream(job.output()) << "precious";
    EXPECT_EQ(job.run(), 1);
    EXPECT_THAT(job.results(), StartsWith(LOG_MSG(kestrel::error::fileAlreadyExists)));
    EXPECT_EQ(readText(job.output()), "precious");
}

TEST(Reencode, PlaysToTheControlAddressWithoutAStreamAddress) {
    Job job(streamFile("m2_sd_25"));
    job.settings.decoder.ipAddress = 0;
    job.settings.decoder.controlAddress = 0x7F000001;
    job.equipment();
    EXPECT_EQ(job.run(), 0) << job.log();
}

} // namespace
