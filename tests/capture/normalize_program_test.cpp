// The real worker on real files: a normalise job from its settings to its exit code.
#include "capture/normalize_streams.h"
#include "capture/worker_process.h"
#include "foundation/Bytes.h"
#include "foundation/ErrorCodes.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace capture_test;
using kestrel::test::Ffprobe;
using kestrel::test::readGops;
using kestrel::test::streamFile;
using kestrel::test::StreamFixture;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

class Job : public Worker {
public:
    explicit Job(const std::string& source) {
        settings.cmd.jobType = CSettings::JOB_MPEG_NORMALIZE;
        std::snprintf(settings.cmd.sourceFile, sizeof settings.cmd.sourceFile, "%s", source.c_str());
        setOutput(path("out/clean.ts"));
    }
    void setOutput(const std::string& name) {
        std::snprintf(settings.cmd.outputFile, sizeof settings.cmd.outputFile, "%s", name.c_str());
    }
    std::string output() const { return settings.cmd.outputFile; }
    // Runs it to its end.
    int run() {
        start();
        return wait(std::chrono::seconds(60));
    }
};

void write(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Stream, timestamps, size and flags of every frame, in the order of the file.
std::vector<std::string> frames(const std::string& file) {
    return Ffprobe(file).run("-show_entries packet=stream_index,pts,dts,size,flags -of csv=p=0");
}

std::vector<std::string> streams(const std::string& file) {
    return Ffprobe(file).run(
        "-show_entries stream=index,id,codec_name,width,height,r_frame_rate -of csv=p=0");
}

int framesOf(const std::string& timecode, bool drop, int base) {
    int h = 0;
    int m = 0;
    int s = 0;
    int f = 0;
    char sign = 0;
    std::sscanf(timecode.c_str(), "%d:%d:%d%c%d", &h, &m, &s, &sign, &f);
    const int minutes = h * 60 + m;
    const int dropped = drop ? base / 15 * (minutes - minutes / 10) : 0;
    return (minutes * 60 + s) * base + f - dropped;
}

class EveryFixture : public testing::TestWithParam<StreamFixture> {};

TEST_P(EveryFixture, ComesOutWithTheSameFramesAndClean) {
    const StreamFixture& fixture = GetParam();
    const std::string source = streamFile(fixture.name);
    Job job(source);
    ASSERT_EQ(job.run(), 0) << job.log();
    const Packets packets = readPackets(job.output());

    EXPECT_EQ(frames(job.output()), frames(source));
    EXPECT_EQ(streams(job.output()), streams(source));
    EXPECT_EQ(pcrs(packets, fixture.videoPid), pcrs(readPackets(source), fixture.videoPid));

    EXPECT_EQ(brokenCounters(packets), 0);
    EXPECT_EQ(continuityErrors(packets), 0);
    EXPECT_LE(longestTableGap(packets, 0, fixture.videoPid), 100);
    EXPECT_LE(longestTableGap(packets, fixture.pmtPid, fixture.videoPid), 100);

    const auto before = readGops(source, fixture.videoPid);
    const auto after = readGops(job.output(), fixture.videoPid);
    ASSERT_EQ(after.size(), before.size());
    const bool mpeg2 = std::string(fixture.codec) == "mpeg2video";
    ASSERT_EQ(mpeg2, !before.empty());
    constexpr int bases[] = {0, 24, 24, 25, 30, 30, 50, 60, 60};
    const int base = bases[fixture.rateCode];
    for (std::size_t i = 0; i < before.size(); ++i) {
        const bool drop = before[0].drop;
        EXPECT_EQ(after[i].drop, drop);
        EXPECT_EQ(after[i].closed, before[i].closed);
        EXPECT_EQ(framesOf(after[i].text(), drop, base),
                  framesOf(before[i].text(), drop, base) - framesOf(before[0].text(), drop, base))
            << before[i].text() << " became " << after[i].text();
    }
    if (mpeg2) {
        EXPECT_EQ(framesOf(after[0].text(), after[0].drop, base), 0);
    }

    const auto pictures = Ffprobe(source).packets("v:0").size();
    EXPECT_THAT(job.results(), StartsWith("Normalized 00:00:0"));
    EXPECT_THAT(job.results(), HasSubstr(" (" + std::to_string(pictures) + " frames, "));
    EXPECT_THAT(job.results(), HasSubstr(" continuity counters renumbered, 0 null packets dropped, "));
    EXPECT_THAT(job.results(), testing::Not(HasSubstr("errors")));
}

INSTANTIATE_TEST_SUITE_P(NormalizeProgram, EveryFixture, testing::ValuesIn(kestrel::test::streamFixtures()),
                         [](const auto& fixture) { return std::string(fixture.param.name); });

INSTANTIATE_TEST_SUITE_P(NormalizeUntimed, EveryFixture,
                         testing::ValuesIn(kestrel::test::untimedStreamFixtures()),
                         [](const auto& fixture) { return std::string(fixture.param.name); });

TEST(NormalizeProgram, TakesKeepOrDropForNullPacketsAndNothingElse) {
    Job job(streamFile("m2_sd_25"));
    job.extraOptions = {"-nulls", "perhaps"};
    EXPECT_EQ(job.run(), 2);
    EXPECT_FALSE(std::filesystem::exists(job.output()));
}

TEST(NormalizeProgram, KeepsAllProgramsOfAMultiplex) {
    const std::string source = kestrel::test::makeStream(
        "two_programs",
        "-f lavfi -i testsrc2=size=352x288:rate=25 -f lavfi -i sine=frequency=440:sample_rate=48000 -t 3 "
        "-map 0 -map 1 -map 0 -map 1 -c:v mpeg2video -b:v 2000k -g 12 -timecode 10:00:00:00 -c:a ac3 -b:a "
        "192k "
        "-program title=one:st=0:st=1 -program title=two:st=2:st=3");
    Job job(source);
    ASSERT_EQ(job.run(), 0) << job.log();
    EXPECT_EQ(frames(job.output()), frames(source));
    const Packets packets = readPackets(job.output());
    EXPECT_EQ(brokenCounters(packets), 0);
    for (const int video : {0x100, 0x102}) {
        const auto gops = readGops(job.output(), video);
        ASSERT_FALSE(gops.empty()) << video;
        EXPECT_EQ(gops.front().text(), "00:00:00:00");
        EXPECT_LE(longestTableGap(packets, 0, video), 100);
    }
    EXPECT_LE(longestTableGap(packets, 0x1000, 0x100), 100);
    EXPECT_LE(longestTableGap(packets, 0x1001, 0x102), 100);
}

TEST(NormalizeProgram, DropsTheNullPacketsOfAConstantRateUnlessToldToKeepThem) {
    const std::string source = kestrel::test::makeStream(
        "constant_rate",
        "-f lavfi -i testsrc2=size=352x288:rate=25 -t 3 -c:v mpeg2video -b:v 1500k -maxrate 1500k "
        "-bufsize 1000k -g 12 -muxrate 4000000");
    const Packets before = readPackets(source);
    const auto nulls = [](const Packets& packets) {
        return std::count_if(packets.begin(), packets.end(),
                             [](const Packet& packet) { return pid(packet) == 0x1FFF; });
    };
    ASSERT_GT(nulls(before), 1000);

    Job drops(source);
    ASSERT_EQ(drops.run(), 0) << drops.log();
    EXPECT_EQ(nulls(readPackets(drops.output())), 0);
    EXPECT_EQ(frames(drops.output()), frames(source));
    EXPECT_THAT(drops.results(), HasSubstr(" " + std::to_string(nulls(before)) + " null packets dropped"));
    EXPECT_LE(longestTableGap(readPackets(drops.output()), 0, 0x100), 100);

    Job keeps(source);
    keeps.extraOptions = {"-nulls", "keep"};
    ASSERT_EQ(keeps.run(), 0) << keeps.log();
    EXPECT_EQ(nulls(readPackets(keeps.output())), nulls(before));
    EXPECT_EQ(frames(keeps.output()), frames(source));
    EXPECT_THAT(keeps.results(), HasSubstr(" 0 null packets dropped"));
}

// As from an encoder whose stream was switched to, or a file that was cut without care.
TEST(NormalizeProgram, BeginsWithTheTablesThatTheSourceWasCutBehind) {
    const std::string whole = kestrel::test::makeStream(
        "sparse_tables", "-f lavfi -i testsrc2=size=352x288:rate=25 -f lavfi -i "
                         "sine=frequency=440:sample_rate=48000 -t 3 -c:v mpeg2video -b:v 1500k -maxrate "
                         "1500k -bufsize 1000k -g 12 -c:a ac3 -b:a 192k -muxrate 4000000 -pat_period 0.5");
    Packets cut = readPackets(whole);
    const auto isTable = [](const Packet& packet) { return pid(packet) == 0 || pid(packet) == 0x1000; };
    const auto tables = std::find_if(cut.begin(), cut.end(), isTable);
    ASSERT_TRUE(tables != cut.end());
    const auto picture = std::find_if(
        tables, cut.end(), [](const Packet& packet) { return pid(packet) == 0x100 && (packet[1] & 0x40); });
    cut.erase(cut.begin(), picture);
    for (const bool keepNulls : {false, true}) {
        SCOPED_TRACE(keepNulls);
        Job job("");
        const std::string source = job.path("cut.ts");
        write(source, joined(cut));
        std::snprintf(job.settings.cmd.sourceFile, 260, "%s", source.c_str());
        if (keepNulls)
            job.extraOptions = {"-nulls", "keep"};
        ASSERT_EQ(job.run(), 0) << job.log();
        const Packets packets = readPackets(job.output());
        EXPECT_EQ(pid(packets.at(0)), 0);
        EXPECT_EQ(pid(packets.at(1)), 0x1000);
        EXPECT_EQ(brokenCounters(packets), 0);
        EXPECT_LE(longestTableGap(packets, 0, 0x100), 100);
        EXPECT_EQ(frames(job.output()), frames(source));
        EXPECT_EQ(pcrs(packets, 0x100), pcrs(cut, 0x100));
    }
}

TEST(NormalizeProgram, TellsWhatWasWrongWithTheSource) {
    Packets packets = readPackets(streamFile("m2_sd_25"));
    packets[200][1] |= 0x80;
    packets.erase(packets.begin() + 300);
    Bytes bytes = joined(packets);
    bytes.insert(bytes.begin() + 188 * 500, 33, 0x12);
    Job job("");
    const std::string source = job.path("faulty.ts");
    write(source, bytes);
    std::snprintf(job.settings.cmd.sourceFile, 260, "%s", source.c_str());
    ASSERT_EQ(job.run(), 0) << job.log();
    EXPECT_EQ(brokenCounters(readPackets(job.output())), 0);
    EXPECT_THAT(job.results(),
                HasSubstr(", 2 continuity errors in the source, 1 packet with transport errors "
                          "dropped, 33 bytes between packets dropped"));
    EXPECT_THAT(job.log(), HasSubstr("packet 200 dropped: transport error, PID "));
    EXPECT_THAT(job.log(), HasSubstr("continuity error of the source at packet 300: expected "));
}

TEST(NormalizeProgram, TellsTheServiceHowFarItIs) {
    const std::string source = streamFile("m2_sd_2997_drop");
    Job job(source);
    ASSERT_EQ(job.run(), 0) << job.log();
    const auto& messages = job.queues.received();
    ASSERT_GE(messages.size(), 4U);
    EXPECT_EQ(messages.front().type, STATUS_MSG);
    EXPECT_EQ(messages.back().type, EXIT_MSG);
    EXPECT_EQ(messages[messages.size() - 2].type, RESULTS_MSG);
    const Message& last = messages[messages.size() - 3];
    ASSERT_EQ(last.type, CAPTURE_STATUS_MSG);
    _CaptureJobStatusData status{};
    ASSERT_EQ(last.payload.size(), sizeof status);
    std::memcpy(&status, last.payload.data(), sizeof status);
    EXPECT_EQ(status.encoderIndex, 0);
    EXPECT_EQ(status.frames, Ffprobe(source).packets("v:0").size());
    EXPECT_EQ(status.dropFrame, 1);
    EXPECT_EQ(status.frameRateCode, 4U);
    EXPECT_EQ(status.statusNumber1, 0U);
    EXPECT_EQ(status.statusNumber2, std::filesystem::file_size(job.output()));
}

// A file that takes long: hours of a stream, of which only the beginning takes room on the disk.
std::string longSource(const Job& job, std::uint64_t bytes = 40'000'000'000) {
    const std::string source = job.path("long.ts");
    write(source, bytesOfFile(streamFile("m2_sd_25")));
    const Bytes nothing = joined(Packets(5000, nullPacket()));
    std::ofstream file(source, std::ios::binary | std::ios::app);
    for (int i = 0; i < 100; ++i)
        file.write(reinterpret_cast<const char*>(nothing.data()),
                   static_cast<std::streamsize>(nothing.size()));
    file.close();
    std::filesystem::resize_file(source, bytes);
    return source;
}

TEST(NormalizeProgram, EndsWithTheCancelMessageAndKeepsWhatIsWritten) {
    Job job("");
    const std::string source = longSource(job);
    std::snprintf(job.settings.cmd.sourceFile, 260, "%s", source.c_str());
    job.start();
    job.waitForLog("Normalizing ");
    job.queues.send(CANCEL_MSG);
    EXPECT_EQ(job.wait(std::chrono::seconds(20)), 0) << job.log();
    EXPECT_THAT(job.results(), StartsWith("Cancelled"));
    EXPECT_THAT(job.log(), HasSubstr("Cancelled by the service"));
    if (std::filesystem::exists(job.output())) {
        EXPECT_EQ(brokenCounters(readPackets(job.output())), 0);
    }
}

TEST(NormalizeProgram, RunByHandItEndsWithSigterm) {
    Job job("");
    job.useQueues = false;
    const std::string source = longSource(job);
    std::snprintf(job.settings.cmd.sourceFile, 260, "%s", source.c_str());
    job.start();
    job.waitForLog("Normalizing ");
    job.signal(SIGTERM);
    EXPECT_EQ(job.wait(std::chrono::seconds(20)), 0) << job.log();
    EXPECT_THAT(job.log(), HasSubstr("Cancelled by a signal"));
}

// Killed in the middle, the file is a transport stream as far as it goes.
TEST(NormalizeProgram, KilledItLeavesATransportStream) {
    Job job("");
    Bytes clip = bytesOfFile(streamFile("m2_hd_25"));
    const std::string source = job.path("source.ts");
    std::ofstream file(source, std::ios::binary);
    for (int i = 0; i < 60; ++i)
        file.write(reinterpret_cast<const char*>(clip.data()), static_cast<std::streamsize>(clip.size()));
    file.close();
    std::snprintf(job.settings.cmd.sourceFile, 260, "%s", source.c_str());
    job.start();
    std::error_code error;
    while (std::filesystem::file_size(job.output(), error) < 1'000'000 || error)
        ASSERT_EQ(job.log().find("Error"), std::string::npos);
    job.signal(SIGKILL);
    EXPECT_EQ(job.wait(), 128 + SIGKILL);
    const Packets left = readPacketsOfKilled(job.output());
    EXPECT_GT(left.size() * 188, 900'000u);
    EXPECT_EQ(brokenCounters(left), 0);
}

TEST(NormalizeProgram, RefusesAJobWithoutSourceOrOutput) {
    Job sourceless("");
    EXPECT_EQ(sourceless.run(), 1);
    EXPECT_EQ(sourceless.results(), LOG_MSG(kestrel::error::sourceFileNotSpecified));
    Job aimless(streamFile("m2_sd_25"));
    aimless.setOutput("");
    EXPECT_EQ(aimless.run(), 1);
    EXPECT_EQ(aimless.results(), LOG_MSG(kestrel::error::outputFileNotSpecified));
}

TEST(NormalizeProgram, TellsThatTheSourceCannotBeRead) {
    Job job("/nowhere/at/all.ts");
    EXPECT_EQ(job.run(), 1);
    EXPECT_EQ(job.results(),
              "Error: Unable to open input file /nowhere/at/all.ts. (No such file or directory (errno 2))");
    EXPECT_FALSE(std::filesystem::exists(job.output()));
    Job device("/dev/zero");
    EXPECT_EQ(device.run(), 1);
    EXPECT_EQ(device.results(), "Error: Unable to open input file /dev/zero. (not a regular file)");
    Job pipe("");
    ASSERT_EQ(mkfifo(pipe.path("pipe").c_str(), 0600), 0);
    std::snprintf(pipe.settings.cmd.sourceFile, 260, "%s", pipe.path("pipe").c_str());
    EXPECT_EQ(pipe.run(), 1);
    EXPECT_THAT(pipe.results(), HasSubstr("(not a regular file)"));
}

// A source of these bytes is refused with this text, and nothing is written.
void expectRefused(const Bytes& bytes, const std::string& text) {
    Job job("");
    const std::string source = job.path("source.ts");
    write(source, bytes);
    std::snprintf(job.settings.cmd.sourceFile, 260, "%s", source.c_str());
    EXPECT_EQ(job.run(), 1);
    EXPECT_THAT(job.results(), StartsWith("Error:  "));
    EXPECT_THAT(job.results(), HasSubstr(", Soure file does not appear to have proper transport stream"));
    EXPECT_THAT(job.results(), HasSubstr(text));
    EXPECT_FALSE(std::filesystem::exists(job.output()));
}

TEST(NormalizeProgram, RefusesWhatIsNoTransportStream) {
    expectRefused({}, "is empty)");
    expectRefused(Bytes(10'000, 'x'), "no transport packets)");
    expectRefused(Bytes(3'000'000, 0), "no transport packets)");
    expectRefused(joined(Packets(1000, nullPacket())), "(no packets but null packets)");
}

TEST(NormalizeProgram, RefusesPacketsOf192And204BytesAndSaysSo) {
    const Packets packets = readPackets(streamFile("m2_no_audio"));
    Bytes timestamped;
    Bytes protectedBytes;
    for (const Packet& packet : packets) {
        timestamped.insert(timestamped.end(), 4, 0);
        timestamped.insert(timestamped.end(), packet.begin(), packet.end());
        protectedBytes.insert(protectedBytes.end(), packet.begin(), packet.end());
        protectedBytes.insert(protectedBytes.end(), 16, 0);
    }
    expectRefused(timestamped, "its packets have 192 bytes)");
    expectRefused(protectedBytes, "its packets have 204 bytes)");
}

TEST(NormalizeProgram, KeepsAnExistingFileUnlessToldToReplaceIt) {
    Job job(streamFile("m2_sd_25"));
    std::filesystem::create_directories(job.path("out"));
    std::ofstream(job.output()) << "precious";
    EXPECT_EQ(job.run(), 1);
    EXPECT_EQ(job.results(),
              std::string(LOG_MSG(kestrel::error::fileAlreadyExists)) + " (" + job.output() + ")");
    EXPECT_EQ(readText(job.output()), "precious");

    Job replacing(streamFile("m2_sd_25"));
    std::filesystem::create_directories(replacing.path("out"));
    std::ofstream(replacing.output()) << "old";
    replacing.extraOptions = {"-overwrite"};
    EXPECT_EQ(replacing.run(), 0) << replacing.log();
    EXPECT_EQ(frames(replacing.output()), frames(streamFile("m2_sd_25")));
}

// By whatever name, and even when files may be replaced.
TEST(NormalizeProgram, NeverWritesOntoItsSource) {
    for (const char* way : {"same", "symbolic", "hard"}) {
        Job job("");
        const std::string source = job.path("source.ts");
        const Bytes bytes = bytesOfFile(streamFile("m2_sd_25"));
        write(source, bytes);
        std::snprintf(job.settings.cmd.sourceFile, 260, "%s", source.c_str());
        const std::string other = job.path("other.ts");
        if (way == std::string("same"))
            job.setOutput(source);
        else
            job.setOutput(other);
        if (way == std::string("symbolic"))
            std::filesystem::create_symlink(source, other);
        if (way == std::string("hard"))
            std::filesystem::create_hard_link(source, other);
        job.extraOptions = {"-overwrite"};
        EXPECT_EQ(job.run(), 1) << way;
        EXPECT_EQ(job.results(),
                  "Error: Invalid path and file combination. (the output file is the source file)");
        EXPECT_EQ(bytesOfFile(source), bytes) << way;
    }
}

TEST(NormalizeProgram, StaysInACaptureDirectoryThatIsLocked) {
    Job job(streamFile("m2_sd_25"));
    job.setOutput(job.path("elsewhere.ts"));
    job.settings.numEncoders = 1;
    job.settings.encoders[0].lockMainCaptureDirectory = true;
    std::snprintf(job.settings.encoders[0].mainCaptureDirectory, 260, "%s", job.path("media").c_str());
    EXPECT_EQ(job.run(), 1);
    EXPECT_THAT(job.results(), HasSubstr("elsewhere.ts is outside "));
    EXPECT_FALSE(std::filesystem::exists(job.path("elsewhere.ts")));
}

TEST(NormalizeProgram, TakesARelativeNameInTheCaptureDirectory) {
    Job job(streamFile("m2_sd_25"));
    job.setOutput("clean.ts");
    job.settings.numEncoders = 1;
    std::snprintf(job.settings.encoders[0].mainCaptureDirectory, 260, "%s", job.path("media").c_str());
    ASSERT_EQ(job.run(), 0) << job.log();
    EXPECT_TRUE(std::filesystem::exists(job.path("media/clean.ts")));
}

TEST(NormalizeProgram, EndsAtTheSizeThatTheSourceHadWhenItWasOpened) {
    Job job("");
    const std::string source = job.path("growing.ts");
    const Bytes clip = bytesOfFile(streamFile("m2_hd_25"));
    Bytes bytes;
    for (int i = 0; i < 20; ++i)
        bytes.insert(bytes.end(), clip.begin(), clip.end());
    write(source, bytes);
    std::snprintf(job.settings.cmd.sourceFile, 260, "%s", source.c_str());
    job.start();
    job.waitForLog("Normalizing ");
    std::ofstream(source, std::ios::binary | std::ios::app)
        .write(reinterpret_cast<const char*>(clip.data()), static_cast<std::streamsize>(clip.size()));
    ASSERT_EQ(job.wait(), 0) << job.log();
    EXPECT_THAT(job.results(), HasSubstr(" (" + std::to_string(20 * 75) + " frames, "));
}

// In a mount namespace of a child of this process, so that nothing of the host changes.
int onASmallDisk(const std::string& directory, const std::function<int()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("small", directory.c_str(), "tmpfs", 0, "size=256k") != 0)
            _exit(77);
        _exit(work());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

TEST(NormalizeProgram, OnAFullDiskKeepsWholePacketsAndFails) {
    const std::string source = streamFile("m2_sd_25");
    TemporaryDirectory directory;
    const std::string small = directory.path("small");
    std::filesystem::create_directories(small);
    const int result = onASmallDisk(small, [&] {
        Job job(source);
        job.setOutput(small + "/clean.ts");
        const int code = job.run();
        std::error_code error;
        const auto size = std::filesystem::file_size(small + "/clean.ts", error);
        if (code != 1)
            return 1;
        if (job.results().find("Error: Disk Full.  Ending Capture. Normalized ") != 0)
            return 2;
        return !error && size > 100'000 && size % 188 == 0 ? 0 : 3;
    });
    if (result == 77)
        GTEST_SKIP() << "needs the right to mount in a namespace of its own";
    EXPECT_EQ(result, 0);
}

} // namespace
