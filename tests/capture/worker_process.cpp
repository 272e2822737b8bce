#include "capture/worker_process.h"
#include "foundation/ProcessTree.h"

#include "foundation/PosixWrappers.h"

#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>

namespace capture_test {
namespace {

using Clock = std::chrono::steady_clock;

sockaddr_in name(const std::string& address, int port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &result.sin_addr);
    return result;
}

} // namespace

int freePort() {
    const kestrel::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = name("127.0.0.1", 0);
    socklen_t size = sizeof address;
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

Sender::Sender(const std::string& address, int port, const std::string& from)
    : m_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    const in_addr loopback{htonl(INADDR_LOOPBACK)};
    ::setsockopt(m_socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &loopback, sizeof loopback);
    const sockaddr_in own = name(from, 0);
    EXPECT_EQ(::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
    const sockaddr_in target = name(address, port);
    EXPECT_EQ(::connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target), 0);
}

void Sender::sendRaw(const std::vector<unsigned char>& bytes) {
    ::send(m_socket.get(), bytes.data(), bytes.size(), 0);
}

void Sender::send(const Packets& packets, double bitsPerSecond) {
    paced(packets, bitsPerSecond, false);
}

void Sender::sendRtp(const Packets& packets, double bitsPerSecond) {
    paced(packets, bitsPerSecond, true);
}

void Sender::paced(const Packets& packets, double bitsPerSecond, bool rtp) {
    const auto begin = Clock::now();
    for (std::size_t at = 0; at < packets.size(); at += 7) {
        std::vector<unsigned char> bytes;
        if (rtp) {
            const unsigned sequence = m_sequence++;
            bytes = {0x80,
                     33,
                     static_cast<unsigned char>(sequence >> 8),
                     static_cast<unsigned char>(sequence),
                     0,
                     0,
                     0,
                     0,
                     0,
                     0,
                     0,
                     1};
        }
        for (std::size_t i = at; i < std::min(at + 7, packets.size()); ++i)
            bytes.insert(bytes.end(), packets[i].begin(), packets[i].end());
        sendRaw(bytes);
        if (at % 70 == 0)
            std::this_thread::sleep_until(
                begin + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                            static_cast<double>(at) * 188 * 8 / bitsPerSecond)));
    }
}

ServiceQueues::ServiceQueues() {
    static std::atomic<int> number{0};
    const std::string tail = std::to_string(getpid()) + "_" + std::to_string(number++);
    m_updateName = "/capt_update_" + tail;
    m_managerName = "/capt_mgr_" + tail;
    long attributes[4] = {0, 10, 1000, 0};
    m_update = createMsgQueue(m_updateName.c_str(), 0666, attributes);
    m_manager = createMsgQueue(m_managerName.c_str(), 0666, attributes);
    EXPECT_GE(m_update, 0);
    EXPECT_GE(m_manager, 0);
}

ServiceQueues::~ServiceQueues() {
    closeMsgQueue(m_update);
    closeMsgQueue(m_manager);
    unlinkMsgQueue(m_updateName.c_str());
    unlinkMsgQueue(m_managerName.c_str());
}

void ServiceQueues::send(AppMsgType type, const void* payload, int size) {
    const GenericMsg message(type, const_cast<void*>(payload), size);
    EXPECT_EQ(sendMsg(m_manager, reinterpret_cast<const char*>(message.buffer), message.length), 0);
}

bool ServiceQueues::receive(std::chrono::milliseconds most) {
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    const long long nanoseconds = until.tv_nsec + most.count() % 1000 * 1'000'000;
    until.tv_sec += most.count() / 1000 + nanoseconds / 1'000'000'000;
    until.tv_nsec = nanoseconds % 1'000'000'000;
    char buffer[1000];
    const ssize_t length = mq_timedreceive(m_update, buffer, sizeof buffer, nullptr, &until);
    if (length < 0)
        return false;
    const GenericFlatMsg flat(reinterpret_cast<unsigned char*>(buffer), static_cast<int>(length));
    Message message{flat.type, "", {}};
    if (flat.payload) {
        message.payload.assign(flat.payload, flat.payload + flat.payloadSize);
        message.text.assign(reinterpret_cast<char*>(flat.payload),
                            strnlen(reinterpret_cast<char*>(flat.payload), message.payload.size()));
    }
    m_received.push_back(message);
    if (act)
        act(message);
    return true;
}

Worker::Worker() {
    settings.cmd.jobType = CSettings::JOB_MANUAL;
    std::snprintf(settings.cmd.outputFile, sizeof settings.cmd.outputFile, "%s", path("out/news.ts").c_str());
}

Worker::~Worker() {
    if (m_process > 0) {
        kestrel::test::signalTo(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
}

int Worker::addEncoder() {
    auto& reception = settings.encoders[static_cast<std::size_t>(settings.numEncoders++)];
    reception.ipAddress = 0x7F000001;
    reception.port = freePort();
    return reception.port;
}

void Worker::start() {
    ASSERT_TRUE(settings.SaveProfile(path("settings.xml").c_str()));
    if (rewriteSettings) {
        const std::string text = rewriteSettings(readText(path("settings.xml")));
        std::ofstream(path("settings.xml")) << text;
    }
    std::vector<std::string> words{KESTREL_CAPTURE_PROGRAM};
    words.insert(words.end(), extraOptions.begin(), extraOptions.end());
    words.insert(words.end(), {"-ini", path("settings.xml"), "-log", path("log/capture.log")});
    if (useQueues)
        words.insert(words.end(), {"-wq", queues.updateName(), "-rq", queues.managerName()});
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    m_process = ::fork();
    if (m_process == 0) {
        const rlimit limit{memoryLimit, memoryLimit};
        if (memoryLimit != 0)
            ::setrlimit(RLIMIT_AS, &limit);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ASSERT_GT(m_process, 0);
}

void Worker::waitForLog(const std::string& text) {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (log().find(text) == std::string::npos) {
        ASSERT_LT(Clock::now(), deadline) << "no \"" << text << "\" in\n" << log();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

Message Worker::next(AppMsgType type, std::chrono::seconds most) {
    const auto deadline = Clock::now() + most;
    while (Clock::now() < deadline)
        if (queues.receive(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now())) &&
            queues.received().back().type == type)
            return queues.received().back();
    ADD_FAILURE() << "no message of type " << type << '\n' << log();
    return {};
}

void Worker::signal(int number) const {
    kestrel::test::signalTo(m_process, number);
}

int Worker::wait(std::chrono::seconds most) {
    const auto deadline = Clock::now() + most;
    int status = 0;
    while (Clock::now() < deadline) {
        const bool any = queues.receive(std::chrono::milliseconds(20));
        if (!any && ::waitpid(m_process, &status, WNOHANG) == m_process) {
            m_process = -1;
            while (queues.receive(std::chrono::milliseconds(0))) {
            }
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
    }
    return -1;
}

std::string Worker::results() const {
    std::string text;
    for (const Message& message : queues.received())
        if (message.type == RESULTS_MSG)
            text = message.text;
    return text;
}

} // namespace capture_test
