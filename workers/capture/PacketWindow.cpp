#include "PacketWindow.h"

#include <cstring>

namespace kestrel::capture {

std::span<unsigned char> PacketWindow::room() {
    if (m_bytes.size() < m_end + readBytes)
        m_bytes.resize(m_end + readBytes);
    return {m_bytes.data() + m_end, readBytes};
}

std::size_t PacketWindow::accept() {
    const std::size_t index = m_notes.size();
    if (unsigned char* place = packet(index); place != m_bytes.data() + m_raw)
        std::memmove(place, m_bytes.data() + m_raw, packetSize);
    m_notes.emplace_back();
    m_raw += packetSize;
    return index;
}

void PacketWindow::release(std::size_t count) noexcept {
    if (m_bytes.empty())
        return;
    const std::size_t kept = m_notes.size() - count;
    std::memmove(m_bytes.data(), packet(count), kept * packetSize);
    m_notes.erase(m_notes.begin(), m_notes.begin() + static_cast<std::ptrdiff_t>(count));
    const std::size_t front = kept * packetSize;
    std::memmove(m_bytes.data() + front, m_bytes.data() + m_raw, m_end - m_raw);
    m_end = front + (m_end - m_raw);
    m_raw = front;
}

} // namespace kestrel::capture
