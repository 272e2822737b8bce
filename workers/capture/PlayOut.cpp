#include "PlayOut.h"

#include "CountedNoun.h"
#include "Ipv4.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <exception>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <system_error>
#include <unistd.h>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";
// Networks between this host and the decoder that a multicast stream crosses.
constexpr int multicastHops = 16;
constexpr int rtpPayloadType = 33; // MP2T (RFC 3551)

Clock::duration timeOf(std::int64_t ticks) {
    return std::chrono::nanoseconds(ticks * 1000 / 27);
}

void put32(unsigned char* at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        at[i] = static_cast<unsigned char>(value >> (24 - 8 * i));
}

} // namespace

PlayOut::PlayOut(PlayOutPlan plan, WakeEvent& changed) : m_plan(std::move(plan)), m_changed(changed) {}

PlayOut::~PlayOut() {
    cancel();
    join();
}

std::string PlayOut::destination() const {
    return addressText(m_plan.address) + ":" + std::to_string(m_plan.port);
}

MaybeFailure PlayOut::start() {
    if (auto failed = openSocket())
        return failed;
    m_timer.reset(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!m_timer.valid())
        return detailed(failure(error::startReencodeFailed, errno), errnoText(errno));
    if (auto failed = m_ahead.start(m_plan.file, m_plan.begin, m_plan.end))
        return failed;
    std::random_device random;
    m_sequence = static_cast<std::uint16_t>(random());
    m_rtpSource = random();
    m_rtpBegin = random();
    LogUtil::Info(module, "Playing %s to %s, interface %s, %s", m_plan.file.c_str(), destination().c_str(),
                  addressText(m_plan.interfaceAddress).c_str(), m_plan.rtp ? "RTP" : "plain UDP");
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        return failure(error::captureThreadNotLaunched);
    }
    return std::nullopt;
}

MaybeFailure PlayOut::openSocket() {
    m_socket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!m_socket.valid())
        return detailed(failure(error::startReencodeFailed, errno), errnoText(errno));
    const std::uint32_t local = m_plan.interfaceAddress;
    if (isMulticast(m_plan.address)) {
        const int hops = multicastHops;
        ::setsockopt(m_socket.get(), IPPROTO_IP, IP_MULTICAST_TTL, &hops, sizeof hops);
        const in_addr interface { htonl(local) };
        if (local != 0 &&
            ::setsockopt(m_socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) != 0)
            return detailed(failure(error::invalidDecoderInterface, addressText(local).c_str()),
                            errnoText(errno));
    }
    const sockaddr_in own = socketAddress(local, 0);
    if (local != 0 && ::bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0)
        return detailed(failure(error::invalidDecoderInterface, addressText(local).c_str()),
                        errnoText(errno));
    const sockaddr_in decoder = socketAddress(m_plan.address, m_plan.port);
    if (::connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&decoder), sizeof decoder) != 0)
        return detailed(failure(error::startReencodeFailed, errno),
                        "decoder " + destination() + ": " + errnoText(errno));
    return std::nullopt;
}

void PlayOut::go(Clock::time_point at) {
    {
        const MutexLock lock(m_mutex);
        m_begin = at;
    }
    m_go.signal();
}

void PlayOut::cancel() noexcept {
    m_ahead.cancel();
    m_stop.signal();
}

void PlayOut::join() {
    if (m_thread.joinable())
        m_thread.join();
}

PlayOutStatus PlayOut::status() const {
    const MutexLock lock(m_mutex);
    return m_status;
}

void PlayOut::run() noexcept {
    // Timers of this thread are not to be put together with others.
    ::prctl(PR_SET_TIMERSLACK, 1UL);
    MaybeFailure failed;
    try {
        failed = play();
    } catch (const std::exception& problem) {
        failed = Failure{error::startReencodeFailed, std::string("Error: ") + problem.what()};
    }
    m_ahead.cancel();
    publish(Clock::now());
    LogUtil::Info(module, "Played %s, %s, %s, %s not taken%s%s", counted(m_frames.frames(), "frame").c_str(),
                  counted(m_bytes, "byte").c_str(), counted(m_interruptions, "interruption").c_str(),
                  counted(m_refused, "datagram").c_str(), failed ? ": " : "",
                  failed ? failed->text.c_str() : "");
    {
        const MutexLock lock(m_mutex);
        m_status.over = true;
        m_status.failed = std::move(failed);
    }
    m_changed.signal();
}

MaybeFailure PlayOut::play() {
    while (!m_ahead.holds(readyPackets))
        if (waitForPackets())
            return std::nullopt;
    if (!fill())
        return m_ahead.failed();
    if (waitToBegin())
        return std::nullopt;
    Clock::time_point begin = Clock::now();
    {
        const MutexLock lock(m_mutex);
        begin = std::max(begin, m_begin);
        m_status.begun = true;
        m_status.beganAt = begin;
    }
    m_changed.signal();
    do {
        const Ticks time = m_times.front();
        const Clock::time_point due = begin + timeOf(time);
        if (waitUntil(due))
            return std::nullopt;
        const Clock::time_point now = Clock::now();
        if (now - due > lateLimit) {
            // Whatever kept this thread from running: a burst would overflow the decoder's buffer.
            ++m_interruptions;
            begin += now - due;
        }
        if (auto failed = send(time))
            return failed;
        if (now - m_published >= milliseconds(100))
            publish(now);
    } while (fill());
    return m_ahead.failed();
}

// Puts the next datagram together, waiting for the disk where it is not ahead any more. False at the end of
// the file, or when it is to end.
bool PlayOut::fill() {
    m_packets = 0;
    while (m_packets < datagramPackets) {
        if (m_taken < m_block.count()) {
            consume(std::min(datagramPackets - m_packets, m_block.count() - m_taken));
            continue;
        }
        m_ahead.clearArrival();
        const PlayAhead::Next next = m_ahead.take(m_block);
        m_taken = 0;
        if (next == PlayAhead::Next::end || (next == PlayAhead::Next::none && waitForPackets()))
            break;
    }
    return m_packets > 0;
}

void PlayOut::consume(std::size_t packets) {
    const std::size_t head = m_plan.rtp ? rtpHead : 0;
    const auto bytes = m_block.packets(m_taken, m_taken + packets);
    std::copy(bytes.begin(), bytes.end(),
              m_datagram.begin() + static_cast<std::ptrdiff_t>(head + m_packets * packetSize));
    std::copy_n(m_block.times.begin() + static_cast<std::ptrdiff_t>(m_taken), packets,
                m_times.begin() + static_cast<std::ptrdiff_t>(m_packets));
    m_taken += packets;
    m_packets += packets;
}

// True when it is to end.
bool PlayOut::waitForPackets() {
    pollfd waits[] = {{m_stop.fd(), POLLIN, 0}, {m_ahead.arrival(), POLLIN, 0}};
    while (::poll(waits, std::size(waits), -1) < 0) {
    }
    if (waits[0].revents == 0)
        m_ahead.clearArrival();
    return waits[0].revents != 0;
}

// True when it is to end.
bool PlayOut::waitToBegin() {
    {
        const MutexLock lock(m_mutex);
        m_status.ready = true;
    }
    m_changed.signal();
    if (!m_plan.held)
        return false;
    pollfd waits[] = {{m_stop.fd(), POLLIN, 0}, {m_go.fd(), POLLIN, 0}};
    while (::poll(waits, std::size(waits), -1) < 0) {
    }
    return waits[0].revents != 0;
}

// True when it is to end. Sleeps to a fixed time, so that delays do not add up.
bool PlayOut::waitUntil(Clock::time_point due) {
    const auto since = due.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    itimerspec spec{};
    spec.it_value.tv_sec = seconds.count();
    spec.it_value.tv_nsec = std::chrono::nanoseconds(since - seconds).count();
    if (due > Clock::now())
        ::timerfd_settime(m_timer.get(), TFD_TIMER_ABSTIME, &spec, nullptr);
    for (;;) {
        const bool late = due <= Clock::now();
        pollfd waits[] = {{m_stop.fd(), POLLIN, 0}, {m_timer.get(), POLLIN, 0}};
        const int found = ::poll(waits, late ? 1 : 2, late ? 0 : -1);
        if (found > 0 && waits[0].revents)
            return true;
        if (late)
            return false;
        std::uint64_t expirations = 0;
        if (found > 0 && waits[1].revents) [[maybe_unused]]
            const ssize_t drained = ::read(m_timer.get(), &expirations, sizeof expirations);
    }
}

MaybeFailure PlayOut::send(Ticks time) {
    const std::size_t head = m_plan.rtp ? rtpHead : 0;
    if (m_plan.rtp) {
        m_datagram[0] = 0x80;
        m_datagram[1] = rtpPayloadType;
        m_datagram[2] = static_cast<unsigned char>(m_sequence >> 8);
        m_datagram[3] = static_cast<unsigned char>(m_sequence);
        put32(&m_datagram[4], m_rtpBegin + static_cast<std::uint32_t>(time / 300)); // 90 kHz
        put32(&m_datagram[8], m_rtpSource);
        ++m_sequence;
    }
    const std::size_t bytes = m_packets * packetSize;
    int error = transmit(head + bytes);
    const int told = error;
    // A port that is closed is told by the host's answer to a datagram before; this one has not been sent
    // yet.
    if (error == ECONNREFUSED) {
        ++m_refused;
        error = transmit(head + bytes);
    }
    m_refused += error != 0 ? 1 : 0;
    for (std::size_t i = 0; i < m_packets; ++i)
        m_frames.take(m_datagram.data() + head + i * packetSize);
    m_bytes += bytes;
    return told != 0 ? refused(told) : std::nullopt;
}

// The error; 0 when it has been sent.
int PlayOut::transmit(std::size_t bytes) {
    while (::send(m_socket.get(), m_datagram.data(), bytes, 0) < 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

// A decoder that starts up may refuse datagrams for a moment, and a cable may be plugged in again.
MaybeFailure PlayOut::refused(int error) {
    const Clock::time_point now = Clock::now();
    if (!m_refusedSince || now - m_refusedLast > refusalPause) {
        m_refusedSince = now;
        LogUtil::Warning(module, "Decoder %s does not take the stream: %s", destination().c_str(),
                         errnoText(error).c_str());
    }
    m_refusedLast = now;
    if (now - *m_refusedSince < refusedLimit)
        return std::nullopt;
    return detailed(failure(error::startReencodeFailed, error),
                    "decoder " + destination() + ": " + errnoText(error));
}

void PlayOut::publish(Clock::time_point now) {
    m_published = now;
    const MutexLock lock(m_mutex);
    m_status.frames = m_frames.frames();
    m_status.bytes = m_bytes;
    m_status.refused = m_refused;
    m_status.interruptions = m_interruptions;
}

} // namespace kestrel::capture
