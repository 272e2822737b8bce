#include "UdpReceiver.h"

#include "GroupDevice.h"
#include "Ipv4.h"
#include "WaitTime.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <utility>
#include <vector>

namespace kestrel::capture {
namespace {

bool bindTo(int fd, std::uint32_t address, int port) noexcept {
    const sockaddr_in name = socketAddress(address, port);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0;
}

bool setFlag(int fd, int level, int option, int value) noexcept {
    return ::setsockopt(fd, level, option, &value, sizeof value) == 0;
}

void count(std::atomic<std::uint64_t>& counter, std::uint64_t more = 1) noexcept {
    counter.fetch_add(more, std::memory_order_relaxed);
}

// Bounds one call of drain on a flood, so that a stop is always seen.
constexpr int batchesPerTurn = 64;
constexpr int batchesAtStop = 4096;

std::chrono::nanoseconds duration(const timespec& time) noexcept {
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

// What the kernel tells of a datagram besides its bytes; false where it does not.
template <typename Value>
bool told(const msghdr& header, int type, Value& value) noexcept {
    for (const cmsghdr* at = CMSG_FIRSTHDR(&header); at;
         at = CMSG_NXTHDR(const_cast<msghdr*>(&header), const_cast<cmsghdr*>(at)))
        if (at->cmsg_level == SOL_SOCKET && at->cmsg_type == type && at->cmsg_len >= CMSG_LEN(sizeof value)) {
            std::memcpy(&value, CMSG_DATA(at), sizeof value);
            return true;
        }
    return false;
}

std::chrono::nanoseconds wallTime() noexcept {
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    return duration(time);
}

} // namespace

std::uint32_t receivingAddress(const StreamSource& source) noexcept {
    if (source.address == INADDR_ANY || isMulticast(source.address))
        return source.address;
    const UniqueFd probe(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const bool foreign = probe.valid() && !bindTo(probe.get(), source.address, 0) && errno == EADDRNOTAVAIL;
    return foreign ? INADDR_ANY : source.address;
}

// The buffers of one recvmmsg(2).
struct UdpReceiver::Batch {
    std::array<sockaddr_in, receiveBatch> senders{};
    std::array<iovec, receiveBatch> parts{};
    std::array<mmsghdr, receiveBatch> messages{};
    // For the time of arrival and what was dropped before.
    struct alignas(cmsghdr) Control {
        std::array<unsigned char, CMSG_SPACE(sizeof(timespec)) + CMSG_SPACE(sizeof(std::uint32_t))> bytes{};
    };
    std::array<Control, receiveBatch> controls{};
    std::vector<unsigned char> bytes = std::vector<unsigned char>(receiveBatch * datagramBytes);

    // The kernel writes into the headers, so each call needs them anew.
    void prepare() noexcept {
        for (std::size_t i = 0; i < receiveBatch; ++i) {
            parts[i] = {bytes.data() + i * datagramBytes, datagramBytes};
            msghdr& header = messages[i].msg_hdr;
            header = {};
            header.msg_name = &senders[i];
            header.msg_namelen = sizeof senders[i];
            header.msg_iov = &parts[i];
            header.msg_iovlen = 1;
            header.msg_control = controls[i].bytes.data();
            header.msg_controllen = controls[i].bytes.size();
        }
    }
};

UdpReceiver::UdpReceiver(const StreamSource& source, PacketRing& ring, WakeEvent& wake)
    : m_source(source), m_ring(ring), m_wake(wake), m_batch(std::make_unique<Batch>()) {}

UdpReceiver::~UdpReceiver() {
    stop();
}

MaybeFailure UdpReceiver::open(bool again) {
    m_socket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    m_portTaken = false;
    if (!m_socket.valid() || !m_stop.valid() || !m_look.valid())
        return detailed(failure(error::startCaptureFailed), "socket: " + errnoText(errno));
    setFlag(m_socket.get(), SOL_SOCKET, SO_TIMESTAMPNS, 1);
    setFlag(m_socket.get(), SOL_SOCKET, SO_RXQ_OVFL, 1);
    m_arrived = Clock::now();
    m_seen.store(m_arrived.time_since_epoch().count(), std::memory_order_relaxed);
    MaybeFailure failed;
    if (m_source.sender != 0) {
        failed = m_claim.take(m_source.sender, m_source.port, again);
        m_portTaken = failed && m_claim.taken();
    }
    if (!failed)
        failed = bindSocket();
    if (!failed)
        growBuffer();
    if (!failed && isMulticast(m_source.address))
        failed = joinGroup();
    if (failed) {
        m_socket.reset();
        m_claim.release();
    }
    return failed;
}

void UdpReceiver::growBuffer() {
    // Forced past the system's limit when the process may; the plain option is held at the limit.
    if (!setFlag(m_socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, socketBufferBytes))
        setFlag(m_socket.get(), SOL_SOCKET, SO_RCVBUF, socketBufferBytes);
    socklen_t size = sizeof m_bufferBytes;
    ::getsockopt(m_socket.get(), SOL_SOCKET, SO_RCVBUF, &m_bufferBytes, &size);
    m_bufferBytes /= 2; // the kernel doubles what it is asked for, to have room for its own records
    if (m_bufferBytes < socketBufferBytes)
        LogUtil::Warning("Capture",
                         "UDP port %d: the receive buffer has %d of the %d bytes wanted, so a busy host may "
                         "lose datagrams: raise net.core.rmem_max",
                         m_source.port, m_bufferBytes, socketBufferBytes);
}

MaybeFailure UdpReceiver::bindSocket() {
    const int fd = m_socket.get();
    // A group may have any number of receivers. A unicast port has one: two sockets on it would take each
    // other's stream, so the second is refused, except where the kernel tells senders apart (below).
    if (isMulticast(m_source.address) || m_source.sender != 0)
        setFlag(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    // Bound to the group, a socket does not get the other groups of that port.
    if (!bindTo(fd, receivingAddress(m_source), m_source.port)) {
        m_portTaken = errno == EADDRINUSE;
        const char* const whatToDo =
            m_portTaken ? "; end the recording or program that receives there, or let the encoder "
                          "send to a multicast group"
                        : "";
        return detailed(failure(error::startCaptureFailed),
                        format("UDP port %d of %s: %s%s", m_source.port,
                               addressText(m_source.address).c_str(), errnoText(errno).c_str(), whatToDo));
    }
    if (m_source.sender != 0) {
        // Connected to port 0 of the encoder, the socket gets what the encoder sends from any port and
        // nothing else, so that several recorders share the default port. Where this is refused the sender is
        // checked datagram by datagram all the same. (The kernel then also takes only what goes to the
        // address of this host on the route to the encoder; a host with several needs a line in the encoder
        // map.) Two sockets for one encoder never come to this point: see StreamClaim.
        const sockaddr_in sender = socketAddress(m_source.sender, 0);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&sender), sizeof sender) != 0)
            LogUtil::Warning("Capture", "Cannot reserve the datagrams of %s: %s",
                             addressText(m_source.sender).c_str(), errnoText(errno).c_str());
        else
            watchOthers();
    }
    return std::nullopt;
}

// The kernel gives a socket that is not connected what is for none of those that are. Nothing is read from it
// but who sent the first, should the encoder itself send nothing.
void UdpReceiver::watchOthers() {
    m_others.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!m_others.valid())
        return;
    setFlag(m_others.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    setFlag(m_others.get(), SOL_SOCKET, SO_RCVBUF, 1); // the least there is
    if (!bindTo(m_others.get(), m_source.address, m_source.port))
        m_others.reset();
}

void UdpReceiver::tellOthers() noexcept {
    sockaddr_in sender{};
    socklen_t size = sizeof sender;
    if (m_others.valid() && ::recvfrom(m_others.get(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC,
                                       reinterpret_cast<sockaddr*>(&sender), &size) >= 0)
        m_counts.otherSender.store(ntohl(sender.sin_addr.s_addr), std::memory_order_relaxed);
    m_others.reset();
}

MaybeFailure UdpReceiver::joinGroup() {
    setFlag(m_socket.get(), IPPROTO_IP, IP_MULTICAST_ALL, 0);
    if (joinOn(m_source.interfaceAddress))
        return std::nullopt;
    // A host without a route for groups still has the loopback interface.
    if (errno == ENODEV && m_source.interfaceAddress == 0) {
        if (joinOn(INADDR_LOOPBACK)) {
            m_onLoopback = true;
            LogUtil::Warning("Capture", "No route for group %s: joined on the loopback interface",
                             addressText(m_source.address).c_str());
            return std::nullopt;
        }
    }
    return detailed(failure(error::startCaptureFailed),
                    format("join %s on interface %s: %s", addressText(m_source.address).c_str(),
                           addressText(m_source.interfaceAddress).c_str(), errnoText(errno).c_str()));
}

// On the device that the kernel would choose now. It is named, so that it can be left whatever the kernel
// would choose then: one that is not left may bring each packet a second time.
bool UdpReceiver::joinOn(std::uint32_t interfaceAddress) noexcept {
    ip_mreqn group{};
    group.imr_multiaddr.s_addr = htonl(m_source.address);
    group.imr_address.s_addr = htonl(interfaceAddress);
    m_device = groupDevice(m_source.address, interfaceAddress);
    group.imr_ifindex = static_cast<int>(m_device);
    if (::setsockopt(m_socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) != 0)
        return false;
    if (m_device == 0 && !std::exchange(m_deviceUnknown, true))
        LogUtil::Warning("Capture",
                         "Group %s: it cannot be told on which network device it is received, so where its "
                         "route moves it may be received on two",
                         addressText(m_source.address).c_str());
    return true;
}

void UdpReceiver::leaveGroup() noexcept {
    ip_mreqn group{};
    group.imr_multiaddr.s_addr = htonl(m_source.address);
    group.imr_address.s_addr = htonl(m_onLoopback ? INADDR_LOOPBACK : m_source.interfaceAddress);
    group.imr_ifindex = static_cast<int>(m_device);
    ::setsockopt(m_socket.get(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &group, sizeof group);
}

// A membership goes with its network device and is not there on the one that is made in its place, which the
// socket is not told. A group of which nothing comes has nothing to lose.
void UdpReceiver::rejoinGroup() noexcept {
    if (!m_rejoining)
        LogUtil::Info(
            "Capture",
            "Nothing has come of group %s for %.0f s: it is joined again every %.0f s until it does",
            addressText(m_source.address).c_str(), std::chrono::duration<double>(rejoinAfter).count(),
            std::chrono::duration<double>(rejoinEvery).count());
    leaveGroup();
    const bool joined = joinOn(m_source.interfaceAddress);
    const int reason = errno;
    if (!joined && m_onLoopback)
        joinOn(INADDR_LOOPBACK);
    else if (!joined && !m_rejoinFailed)
        LogUtil::Warning("Capture", "Cannot join group %s again: %s", addressText(m_source.address).c_str(),
                         errnoText(reason).c_str());
    m_onLoopback = m_onLoopback && !joined;
    m_rejoinFailed = !joined;
    m_rejoining = true;
}

MaybeFailure UdpReceiver::start() {
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        return failure(error::captureThreadNotLaunched);
    }
    return std::nullopt;
}

void UdpReceiver::stop() {
    const MutexLock lock(m_stopping);
    if (!m_thread.joinable())
        return;
    m_stop.signal();
    m_thread.join();
    // The port is free for the next recorder at once, also while another encoder of this job goes on.
    m_socket.reset();
    m_claim.release();
}

void UdpReceiver::run() noexcept {
    pollfd waits[] = {{m_stop.fd(), POLLIN, 0}, {m_socket.get(), POLLIN, 0}, {m_look.fd(), POLLIN, 0}};
    const bool gather = m_bufferBytes >= smallSocketBufferBytes;
    const bool group = isMulticast(m_source.address);
    Clock::time_point rejoin = group ? Clock::now() + rejoinAfter : Clock::time_point::max();
    for (;;) {
        if (::poll(waits, std::size(waits), group ? pollTime(rejoin, Clock::now()) : -1) < 0 &&
            errno != EINTR)
            break;
        const bool stopping = waits[0].revents != 0;
        const bool asked = waits[2].revents != 0;
        if (asked)
            m_look.clear();
        const bool any = drain(stopping ? batchesAtStop : batchesPerTurn);
        if (any || asked)
            m_wake.signal();
        if (stopping)
            break;
        if (group && any) {
            rejoin = Clock::now() + rejoinAfter;
            m_rejoining = m_rejoinFailed = false;
        } else if (group && Clock::now() >= rejoin) {
            rejoinGroup();
            rejoin = Clock::now() + rejoinEvery;
        }
        if (gather)
            ::poll(waits, 1, static_cast<int>(gatherTime.count()));
    }
    tellOthers();
    m_ended.store(true, std::memory_order_release);
    m_wake.signal();
}

Clock::time_point UdpReceiver::seenUntil() const noexcept {
    return m_ended.load(std::memory_order_acquire) ? Clock::now() : lookedUntil();
}

Clock::time_point UdpReceiver::lookedUntil() const noexcept {
    return Clock::time_point(Clock::duration(m_seen.load(std::memory_order_acquire)));
}

// Takes what waits in the socket. Returns whether there was anything.
bool UdpReceiver::drain(int mostBatches) noexcept {
    const Clock::time_point began = Clock::now();
    bool any = false;
    bool emptied = false;
    // What was dropped until now lies before what will arrive.
    countKernelDrops();
    for (int batch = 0; batch < mostBatches && !emptied; ++batch) {
        m_batch->prepare();
        const int received =
            ::recvmmsg(m_socket.get(), m_batch->messages.data(), receiveBatch, MSG_DONTWAIT, nullptr);
        if (received <= 0) {
            // Errors of the network (an ICMP answer, say) belong to the past; what comes next is read again.
            emptied = received == 0 || errno == EAGAIN || errno == EWOULDBLOCK;
            continue;
        }
        any = true;
        // In this order: what comes between them makes arrivals later, but none earlier than it was.
        const std::chrono::nanoseconds wall = wallTime();
        const Clock::time_point now = Clock::now();
        for (int i = 0; i < received; ++i) {
            const mmsghdr& message = m_batch->messages[static_cast<std::size_t>(i)];
            noteArrival(message, now, wall);
            takeDatagram(message);
        }
        emptied = static_cast<std::size_t>(received) < receiveBatch;
    }
    countKernelDrops();
    const Clock::rep seen = (emptied ? began : m_arrived).time_since_epoch().count();
    if (seen > m_seen.load(std::memory_order_relaxed))
        m_seen.store(seen, std::memory_order_release);
    return any;
}

// By the kernel's time, which tells also of what waited in the socket while this process did not run. That is
// the time of day, which may be set: it arrived neither before the socket was last seen empty nor in the
// future.
void UdpReceiver::noteArrival(const mmsghdr& message, Clock::time_point now,
                              std::chrono::nanoseconds wall) noexcept {
    const Clock::time_point seen{Clock::duration(m_seen.load(std::memory_order_relaxed))};
    Clock::time_point at = now;
    timespec time{};
    if (told(message.msg_hdr, SCM_TIMESTAMPNS, time)) {
        const auto ago = std::clamp<std::chrono::nanoseconds>(wall - duration(time), {}, now - seen);
        at = now - std::chrono::duration_cast<Clock::duration>(ago);
    }
    m_arrived = std::max(at, m_arrived);
    // Not told while nothing has been dropped.
    std::uint32_t drops = 0;
    if (told(message.msg_hdr, SO_RXQ_OVFL, drops) && drops != std::exchange(m_dropsBefore, drops))
        m_afterLoss = true;
}

void UdpReceiver::noteLoss() noexcept {
    m_lastLoss.store(Clock::now().time_since_epoch().count(), std::memory_order_relaxed);
}

// By the socket's own account rather than by the one that comes with each datagram (SO_RXQ_OVFL), which tells
// where in the stream: that one knows nothing of what was dropped behind the last datagram that found room.
void UdpReceiver::countKernelDrops() noexcept {
    std::array<std::uint32_t, SK_MEMINFO_VARS> account{};
    socklen_t size = sizeof account;
    if (::getsockopt(m_socket.get(), SOL_SOCKET, SO_MEMINFO, account.data(), &size) != 0)
        return;
    const std::uint32_t drops = account[SK_MEMINFO_DROPS];
    if (drops == m_lastDropCount)
        return;
    noteLoss();
    count(m_counts.kernelDrops, static_cast<std::uint32_t>(drops - m_lastDropCount));
    m_lastDropCount = drops;
}

void UdpReceiver::takeDatagram(const mmsghdr& message) noexcept {
    const msghdr& header = message.msg_hdr;
    const std::uint32_t sender = ntohl(static_cast<const sockaddr_in*>(header.msg_name)->sin_addr.s_addr);
    if (m_source.sender != 0 && sender != m_source.sender) {
        if (m_counts.datagrams == 0)
            m_counts.otherSender.store(sender, std::memory_order_relaxed);
        return;
    }
    count(m_counts.datagrams);
    m_others.reset();
    if (m_counts.firstSender.load(std::memory_order_relaxed) == 0)
        m_counts.firstSender.store(sender, std::memory_order_relaxed);

    const Datagram datagram =
        parseDatagram({static_cast<const unsigned char*>(header.msg_iov->iov_base), message.msg_len});
    if (datagram.strayBytes != 0)
        noteBad(datagram);
    if (datagram.rtp) {
        m_counts.rtp.store(true, std::memory_order_relaxed);
        const RtpSequence::Step step = m_rtp.next(datagram.sequence, datagram.source);
        if (step.lost)
            count(m_counts.rtpLost, step.lost);
        if (step.late)
            count(m_counts.rtpLate);
        // It is one of those counted as lost when its successors came.
        if (step.fillsGap)
            m_counts.rtpLost.fetch_sub(1, std::memory_order_relaxed);
        if (step.restarted)
            count(m_counts.rtpRestarts);
    }
    takePackets(datagram.packets);
}

void UdpReceiver::noteBad(const Datagram& datagram) noexcept {
    count(datagram.packets.empty() ? m_counts.badDatagrams : m_counts.cutDatagrams);
    const std::size_t bytes = datagram.packets.size() + datagram.strayBytes;
    if (m_counts.largestBad == 0 || bytes < m_counts.smallestBad)
        m_counts.smallestBad.store(bytes, std::memory_order_relaxed);
    if (bytes > m_counts.largestBad)
        m_counts.largestBad.store(bytes, std::memory_order_relaxed);
}

// Packets that lack the sync byte are left out; the runs between them go on in one piece each.
void UdpReceiver::takePackets(std::span<const unsigned char> packets) noexcept {
    while (!packets.empty()) {
        std::size_t run = 0;
        while (run < packets.size() && packets[run] == 0x47)
            run += packetSize;
        if (run != 0) {
            const std::size_t taken = m_ring.push(packets.first(run), m_arrived, m_afterLoss);
            count(m_counts.packets, taken);
            m_afterLoss = m_afterLoss && taken == 0;
            if (taken < run / packetSize) {
                m_afterLoss = true;
                noteLoss();
                count(m_counts.overflow, run / packetSize - taken);
            }
            packets = packets.subspan(run);
        } else {
            count(m_counts.badPackets);
            packets = packets.subspan(packetSize);
        }
    }
}

} // namespace kestrel::capture
