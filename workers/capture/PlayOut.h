// Plays a transport stream file to a decoder, in real time, from a thread of its own.
#pragma once

#include "Failure.h"
#include "FrameCount.h"
#include "PacketWindow.h"
#include "PcrTimeline.h"
#include "SourceFile.h"
#include "WakeEvent.h"
#include "foundation/Mutex.h"
#include "foundation/UniqueFd.h"

#include <array>
#include <atomic>
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
    bool ready = false; // the first packets are read, and what they are due by
    bool begun = false; // the first datagram is on its way
    Clock::time_point beganAt{};
    bool over = false;
    MaybeFailure failed; // when over
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
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
    // Lets a play-out begin that was held.
    void go() noexcept { m_go.signal(); }
    // Ends it at the next datagram.
    void cancel() noexcept;
    // Waits for the end.
    void join();

    [[nodiscard]] PlayOutStatus status() const EXCLUDES(m_mutex);
    // "239.1.1.1:5000"
    [[nodiscard]] std::string destination() const;

private:
    using Ticks = PacketWindow::Ticks;
    static constexpr std::size_t datagramPackets = 7;
    static constexpr std::size_t rtpHead = 12;
    static constexpr milliseconds lateLimit{100};
    // How long the decoder may refuse datagrams, and the pause after which a refusal is a new one.
    static constexpr milliseconds refusedLimit{2000};
    static constexpr milliseconds refusalPause{500};
    // Packets that are kept ready, and prepared at a time.
    static constexpr std::size_t readyPackets = 4096;
    static constexpr std::size_t preparedAtOnce = 32;
    // As many packets are searched for the next PCR.
    static constexpr std::size_t mostHeld = 49'152;

    [[nodiscard]] MaybeFailure openSocket();
    void run() noexcept;
    [[nodiscard]] MaybeFailure play();
    [[nodiscard]] MaybeFailure prepare();
    [[nodiscard]] MaybeFailure readMore();
    void takePacket();
    [[nodiscard]] MaybeFailure prepareUntil(Clock::time_point due);
    [[nodiscard]] bool waitToBegin();
    [[nodiscard]] bool waitUntil(Clock::time_point due);
    [[nodiscard]] MaybeFailure send(std::size_t packets, Ticks time);
    [[nodiscard]] MaybeFailure refused(int error);
    void publish(Clock::time_point now) EXCLUDES(m_mutex);
    [[nodiscard]] std::size_t ready() const noexcept { return m_timeline.timed() - m_sent; }

    const PlayOutPlan m_plan;
    WakeEvent& m_changed;
    WakeEvent m_stop;
    WakeEvent m_go;
    UniqueFd m_socket;
    UniqueFd m_timer;
    std::thread m_thread;

    SourceFile m_file;
    bool m_fileEnded = false;
    bool m_inSync = true;
    SourceShape m_shape = SourceShape::unknown;
    PacketWindow m_window;
    ProgramTables m_tables;
    PcrTimeline m_timeline;
    FrameCount m_frames;
    std::size_t m_sent = 0; // packets of the window
    std::uint64_t m_bytes = 0;
    std::uint64_t m_interruptions = 0;
    Clock::time_point m_published{};

    std::array<unsigned char, rtpHead + datagramPackets * packetSize> m_datagram{};
    std::uint16_t m_sequence = 0;
    std::uint32_t m_rtpSource = 0;
    std::uint32_t m_rtpBegin = 0;
    std::optional<Clock::time_point> m_refusedSince;
    Clock::time_point m_refusedLast{};

    mutable Mutex m_mutex;
    PlayOutStatus m_status GUARDED_BY(m_mutex);
};

} // namespace kestrel::capture
