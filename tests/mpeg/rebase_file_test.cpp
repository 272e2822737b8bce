// Rebasing from file to file, held to the same done stage by stage.
#include "foundation/CapturedLog.h"
#include "foundation/ControllingTerminal.h"
#include "foundation/UniqueFd.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/gop_rebase.h"
#include "query_files.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::HasSubstr;

namespace {

constexpr std::size_t BLOCK = 65'536;

class FileAgainstStages : public Queries {
protected:
    struct Outcome {
        int result;
        std::string bytes;
    };

    std::string outPath() const { return directory.path("out.ts"); }

    // The order is what loses the tail: the stream is closed before the sink writes what it holds.
    Outcome stages(const std::string& in, const kestrel::RebasePlan& plan) const {
        const std::string path = directory.path("stages.ts");
        ts_file source(in.c_str());
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        auto sink = std::make_unique<file_packet_sink>(&out, false, 0);
        gop_rebase stage(VIDEO, sink.get(), plan.mode, plan.offset, 0);
        continuity_nazi checker;
        long index = 0;
        while (unsigned char* const packet = source.get_ts()) {
            if (!checker.packetIsCool(packet, true)) {
                sink.reset();
                out.close();
                return {-3, contentOf(path)};
            }
            stage.process(packet, index++);
        }
        stage.flush(index);
        out.close();
        sink.reset();
        return {0, contentOf(path)};
    }
    Outcome file(const std::string& in, const kestrel::RebasePlan& plan) const {
        const int result = kestrel::rebase_packets(in.c_str(), outPath().c_str(), VIDEO, plan, false);
        return {result, contentOf(outPath())};
    }
    void expectTheSame(const kestrel::RebasePlan& plan = {}) const {
        const std::string in = write();
        const Outcome expected = stages(in, plan);
        const Outcome found = file(in, plan);
        EXPECT_EQ(found.result, expected.result);
        ASSERT_EQ(found.bytes.size(), expected.bytes.size());
        EXPECT_TRUE(found.bytes == expected.bytes);
    }
    void others(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i)
            maker.packet(0x300, false, filler(184));
    }
    void firstGop() {
        maker.pes(VIDEO, pesHeader(1), sequenceHeader(720, 576, 3) + gopHeader(1, 2, 3, 4) + filler(100));
    }
    // argv of the command form.
    static int harness(std::vector<std::string> words) {
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        return gop_rebase::testHarness(static_cast<int>(argv.size()), argv.data());
    }
};

TEST_F(FileAgainstStages, OnStreamsOfAllShapes) {
    std::mt19937 random(13818);
    const auto chance = [&](unsigned of) { return random() % of == 0; };
    for (int round = 0; round < 40; ++round) {
        maker = TsMaker();
        Bytes stream;
        const std::size_t size = (300 + random() % 3000) * 188;
        while (stream.size() < size) {
            maker.bytes.clear();
            Bytes payload = filler(random() % 185);
            for (int i = 0; i < 3 && payload.size() >= 12; ++i) {
                const Bytes header =
                    chance(2) ? gopHeader(static_cast<int>(random() % 24), static_cast<int>(random() % 60),
                                          static_cast<int>(random() % 60), static_cast<int>(random() % 25))
                              : sequenceHeader(720, 576, static_cast<int>(random() % 16));
                // Also across the end: the rest may be in the next packet, or not.
                const std::size_t at = random() % payload.size();
                std::copy_n(header.begin(), std::min(header.size(), payload.size() - at),
                            payload.begin() + static_cast<long>(at));
            }
            const int pid = chance(3) ? VIDEO : chance(2) ? 0x300 : 0x301;
            maker.packet(pid, chance(3), payload);
            // An adaptation field that overruns its packet, now and then.
            if (chance(50)) {
                unsigned char* const last = maker.bytes.data() + maker.bytes.size() - 188;
                last[3] |= 0x20;
                last[4] = static_cast<unsigned char>(random());
            }
            stream.insert(stream.end(), maker.bytes.begin(), maker.bytes.end());
        }
        maker.bytes = stream;
        if (chance(3))
            maker.skipCounter(chance(2) ? VIDEO : 0x300)
                .packet(0x300, true, filler(9))
                .packet(VIDEO, true, filler(9));
        maker.bytes.resize(maker.bytes.size() - (chance(2) ? random() % 188 : 0));
        SCOPED_TRACE(round);
        expectTheSame({static_cast<int>(random() % 4),
                       mpeg_timecode(0, static_cast<int>(random() % 60), 7, 3, false, 3), 0});
    }
}

TEST_F(FileAgainstStages, OnAVideoPidThatFallsSilent) {
    // What waits is let go at the limit: a GOP that comes with the next video packet is then too late.
    for (const std::size_t waiting :
         {unibuffer::max_intervening - 1, unibuffer::max_intervening, unibuffer::max_intervening + 1}) {
        maker = TsMaker();
        firstGop();
        TsMaker other;
        for (int i = 0; i < 16; ++i)
            other.packet(0x300, false, filler(184));
        maker.bytes.reserve(waiting * 188 + 2000);
        for (std::size_t i = 0; i < waiting; ++i)
            maker.bytes.insert(maker.bytes.end(), other.bytes.begin() + static_cast<long>(i % 16 * 188),
                               other.bytes.begin() + static_cast<long>(i % 16 * 188 + 188));
        maker.pes(VIDEO, pesHeader(2), filler(20));
        SCOPED_TRACE(waiting);
        LogUtil::GetInstance();
        std::ostringstream log;
        LogUtil::GetInstance()->addStreamLogger(&log);
        expectTheSame();
        LogUtil::Cleanup();
        const std::string line =
            "[mpegParseLib:Warning] PID silent for 49152 packets: no longer waiting for it";
        const std::string lines = log.str();
        const std::size_t first = lines.find(line);
        const bool told = waiting > unibuffer::max_intervening;
        EXPECT_EQ(first != std::string::npos, told);
        EXPECT_EQ(told && lines.find(line, first + 1) != std::string::npos, told) << "by both, or by neither";
        const std::string out = contentOf(outPath());
        const bool rewritten =
            !std::equal(out.begin(), out.begin() + 188, reinterpret_cast<const char*>(maker.bytes.data()));
        EXPECT_EQ(rewritten, waiting <= unibuffer::max_intervening);
    }
}

TEST_F(FileAgainstStages, OnAContinuityErrorWhileAVideoPacketWaits) {
    others(3);
    firstGop();
    others(5);
    maker.skipCounter(0x300);
    others(1);
    expectTheSame();
    EXPECT_EQ(contentOf(outPath()).size(), 3 * 188U)
        << "neither the packet that waits nor what it holds back";
}

TEST_F(FileAgainstStages, OnAContinuityErrorBeforeAnyVideo) {
    others(3);
    maker.skipCounter(0x300);
    others(3);
    expectTheSame();
    EXPECT_EQ(contentOf(outPath()).size(), 3 * 188U);
}

TEST_F(FileAgainstStages, ABlockIsWrittenWhenItsLastPacketIsWhole) {
    firstGop();
    others(400);
    const std::string in = write();
    const std::size_t enough = 349 * 188; // the first number of packets that fills a block
    for (std::size_t length = enough + 188; length > enough - 188; --length) {
        std::filesystem::resize_file(in, length);
        const Outcome found = file(in, {});
        ASSERT_EQ(found.result, 0);
        ASSERT_EQ(found.bytes.size(), length >= enough ? BLOCK : 0U) << length;
    }
}

TEST_F(FileAgainstStages, AHeaderIsNotJoinedAcrossThePesThatFollows) {
    const Bytes header = gopHeader(1, 2, 3, 4);
    maker.packet(VIDEO, true, pesHeader(1) + filler(100) + Bytes(header.begin(), header.begin() + 6));
    maker.packet(VIDEO, true, Bytes(header.begin() + 6, header.end()) + filler(30));
    others(400);
    expectTheSame();
    EXPECT_EQ(contentOf(outPath()), std::string(maker.bytes.begin(), maker.bytes.begin() + BLOCK));
}

// --- the two forms that look for the video PID themselves

using Rebase = int (*)(const char* in, const char* out);

int rebaseToZero(const char* in, const char* out) {
    return gop_rebase::rebaseFile(in, out, 0);
}
int rebaseByMode(const char* in, const char* out) {
    return MpegWrapper::rebaseFile(in, out, gop_rebase::rebase_to_zero, mpeg_timecode());
}

TEST_F(FileAgainstStages, TheMapIsFoundAsFarAsThePacketInWhichTheLimitLies) {
    const struct {
        Rebase rebase;
        std::size_t last; // index of the last packet that is read for it
    } rows[] = {{rebaseByMode, 53}, {rebaseToZero, 2659}};
    for (const auto& [rebase, last] : rows)
        for (const std::size_t map : {last, last + 1}) {
            SCOPED_TRACE(map);
            std::filesystem::remove(outPath());
            maker = TsMaker();
            others(map - 1);
            maker.tables({{0x02, VIDEO}});
            ASSERT_EQ(maker.packets(), map + 1);
            firstGop();
            EXPECT_EQ(rebase(write().c_str(), outPath().c_str()), map == last ? 0 : -1);
            EXPECT_EQ(std::filesystem::exists(outPath()), map == last);
        }
}

TEST_F(FileAgainstStages, OfALostPacketOnlyTheCheckerTells) {
    maker.tables({{0x02, VIDEO}});
    firstGop();
    maker.skipCounter(VIDEO);
    firstGop();
    const std::string in = write();
    for (const Rebase rebase : {rebaseToZero, rebaseByMode}) {
        LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Debug);
        const CapturedLog log;
        EXPECT_EQ(rebase(in.c_str(), outPath().c_str()), -3);
        EXPECT_THAT(log.text(),
                    HasSubstr("[mpegParseLib:Info] ContinuityNazi: error in countinuity counter!\r\n"));
        EXPECT_THAT(log.text(), HasSubstr("[mpegParseLib:Debug] PredictCC = "));
        EXPECT_THAT(log.text(), testing::Not(HasSubstr("Continuity error: ")));
    }
}

// --- the command form, whose video PID is fixed

class RebaseHarness : public FileAgainstStages {
protected:
    RebaseHarness() {
        for (int i = 0; i < 400; ++i)
            maker.pes(481, pesHeader(1), sequenceHeader(720, 480, 5) + gopHeader(1, 0, 0, 0) + filler(100));
    }
    // Fields of the first GOP header of what came out.
    std::vector<int> firstTimecode() const {
        const std::string out = contentOf(outPath());
        const std::size_t at = out.find(std::string("\0\0\1\xB8", 4));
        if (at == std::string::npos)
            return {};
        const auto byte = [&](std::size_t i) {
            return static_cast<int>(static_cast<unsigned char>(out[at + i]));
        };
        return {byte(4) >> 2 & 31, (byte(4) & 3) << 4 | byte(5) >> 4, (byte(5) & 7) << 3 | byte(6) >> 5,
                (byte(6) & 31) << 1 | byte(7) >> 7};
    }
};

TEST_F(RebaseHarness, ModeAndTimeCodeMayBeLeftOut) {
    const std::string in = write();
    EXPECT_EQ(harness({"gop_rebase", in, outPath(), "1"}), 0);
    EXPECT_EQ(firstTimecode(), (std::vector{1, 0, 0, 0})) << "an offset of nothing";
    EXPECT_EQ(harness({"gop_rebase", in, outPath(), "1", "2:3"}), 0);
    EXPECT_EQ(firstTimecode(), (std::vector{3, 3, 0, 0})) << "what is missing is 0";
    EXPECT_EQ(harness({"gop_rebase", in, outPath(), "1", "nonsense"}), 0);
    EXPECT_EQ(firstTimecode(), (std::vector{1, 0, 0, 0}));
    EXPECT_EQ(harness({"gop_rebase", in, outPath(), "nonsense", "2:0:0:0"}), 0);
    EXPECT_EQ(firstTimecode(), (std::vector{0, 0, 0, 0})) << "mode 0";
}

TEST_F(RebaseHarness, ModesFromThreeOnAreZeroAndNegativeOnesChangeNothing) {
    const std::string in = write();
    for (const char* const mode : {"3", "99", "99999999999999999999"}) {
        EXPECT_EQ(harness({"gop_rebase", in, outPath(), mode, "0:0:0:1"}), 0);
        EXPECT_EQ(firstTimecode(), (std::vector{0, 0, 0, 0})) << mode;
    }
    for (const char* const mode : {"-1", "-99999999999999999999"}) {
        EXPECT_EQ(harness({"gop_rebase", in, outPath(), mode, "0:0:0:1"}), 0);
        EXPECT_EQ(firstTimecode(), (std::vector{1, 0, 0, 0})) << mode;
    }
}

TEST_F(RebaseHarness, AnOffsetBeyondAnyDayIsSurvived) {
    const std::string in = write();
    for (const char* const mode : {"1", "2"})
        for (const char* const offset :
             {"999999999:999999999:999999999:999999999", "-999999999:-999999999:-999999999:-999999999",
              "99999999999:1:1:1", "25:61:61:31"})
            EXPECT_EQ(harness({"gop_rebase", in, outPath(), mode, offset}), 0) << mode << ' ' << offset;
}

TEST_F(RebaseHarness, AContinuityErrorIsLoggedAtDebug) {
    maker.skipCounter(481);
    maker.packet(481, true, filler(9));
    LogUtil::GetInstance()->setDefaultLogLevel(BaseLogger::Debug);
    const CapturedLog log;
    EXPECT_EQ(harness({"gop_rebase", write(), outPath()}), -3);
    EXPECT_THAT(log.text(), HasSubstr("[captureEngLib:Debug] Continuity error: expected 0 not 1 : PID 481"));
}

TEST_F(RebaseHarness, ADeviceWithoutEndIsRefusedAndNothingIsWritten) {
    const CapturedLog log;
    EXPECT_EQ(harness({"gop_rebase", "/dev/zero", outPath()}), -1);
    EXPECT_FALSE(std::filesystem::exists(outPath()));
    EXPECT_THAT(log.text(), HasSubstr("Cannot rebase /dev/zero: it is not a regular file"));
}

TEST_F(RebaseHarness, ATerminalDoesNotBecomeThatOfTheProcess) {
    // So little that it has room in the terminal, which nobody reads.
    const std::string in = directory.path("few.ts");
    std::ofstream(in, std::ios::binary) << contentOf(write()).substr(0, std::size_t{8} * 188);
    for (const bool output : {false, true}) {
        const PseudoTerminal terminal;
        EXPECT_EQ(terminalAfter([&] {
                      (void)harness({"gop_rebase", output ? in : terminal.name(),
                                     output ? terminal.name() : outPath()});
                  }),
                  0)
            << output;
    }
}

// The search for the video PID would have read the pipe's beginning, and the output would lack it.
TEST_F(RebaseHarness, APipeIsRefusedThoughItHasPackets) {
    const std::string packets = contentOf(write());
    const std::string pipe = outPath() + ".fifo";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const kestrel::UniqueFd keeper(open(pipe.c_str(), O_RDWR | O_CLOEXEC));
    const std::size_t some = std::min<std::size_t>(packets.size(), 20 * 188);
    ASSERT_EQ(::write(keeper.get(), packets.data(), some), static_cast<ssize_t>(some));
    const CapturedLog log;
    EXPECT_EQ(harness({"gop_rebase", pipe, outPath()}), -1);
    EXPECT_FALSE(std::filesystem::exists(outPath()));
    EXPECT_THAT(log.text(), HasSubstr("it is not a regular file"));
}

} // namespace
