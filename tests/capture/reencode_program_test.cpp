// Re-encodes with the real worker: a decoder and an encoder on loopback that return what they are sent, as it
// is or encoded anew by ffmpeg.
#include "capture/normalize_streams.h"
#include "capture/worker_process.h"
#include "foundation/ErrorCodes.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>

using namespace capture_test;
using kestrel::test::readGops;
using kestrel::test::streamFile;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

kestrel::UniqueFd boundSocket(int& port) {
    kestrel::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
    const int bytes = 8 << 20;
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
        ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    return fd;
}

// A decoder with an encoder behind it.
class Equipment {
public:
    struct Behaviour {
        std::string encode;               // ffmpeg's options; empty: returns every packet as it came
        std::size_t mostBytes = SIZE_MAX; // returns no more
    };

    Equipment(int encoderPort, Behaviour behaviour)
        : m_behaviour(std::move(behaviour)), m_stop(::eventfd(0, EFD_CLOEXEC)) {
        m_socket = boundSocket(m_port);
        if (m_behaviour.encode.empty()) {
            m_out.emplace("127.0.0.1", encoderPort);
        } else {
            const std::string command =
                "ffmpeg -v fatal -f mpegts -probesize 100000 -i pipe:0 " + m_behaviour.encode +
                " -f mpegts 'udp://127.0.0.1:" + std::to_string(encoderPort) + "?pkt_size=1316'";
            m_pipe = ::popen(command.c_str(), "we");
            EXPECT_NE(m_pipe, nullptr);
        }
        m_thread = std::thread([this] { run(); });
    }
    ~Equipment() { stop(); }
    Equipment(const Equipment&) = delete;
    Equipment& operator=(const Equipment&) = delete;

    int port() const { return m_port; }
    std::size_t received() const { return m_received; }
    // The last that is still inside comes out.
    void stop() {
        if (!m_thread.joinable())
            return;
        ::eventfd_write(m_stop.get(), 1);
        m_thread.join();
        if (m_pipe)
            ::pclose(m_pipe);
        m_pipe = nullptr;
    }

private:
    void run() {
        Bytes buffer(65536);
        std::size_t returned = 0;
        for (;;) {
            pollfd waits[] = {{m_socket.get(), POLLIN, 0}, {m_stop.get(), POLLIN, 0}};
            ::poll(waits, 2, -1);
            if (!waits[0].revents && waits[1].revents)
                return;
            if (!waits[0].revents)
                continue;
            const ssize_t got = ::recv(m_socket.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (got <= 0)
                continue;
            m_received += static_cast<std::size_t>(got);
            if (returned + static_cast<std::size_t>(got) > m_behaviour.mostBytes)
                continue;
            returned += static_cast<std::size_t>(got);
            if (m_pipe) {
                std::fwrite(buffer.data(), 1, static_cast<std::size_t>(got), m_pipe);
                std::fflush(m_pipe);
            } else {
                m_out->sendRaw(Bytes(buffer.begin(), buffer.begin() + got));
            }
        }
    }

    Behaviour m_behaviour;
    kestrel::UniqueFd m_stop;
    kestrel::UniqueFd m_socket;
    int m_port = 0;
    std::optional<Sender> m_out;
    FILE* m_pipe = nullptr;
    std::atomic<std::size_t> m_received{0};
    std::thread m_thread;
};

class Job : public Worker {
public:
    explicit Job(const std::string& source, int type = CSettings::JOB_TIMED_REENCODE) {
        settings.cmd.jobType = type;
        std::snprintf(settings.cmd.sourceFile, sizeof settings.cmd.sourceFile, "%s", source.c_str());
        encoderPort = addEncoder();
        settings.decoder.ipAddress = 0x7F000001;
    }
    void marks(const char* in, const char* out) {
        std::snprintf(settings.cmd.markInTime, sizeof settings.cmd.markInTime, "%s", in);
        std::snprintf(settings.cmd.markOutTime, sizeof settings.cmd.markOutTime, "%s", out);
    }
    // Puts the equipment behind it.
    Equipment& equipment(Equipment::Behaviour behaviour = {}) {
        settings.decoder.port = m_equipment.emplace(encoderPort, std::move(behaviour)).port();
        return *m_equipment;
    }
    int run() {
        start();
        return wait(std::chrono::seconds(60));
    }
    std::string output() const { return path("out/news.ts"); }
    int encoderPort = 0;

private:
    std::optional<Equipment> m_equipment;
};

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
}

TEST(Reencode, NeverRecordsOntoItsSource) {
    for (const char* way : {"same", "symbolic", "hard"}) {
        Job job("");
        job.equipment();
        std::filesystem::create_directories(job.path("out"));
        const std::string source = way == std::string("same") ? job.output() : job.path("source.ts");
        std::filesystem::copy(streamFile("m2_sd_25"), source);
        const Packets before = readPackets(source);
        std::snprintf(job.settings.cmd.sourceFile, sizeof job.settings.cmd.sourceFile, "%s", source.c_str());
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
    Equipment& equipment =
        job.equipment({.encode = "-an -c:v libx264 -preset ultrafast -g 12 -vsync passthrough"});
    job.start();
    job.waitForLog("Played 75 frames");
    equipment.stop();
    EXPECT_EQ(job.wait(std::chrono::seconds(60)), 0) << job.log();
    EXPECT_THAT(job.results(), StartsWith("Recorded 00:00:03:00 (75 frames, "));
    EXPECT_EQ(kestrel::test::Ffprobe(job.output()).stream("v:0", "codec_name"), "h264");
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
    EXPECT_EQ(job.results(), "Error: Do not see MPEG transport stream for capture at IP address 127.0.0.1:" +
                                 std::to_string(job.encoderPort) + ".");
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
    const auto frames = kestrel::test::Ffprobe(job.output()).packets("v:0").size();
    EXPECT_GE(frames, 25U);
    EXPECT_LT(frames, 25U + 12 + 3);
}

// Its own timecodes begin at zero, so they say nothing.
TEST(Reencode, OfAMezzanineCountsFromTheFirstFramePlayedWhenTheEncoderHasNoTimecode) {
    Job job(streamFile("m2_sd_25"), CSettings::JOB_MEZZANINE);
    job.marks("10:00:01:00", "10:00:01:24");
    job.settings.vtr.vitcSupport = false;
    Equipment& equipment =
        job.equipment({.encode = "-an -c:v mpeg2video -b:v 2000k -g 12 -bf 0 -vsync passthrough"});
    job.start();
    job.waitForLog("Played ");
    equipment.stop();
    EXPECT_EQ(job.wait(std::chrono::seconds(60)), 0) << job.log();
    EXPECT_THAT(job.results(), HasSubstr(", marks counted from the first frame played"));
    const auto frames = kestrel::test::Ffprobe(job.output()).packets("v:0").size();
    EXPECT_GE(frames, 25U);
    EXPECT_LT(frames, 25U + 12);
    // The encoder's own count begins at the first frame played: mark-in is its frame 25.
    const auto first = readGops(job.output(), 0x100).front();
    const int number = first.seconds * 25 + first.frames;
    EXPECT_LE(number, 25) << first.text();
    EXPECT_GT(number, 25 - 12) << first.text();
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
