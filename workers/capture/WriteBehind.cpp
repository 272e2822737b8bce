#include "WriteBehind.h"

#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <cstring>
#include <poll.h>
#include <system_error>
#include <utility>

namespace kestrel::capture {
namespace {

void waitFor(WakeEvent& event) {
    pollfd wait{event.fd(), POLLIN, 0};
    ::poll(&wait, 1, -1);
    event.clear();
}

} // namespace

WriteBehind::~WriteBehind() {
    if (isOpen()) [[maybe_unused]]
        const MaybeFailure failed = close();
}

MaybeFailure WriteBehind::create(const std::string& path, bool overwrite) {
    if (auto failed = m_file.create(path, overwrite))
        return failed;
    m_block.reserve(blockBytes);
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        return failure(error::captureThreadNotLaunched);
    }
    return std::nullopt;
}

MaybeFailure WriteBehind::append(std::span<const unsigned char> packets) {
    while (!packets.empty()) {
        const std::size_t part = std::min(packets.size(), blockBytes - m_block.size());
        m_block.insert(m_block.end(), packets.begin(), packets.begin() + static_cast<std::ptrdiff_t>(part));
        packets = packets.subspan(part);
        if (m_block.size() == blockBytes)
            if (auto failed = handOver(false))
                return failed;
    }
    return std::nullopt;
}

MaybeFailure WriteBehind::close() {
    // Its failure is among what the thread leaves.
    [[maybe_unused]] const MaybeFailure failed = handOver(true);
    m_thread.join();
    const MutexLock lock(m_mutex);
    return m_failure;
}

MaybeFailure WriteBehind::handOver(bool last) {
    for (;;) {
        {
            const MutexLock lock(m_mutex);
            if (last || m_failure || m_blocks.size() < mostBlocks) {
                m_last = last;
                m_blocks.push_back(std::move(m_block));
                m_block.clear();
                if (!m_spare.empty()) {
                    m_block = std::move(m_spare.back());
                    m_spare.pop_back();
                }
                m_block.reserve(blockBytes);
                m_filled.signal();
                return m_failure;
            }
        }
        waitFor(m_emptied);
    }
}

// The next block; false when all is written.
bool WriteBehind::next(Block& block) {
    for (;;) {
        {
            const MutexLock lock(m_mutex);
            if (!m_blocks.empty()) {
                block = std::move(m_blocks.front());
                m_blocks.pop_front();
                m_emptied.signal();
                return true;
            }
            if (m_last)
                return false;
        }
        waitFor(m_filled);
    }
}

MaybeFailure WriteBehind::write(const Block& block) {
    Packet packet;
    for (std::size_t at = 0; at < block.size(); at += packetSize) {
        std::memcpy(packet.data(), block.data() + at, packetSize);
        if (auto failed = m_file.append(packet))
            return failed;
    }
    m_bytes.store(m_file.bytes(), std::memory_order_relaxed);
    return std::nullopt;
}

void WriteBehind::run() noexcept {
    MaybeFailure failed;
    for (Block block; next(block);) {
        // After a failure nothing more is written, but blocks are taken, so that nobody waits for room.
        if (!failed)
            failed = write(block);
        block.clear();
        const MutexLock lock(m_mutex);
        m_failure = failed;
        m_spare.push_back(std::move(block));
    }
    const MaybeFailure closing = m_file.close(true);
    m_bytes.store(m_file.bytes(), std::memory_order_relaxed);
    const MutexLock lock(m_mutex);
    if (!m_failure)
        m_failure = closing;
}

} // namespace kestrel::capture
