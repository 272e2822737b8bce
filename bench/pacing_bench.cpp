// How exactly a file is played by its PCRs, against a limit program that does nothing but sleep to the same
// instants and send.
//   kestrel_pacing_bench [SECONDS=10] [MBIT...=8 50]
// Prints by how many microseconds the datagrams come later than the PCRs say, by the kernel's time of
// arrival. Both play at the same time, so that what else the machine does meets both.
#include "capture/PlayOut.h"
#include "capture/decoder_socket.h"
#include "capture/normalize_streams.h"
#include "figures.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <thread>

using namespace kestrel::capture;
using namespace capture_test;
using kestrel::bench::quantile;

namespace {

constexpr std::int64_t ticksPerSecond = 27'000'000;
constexpr int packetsEach = 70; // from one PCR to the next: whole datagrams
constexpr std::uint32_t loopback = INADDR_LOOPBACK;

// The kernel's times of arrival at a port, in nanoseconds of CLOCK_REALTIME.
class Decoder {
public:
    void drain() {
        m_socket.drain(
            [this](std::int64_t time, std::span<const unsigned char>) { arrivals.push_back(time); });
    }
    int port() const { return m_socket.port(); }
    std::vector<std::int64_t> arrivals;

private:
    DecoderSocket m_socket;
};

std::int64_t now(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// Datagram i is due at begin + i * apart, CLOCK_MONOTONIC, nanoseconds.
void playLimit(int port, std::int64_t begin, double apart, std::size_t datagrams) {
    ::prctl(PR_SET_TIMERSLACK, 1UL);
    const kestrel::UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<std::uint16_t>(port));
    to.sin_addr.s_addr = htonl(loopback);
    ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to);
    const Bytes datagram(7 * packetSize);
    for (std::size_t i = 0; i < datagrams; ++i) {
        const std::int64_t due = begin + static_cast<std::int64_t>(apart * static_cast<double>(i));
        const timespec until{due / 1'000'000'000, due % 1'000'000'000};
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
        }
        ::send(socket.get(), datagram.data(), datagram.size(), 0);
    }
}

struct Lateness {
    double p50 = 0, p99 = 0, most = 0; // microseconds
};

Lateness lateness(const Decoder& decoder, std::int64_t begin, double apart) {
    std::vector<double> late;
    for (std::size_t i = 0; i < decoder.arrivals.size(); ++i)
        late.push_back((static_cast<double>(decoder.arrivals[i] - begin) - apart * static_cast<double>(i)) /
                       1e3);
    return {quantile(late, 0.5), quantile(late, 0.99), quantile(late, 1)};
}

void measure(double megabits, int seconds) {
    const double apart = packetSize * 8 * 7 * 1e3 / megabits; // nanoseconds from datagram to datagram
    const auto step = static_cast<std::int64_t>(apart * packetsEach / 7 * ticksPerSecond / 1e9);
    const int count = static_cast<int>(seconds * ticksPerSecond / step);
    const std::string file =
        std::filesystem::temp_directory_path() / ("kestrel_pacing_" + std::to_string(getpid()) + ".ts");
    {
        std::ofstream out(file, std::ios::binary);
        const auto put = [&out](const Packet& packet) {
            out.write(reinterpret_cast<const char*>(packet.data()), packetSize);
        };
        for (int i = 0; i < count; ++i) {
            put(makePacket({.pcr = i * step}));
            for (int more = 1; more < packetsEach; ++more)
                put(makePacket({.pid = 0x300}));
        }
    }
    const double exact = static_cast<double>(step) * 1e9 / ticksPerSecond / (packetsEach / 7);
    Decoder decoder, limitDecoder;
    WakeEvent changed;
    PlayOut play({.file = file, .address = loopback, .port = decoder.port(), .held = true}, changed);
    if (auto failed = play.start()) {
        std::printf("%s\n", failed->text.c_str());
        return;
    }
    while (!play.status().ready) {
        pollfd wait{changed.fd(), POLLIN, 0};
        ::poll(&wait, 1, 1000);
        changed.clear();
    }
    const std::int64_t difference = now(CLOCK_REALTIME) - now(CLOCK_MONOTONIC);
    const std::int64_t begin = now(CLOCK_MONOTONIC) + 100'000'000;
    const auto datagrams = static_cast<std::size_t>(count) * packetsEach / 7;
    std::thread limit([&] { playLimit(limitDecoder.port(), begin, exact, datagrams); });
    play.go(Clock::time_point(std::chrono::nanoseconds(begin)));
    while (!play.status().over) {
        usleep(20'000);
        decoder.drain();
        limitDecoder.drain();
    }
    limit.join();
    play.join();
    decoder.drain();
    limitDecoder.drain();
    std::filesystem::remove(file);
    const Lateness own = lateness(decoder, begin + difference, exact);
    const Lateness limits = lateness(limitDecoder, begin + difference, exact);
    std::printf("%g Mb/s, %zu of %zu datagrams, %.0f us apart, %llu interruptions\n", megabits,
                decoder.arrivals.size(), datagrams, exact / 1e3,
                static_cast<unsigned long long>(play.status().interruptions));
    std::printf("  late by us       p50      p99       max\n");
    std::printf("  play-out  %10.1f %8.1f %9.1f\n", own.p50, own.p99, own.most);
    std::printf("  limit     %10.1f %8.1f %9.1f\n", limits.p50, limits.p99, limits.most);
    std::printf("  ratio     %10.2f %8.2f %9.2f\n", own.p50 / limits.p50, own.p99 / limits.p99,
                own.most / limits.most);
}

} // namespace

int main(int argc, char** argv) {
    const int seconds = argc > 1 ? std::atoi(argv[1]) : 10;
    std::vector<double> rates;
    for (int i = 2; i < argc; ++i)
        rates.push_back(std::atof(argv[i]));
    for (const double rate : rates.empty() ? std::vector<double>{8, 50} : rates)
        measure(rate, seconds);
    return 0;
}
