// Plays a transport stream file to a decoder, in real time, from a thread of its own.
#pragma once

#include "Failure.h"
#include "FrameCount.h"
#include "PlayAhead.h"
#include "WakeEvent.h"
#include "foundation/Mutex.h"
#include "foundation/UniqueFd.h"

#include <array>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <thread>

namespace kestrel::capture {

struct PlayOutPlan {
    std::string file;
    std::uint64_t begin = 0; // the part of the file, in bytes
    std::uint64_t end = std::numeric_limits<std::uint64_t>::max();
    std::uint32_t address = 0; // of the decoder, or a multicast group
    int port = 0;
    std::uint32_t interfaceAddress = 0; // local; 0 leaves it to the routes
    bool rtp = false;                   // RFC 2250, else plain packets
    bool held = false;                  // the first datagram waits for go()
};

struct PlayOutStatus {
    bool ready = false;          // the first packets are read, and what they are due by
    bool begun = false;          // the first datagram is on its way
    Clock::time_point beganAt{}; // when it was due
    bool over = false;
    MaybeFailure failed; // when over
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    std::uint64_t refused = 0;       // datagrams among them that the decoder has not taken, as far as is told
    std::uint64_t interruptions = 0; // times it was too late to catch up
};

// Seven packets to a datagram, each sent when its first packet is due by the file's PCRs. Where they jump or
// are missing the pace before goes on. Late by up to lateLimit it catches up; later it goes on from there.
class PlayOut {
public:
    // changed is signalled when it is ready, begins and is over.
    PlayOut(PlayOutPlan plan, WakeEvent& changed);
    ~PlayOut();
    PlayOut(const PlayOut&) = delete;
    PlayOut& operator=(const PlayOut&) = delete;

    // Opens the file and the socket and begins.
    [[nodiscard]] MaybeFailure start();
    // Lets a play-out begin that was held, at that time.
    void go(Clock::time_point at = Clock::now()) EXCLUDES(m_mutex);
    // Ends it at the next datagram.
    void cancel() noexcept;
    // Waits for the end.
    void join();

    [[nodiscard]] PlayOutStatus status() const EXCLUDES(m_mutex);
    // "239.1.1.1:5000"
    [[nodiscard]] std::string destination() const;

private:
    using Ticks = PlayAhead::Ticks;
    static constexpr std::size_t datagramPackets = 7;
    static constexpr std::size_t rtpHead = 12;
    static constexpr milliseconds lateLimit{100};
    // How long the decoder may refuse datagrams, and the pause after which a refusal is a new one.
    static constexpr milliseconds refusedLimit{2000};
    static constexpr milliseconds refusalPause{500};
    // Packets that are read before it begins.
    static constexpr std::size_t readyPackets = 4096;

    [[nodiscard]] MaybeFailure openSocket();
    void run() noexcept;
    [[nodiscard]] MaybeFailure play();
    [[nodiscard]] bool fill();
    void consume(std::size_t packets);
    [[nodiscard]] bool waitToBegin();
    [[nodiscard]] bool waitUntil(Clock::time_point due);
    [[nodiscard]] bool waitForPackets();
    [[nodiscard]] MaybeFailure send(Ticks time);
    [[nodiscard]] int transmit(std::size_t bytes);
    [[nodiscard]] MaybeFailure refused(int error);
    void publish(Clock::time_point now) EXCLUDES(m_mutex);

    const PlayOutPlan m_plan;
    WakeEvent& m_changed;
    WakeEvent m_stop;
    WakeEvent m_go;
    UniqueFd m_socket;
    UniqueFd m_timer;
    std::thread m_thread;

    PlayAhead m_ahead;
    PlayAhead::Block m_block;
    std::size_t m_taken = 0; // packets of it
    FrameCount m_frames;
    std::uint64_t m_bytes = 0;
    std::uint64_t m_refused = 0;
    std::uint64_t m_interruptions = 0;
    Clock::time_point m_published{};

    std::array<unsigned char, rtpHead + datagramPackets * packetSize> m_datagram{};
    std::array<Ticks, datagramPackets> m_times{};
    std::size_t m_packets = 0; // in the datagram
    std::uint16_t m_sequence = 0;
    std::uint32_t m_rtpSource = 0;
    std::uint32_t m_rtpBegin = 0;
    std::optional<Clock::time_point> m_refusedSince;
    Clock::time_point m_refusedLast{};

    mutable Mutex m_mutex;
    PlayOutStatus m_status GUARDED_BY(m_mutex);
    Clock::time_point m_begin GUARDED_BY(m_mutex){}; // what go() said
};

} // namespace kestrel::capture
