// The verifier as a process: reports, failures, messages to the service, hostile files.
#include "capture/worker_process.h"
#include "foundation/Bytes.h"
#include "foundation/ProcessTree.h"
#include "foundation/ScratchDir.h"
#include "multiplex.h"
#include "streams/stream_fixtures.h"
#include "verifier/VerifierXml.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using capture_test::ServiceQueues;
using kestrel::test::streamFile;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class FlowScope : public testing::Test {
protected:
    // Starts it on a file, with further options.
    void start(const std::string& file, std::vector<std::string> options = {}) {
        std::vector<std::string> words{KESTREL_FLOW_SCOPE, "-report_dst", directory.path(""), "-f", file};
        words.insert(words.end(), options.begin(), options.end());
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 2, directory.path("stderr").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        // Whoever starts the tests may have it ignored.
        sigset_t hangup;
        sigemptyset(&hangup);
        sigaddset(&hangup, SIGHUP);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        if (!hangupIgnored) {
            posix_spawnattr_setsigdefault(&attributes, &hangup);
            posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
        }
        ASSERT_EQ(posix_spawn(&process, argv[0], &actions, &attributes, argv.data(), environ), 0);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    int finish() {
        int status = 0;
        waitpid(process, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    int run(const std::string& file, std::vector<std::string> options = {}) {
        start(file, std::move(options));
        return finish();
    }
    [[nodiscard]] std::string errors() const {
        const auto bytes = bytesOfFile(directory.path("stderr"));
        return {bytes.begin(), bytes.end()};
    }
    [[nodiscard]] std::string report(const std::string& name) const {
        const auto bytes = bytesOfFile(directory.path(name));
        return {bytes.begin(), bytes.end()};
    }
    [[nodiscard]] std::size_t filesBeside() const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(directory.path("")))
            count += entry.path().filename() != "stderr" && entry.path().extension() != ".ts" ? 1 : 0;
        return count;
    }
    // A failure leaves no report, exits with 1, and names file and reason.
    void fails(const std::string& file, const std::string& reason, std::vector<std::string> options = {}) {
        EXPECT_EQ(run(file, std::move(options)), 1) << file;
        EXPECT_EQ(errors(), "flowScope: " + file + ": " + reason + "\n");
        EXPECT_EQ(filesBeside(), 0U) << "no report, not even a part of one";
    }

    ScratchDir directory;
    pid_t process = -1;
    bool hangupIgnored = false;
};

TEST_F(FlowScope, WritesTheReportThatTheServiceReads) {
    const std::string file = streamFile("m2_delivery_pids");
    ASSERT_EQ(run(file, {"-r", "xml", "-report_name", "G-a.report.xml"}), 0) << errors();
    const VerifierXml reader(directory.path("G-a.report.xml").c_str());
    ASSERT_TRUE(reader.loaded);
    EXPECT_STREQ(reader.getPmtPid(), "480");
    EXPECT_STREQ(reader.getPcrPid(), "481");
    EXPECT_STREQ(reader.getVideoPid(), "481");
    EXPECT_STREQ(reader.getVideoRes(), "528x480");
    EXPECT_STREQ(reader.getVideoFrameRate(), "29.97");
    EXPECT_STREQ(reader.getGopLength(), "15");
    EXPECT_STREQ(reader.getGopStructure(), "IBBP");
    EXPECT_STREQ(reader.getVariableGops(), "FALSE");
    EXPECT_STREQ(reader.getDropFrame(), "TRUE");
    EXPECT_STREQ(reader.getIsMpeg2(), "TRUE");
    EXPECT_STREQ(reader.getDuration(), "00:00:03;00");
    EXPECT_FALSE(reader.isHd());
    ASSERT_EQ(reader.getNumAudios(), 2);
    EXPECT_TRUE(reader.isAC3(1));
    EXPECT_EQ(reader.getAudioBitrateKbps(1), 192);
    EXPECT_STREQ(reader.getAudioSamplingRate(0), "48000");
    EXPECT_EQ(reader.numAudioChannels(0), 2);
}

TEST_F(FlowScope, SurroundIsFiveChannelsForTheService) {
    ASSERT_EQ(run(streamFile("m2_surround"), {"-report_name", "r.xml"}), 0);
    const VerifierXml reader(directory.path("r.xml").c_str());
    EXPECT_TRUE(reader.isDolby5p1(0));
    EXPECT_STREQ(reader.getAudioMode(0), "3/2 LFE");
}

TEST_F(FlowScope, H264AndEac3AreNamedAsTheServiceLooksForThem) {
    ASSERT_EQ(run(streamFile("h264_main"), {"-report_name", "r.xml"}), 0);
    EXPECT_TRUE(VerifierXml(directory.path("r.xml").c_str()).isMpeg4());
    ASSERT_EQ(run(streamFile("m2_eac3"), {"-report_name", "r.xml"}), 0);
    EXPECT_FALSE(VerifierXml(directory.path("r.xml").c_str()).isAC3(0));
}

TEST_F(FlowScope, ByHandTheReportHasTheFilesName) {
    const std::string file = streamFile("m2_sd_25");
    ASSERT_EQ(run(file), 0);
    EXPECT_TRUE(std::filesystem::exists(
        directory.path(std::filesystem::path(file).filename().string() + ".report.xml")));
    EXPECT_THAT(errors(), HasSubstr("75 frames, 00:00:03:00, 720x576 at 25, 1 audio, no findings"));
}

TEST_F(FlowScope, APassThatEndsBeforeTheFileSaysHowFarItsFindingsGo) {
    ASSERT_EQ(run(streamFile("m2_sd_25"), {"-duration", "1"}), 0);
    EXPECT_THAT(errors(), HasSubstr(", no findings in its first 1 s\n"));
    ASSERT_EQ(run(streamFile("m2_sd_25"), {"-duration", "60"}), 0);
    EXPECT_THAT(errors(), HasSubstr(", no findings\n")) << "the whole file";
}

TEST_F(FlowScope, HtmlIsOnePageWithoutAnyReferenceToElsewhere) {
    ASSERT_EQ(run(streamFile("m2_sd_25"), {"-r", "html", "-report_name", "r.html"}), 0);
    const std::string page = report("r.html");
    EXPECT_THAT(page, StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, HasSubstr("Nothing was found that departs from the standards."));
    EXPECT_THAT(page, HasSubstr("720x576"));
    EXPECT_THAT(page, HasSubstr("<svg "));
    EXPECT_THAT(page, HasSubstr("<polyline "));
    EXPECT_THAT(page, HasSubstr("<div class=\"verdict good\">"));
    EXPECT_THAT(page, Not(HasSubstr("http")));
    EXPECT_THAT(page, Not(HasSubstr("src=")));
}

TEST_F(FlowScope, TextsOfTheFileAreNoMarkup) {
    const std::string file = directory.path("<b>&\"x.ts");
    std::filesystem::copy_file(streamFile("m2_sd_25"), file);
    ASSERT_EQ(run(file, {"-r", "html", "-report_name", "r.html"}), 0);
    EXPECT_THAT(report("r.html"), HasSubstr("&lt;b&gt;&amp;&quot;x.ts"));
    ASSERT_EQ(run(file, {"-report_name", "r.xml"}), 0);
    EXPECT_TRUE(VerifierXml(directory.path("r.xml").c_str()).loaded);
}

TEST_F(FlowScope, ADurationBoundsTheAnalysisInStreamTime) {
    ASSERT_EQ(run(streamFile("m2_sd_25"), {"-duration", "1", "-report_name", "r.xml"}), 0);
    const VerifierXml reader(directory.path("r.xml").c_str());
    EXPECT_STREQ(reader.getDuration(), "00:00:01:00");
    EXPECT_STREQ(reader.getVideoRes(), "720x576");
}

TEST_F(FlowScope, LostPacketsAreFoundWithNumberAndPid) {
    std::vector<unsigned char> bytes = bytesOfFile(streamFile("m2_sd_25"));
    bytes.erase(bytes.begin() + 188 * 2000, bytes.begin() + 188 * 2001);
    const std::string file = directory.file("lost.ts", std::string(bytes.begin(), bytes.end()));
    ASSERT_EQ(run(file, {"-report_name", "r.xml"}), 0);
    EXPECT_THAT(report("r.xml"), HasSubstr("<ContinuityErrors value=\"1\" />"));
    EXPECT_THAT(report("r.xml"),
                testing::ContainsRegex("kind=\"continuity\" text=\"packet [0-9]+: expected"));
}

TEST_F(FlowScope, TransportErrorsAndNullPacketsAreCounted) {
    std::vector<unsigned char> bytes = bytesOfFile(streamFile("m2_sd_25"));
    bytes[188 * 500 + 1] |= 0x80;
    std::vector<unsigned char> null(188, 0xFF);
    null[0] = 0x47;
    null[1] = 0x1F;
    null[3] = 0x10;
    bytes.insert(bytes.begin() + 188 * 900, null.begin(), null.end());
    ASSERT_EQ(
        run(directory.file("bad.ts", std::string(bytes.begin(), bytes.end())), {"-report_name", "r.xml"}), 0);
    EXPECT_THAT(report("r.xml"), HasSubstr("<TransportErrors value=\"1\" />"));
    EXPECT_THAT(report("r.xml"), HasSubstr("<NullPackets value=\"1\" />"));
    EXPECT_THAT(report("r.xml"), HasSubstr("packet 500, PID"));
}

TEST_F(FlowScope, FilesThatAreNoneAreNamedWithTheirReason) {
    fails(directory.path("missing.ts"), "cannot be read: No such file or directory (errno 2)");
    fails("/tmp", "is not a regular file");
    const std::string fifo = directory.path("fifo.ts");
    mkfifo(fifo.c_str(), 0600);
    fails(fifo, "is not a regular file");
    fails(directory.file("empty.ts", ""), "is empty");
    fails(directory.file("short.ts", std::string(187, 'G')),
          "is shorter than one transport packet of 188 bytes");
    fails(directory.file("text.ts", std::string(10'000, 'x')),
          "is not an MPEG transport stream: no sync bytes 188 bytes apart");
}

TEST_F(FlowScope, PacketsOfAnotherSizeAreRecognised) {
    const std::vector<unsigned char> bytes = bytesOfFile(streamFile("m2_sd_25"));
    std::string stamped;
    std::string protectedPackets;
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188) {
        const std::string packet(bytes.begin() + static_cast<long>(at),
                                 bytes.begin() + static_cast<long>(at + 188));
        stamped += std::string(4, '\1') + packet;
        protectedPackets += packet + std::string(16, '\2');
    }
    fails(directory.file("stamped.ts", stamped),
          "has packets of 192 bytes (with a time stamp before each); expected 188");
    fails(directory.file("parity.ts", protectedPackets),
          "has packets of 204 bytes (with parity bytes behind each); expected 188");
}

TEST_F(FlowScope, StreamsWithoutAProgramOrVideoFail) {
    std::string null(188, '\xFF');
    null[0] = 0x47;
    null[1] = 0x1F;
    null[3] = 0x10;
    std::string stream;
    for (int i = 0; i < 100; ++i)
        stream += null;
    fails(directory.file("null.ts", stream), "no program: no PAT and PMT were found");
    const std::string audio = kestrel::test::makeStream("audio_only", "-f lavfi -i sine -t 1 -c:a mp2");
    fails(audio, "no MPEG-2 or H.264 video in any program");
}

TEST_F(FlowScope, AVideoWithoutPicturesFails) {
    // All packets of the video become those of another PID.
    std::vector<unsigned char> bytes = bytesOfFile(streamFile("m2_sd_25"));
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188)
        if ((bytes[at + 1] & 0x1F) == 0x01 && bytes[at + 2] == 0x00)
            bytes[at + 1] |= 0x02;
    fails(directory.file("none.ts", std::string(bytes.begin(), bytes.end())),
          "no picture in the video of program 1, PID 256");
}

TEST_F(FlowScope, ADurationThatEndsBeforeTheFirstPictureFails) {
    // The bytes of its first three pictures are none, so that -duration ends before the first one that is.
    Multiplex made;
    made.association({{1, 0x100}}).map(0x100, 1, 0x101, {{0x02, 0x101}});
    for (int i = 0; i < 6; ++i) {
        const std::int64_t dts = 9'000'000 + i * 45'000;
        made.clock(0x101, (dts - 9000) * 300);
        made.pes(0x101, pesHeader(dts, dts), i < 3 ? filler(40) : mpeg2Picture());
    }
    const std::string file = directory.file("late.ts", std::string(made.bytes.begin(), made.bytes.end()));
    fails(file, "no picture in the part that was read of the video of program 1, PID 257",
          {"-duration", "1"});
    EXPECT_EQ(run(file, {"-duration", "2", "-report_name", "r.xml"}), 0);
    // Nor do any come behind it: the whole file says so.
    const std::string none =
        directory.file("none.ts", std::string(made.bytes.begin(), made.bytes.begin() + 188 * 8));
    std::filesystem::remove(directory.path("r.xml"));
    fails(none, "no picture in the video of program 1, PID 257", {"-duration", "60"});
}

TEST_F(FlowScope, AReportThatCannotBeWrittenIsAFailure) {
    EXPECT_EQ(
        run(streamFile("m2_sd_25"), {"-report_dst", directory.path("no/such"), "-report_name", "r.xml"}), 1);
    EXPECT_THAT(errors(), HasSubstr("the report cannot be written to " + directory.path("no/such") + "/"));
    EXPECT_THAT(errors(), HasSubstr("No such file or directory (errno 2)"));
}

TEST_F(FlowScope, AWrongCommandLineIsExitCodeTwo) {
    EXPECT_EQ(run(streamFile("m2_sd_25"), {"-r", "pdf"}), 2);
    EXPECT_THAT(errors(), StartsWith("flowScope: -r pdf: expected xml or html\nUsage: "));
}

TEST_F(FlowScope, TellsTheServiceThatItsCommandLineIsWrong) {
    ServiceQueues queues;
    EXPECT_EQ(run(streamFile("m2_sd_25"), {"-duration", "0", "-out_queue_name", queues.updateName(),
                                           "-in_queue_name", queues.managerName()}),
              2);
    EXPECT_THAT(errors(),
                StartsWith("flowScope: -duration 0: expected a number of seconds from 1 on\nUsage: "));
    while (queues.receive(std::chrono::milliseconds(0))) {
    }
    ASSERT_EQ(queues.received().size(), 2U);
    EXPECT_EQ(queues.received()[0].type, RESULTS_MSG);
    EXPECT_EQ(queues.received()[0].text,
              "wrong command line: -duration 0: expected a number of seconds from 1 on");
    EXPECT_EQ(queues.received()[1].type, EXIT_MSG);
}

// The service keeps 299 bytes.
TEST_F(FlowScope, OfALongPathTheServiceIsToldTheEndAndWhatWasFoundIsWhole) {
    std::string folder = directory.path("");
    for (const char letter : {'a', 'b'}) {
        folder += std::string(130, letter) + "/";
        std::filesystem::create_directory(folder);
    }
    const std::string file = folder + "\xC3\xA4.ts";
    const auto told = [&](const std::string& what) {
        ServiceQueues queues;
        run(file, {"-report_name", "r.xml", "-out_queue_name", queues.updateName(), "-in_queue_name",
                   queues.managerName()});
        EXPECT_THAT(errors(), HasSubstr(file + ": " + what)) << "a person is told the whole path";
        while (queues.receive(std::chrono::milliseconds(0))) {
        }
        std::string results;
        for (const auto& message : queues.received())
            if (message.type == RESULTS_MSG)
                results = message.text;
        EXPECT_LE(results.size(), 299U);
        return results;
    };
    std::filesystem::copy_file(streamFile("m2_sd_25"), file);
    const std::string summary = "75 frames, 00:00:03:00, 720x576 at 25, 1 audio, no findings";
    const std::string whole = told(summary);
    EXPECT_EQ(whole.size(), 299U);
    EXPECT_TRUE(whole.starts_with("...")) << whole;
    EXPECT_TRUE(whole.ends_with("b/\xC3\xA4.ts: " + summary)) << whole;
    std::filesystem::remove(file);
    EXPECT_TRUE(told("cannot be read: No such file or directory").ends_with("directory (errno 2)"));
}

TEST_F(FlowScope, DamageAtTheBeginningIsAFindingAndNoRefusal) {
    const std::vector<unsigned char> good = bytesOfFile(streamFile("m2_sd_25"));
    const auto reported = [&](const std::vector<unsigned char>& bytes) {
        EXPECT_EQ(
            run(directory.file("in.ts", std::string(bytes.begin(), bytes.end())), {"-report_name", "r.xml"}),
            0)
            << errors();
        EXPECT_STREQ(VerifierXml(directory.path("r.xml").c_str()).getVideoRes(), "720x576");
        return report("r.xml");
    };
    for (const std::size_t packet : {0U, 3U}) {
        std::vector<unsigned char> bytes = good;
        bytes[188 * packet] = 0x00;
        EXPECT_THAT(reported(bytes),
                    HasSubstr("kind=\"sync\" text=\"packet " + std::to_string(packet) + ", PID "));
    }
    // The end of another packet.
    EXPECT_THAT(
        reported(std::vector<unsigned char>(good.begin() + 88, good.end())),
        HasSubstr("kind=\"sync\" text=\"packet 0: 100 bytes before it, from byte 0 of the file on, are no "
                  "packets\""));
}

TEST_F(FlowScope, TheReportTellsHowThePictureIsCoded) {
    for (const auto& [stream, interlaced] : {std::pair("m2_sd_25", "false"),
                                             {"m2_sd_25_fields", "true"},
                                             {"h264_main", "false"},
                                             {"h264_fields", "true"}}) {
        ASSERT_EQ(run(streamFile(stream), {"-report_name", "r.xml"}), 0) << errors();
        EXPECT_THAT(report("r.xml"), HasSubstr(std::string("<Interlaced value=\"") + interlaced));
    }
}

// As of a recording that was cut behind its only sequence header.
TEST_F(FlowScope, APictureSizeThatNoHeaderTellsIsNotMadeUp) {
    std::vector<unsigned char> bytes = bytesOfFile(streamFile("m2_sd_25"));
    const std::vector<unsigned char> sequenceHeader{0, 0, 1, 0xB3};
    for (auto at = bytes.begin();
         (at = std::search(at, bytes.end(), sequenceHeader.begin(), sequenceHeader.end())) != bytes.end();)
        *(at += 3) = 0xB2; // user data
    // An extension has the upper bits only.
    const std::vector<unsigned char> extension{0, 0, 1, 0xB5, 0x14};
    int extensions = 0;
    for (auto at = bytes.begin();
         (at = std::search(at, bytes.end(), extension.begin(), extension.end())) != bytes.end(); ++extensions)
        (*(at += 5) |= 0x01, *(at + 1) |= 0x20); // horizontal_size_extension, vertical_size_extension
    ASSERT_GT(extensions, 0);
    const std::string file = directory.file("in.ts", std::string(bytes.begin(), bytes.end()));
    ASSERT_EQ(run(file, {"-report_name", "r.xml"}), 0) << errors();
    EXPECT_THAT(errors(), HasSubstr("75 frames, 00:00:03:00, size not known at 25, 1 audio, "));
    EXPECT_THAT(report("r.xml"), Not(HasSubstr("<VideoResolution ")));
    EXPECT_THAT(report("r.xml"), HasSubstr("<Interlaced value=\"false\"")) << "the extension tells it";
    ASSERT_EQ(run(file, {"-r", "html", "-report_name", "r.html"}), 0) << errors();
    EXPECT_THAT(report("r.html"), HasSubstr("size not known: no header that tells it, progressive"));
    EXPECT_THAT(report("r.html"), Not(ContainsRegex("[0-9]x[0-9]")));
}

TEST_F(FlowScope, TheFirstPacketMayBeginAnywhereInTheFirstEightKibibytes) {
    const std::vector<unsigned char> good = bytesOfFile(streamFile("m2_sd_25"));
    const auto after = [&](std::size_t bytes) {
        return directory.file("in.ts", std::string(bytes, '\x11') + std::string(good.begin(), good.end()));
    };
    for (const std::size_t bytes : {1U, 7500U, 8000U, 8191U}) {
        ASSERT_EQ(run(after(bytes), {"-report_name", "r.xml"}), 0) << errors();
        EXPECT_THAT(report("r.xml"), HasSubstr("packet 0: " + std::to_string(bytes) + " bytes before it"));
    }
    EXPECT_EQ(run(after(8192), {"-report_name", "r.xml"}), 1);
    EXPECT_THAT(errors(), HasSubstr("is not an MPEG transport stream: no sync bytes 188 bytes apart"));
}

TEST_F(FlowScope, BytesThatShiftThePacketsCostNoMoreThanThemselves) {
    const std::vector<unsigned char> good = bytesOfFile(streamFile("m2_sd_25"));
    const auto summary = [&](std::vector<unsigned char> bytes) {
        EXPECT_EQ(
            run(directory.file("in.ts", std::string(bytes.begin(), bytes.end())), {"-report_name", "r.xml"}),
            0);
        return errors();
    };
    std::vector<unsigned char> more = good;
    more.insert(more.begin() + 188 * 1000, 50'001, 0x11);
    EXPECT_THAT(summary(more), HasSubstr("75 frames, 00:00:03:00, 720x576 at 25, 1 audio, 1 finding\n"));
    EXPECT_THAT(report("r.xml"),
                HasSubstr("packet 1000: 50001 bytes before it, from byte 188000 of the file on, "
                          "are no packets"));
    const std::string rate = VerifierXml(directory.path("r.xml").c_str()).getTransportRate();
    summary(good);
    EXPECT_EQ(rate, VerifierXml(directory.path("r.xml").c_str()).getTransportRate()) << "of packets alone";
    std::vector<unsigned char> fewer = good;
    fewer.erase(fewer.begin() + 188 * 1000 + 50, fewer.begin() + 188 * 1000 + 121);
    EXPECT_THAT(summary(fewer), HasSubstr("75 frames, 00:00:03:00, "));
    EXPECT_THAT(report("r.xml"), HasSubstr("<Kind name=\"sync\" count=\"1\" />"));
    EXPECT_THAT(report("r.xml"), HasSubstr("packet 1000: 117 bytes before it"))
        << "the packet that was cut is none";
}

TEST_F(FlowScope, AFileThatEndsWithinAPacketIsFound) {
    const std::vector<unsigned char> good = bytesOfFile(streamFile("m2_sd_25"));
    const std::size_t packets = good.size() / 188;
    for (const std::size_t missing : {1U, 88U, 186U, 187U}) {
        const std::string file =
            directory.file("in.ts", std::string(good.begin(), good.end() - static_cast<long>(missing)));
        ASSERT_EQ(run(file, {"-report_name", "r.xml"}), 0);
        EXPECT_THAT(report("r.xml"), HasSubstr("<Findings count=\"1\">"));
        EXPECT_THAT(report("r.xml"), HasSubstr("<Kind name=\"cut packet\" count=\"1\" />"));
        const std::string pid =
            missing > 185
                ? ""
                : ", PID " + std::to_string((good[good.size() - 187] & 0x1F) << 8 | good[good.size() - 186]);
        EXPECT_THAT(report("r.xml"), HasSubstr("text=\"packet " + std::to_string(packets - 1) + pid +
                                               ": the file ends within it, behind " +
                                               std::to_string(188 - missing) + " of its 188 bytes\""));
        // A pass that does not read up to there does not know.
        ASSERT_EQ(run(file, {"-report_name", "r.xml", "-duration", "1"}), 0);
        EXPECT_THAT(report("r.xml"), Not(HasSubstr("cut packet")));
    }
    // What does not begin like a packet is none that was cut.
    ASSERT_EQ(run(directory.file("in.ts", std::string(good.begin(), good.end()) + "rest"),
                  {"-report_name", "r.xml"}),
              0);
    EXPECT_THAT(report("r.xml"),
                HasSubstr("kind=\"sync\" text=\"packet " + std::to_string(packets) + ": 4 bytes before it"));
    EXPECT_THAT(report("r.xml"), Not(HasSubstr("cut packet")));
}

TEST_F(FlowScope, HostileStreamsEnd) {
    const std::vector<unsigned char> good = bytesOfFile(streamFile("m2_four_audios"));
    std::mt19937 random(42);
    for (int round = 0; round < 15; ++round) {
        std::string bytes(good.begin(), good.end());
        for (int i = 0; i < 3000 * (round + 1); ++i) {
            // Sync bytes too, but for the ones by which a transport stream is recognised.
            const std::size_t at = random() % bytes.size();
            if (at % 188 != 0 || at > 10'000)
                bytes[at] = static_cast<char>(random());
        }
        const int code = run(directory.file("wild.ts", bytes), {"-report_name", "r.xml"});
        EXPECT_TRUE(code == 0 || code == 1) << code << errors();
        if (code == 0) {
            EXPECT_TRUE(VerifierXml(directory.path("r.xml").c_str()).loaded);
        }
        std::filesystem::remove(directory.path("r.xml"));
    }
}

TEST_F(FlowScope, ACutFileIsReadAsFarAsItGoes) {
    const std::vector<unsigned char> good = bytesOfFile(streamFile("m2_sd_25"));
    for (std::size_t length = 188 * 4; length < good.size(); length += good.size() / 9) {
        const int code =
            run(directory.file("cut.ts", std::string(good.begin(), good.begin() + static_cast<long>(length))),
                {"-report_name", "r.xml"});
        EXPECT_EQ(code, 0) << length << errors();
    }
}

TEST_F(FlowScope, TellsTheServiceHowItGoes) {
    ServiceQueues queues;
    ASSERT_EQ(run(streamFile("m2_sd_25"), {"-out_queue_name", queues.updateName(), "-in_queue_name",
                                           queues.managerName(), "-report_name", "r.xml"}),
              0);
    while (queues.receive(std::chrono::milliseconds(0))) {
    }
    const auto& messages = queues.received();
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_EQ(messages[0].type, STATUS_MSG);
    EXPECT_EQ(messages[1].type, RESULTS_MSG);
    EXPECT_THAT(messages[1].text, HasSubstr("75 frames"));
    EXPECT_EQ(messages[2].type, EXIT_MSG);
}

TEST_F(FlowScope, TellsTheServiceWhyItFailed) {
    ServiceQueues queues;
    EXPECT_EQ(run(directory.file("empty.ts", ""),
                  {"-out_queue_name", queues.updateName(), "-in_queue_name", queues.managerName()}),
              1);
    while (queues.receive(std::chrono::milliseconds(0))) {
    }
    ASSERT_EQ(queues.received().size(), 3U);
    EXPECT_EQ(queues.received()[1].text, directory.path("empty.ts") + ": is empty");
}

TEST_F(FlowScope, ACancelMessageEndsItWithoutAReport) {
    ServiceQueues queues;
    queues.send(CANCEL_MSG);
    EXPECT_EQ(run(streamFile("m2_sd_25"),
                  {"-out_queue_name", queues.updateName(), "-in_queue_name", queues.managerName()}),
              1);
    EXPECT_THAT(errors(), HasSubstr("cancelled: no report is written"));
    EXPECT_EQ(filesBeside(), 0U);
}

// A file of many gigabytes that takes no room: a real beginning, and packets of zeros behind it, of which
// none is a packet. It is read for as long as a test wants to watch.
std::string endless(const ScratchDir& directory) {
    const std::vector<unsigned char> good = bytesOfFile(streamFile("m2_sd_25"));
    std::string path = directory.file("endless.ts", std::string(good.begin(), good.end()));
    EXPECT_EQ(truncate(path.c_str(), off_t{1} << 38), 0);
    return path;
}

TEST_F(FlowScope, EveryFiveSecondsItSaysThatItLivesAndHowFarItIs) {
    ServiceQueues queues;
    const auto begun = std::chrono::steady_clock::now();
    start(endless(directory),
          {"-out_queue_name", queues.updateName(), "-in_queue_name", queues.managerName()});
    for (int messages = 0; messages < 5; ++messages)
        ASSERT_TRUE(queues.receive(std::chrono::seconds(30)));
    const auto passed = std::chrono::steady_clock::now() - begun;
    kestrel::test::signalTo(process, SIGTERM);
    EXPECT_EQ(finish(), 1);
    const auto& messages = queues.received();
    const AppMsgType order[] = {STATUS_MSG, STATUS_MSG, RESULTS_MSG, STATUS_MSG, RESULTS_MSG};
    for (std::size_t i = 0; i < std::size(order); ++i)
        EXPECT_EQ(messages[i].type, order[i]) << i;
    EXPECT_THAT(messages[2].text, testing::ContainsRegex("endless.ts: [0-9]+ % read$"));
    EXPECT_GE(passed, std::chrono::milliseconds(9900)) << "twice";
    EXPECT_THAT(errors(), HasSubstr("cancelled: no report is written"));
    EXPECT_EQ(filesBeside(), 0U);
}

TEST_F(FlowScope, SignalsEndItWithoutAReport) {
    const std::string file = endless(directory);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ServiceQueues queues;
        start(file, {"-out_queue_name", queues.updateName()});
        ASSERT_TRUE(queues.receive(std::chrono::seconds(30))) << "it reads";
        kestrel::test::signalTo(process, signal);
        EXPECT_EQ(finish(), 1);
        EXPECT_EQ(errors(), "flowScope: " + file + ": cancelled: no report is written\n");
        EXPECT_EQ(filesBeside(), 0U);
    }
}

TEST_F(FlowScope, ASighupThatIsIgnoredStaysSo) {
    const auto former = std::signal(SIGHUP, SIG_IGN); // as nohup does
    hangupIgnored = true;
    ServiceQueues queues;
    start(endless(directory), {"-out_queue_name", queues.updateName()});
    std::signal(SIGHUP, former);
    ASSERT_TRUE(queues.receive(std::chrono::seconds(30))) << "it reads";
    kestrel::test::signalTo(process, SIGHUP);
    ASSERT_TRUE(queues.receive(std::chrono::seconds(30))) << "it goes on";
    EXPECT_EQ(queues.received().back().type, STATUS_MSG);
    kestrel::test::signalTo(process, SIGTERM);
    EXPECT_EQ(finish(), 1);
}

TEST_F(FlowScope, ACancelMessageEndsItInMidPass) {
    ServiceQueues queues;
    start(endless(directory),
          {"-out_queue_name", queues.updateName(), "-in_queue_name", queues.managerName()});
    ASSERT_TRUE(queues.receive(std::chrono::seconds(30))) << "it reads";
    queues.send(CANCEL_MSG);
    EXPECT_EQ(finish(), 1);
    while (queues.receive(std::chrono::milliseconds(0))) {
    }
    const auto& messages = queues.received();
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_THAT(messages[1].text, HasSubstr("cancelled: no report is written"));
    EXPECT_EQ(messages[2].type, EXIT_MSG);
    EXPECT_EQ(filesBeside(), 0U);
}

} // namespace
