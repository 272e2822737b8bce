// Reads a transport stream file ahead of whoever plays it, from a thread of its own, so that a disk that
// stalls does not stop the play-out.
#pragma once

#include "Failure.h"
#include "PacketRing.h"
#include "PacketWindow.h"
#include "PcrTimeline.h"
#include "SourceFile.h"
#include "WakeEvent.h"
#include "foundation/Mutex.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace kestrel::capture {

class PlayAhead {
public:
    using Ticks = PacketWindow::Ticks;

    // Packets in the order of the file, and when each is due.
    struct Block {
        std::vector<unsigned char> bytes;
        std::vector<Ticks> times;

        [[nodiscard]] std::size_t count() const noexcept { return times.size(); }
        [[nodiscard]] std::span<const unsigned char> packets(std::size_t begin,
                                                             std::size_t end) const noexcept {
            return {bytes.data() + begin * packetSize, (end - begin) * packetSize};
        }
    };

    // Packets that are read ahead: 12 MB, two seconds at 50 Mb/s.
    static constexpr std::size_t mostPackets = std::size_t{1} << 16;

    PlayAhead() = default;
    ~PlayAhead();
    PlayAhead(const PlayAhead&) = delete;
    PlayAhead& operator=(const PlayAhead&) = delete;

    // Opens the part of the file and starts to read. Where it does not begin with the file, the program
    // tables that hold there come first: a decoder knows the first picture only with them.
    [[nodiscard]] MaybeFailure start(const std::string& path, std::uint64_t begin, std::uint64_t end);
    // Ends it before its next read.
    void cancel() noexcept;
    // Waits for that; a read that the disk holds up is waited for.
    void join();

    enum class Next { block, none, end };
    // The next packets; none while they are still to be read; end when all are taken, or reading failed.
    [[nodiscard]] Next take(Block& block) EXCLUDES(m_mutex);
    // Readable when there may be more to take.
    [[nodiscard]] int arrival() const noexcept { return m_arrived.fd(); }
    void clearArrival() noexcept { m_arrived.clear(); }
    // So many packets are read, or all there are.
    [[nodiscard]] bool holds(std::size_t packets) const EXCLUDES(m_mutex);
    // Why reading ended before the end of the file.
    [[nodiscard]] MaybeFailure failed() const EXCLUDES(m_mutex);

private:
    static constexpr std::size_t blockPackets = 512;

    void run() noexcept;
    [[nodiscard]] MaybeFailure read();
    [[nodiscard]] MaybeFailure readMore();
    [[nodiscard]] MaybeFailure takeShape();
    void takePackets();
    void takePacket();
    void give(std::size_t atLeast);
    void handOver(std::size_t count) EXCLUDES(m_mutex);
    void waitForRoom() EXCLUDES(m_mutex);
    [[nodiscard]] bool stopped() const noexcept { return m_stopped.load(std::memory_order_relaxed); }

    // Of the thread, once that runs.
    SourceFile m_file;
    std::uint64_t m_begin = 0; // the part of it, in bytes
    std::uint64_t m_end = 0;
    std::vector<Packet> m_first; // to be given before it
    bool m_fileEnded = false;
    bool m_inSync = true;
    SourceShape m_shape = SourceShape::unknown;
    PacketWindow m_window;
    ProgramTables m_tables;
    PcrTimeline m_timeline;
    std::size_t m_given = 0; // packets of the window

    std::thread m_thread;
    std::atomic<bool> m_stopped{false};
    WakeEvent m_stop;
    WakeEvent m_arrived;
    WakeEvent m_emptied;

    mutable Mutex m_mutex;
    std::deque<Block> m_blocks GUARDED_BY(m_mutex);
    std::vector<Block> m_spare GUARDED_BY(m_mutex);
    std::size_t m_packets GUARDED_BY(m_mutex) = 0; // in the blocks
    bool m_ended GUARDED_BY(m_mutex) = false;
    MaybeFailure m_failure GUARDED_BY(m_mutex);
};

} // namespace kestrel::capture
