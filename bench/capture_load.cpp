// Four encoders at 80 Mb/s each on loopback, recorded by two jobs of two encoders: are all packets there?
//   kestrel_capture_load [SECONDS=60] [MBIT=80] [DIRECTORY=/dev/shm]
// Prints, for each encoder, what was sent after the first random access point and what was recorded.
#include "capture/stream_builder.h"
#include "capture_profile/CSettings.h"
#include "foundation/UniqueFd.h"

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <netinet/in.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using Clock = std::chrono::steady_clock;
using capture_test::Packets;

namespace {

constexpr int ENCODERS = 4;
constexpr int PACKETS_A_DATAGRAM = 7;

int boundPort(const kestrel::UniqueFd& socket) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    socklen_t length = sizeof address;
    getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

int freePort() {
    return boundPort(kestrel::UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)));
}

// Sends a stream that never repeats, paced in steps of a millisecond.
class Encoder {
public:
    Encoder(int port, double bitsPerSecond) : m_bitsPerSecond(bitsPerSecond) {
        m_socket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }

    void run(double seconds) {
        const auto start = Clock::now();
        const double packetsPerSecond = m_bitsPerSecond / (188 * 8);
        while (true) {
            const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            if (elapsed >= seconds)
                return;
            const auto due = static_cast<std::int64_t>(elapsed * packetsPerSecond);
            while (m_sent + PACKETS_A_DATAGRAM <= due)
                sendDatagram();
            timespec pause{0, 1'000'000};
            nanosleep(&pause, nullptr);
        }
    }

    [[nodiscard]] std::int64_t sent() const { return m_sent; }

private:
    void sendDatagram() {
        if (m_position + PACKETS_A_DATAGRAM > m_packets.size()) {
            m_packets.erase(m_packets.begin(), m_packets.begin() + static_cast<std::ptrdiff_t>(m_position));
            const Packets more = m_builder.frames(12);
            m_packets.insert(m_packets.end(), more.begin(), more.end());
            m_position = 0;
        }
        ::send(m_socket.get(), m_packets.data() + m_position, PACKETS_A_DATAGRAM * 188, 0);
        m_position += PACKETS_A_DATAGRAM;
        m_sent += PACKETS_A_DATAGRAM;
    }

    static capture_test::StreamShape shape() {
        capture_test::StreamShape result;
        // About 80 Mb/s at 25 frames a second.
        result.packetsPerFrame = 2100;
        return result;
    }

    double m_bitsPerSecond;
    kestrel::UniqueFd m_socket;
    capture_test::StreamBuilder m_builder{shape()};
    Packets m_packets;
    std::size_t m_position = 0;
    std::int64_t m_sent = 0;
};

pid_t startWorker(const std::string& directory, int number, const int (&ports)[2]) {
    CSettings settings;
    settings.Init();
    settings.numEncoders = 2;
    for (int i = 0; i < 2; ++i) {
        settings.encoders[i].ipAddress = INADDR_LOOPBACK;
        settings.encoders[i].port = ports[i];
    }
    settings.cmd.jobType = CSettings::JOB_MANUAL;
    const std::string base = directory + "/load" + std::to_string(number);
    std::snprintf(settings.cmd.outputFile, sizeof settings.cmd.outputFile, "%s.ts", base.c_str());
    const std::string profile = base + ".xml";
    settings.SaveProfile(profile.c_str());
    std::vector<std::string> words{KESTREL_CAPTURE_PROGRAM, "-ini", profile, "-log", base + ".log"};
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    posix_spawn(&pid, KESTREL_CAPTURE_PROGRAM, nullptr, nullptr, argv.data(), environ);
    return pid;
}

std::uintmax_t packetsIn(const std::string& file) {
    std::error_code error;
    const std::uintmax_t bytes = std::filesystem::file_size(file, error);
    return error ? 0 : bytes / 188;
}

} // namespace

int main(int argc, char** argv) {
    const double seconds = argc > 1 ? std::atof(argv[1]) : 60;
    const double megabits = argc > 2 ? std::atof(argv[2]) : 80;
    std::string directory = std::string(argc > 3 ? argv[3] : "/dev/shm") + "/kestrel-load-XXXXXX";
    if (mkdtemp(directory.data()) == nullptr)
        return 1;

    int ports[ENCODERS];
    for (int& port : ports)
        port = freePort();
    const pid_t workers[2] = {startWorker(directory, 0, {ports[0], ports[1]}),
                              startWorker(directory, 1, {ports[2], ports[3]})};
    // The workers' sockets must be there before the first datagram, which would be lost without a trace.
    for (const int number : {0, 1})
        while (!std::filesystem::exists(directory + "/load" + std::to_string(number) + ".log"))
            usleep(1000);
    usleep(500'000);

    std::vector<std::unique_ptr<Encoder>> encoders;
    for (const int port : ports)
        encoders.push_back(std::make_unique<Encoder>(port, megabits * 1e6));
    {
        std::vector<std::jthread> threads;
        for (auto& encoder : encoders)
            threads.emplace_back([&encoder, seconds] { encoder->run(seconds); });
    }
    usleep(500'000);
    rusage usage{};
    for (const pid_t worker : workers) {
        kill(worker, SIGTERM);
        int status = 0;
        wait4(worker, &status, 0, &usage);
        std::printf("worker %d: exit %d, %.2f s CPU, %ld MB resident\n", worker, WEXITSTATUS(status),
                    static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                        static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6,
                    usage.ru_maxrss / 1024);
    }
    bool whole = true;
    for (int i = 0; i < ENCODERS; ++i) {
        const std::string file = directory + "/load" + std::to_string(i / 2) + (i % 2 == 0 ? ".ts" : "_2.ts");
        const auto recorded = static_cast<std::int64_t>(packetsIn(file));
        const std::int64_t sent = encoders[static_cast<std::size_t>(i)]->sent();
        // A recording leaves out what precedes the first random access point (the tables) and puts copies of
        // the tables first, so the two counts are equal when nothing is lost.
        std::printf("encoder %d: sent %ld packets (%.1f Mb/s), recorded %ld, difference %ld\n", i,
                    static_cast<long>(sent), static_cast<double>(sent) * 188 * 8 / seconds / 1e6,
                    static_cast<long>(recorded), static_cast<long>(sent - recorded));
        whole = whole && recorded == sent;
    }
    std::filesystem::remove_all(directory);
    std::puts(whole ? "no packet lost" : "PACKETS ARE MISSING");
    return whole ? 0 : 1;
}
