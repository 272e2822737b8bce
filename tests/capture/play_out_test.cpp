// Playing a file to a decoder: a real socket on loopback takes what is sent, with the kernel's time of
// arrival.
#include "capture/PlayOut.h"
#include "capture/decoder_socket.h"
#include "capture/normalize_streams.h"
#include "capture/worker_process.h"
#include "foundation/ErrorCodes.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace capture_test;
using namespace kestrel::capture;
using kestrel::test::streamFile;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr std::int64_t millisecond = 27'000;
constexpr std::uint32_t loopback = 0x7F000001;

struct Arrival {
    double time; // milliseconds
    Bytes bytes;
};

// A decoder's port, with all that came.
class Decoder {
public:
    explicit Decoder(const std::string& group = "", int port = 0) : m_socket(group, port) {}
    int port() const { return m_socket.port(); }

    // Takes what has come.
    void drain() {
        m_socket.drain([this](std::int64_t time, std::span<const unsigned char> bytes) {
            arrivals.push_back(
                {static_cast<double>(time % 100'000'000'000'000) / 1e6, Bytes(bytes.begin(), bytes.end())});
        });
    }

    std::vector<Arrival> arrivals;

private:
    DecoderSocket m_socket;
};

// One run of a play-out.
struct Playing {
    explicit Playing(PlayOutPlan plan) : playOut(std::move(plan), changed) {}
    WakeEvent changed;
    PlayOut playOut;

    // Plays to the end, emptying the decoder's port meanwhile.
    PlayOutStatus play(Decoder& decoder) {
        if (auto failed = playOut.start())
            return {.over = true, .failed = failed};
        while (!playOut.status().over) {
            pollfd wait{changed.fd(), POLLIN, 0};
            ::poll(&wait, 1, 20);
            changed.clear();
            decoder.drain();
        }
        playOut.join();
        decoder.drain();
        return playOut.status();
    }
};

PlayOutPlan plan(const std::string& file, const Decoder& decoder) {
    return {.file = file, .address = loopback, .port = decoder.port()};
}

std::string written(const TemporaryDirectory& directory, const Bytes& bytes) {
    const std::string path = directory.path("source.ts");
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return path;
}

Bytes payloads(const std::vector<Arrival>& arrivals, std::size_t head = 0) {
    Bytes bytes;
    for (const Arrival& arrival : arrivals)
        bytes.insert(bytes.end(), arrival.bytes.begin() + static_cast<std::ptrdiff_t>(head),
                     arrival.bytes.end());
    return bytes;
}

Packets packetsOf(const Decoder& decoder) {
    const Bytes bytes = payloads(decoder.arrivals);
    Packets packets(bytes.size() / 188);
    for (std::size_t i = 0; i < packets.size(); ++i)
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(i * 188), 188, packets[i].begin());
    return packets;
}

Bytes fileBytes(const std::string& path) {
    return joined(readPackets(path));
}

double duration(const Decoder& decoder) {
    return decoder.arrivals.back().time - decoder.arrivals.front().time;
}

// In milliseconds. On a host that lets it wait for more than 100 ms it takes longer, and says so.
void expectDuration(const PlayOutStatus& status, const Decoder& decoder, double expected) {
    EXPECT_FALSE(status.failed);
    EXPECT_GT(duration(decoder), expected - 100);
    if (status.interruptions == 0) {
        EXPECT_NEAR(duration(decoder), expected, 200);
    }
}

// PCRs at these times (27 MHz), so many packets from each to the next.
Packets clocked(const std::vector<std::int64_t>& times, int packetsEach,
                std::size_t discontinuityAt = SIZE_MAX) {
    constexpr std::int64_t range = (std::int64_t{1} << 33) * 300;
    Packets packets = sectionPackets(0, patSection({{}}));
    const Packets pmt = sectionPackets(0x1000, pmtSection({}));
    packets.insert(packets.end(), pmt.begin(), pmt.end());
    for (std::size_t i = 0; i < times.size(); ++i) {
        packets.push_back(makePacket({.pcr = times[i] % range, .discontinuity = i == discontinuityAt}));
        for (int more = 1; more < packetsEach; ++more)
            packets.push_back(makePacket({.pid = 0x300}));
    }
    return packets;
}

std::vector<std::int64_t> evenly(std::int64_t begin, std::int64_t step, int count) {
    std::vector<std::int64_t> times;
    for (int i = 0; i < count; ++i)
        times.push_back(begin + i * step);
    return times;
}

TEST(PlayOut, SendsEveryPacketInOrderSevenToADatagram) {
    Decoder decoder;
    const std::string file = streamFile("m2_sd_25");
    const PlayOutStatus status = Playing(plan(file, decoder)).play(decoder);
    EXPECT_FALSE(status.failed) << status.failed->text;
    EXPECT_EQ(payloads(decoder.arrivals), fileBytes(file));
    for (std::size_t i = 0; i + 1 < decoder.arrivals.size(); ++i)
        ASSERT_EQ(decoder.arrivals[i].bytes.size(), 7U * 188);
    EXPECT_TRUE(status.begun);
    EXPECT_EQ(status.frames, 75U);
    EXPECT_EQ(status.bytes, fileBytes(file).size());
}

// The kernel's clock of arrivals (CLOCK_REALTIME) less that of the play-out, in milliseconds.
double clockDifference() {
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    const double now = std::chrono::duration<double, std::milli>(Clock::now().time_since_epoch()).count();
    return static_cast<double>(wall.tv_sec % 100000) * 1e3 + static_cast<double>(wall.tv_nsec) / 1e6 - now;
}

// However busy the machine is: a decoder's buffer must not overflow. How late they are at most is measured by
// kestrel_pacing_bench.
TEST(PlayOut, SendsNoDatagramBeforeThePcrsSay) {
    const Packets packets = clocked(evenly(1000 * millisecond, 35 * millisecond, 60), 70);
    TemporaryDirectory directory;
    Decoder decoder;
    const double before = clockDifference();
    const PlayOutStatus status = Playing(plan(written(directory, joined(packets)), decoder)).play(decoder);
    const double difference = std::min(before, clockDifference());
    ASSERT_FALSE(status.failed);
    const double began =
        std::chrono::duration<double, std::milli>(status.beganAt.time_since_epoch()).count() + difference;
    ASSERT_EQ(decoder.arrivals.size(), (packets.size() + 6) / 7);
    for (std::size_t i = 0; i < decoder.arrivals.size(); ++i) // 70 packets in 35 ms
        ASSERT_GT(decoder.arrivals[i].time - began, 3.5 * static_cast<double>(i) - 1) << i;
    EXPECT_EQ(payloads(decoder.arrivals), joined(packets));
}

TEST(PlayOut, TakesAsLongAsTheStreamItself) {
    Decoder decoder;
    const std::string file = streamFile("m2_sd_2997");
    const PlayOutStatus status = Playing(plan(file, decoder)).play(decoder);
    const std::vector<std::int64_t> clock = pcrs(readPackets(file), 0x100);
    expectDuration(status, decoder, static_cast<double>(clock.back() - clock.front()) / millisecond);
}

// Whoever waits by looking again and again takes all the time between two datagrams, 5 ms here, and more than
// one wake-up for each.
TEST(PlayOut, SleepsBetweenDatagrams) {
    Decoder decoder;
    const auto used = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return usage;
    };
    const auto seconds = [](const rusage& usage) {
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    Playing run(plan(streamFile("m2_sd_25"), decoder));
    const rusage before = used();
    ASSERT_FALSE(run.playOut.start());
    run.playOut.join();
    const rusage after = used();
    decoder.drain();
    const auto datagrams = static_cast<double>(decoder.arrivals.size());
    ASSERT_GT(datagrams, 300);
    EXPECT_LT(static_cast<double>(after.ru_nvcsw - before.ru_nvcsw), 2 * datagrams);
    EXPECT_LT((seconds(after) - seconds(before)) / datagrams, 0.001);
}

// The thread that reads the file, stopped as a disk would stop it.
class StalledReader {
public:
    StalledReader() {
        struct sigaction action {};
        action.sa_handler = [](int) {
            s_stalled = true;
            while (s_hold)
                usleep(1000);
        };
        sigaction(SIGUSR1, &action, nullptr);
        s_hold = true;
        s_stalled = false;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
            if (line(entry.path() / "comm") != "play-read")
                continue;
            // It has read as much as it may, and holds nothing that others wait for.
            for (int asleep = 0; asleep < 10; usleep(2000))
                asleep = line(entry.path() / "stat").find(") S ") != std::string::npos ? asleep + 1 : 0;
            syscall(SYS_tgkill, getpid(), std::stoi(entry.path().filename()), SIGUSR1);
        }
        const auto limit = Clock::now() + std::chrono::seconds(10);
        while (!s_stalled && Clock::now() < limit)
            usleep(1000);
        EXPECT_TRUE(s_stalled);
    }
    ~StalledReader() { release(); }
    void release() { s_hold = false; }

private:
    static std::string line(const std::filesystem::path& file) {
        std::string text;
        std::ifstream in(file);
        std::getline(in, text);
        return text;
    }
    static inline std::atomic<bool> s_hold{false};
    static inline std::atomic<bool> s_stalled{false};
};

TEST(PlayOut, GoesOnFromMemoryWhileTheDiskStalls) {
    Decoder decoder;
    TemporaryDirectory directory;
    // 16 MB at 50 Mb/s.
    const Packets packets = clocked(evenly(0, 35 * millisecond, 75), 1164);
    PlayOutPlan held = plan(written(directory, joined(packets)), decoder);
    held.held = true;
    Playing run(held);
    ASSERT_FALSE(run.playOut.start());
    pollfd wait{run.changed.fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&wait, 1, 10000), 1);
    StalledReader reader;
    run.playOut.go();
    const std::size_t ahead = PlayAhead::mostPackets * 188;
    const auto limit = Clock::now() + std::chrono::seconds(20);
    const auto received = [&] {
        decoder.drain();
        std::size_t bytes = 0;
        for (const Arrival& arrival : decoder.arrivals)
            bytes += arrival.bytes.size();
        return bytes;
    };
    while (received() < ahead && Clock::now() < limit)
        usleep(5000);
    EXPECT_GE(received(), ahead);
    EXPECT_FALSE(run.playOut.status().over);
    reader.release();
    while (!run.playOut.status().over && Clock::now() < limit) {
        usleep(5000);
        decoder.drain();
    }
    run.playOut.join();
    decoder.drain();
    EXPECT_FALSE(run.playOut.status().failed);
    EXPECT_EQ(payloads(decoder.arrivals), joined(packets));
}

// Both of these would otherwise go on for a minute at least.
void expectCancelled(Playing& run) {
    const auto asked = Clock::now();
    run.playOut.cancel();
    run.playOut.join();
    EXPECT_LT(Clock::now() - asked, std::chrono::seconds(5));
    EXPECT_TRUE(run.playOut.status().over);
    EXPECT_FALSE(run.playOut.status().failed);
}

// A file of a terabyte of nothing behind some packets: it would be searched for an hour.
TEST(PlayOut, EndsAtOnceWhenCancelledWhileItLooksForPackets) {
    Decoder decoder;
    TemporaryDirectory directory;
    const std::string file = written(directory, joined(clocked(evenly(0, 40 * millisecond, 10), 14)));
    std::filesystem::resize_file(file, std::uintmax_t{1} << 40);
    Playing run(plan(file, decoder));
    ASSERT_FALSE(run.playOut.start());
    usleep(20'000);
    expectCancelled(run);
}

TEST(PlayOut, SendsRtpWhenAsked) {
    Decoder decoder;
    PlayOutPlan asked;
    TemporaryDirectory directory;
    const Packets packets = clocked(evenly(0, 40 * millisecond, 20), 70);
    asked = plan(written(directory, joined(packets)), decoder);
    asked.rtp = true;
    Playing(asked).play(decoder);
    ASSERT_GT(decoder.arrivals.size(), 100U);
    EXPECT_EQ(payloads(decoder.arrivals, 12), joined(packets));
    const auto number = [](const Bytes& bytes, std::size_t at, int size) {
        std::uint32_t value = 0;
        for (int i = 0; i < size; ++i)
            value = value << 8 | bytes[at + static_cast<std::size_t>(i)];
        return value;
    };
    const Bytes& first = decoder.arrivals[0].bytes;
    for (std::size_t i = 0; i < decoder.arrivals.size(); ++i) {
        const Bytes& bytes = decoder.arrivals[i].bytes;
        EXPECT_EQ(bytes[0], 0x80); // version 2
        EXPECT_EQ(bytes[1], 33);   // MP2T
        EXPECT_EQ(number(bytes, 2, 2), (number(first, 2, 2) + i) & 0xFFFF);
        EXPECT_NEAR(static_cast<double>(number(bytes, 4, 4) - number(first, 4, 4)),
                    360.0 * static_cast<double>(i), 2);
        EXPECT_EQ(number(bytes, 8, 4), number(first, 8, 4));
    }
}

TEST(PlayOut, GoesOnThroughTheWrapOfTheClock) {
    Decoder decoder;
    TemporaryDirectory directory;
    const std::int64_t begin = ((std::int64_t{1} << 33) - 45'000) * 300;
    const Packets packets = clocked(evenly(begin, 40 * millisecond, 26), 14);
    expectDuration(Playing(plan(written(directory, joined(packets)), decoder)).play(decoder), decoder, 1030);
}

TEST(PlayOut, GoesOnAtItsPaceWhereTheClockJumps) {
    for (const bool announced : {true, false}) {
        std::vector<std::int64_t> times = evenly(1000 * millisecond, 40 * millisecond, 13);
        const std::vector<std::int64_t> more =
            evenly(announced ? 1600 * millisecond : 90'000 * millisecond, 40 * millisecond, 13);
        times.insert(times.end(), more.begin(), more.end());
        Decoder decoder;
        TemporaryDirectory directory;
        const Packets packets = clocked(times, 14, announced ? 13 : SIZE_MAX);
        expectDuration(Playing(plan(written(directory, joined(packets)), decoder)).play(decoder), decoder,
                       1030);
        EXPECT_EQ(payloads(decoder.arrivals), joined(packets));
    }
}

TEST(PlayOut, TakesThePaceOfTheNeighboursWherePcrsAreMissing) {
    Packets packets = clocked(evenly(0, 40 * millisecond, 26), 14);
    // None before 0.4 s and none behind 0.6 s.
    for (std::size_t i = 0; i < packets.size(); ++i)
        if (pid(packets[i]) == 0x100 && (i < packets.size() * 4 / 10 || i > packets.size() * 6 / 10))
            packets[i] = makePacket({.pid = 0x300});
    Decoder decoder;
    TemporaryDirectory directory;
    expectDuration(Playing(plan(written(directory, joined(packets)), decoder)).play(decoder), decoder, 1030);
}

TEST(PlayOut, PlaysOnlyThePartAskedFor) {
    Decoder decoder;
    const std::string file = streamFile("m2_sd_25");
    PlayOutPlan part = plan(file, decoder);
    part.begin = 188 * 1000;
    part.end = 188 * 1700;
    Playing(part).play(decoder);
    const Packets whole = readPackets(file);
    const Packets played = packetsOf(decoder);
    ASSERT_EQ(played.size(), 2U + 700U);
    EXPECT_EQ(pid(played[0]), 0);
    EXPECT_EQ(pid(played[1]), 0x1000);
    EXPECT_EQ(Packets(played.begin() + 2, played.end()), Packets(whole.begin() + 1000, whole.begin() + 1700));
    EXPECT_EQ(brokenCounters(played), 0);
}

// What a file holds beside its tables: PCRs, and packets of no meaning between them.
class TabledFile {
public:
    void section(int pid, const Bytes& section) {
        for (Packet packet : sectionPackets(pid, section)) {
            packet[3] = static_cast<unsigned char>(0x10 | (m_counters[pid]++ & 15));
            packets.push_back(packet);
        }
    }
    void filling(int times) {
        for (int i = 0; i < times; ++i) {
            packets.push_back(makePacket({.counter = m_counters[0x100]++ & 15, .pcr = m_pcr}));
            for (int more = 0; more < 13; ++more)
                packets.push_back(makePacket({.pid = 0x300, .counter = m_counters[0x300]++ & 15}));
            m_pcr += 4 * millisecond;
        }
    }
    // What is played of it from that packet on.
    Packets playedFrom(std::size_t begin) const {
        TemporaryDirectory directory;
        Decoder decoder;
        PlayOutPlan part = plan(written(directory, joined(packets)), decoder);
        part.begin = begin * 188;
        const PlayOutStatus status = Playing(part).play(decoder);
        EXPECT_FALSE(status.failed) << status.failed->text;
        return packetsOf(decoder);
    }
    // These tables come first, then the packets from there on.
    void expectPlayed(std::size_t begin, const Packets& tables) const {
        const Packets played = playedFrom(begin);
        ASSERT_EQ(played.size(), tables.size() + packets.size() - begin);
        for (std::size_t i = 0; i < tables.size(); ++i) {
            Packet packet = played[i];
            packet[3] = tables[i][3];
            EXPECT_EQ(packet, tables[i]) << i;
        }
        EXPECT_EQ(Packets(played.begin() + static_cast<std::ptrdiff_t>(tables.size()), played.end()),
                  Packets(packets.begin() + static_cast<std::ptrdiff_t>(begin), packets.end()));
        EXPECT_EQ(brokenCounters(played), 0);
    }

    Packets packets;

private:
    std::map<int, int> m_counters;
    std::int64_t m_pcr = 1000 * millisecond;
};

void append(Packets& to, const Packets& more) {
    to.insert(to.end(), more.begin(), more.end());
}

// Two programs, the tables of one in several packets and replaced by another version, and all of them again
// behind the place.
TEST(PlayOut, BeginsAPartWithTheTablesThatHoldThere) {
    const std::vector<Program> programs{
        {}, {.number = 2, .pmtPid = 0x1001, .pcrPid = 0x200, .videoPid = 0x200, .descriptorBytes = 400}};
    Program renewed = programs[1];
    renewed.version = 1;
    renewed.descriptorBytes = 300;
    TabledFile file;
    file.section(0, patSection(programs));
    file.section(0x1000, pmtSection(programs[0]));
    file.section(0x1001, pmtSection(programs[1]));
    file.filling(10);
    for (int i = 0; i < 20; ++i) {
        file.section(0, patSection(programs));
        file.section(0x1001, pmtSection(renewed));
    }
    file.filling(5);
    const std::size_t begin = file.packets.size();
    file.filling(10);
    file.section(0, patSection(programs));
    file.section(0x1000, pmtSection(programs[0]));
    file.section(0x1001, pmtSection(renewed));
    file.filling(10);
    Packets tables = sectionPackets(0, patSection(programs));
    append(tables, sectionPackets(0x1000, pmtSection(programs[0])));
    append(tables, sectionPackets(0x1001, pmtSection(renewed)));
    ASSERT_GE(tables.size(), 4U);
    file.expectPlayed(begin, tables);
}

// However far before it they came last: here 5 MB.
TEST(PlayOut, FindsTablesThatComeRarely) {
    TabledFile file;
    file.section(0, patSection({{}}));
    file.section(0x1000, pmtSection({}));
    file.filling(2000);
    const std::size_t begin = file.packets.size();
    file.filling(20);
    file.section(0, patSection({{}}));
    file.section(0x1000, pmtSection({}));
    file.filling(5);
    Packets tables = sectionPackets(0, patSection({{}}));
    append(tables, sectionPackets(0x1000, pmtSection({})));
    file.expectPlayed(begin, tables);
}

// A section that is open at the place is not in force yet; its packets count all the same.
TEST(PlayOut, BeginsAPartInTheMiddleOfATable) {
    const Program program{.descriptorBytes = 400};
    TabledFile file;
    for (int i = 0; i < 2; ++i) {
        file.section(0, patSection({program}));
        file.section(0x1000, pmtSection(program));
        file.filling(10);
    }
    const std::size_t begin = file.packets.size() - 10 * 14 - 1;
    ASSERT_EQ(pid(file.packets[begin]), 0x1000);
    Packets tables = sectionPackets(0, patSection({program}));
    append(tables, sectionPackets(0x1000, pmtSection(program)));
    file.expectPlayed(begin, tables);
}

TEST(PlayOut, PlaysAPartAsItIsWhereNoProgramIsKnownBefore) {
    for (const bool pat : {true, false}) {
        TabledFile file;
        if (pat)
            file.section(0, patSection({{}}));
        file.filling(10);
        const std::size_t begin = file.packets.size();
        file.filling(5);
        file.section(0, patSection({{}}));
        file.section(0x1000, pmtSection({}));
        file.filling(5);
        file.expectPlayed(begin, {});
    }
}

TEST(PlayOut, LeavesOutForeignBytes) {
    const Bytes clean = joined(clocked(evenly(0, 20 * millisecond, 10), 14));
    Bytes bytes = clean;
    bytes.insert(bytes.begin() + 188 * 50, 77, 0x11);
    Decoder decoder;
    TemporaryDirectory directory;
    Playing(plan(written(directory, bytes), decoder)).play(decoder);
    EXPECT_EQ(payloads(decoder.arrivals), clean);
}

TEST(PlayOut, ReachesAMulticastGroupOverItsInterface) {
    Decoder decoder("239.255.77.9");
    TemporaryDirectory directory;
    const Packets packets = clocked(evenly(0, 20 * millisecond, 10), 14);
    PlayOutPlan group = plan(written(directory, joined(packets)), decoder);
    group.address = 0xEFFF4D09;
    group.interfaceAddress = loopback;
    const PlayOutStatus status = Playing(group).play(decoder);
    EXPECT_FALSE(status.failed) << status.failed->text;
    EXPECT_EQ(payloads(decoder.arrivals), joined(packets));
}

TEST(PlayOut, WaitsForTheWordWhenHeld) {
    Decoder decoder;
    TemporaryDirectory directory;
    PlayOutPlan held = plan(written(directory, joined(clocked(evenly(0, 20 * millisecond, 5), 14))), decoder);
    held.held = true;
    Playing playing(held);
    ASSERT_FALSE(playing.playOut.start());
    pollfd wait{playing.changed.fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&wait, 1, 5000), 1);
    EXPECT_TRUE(playing.playOut.status().ready);
    EXPECT_FALSE(playing.playOut.status().begun);
    decoder.drain();
    EXPECT_TRUE(decoder.arrivals.empty());
    playing.playOut.go();
    playing.playOut.join();
    decoder.drain();
    EXPECT_EQ(payloads(decoder.arrivals).size(), 188U * (2 + 5 * 14));

    // Not before a time that it is given.
    Decoder later;
    held.port = later.port();
    Playing timed(held);
    ASSERT_FALSE(timed.playOut.start());
    const auto begin = Clock::now() + std::chrono::milliseconds(200);
    timed.playOut.go(begin);
    timed.playOut.join();
    EXPECT_GE(Clock::now(), begin + std::chrono::milliseconds(80));
    EXPECT_EQ(timed.playOut.status().beganAt, begin);

    Playing cancelled(held);
    ASSERT_FALSE(cancelled.playOut.start());
    cancelled.playOut.cancel();
    cancelled.playOut.join();
    EXPECT_TRUE(cancelled.playOut.status().over);
    EXPECT_FALSE(cancelled.playOut.status().begun);
}

TEST(PlayOut, EndsAtOnceWhenCancelled) {
    Decoder decoder;
    TemporaryDirectory directory;
    // A minute.
    Playing run(plan(written(directory, joined(clocked(evenly(0, 40 * millisecond, 1500), 14))), decoder));
    ASSERT_FALSE(run.playOut.start());
    pollfd wait{run.changed.fd(), POLLIN, 0};
    while (!run.playOut.status().begun) {
        ASSERT_EQ(::poll(&wait, 1, 5000), 1);
        run.changed.clear();
    }
    expectCancelled(run);
}

std::string refusal(const PlayOutPlan& asked) {
    Decoder decoder;
    const PlayOutStatus status = Playing(asked).play(decoder);
    return status.failed ? status.failed->text : "";
}

TEST(PlayOut, TellsWhyAFileCannotBePlayed) {
    Decoder decoder;
    EXPECT_EQ(refusal(plan("/nowhere/at/all.ts", decoder)),
              "Error: Unable to open input file /nowhere/at/all.ts. (No such file or directory (errno 2))");
    EXPECT_EQ(refusal(plan("", decoder)), LOG_MSG(kestrel::error::sourceFileNotSpecified));
    TemporaryDirectory directory;
    EXPECT_THAT(refusal(plan(written(directory, Bytes(9000, 'x')), decoder)),
                HasSubstr("no transport packets"));
    EXPECT_THAT(refusal(plan(written(directory, joined(StreamBuilder().frames(50))), decoder)),
                StartsWith("Error: Calculate bitrate failed. ("));
}

TEST(PlayOut, TellsThatTheInterfaceIsNotOneOfThisHost) {
    Decoder decoder;
    PlayOutPlan asked = plan(streamFile("m2_sd_25"), decoder);
    asked.interfaceAddress = 0xC0000201; // 192.0.2.1, of a network for examples
    EXPECT_THAT(refusal(asked), StartsWith("Error: Invalid decoder interface 192.0.2.1. ("));
}

// It starts up: its port is opened while it is played to.
TEST(PlayOut, CountsTheDatagramsThatTheDecoderDidNotTake) {
    const int port = freePort();
    TemporaryDirectory directory;
    const Packets packets = clocked(evenly(0, 40 * millisecond, 40), 70);
    Playing run({.file = written(directory, joined(packets)), .address = loopback, .port = port});
    ASSERT_FALSE(run.playOut.start());
    const auto limit = Clock::now() + std::chrono::seconds(10);
    while (run.playOut.status().refused < 10 && Clock::now() < limit)
        usleep(1000);
    Decoder decoder("", port);
    run.playOut.join();
    decoder.drain();
    const PlayOutStatus status = run.playOut.status();
    ASSERT_FALSE(status.failed) << status.failed->text;
    const Bytes whole = joined(packets);
    const Bytes taken = payloads(decoder.arrivals);
    // Whatever came after the port was opened has come, and what is counted is the rest.
    EXPECT_GE(status.refused, 10U);
    EXPECT_EQ(decoder.arrivals.size() + status.refused, (packets.size() + 6) / 7);
    ASSERT_LT(taken.size(), whole.size());
    EXPECT_EQ(taken, Bytes(whole.end() - static_cast<std::ptrdiff_t>(taken.size()), whole.end()));
}

TEST(PlayOut, CountsNothingAsNotTakenByADecoderThatIsThere) {
    Decoder decoder;
    TemporaryDirectory directory;
    const Packets packets = clocked(evenly(0, 20 * millisecond, 10), 14);
    EXPECT_EQ(Playing(plan(written(directory, joined(packets)), decoder)).play(decoder).refused, 0U);
}

TEST(PlayOut, TellsThatTheDecoderIsNotReached) {
    PlayOutPlan asked{.file = streamFile("m2_sd_25"), .address = loopback, .port = freePort()};
    const std::string text = refusal(asked);
    EXPECT_THAT(text, StartsWith("Error: Start re-encode returned 111 Exiting. (decoder 127.0.0.1:"));
    EXPECT_THAT(text, HasSubstr("Connection refused"));
}

} // namespace
