// Playing a file to a decoder: a real socket on loopback takes what is sent, with the kernel's time of
// arrival.
#include "capture/PlayOut.h"
#include "capture/normalize_streams.h"
#include "capture/worker_process.h"
#include "foundation/ErrorCodes.h"
#include "streams/stream_fixtures.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cmath>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

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

// A decoder's port.
class Decoder {
public:
    explicit Decoder(const std::string& group = "")
        : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        const int on = 1;
        const int size = 8 << 20;
        ::setsockopt(m_socket.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
        if (::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
            ::setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, group.empty() ? "127.0.0.1" : group.c_str(), &address.sin_addr);
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
        if (!group.empty()) {
            const ip_mreq membership{address.sin_addr, {htonl(loopback)}};
            EXPECT_EQ(
                ::setsockopt(m_socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership),
                0);
        }
        ::getsockname(m_socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
        m_port = ntohs(address.sin_port);
    }
    int port() const { return m_port; }

    // Takes what has come.
    void drain() {
        Bytes buffer(65536);
        for (;;) {
            iovec part{buffer.data(), buffer.size()};
            alignas(cmsghdr) char control[256];
            msghdr header{};
            header.msg_iov = &part;
            header.msg_iovlen = 1;
            header.msg_control = control;
            header.msg_controllen = sizeof control;
            const ssize_t got = ::recvmsg(m_socket.get(), &header, MSG_DONTWAIT);
            if (got < 0)
                return;
            timespec time{};
            for (cmsghdr* at = CMSG_FIRSTHDR(&header); at; at = CMSG_NXTHDR(&header, at))
                if (at->cmsg_type == SCM_TIMESTAMPNS)
                    std::memcpy(&time, CMSG_DATA(at), sizeof time);
            arrivals.push_back(
                {static_cast<double>(time.tv_sec % 100000) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6,
                 Bytes(buffer.begin(), buffer.begin() + got)});
        }
    }

    std::vector<Arrival> arrivals;

private:
    kestrel::UniqueFd m_socket;
    int m_port = 0;
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

// The share of the datagrams that come within 1 ms of when the PCRs say.
double shareOnTime(const PlayOutPlan& plan, Decoder& decoder, double apart) {
    const PlayOutStatus status = Playing(plan).play(decoder);
    EXPECT_FALSE(status.failed);
    std::vector<double> late;
    for (std::size_t i = 0; i < decoder.arrivals.size(); ++i)
        late.push_back(decoder.arrivals[i].time - decoder.arrivals[0].time - apart * static_cast<double>(i));
    std::sort(late.begin(), late.end());
    const double middle = late[late.size() / 2];
    const auto near =
        std::count_if(late.begin(), late.end(), [&](double by) { return std::fabs(by - middle) < 1; });
    return static_cast<double>(near) / static_cast<double>(late.size());
}

TEST(PlayOut, IsPacedByThePcrs) {
    const Packets packets = clocked(evenly(1000 * millisecond, 35 * millisecond, 60), 70);
    TemporaryDirectory directory;
    const std::string file = written(directory, joined(packets));
    // Other programs on a busy machine keep datagrams waiting now and then, hence most of them in one of
    // several rounds.
    double share = 0;
    for (int round = 0; round < 10 && share <= 0.7; ++round) {
        Decoder decoder;
        share = shareOnTime(plan(file, decoder), decoder, 3.5); // 70 packets in 35 ms
    }
    EXPECT_GT(share, 0.7);
}

TEST(PlayOut, TakesAsLongAsTheStreamItself) {
    Decoder decoder;
    const std::string file = streamFile("m2_sd_2997");
    const PlayOutStatus status = Playing(plan(file, decoder)).play(decoder);
    const std::vector<std::int64_t> clock = pcrs(readPackets(file), 0x100);
    expectDuration(status, decoder, static_cast<double>(clock.back() - clock.front()) / millisecond);
}

TEST(PlayOut, UsesHardlyAnyTimeOfTheProcessor) {
    Decoder decoder;
    const auto used = [] {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    };
    const double before = used();
    Playing(plan(streamFile("m2_sd_25"), decoder)).play(decoder);
    EXPECT_LT(used() - before, 1.5) << "of 3 s";
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
    const Bytes whole = fileBytes(file);
    EXPECT_EQ(payloads(decoder.arrivals), Bytes(whole.begin() + 188 * 1000, whole.begin() + 188 * 1700));
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
    const auto asked = Clock::now();
    run.playOut.cancel();
    run.playOut.join();
    EXPECT_LT(Clock::now() - asked, std::chrono::seconds(5));
    EXPECT_TRUE(run.playOut.status().over);
    EXPECT_FALSE(run.playOut.status().failed);
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

TEST(PlayOut, TellsThatTheDecoderIsNotReached) {
    PlayOutPlan asked{.file = streamFile("m2_sd_25"), .address = loopback, .port = freePort()};
    const std::string text = refusal(asked);
    EXPECT_THAT(text, StartsWith("Error: Start re-encode returned 111 Exiting. (decoder 127.0.0.1:"));
    EXPECT_THAT(text, HasSubstr("Connection refused"));
}

} // namespace
