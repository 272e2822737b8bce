// Writes a file from a thread of its own, so that whoever makes its packets does not wait for the disk.
#pragma once

#include "SegmentFile.h"
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

class WriteBehind {
public:
    WriteBehind() = default;
    ~WriteBehind();
    WriteBehind(const WriteBehind&) = delete;
    WriteBehind& operator=(const WriteBehind&) = delete;

    // Creates the file, see SegmentFile, and starts the thread.
    [[nodiscard]] MaybeFailure create(const std::string& path, bool overwrite);
    // Takes whole packets; waits when the disk is too far behind. The failure of a write is told by a later
    // call.
    [[nodiscard]] MaybeFailure append(std::span<const unsigned char> packets);
    // Writes what is left, waits for the disk, and closes the file.
    [[nodiscard]] MaybeFailure close();

    [[nodiscard]] bool isOpen() const noexcept { return m_thread.joinable(); }
    // That did reach the file.
    [[nodiscard]] std::uint64_t bytes() const noexcept { return m_bytes.load(std::memory_order_relaxed); }

private:
    using Block = std::vector<unsigned char>;
    static constexpr std::size_t blockBytes = 4 * writePackets * packetSize;
    static constexpr std::size_t mostBlocks = 4;

    [[nodiscard]] MaybeFailure handOver(bool last) EXCLUDES(m_mutex);
    void run() noexcept EXCLUDES(m_mutex);
    [[nodiscard]] bool next(Block& block) EXCLUDES(m_mutex);
    [[nodiscard]] MaybeFailure write(const Block& block);

    SegmentFile m_file; // of the thread, once that runs
    Block m_block;      // that is being filled
    std::thread m_thread;
    WakeEvent m_filled;
    WakeEvent m_emptied;
    std::atomic<std::uint64_t> m_bytes{0};

    Mutex m_mutex;
    std::deque<Block> m_blocks GUARDED_BY(m_mutex);
    std::vector<Block> m_spare GUARDED_BY(m_mutex);
    MaybeFailure m_failure GUARDED_BY(m_mutex);
    bool m_last GUARDED_BY(m_mutex) = false;
};

} // namespace kestrel::capture
