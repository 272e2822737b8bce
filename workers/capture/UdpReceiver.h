// Receives the datagrams of one encoder and puts their transport packets into a ring.
#pragma once

#include "DatagramParser.h"
#include "Failure.h"
#include "PacketRing.h"
#include "StreamClaim.h"
#include "StreamSource.h"
#include "WakeEvent.h"
#include "foundation/Mutex.h"
#include "foundation/UniqueFd.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

struct mmsghdr;

namespace kestrel::capture {

// What a receiver has seen so far; read by any thread at any time.
struct ReceiverCounts {
    std::atomic<std::uint64_t> datagrams{0};
    std::atomic<std::uint64_t> packets{0};      // given to the ring
    std::atomic<std::uint64_t> overflow{0};     // packets that found no room in the ring
    std::atomic<std::uint64_t> kernelDrops{0};  // datagrams that found no room in the socket's buffer
    std::atomic<std::uint64_t> badDatagrams{0}; // without a whole transport packet, plain or in RTP
    std::atomic<std::uint64_t> cutDatagrams{0}; // with bytes behind their last whole packet
    // Payload bytes of the smallest and the largest of both kinds; 0 while there are none.
    std::atomic<std::size_t> smallestBad{0};
    std::atomic<std::size_t> largestBad{0};
    std::atomic<std::uint64_t> badPackets{0};  // without the sync byte
    std::atomic<std::uint64_t> rtpLost{0};     // datagrams missing by their RTP sequence numbers; one that
                                               // still comes is taken off again
    std::atomic<std::uint64_t> rtpLate{0};     // datagrams out of order by their RTP sequence numbers
    std::atomic<std::uint64_t> rtpRestarts{0}; // times the RTP sequence numbers began anew
    std::atomic<std::uint32_t> firstSender{0}; // host order; 0 until the first datagram
    // Who else sent to the port while nothing came from the sender that counts; once the receiver has been
    // stopped. The sender itself: it sends to another address of this host. 0: nobody.
    std::atomic<std::uint32_t> otherSender{0};
    std::atomic<bool> rtp{false}; // the stream comes in RTP
};

// The address that a receiver of this source binds its socket to, in host order. A group's or this host's is
// the one named; one that is neither is the encoder's view of a path we cannot see: any local address then.
[[nodiscard]] std::uint32_t receivingAddress(const StreamSource& source) noexcept;

// A socket and the thread that empties it. The thread never waits for anything but the socket: it takes
// datagrams in batches, lets them gather a few milliseconds between batches, and counts what the ring has no
// room for. Each packet is told with the time at which the kernel received it, however late it is taken, and
// the first behind a loss as such. A group of which nothing comes is joined again now and then: its network
// device may be another.
class UdpReceiver {
public:
    // Packets go to ring; wake is signalled after each batch. Both outlive the receiver.
    UdpReceiver(const StreamSource& source, PacketRing& ring, WakeEvent& wake);
    ~UdpReceiver();
    UdpReceiver(const UdpReceiver&) = delete;
    UdpReceiver& operator=(const UdpReceiver&) = delete;

    // Makes the socket, with as large a buffer as the system gives (a smaller one than wanted is logged as a
    // warning), and joins the group. A stream that is told by its sender is claimed for this process first.
    // again: see StreamClaim::take.
    [[nodiscard]] MaybeFailure open(bool again = false);
    // Whether open() failed because another recorder or program has the port.
    [[nodiscard]] bool portTaken() const noexcept { return m_portTaken; }
    // Starts the thread.
    [[nodiscard]] MaybeFailure start();
    // Takes what has arrived until now, ends the thread and closes the socket. Further calls do nothing. Any
    // thread may call it.
    void stop() EXCLUDES(m_stopping);

    // All that arrived before this time is in the ring, or lost and counted. Once the thread has ended: now.
    [[nodiscard]] Clock::time_point seenUntil() const noexcept;
    // The same, and once the thread has ended: when it last looked.
    [[nodiscard]] Clock::time_point lookedUntil() const noexcept;
    // Has the thread look at the socket, and signal wake when that time lies behind this call.
    void look() noexcept { m_look.signal(); }
    // When the last loss, in the socket's buffer or the ring, was seen: of one behind which nothing came, the
    // ring does not tell.
    [[nodiscard]] Clock::time_point lastLoss() const noexcept {
        return Clock::time_point(Clock::duration(m_lastLoss.load(std::memory_order_relaxed)));
    }

    // Bytes of the socket's receive buffer, in the measure in which it is asked for (socketBufferBytes).
    [[nodiscard]] int bufferBytes() const noexcept { return m_bufferBytes; }
    [[nodiscard]] const ReceiverCounts& counts() const noexcept { return m_counts; }

private:
    struct Batch;

    [[nodiscard]] MaybeFailure bindSocket();
    [[nodiscard]] MaybeFailure joinGroup();
    bool joinOn(std::uint32_t interfaceAddress) noexcept;
    void leaveGroup() noexcept;
    void rejoinGroup() noexcept;
    void growBuffer();
    void watchOthers();
    void tellOthers() noexcept;
    void run() noexcept;
    bool drain(int mostBatches) noexcept;
    void countKernelDrops() noexcept;
    void noteArrival(const mmsghdr& message, Clock::time_point now, std::chrono::nanoseconds wall) noexcept;
    void noteLoss() noexcept;
    void takeDatagram(const mmsghdr& message) noexcept;
    void noteBad(const Datagram& datagram) noexcept;
    void takePackets(std::span<const unsigned char> packets) noexcept;

    StreamSource m_source;
    PacketRing& m_ring;
    WakeEvent& m_wake;
    StreamClaim m_claim;
    UniqueFd m_socket;
    UniqueFd m_others; // gets what no recorder of this port takes, until the first datagram; of the thread
    WakeEvent m_stop;
    WakeEvent m_look;
    std::thread m_thread;
    Mutex m_stopping;
    std::unique_ptr<Batch> m_batch;
    RtpSequence m_rtp;
    std::uint32_t m_lastDropCount = 0;
    std::uint32_t m_dropsBefore = 0;   // the newest datagram, by the same count
    bool m_afterLoss = false;          // something was lost since a packet last found room in the ring
    Clock::time_point m_arrived;       // when the newest datagram did
    std::atomic<Clock::rep> m_seen{0}; // see lookedUntil()
    std::atomic<bool> m_ended{false};  // the thread has
    std::atomic<Clock::rep> m_lastLoss{0};
    int m_bufferBytes = 0;
    bool m_portTaken = false;
    unsigned m_device = 0;        // that the group is joined on, 0: not known; of the thread once it runs
    bool m_deviceUnknown = false; // has been told
    bool m_onLoopback = false;    // the group is joined there for want of a route; of the thread once it runs
    bool m_rejoining = false;     // since something came last; of the thread
    bool m_rejoinFailed = false;  // likewise
    ReceiverCounts m_counts;
};

} // namespace kestrel::capture
