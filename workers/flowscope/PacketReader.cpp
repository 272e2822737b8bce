#include "PacketReader.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>
#include <utility>

namespace kestrel::flowscope {
namespace {

constexpr std::size_t PACKET = ts::packet_size;
constexpr std::size_t BUFFER = 2048 * PACKET;
// What is looked at behind a packet: the run that begins with it or within it.
constexpr std::size_t AHEAD = (PacketReader::run + 1) * PACKET;

} // namespace

PacketReader::PacketReader(int fd) : m_fd(fd), m_buffer(std::make_unique<unsigned char[]>(BUFFER)) {}

void PacketReader::fill() {
    std::memmove(m_buffer.get(), m_buffer.get() + m_begin, m_end - m_begin);
    m_offset += m_begin;
    m_end -= m_begin;
    m_begin = 0;
    while (!m_fileEnded && m_end < BUFFER) {
        const ssize_t count = read(m_fd, m_buffer.get() + m_end, BUFFER - m_end);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            m_error = errno;
        if (count <= 0)
            m_fileEnded = true;
        else
            m_end += static_cast<std::size_t>(count);
    }
}

const unsigned char* PacketReader::slowNext() {
    if (m_end - m_begin < AHEAD && !m_fileEnded)
        fill();
    if (!m_seeking && m_end - m_begin >= PACKET && !inStep()) {
        m_seeking = true;
        m_inStep = false;
        m_sought = {position(), 0};
    }
    if (m_seeking) {
        const bool found = seek();
        m_sought.bytes = position() - m_sought.position;
        if (found || m_fileEnded) {
            m_seeking = false;
            m_stray = m_sought;
        }
        if (!found) {
            m_ended = m_fileEnded;
            return nullptr;
        }
    }
    if (m_end - m_begin < PACKET) {
        m_ended = true;
        endWithin();
        return nullptr;
    }
    m_inStep = true;
    return m_buffer.get() + std::exchange(m_begin, m_begin + PACKET);
}

// The file does not end where a packet does.
void PacketReader::endWithin() {
    const std::span<const unsigned char> rest(m_buffer.get() + m_begin, m_end - m_begin);
    if (rest.empty() || m_error != 0)
        return;
    if (rest.front() == ts::sync_byte)
        m_cut = rest;
    else
        m_stray = Stray{position(), rest.size()};
    m_begin = m_end;
}

// Whether what comes next is a packet, be it with a damaged sync byte: of the packets behind it enough have
// one.
bool PacketReader::inStep() const {
    constexpr std::size_t ENOUGH = 2;
    const unsigned char* const bytes = m_buffer.get() + m_begin;
    std::size_t looked = 0;
    std::size_t found = 0;
    for (std::size_t at = PACKET; at < m_end - m_begin && looked + 1 < run; at += PACKET, ++looked)
        found += bytes[at] == ts::sync_byte ? 1 : 0;
    if (found >= ENOUGH || found == looked)
        return true;
    // Where others have come before it, its own sync byte tells, unless packets begin within it.
    return *bytes == ts::sync_byte && (bytes[PACKET] == ts::sync_byte || (m_inStep && !isCutShort()));
}

// Whether the packets that follow begin before this one could have ended.
bool PacketReader::isCutShort() const {
    // Few follow at the end of the file.
    constexpr std::size_t FEW = 3;
    const std::size_t left = m_end - m_begin - 1;
    const auto begin = findPackets(m_buffer.get() + m_begin + 1, std::min(left, run * PACKET), PACKET, FEW);
    return begin && *begin + 1 < PACKET;
}

// Moves to the next place from which packets follow; where there is none, past all that cannot be one.
bool PacketReader::seek() {
    const std::size_t left = m_end - m_begin;
    // At the end of the file a run may be shorter.
    const std::size_t wanted = m_fileEnded ? 2 : run;
    if (const auto found = findPackets(m_buffer.get() + m_begin, left, PACKET, wanted)) {
        m_begin += *found;
        return true;
    }
    m_begin = m_fileEnded ? m_end : m_end - std::min(left, AHEAD - 1);
    return false;
}

std::optional<PacketReader::Stray> PacketReader::takeStray() {
    return std::exchange(m_stray, std::nullopt);
}

std::optional<std::size_t> findPackets(const unsigned char* bytes, std::size_t count, std::size_t size,
                                       std::size_t wanted) {
    for (std::size_t at = 0; at < count; ++at) {
        const void* const found = std::memchr(bytes + at, ts::sync_byte, count - at);
        if (found == nullptr)
            break;
        at = static_cast<std::size_t>(static_cast<const unsigned char*>(found) - bytes);
        std::size_t next = at;
        std::size_t seen = 0;
        while (next < count && seen < PacketReader::run && bytes[next] == ts::sync_byte) {
            next += size;
            ++seen;
        }
        // A run that the end cuts short counts where it is long enough.
        if (seen == PacketReader::run || (next >= count && seen >= wanted))
            return at;
    }
    return std::nullopt;
}

} // namespace kestrel::flowscope
