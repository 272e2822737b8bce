#include "PlayAhead.h"

#include "TablesBefore.h"
#include "foundation/ErrorCodes.h"
#include "mpeg/packet_view.h"

#include <algorithm>
#include <exception>
#include <poll.h>
#include <pthread.h>
#include <system_error>
#include <utility>

namespace kestrel::capture {

PlayAhead::~PlayAhead() {
    cancel();
    join();
}

MaybeFailure PlayAhead::start(const std::string& path, std::uint64_t begin, std::uint64_t end) {
    if (auto failed = m_file.open(path))
        return failed;
    m_begin = begin;
    m_end = end;
    try {
        m_thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
        return failure(error::captureThreadNotLaunched);
    }
    return std::nullopt;
}

void PlayAhead::cancel() noexcept {
    m_stopped.store(true, std::memory_order_relaxed);
    m_stop.signal();
}

void PlayAhead::join() {
    if (m_thread.joinable())
        m_thread.join();
}

PlayAhead::Next PlayAhead::take(Block& block) {
    const MutexLock lock(m_mutex);
    if (block.count() > 0 && m_spare.size() < 8)
        m_spare.push_back(std::move(block));
    block = {};
    if (m_blocks.empty())
        return m_ended ? Next::end : Next::none;
    block = std::move(m_blocks.front());
    m_blocks.pop_front();
    m_packets -= block.count();
    m_emptied.signal();
    return Next::block;
}

bool PlayAhead::holds(std::size_t packets) const {
    const MutexLock lock(m_mutex);
    return m_ended || m_packets >= packets;
}

MaybeFailure PlayAhead::failed() const {
    const MutexLock lock(m_mutex);
    return m_failure;
}

void PlayAhead::run() noexcept {
    ::pthread_setname_np(::pthread_self(), "play-read");
    MaybeFailure failed;
    try {
        failed = read();
    } catch (const std::exception& problem) {
        failed = Failure{error::startReencodeFailed, std::string("Error: ") + problem.what()};
    }
    {
        const MutexLock lock(m_mutex);
        m_failure = std::move(failed);
        m_ended = true;
    }
    m_arrived.signal();
}

MaybeFailure PlayAhead::read() {
    if (m_begin > 0)
        if (auto failed = tablesBefore(m_file, m_begin, m_stopped, m_first))
            return failed;
    m_file.part(m_begin, m_end);
    while (!m_fileEnded && !stopped()) {
        if (auto failed = readMore())
            return failed;
        if (m_shape != SourceShape::transport) {
            if (auto failed = takeShape())
                return failed;
            if (m_shape != SourceShape::transport)
                continue;
        }
        takePackets();
        if (m_fileEnded)
            m_timeline.settle(m_window);
        if ((m_fileEnded || m_window.count() > PcrClock::mostSilent) && !m_timeline.known())
            return detailed(failure(error::bitrateNotCalculated),
                            m_file.path() + " has no PCRs to play it by");
        give(m_fileEnded ? 1 : blockPackets);
    }
    return std::nullopt;
}

MaybeFailure PlayAhead::readMore() {
    m_window.release(m_given);
    m_timeline.released(m_given);
    m_given = 0;
    std::size_t got = 0;
    if (auto failed = m_file.read(m_window.room(), got))
        return failed;
    m_window.added(got);
    m_fileEnded = got == 0;
    return std::nullopt;
}

MaybeFailure PlayAhead::takeShape() {
    m_shape = shapeOf(m_window.bytes(), m_fileEnded);
    m_inSync = !m_window.bytes().empty() && m_window.bytes().front() == ts::sync_byte;
    if (m_shape != SourceShape::transport && m_shape != SourceShape::unknown)
        return m_file.shapeFailure(m_shape);
    return std::nullopt;
}

// Accepts the packets among what was read.
void PlayAhead::takePackets() {
    for (;;) {
        const std::size_t at = m_window.unread();
        const SyncStep step = nextPacket(m_window.bytes(), at, m_inSync, m_fileEnded);
        if (step.what == SyncStep::What::more)
            return;
        m_inSync = step.what == SyncStep::What::packet;
        if (m_inSync)
            takePacket();
        else
            m_window.skip(step.next - at);
    }
}

void PlayAhead::takePacket() {
    const std::size_t index = m_window.accept();
    const unsigned char* packet = m_window.packet(index);
    if (m_tables.carries(ts::pid(packet)) && !(packet[1] & 0x80) && m_tables.take(packet, 0))
        m_timeline.follow(m_tables);
    m_timeline.take(m_window, index, m_tables);
}

// Gives away what is timed, in blocks of no fewer packets.
void PlayAhead::give(std::size_t atLeast) {
    for (std::size_t ready = m_timeline.timed() - m_given; ready >= atLeast && !stopped();
         ready = m_timeline.timed() - m_given) {
        waitForRoom();
        handOver(std::min(ready, blockPackets));
    }
}

void PlayAhead::handOver(std::size_t count) {
    Block block;
    {
        const MutexLock lock(m_mutex);
        if (!m_spare.empty()) {
            block = std::move(m_spare.back());
            m_spare.pop_back();
        }
    }
    const auto bytes = m_window.packets(m_given, m_given + count);
    block.bytes.clear();
    block.times.clear();
    for (const Packet& table : std::exchange(m_first, {})) {
        block.bytes.insert(block.bytes.end(), table.begin(), table.end());
        block.times.push_back(m_window.note(m_given).time);
    }
    block.bytes.insert(block.bytes.end(), bytes.begin(), bytes.end());
    for (std::size_t i = 0; i < count; ++i)
        block.times.push_back(m_window.note(m_given + i).time);
    m_given += count;
    {
        const MutexLock lock(m_mutex);
        m_packets += block.count();
        m_blocks.push_back(std::move(block));
    }
    m_arrived.signal();
}

void PlayAhead::waitForRoom() {
    for (;;) {
        m_emptied.clear();
        {
            const MutexLock lock(m_mutex);
            if (m_packets < mostPackets)
                return;
        }
        pollfd waits[] = {{m_stop.fd(), POLLIN, 0}, {m_emptied.fd(), POLLIN, 0}};
        ::poll(waits, std::size(waits), -1);
        if (waits[0].revents != 0)
            return;
    }
}

} // namespace kestrel::capture
