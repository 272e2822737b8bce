#include "capture/loopback_equipment.h"

#include "capture/normalize_streams.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

namespace capture_test {
namespace {

sockaddr_in socketAddress(const std::string& address, int port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(static_cast<std::uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &result.sin_addr);
    return result;
}

kestrel::UniqueFd outgoing() {
    return kestrel::UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

void sendTo(const kestrel::UniqueFd& socket, int port, const unsigned char* bytes, std::size_t size) {
    const sockaddr_in to = socketAddress("127.0.0.1", port);
    ::sendto(socket.get(), bytes, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

} // namespace

kestrel::UniqueFd boundSocket(const std::string& address, int& port) {
    kestrel::UniqueFd fd = outgoing();
    sockaddr_in local = socketAddress(address, port);
    socklen_t size = sizeof local;
    EXPECT_EQ(::bind(fd.get(), reinterpret_cast<const sockaddr*>(&local), size), 0) << address << ':' << port;
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&local), &size);
    port = ntohs(local.sin_port);
    const int bytes = 8 << 20;
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
        ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    return fd;
}

Equipment::Equipment(int encoderPort, Behaviour behaviour)
    : m_behaviour(std::move(behaviour)), m_stop(::eventfd(0, EFD_CLOEXEC)), m_out(outgoing()),
      m_port(m_behaviour.port), m_ports(m_behaviour.otherEncoders) {
    m_socket = boundSocket(m_behaviour.address, m_port);
    if (m_behaviour.encode.empty()) {
        m_ports.push_back(encoderPort);
    } else {
        const std::string command =
            "ffmpeg -v fatal -f mpegts -probesize 100000 -i pipe:0 " + m_behaviour.encode +
            " -f mpegts 'udp://127.0.0.1:" + std::to_string(encoderPort) + "?pkt_size=1316'";
        m_pipe = ::popen(command.c_str(), "we");
        EXPECT_NE(m_pipe, nullptr);
    }
    m_thread = std::thread([this] { run(); });
}

void Equipment::stop() {
    if (!m_thread.joinable())
        return;
    ::eventfd_write(m_stop.get(), 1);
    m_thread.join();
    if (m_pipe)
        ::pclose(m_pipe);
    m_pipe = nullptr;
}

void Equipment::run() {
    std::vector<unsigned char> buffer(65536);
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
        const auto size = static_cast<std::size_t>(got);
        m_received += size;
        const bool lost = m_received > m_behaviour.lostFrom && m_received <= m_behaviour.lostTo;
        if (lost || returned + size > m_behaviour.mostBytes)
            continue;
        returned += size;
        if (m_pipe) {
            std::fwrite(buffer.data(), 1, size, m_pipe);
            std::fflush(m_pipe);
        }
        for (const int port : m_ports)
            sendTo(m_out, port, buffer.data(), size);
    }
}

namespace {

LabelledShape idleShape(LabelledShape shape, int gop) {
    shape.gop = gop;
    shape.timecode = "00:00:00:00";
    return shape;
}

} // namespace

RunningEncoder::RunningEncoder(int encoderPort, LabelledShape shape, Source source)
    : m_stream(idleShape(std::move(shape), source.gop)), m_source(std::move(source)),
      m_stop(::eventfd(0, EFD_CLOEXEC)), m_out(outgoing()), m_otherOut(outgoing()) {
    m_socket = boundSocket("127.0.0.1", m_port);
    const sockaddr_in to = socketAddress("127.0.0.1", encoderPort);
    EXPECT_EQ(::connect(m_out.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    m_thread = std::thread([this] { run(); });
}

RunningEncoder::~RunningEncoder() {
    ::eventfd_write(m_stop.get(), 1);
    m_thread.join();
}

void RunningEncoder::takeSource(int frame) {
    std::vector<unsigned char> bytes(65536);
    const ssize_t got = ::recv(m_socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (got <= 0)
        return;
    if (m_framesBefore < 0)
        m_framesBefore = frame;
    bytes.resize(static_cast<std::size_t>(got));
    if (m_source.otherEncoder != 0)
        m_played.push_back({std::chrono::steady_clock::now() + m_source.otherDelay, std::move(bytes)});
}

void RunningEncoder::returnSource() {
    const auto now = std::chrono::steady_clock::now();
    const auto due = [now](const Played& played) { return played.due <= now; };
    const auto end = std::find_if_not(m_played.begin(), m_played.end(), due);
    for (auto played = m_played.begin(); played != end; ++played)
        sendTo(m_otherOut, m_source.otherEncoder, played->bytes.data(), played->bytes.size());
    m_played.erase(m_played.begin(), end);
}

void RunningEncoder::run() {
    using Behind = Source::Behind;
    LabelledShape other;
    other.rateCode = 5;
    other.timecode = "00:00:00:00";
    LabelledStream otherRate(other);
    auto next = std::chrono::steady_clock::now();
    int since = 0; // frames since the first datagram of the source
    int shown = 0;
    for (int frame = 0;; ++frame) {
        for (;;) { // whatever is played is taken while the frame is waited for
            const auto left = next - std::chrono::steady_clock::now();
            const auto wait = std::chrono::ceil<std::chrono::milliseconds>(left).count();
            pollfd waits[] = {{m_stop.get(), POLLIN, 0}, {m_socket.get(), POLLIN, 0}};
            if (::poll(waits, 2, static_cast<int>(std::max<std::int64_t>(wait, 0))) <= 0)
                break;
            if (waits[0].revents)
                return;
            takeSource(frame);
        }
        returnSource();
        next += std::chrono::milliseconds(40);
        const bool labelled = !m_source.firstLabel.empty();
        if (m_framesBefore >= 0 && ++since == m_source.delay && labelled)
            m_stream.jumpTo(m_source.firstLabel);
        const bool over = labelled ? shown >= m_source.frames : since > m_source.delay + m_source.frames;
        if (over && m_source.behind != Behind::pictures) {
            send(m_source.behind == Behind::nulls ? Packets(20, nullPacket())
                                                  : otherRate.frames(1).front().packets);
            continue;
        }
        const std::vector<CodedFrame> coded = m_stream.frames(1);
        if (labelled && (shown > 0 || coded.front().label == m_source.firstLabel) &&
            ++shown == m_source.frames)
            m_stream.jumpTo("20:00:00:00");
        if (shown == 1 && !m_source.leapTo.empty())
            m_stream.switchAt(frame + m_source.leapAt, m_source.leapTo);
        sendBurst(frame, coded.front().packets);
    }
}

void RunningEncoder::sendBurst(int frame, const Packets& packets) {
    m_gathered.insert(m_gathered.end(), packets.begin(), packets.end());
    if ((frame + 1) % m_source.burst == 0)
        send(std::exchange(m_gathered, {}));
}

void RunningEncoder::send(const Packets& packets) {
    for (std::size_t i = 0; i < packets.size(); i += 7)
        ::send(m_out.get(), packets[i].data(),
               std::min<std::size_t>(packets.size() - i, 7) * sizeof packets[0], 0);
}

} // namespace capture_test
