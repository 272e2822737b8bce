#include "mpeg/packet_view.h"
#include "mpeg/ts_file.h"

#include <algorithm>
#include <fstream>
#include <memory>

namespace ts = kestrel::ts;

file_packet_sink::file_packet_sink(std::ostream* out, bool owns, int level)
    : packet_mangler(level), m_out(out), m_owns(owns), m_write(m_buffer.data()) {
    static_assert(sizeof m_buffer == 65'724);
}

file_packet_sink::~file_packet_sink() {
    if (m_out == nullptr)
        return;
    write(m_held);
    flush(0);
    if (!m_owns)
        return;
    const std::unique_ptr<std::ostream> owned(m_out);
    try {
        if (auto* file = dynamic_cast<std::ofstream*>(m_out))
            file->close(); // sets failbit when that fails
    } catch (const std::ios_base::failure&) {
        // The stream was told to throw; there is nobody left to tell.
    }
}

void file_packet_sink::process(unsigned char* packet, long /*index*/) {
    if (m_out == nullptr)
        return;
    m_write = std::copy_n(packet, ts::packet_size, m_write);
    m_held += ts::packet_size;
    if (m_held < block_size)
        return;
    write(block_size);
    std::copy(m_buffer.data() + block_size, m_write, m_buffer.data());
    m_held -= block_size;
    m_write = m_buffer.data() + m_held;
}

void file_packet_sink::flush(long /*index*/) {
    if (m_out == nullptr)
        return;
    try {
        m_out->flush();
    } catch (const std::ios_base::failure&) {
        // Ignored like every write error: the stream's state tells.
    }
}

void file_packet_sink::write(int count) {
    try {
        m_out->write(m_buffer.data(), count);
    } catch (const std::ios_base::failure&) {
        // Ignored like every write error: the stream's state tells.
    }
}
