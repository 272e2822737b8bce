#include "mpeg/unibuffer.h"

#include "foundation/Logger.h"

#include <algorithm>

namespace ts = kestrel::ts;

namespace {

array_byte_sequence payload_view(unsigned char* packet) {
    const ts::writable_bytes payload = ts::payload(packet);
    return {payload.data(), static_cast<int>(payload.size())};
}

unibuffer::packet_bytes copy_of(const unsigned char* packet) {
    unibuffer::packet_bytes copy;
    std::copy_n(packet, copy.size(), copy.begin());
    return copy;
}

} // namespace

unsigned char& unibuffer::duo::operator[](int position) {
    const int in_first = m_first.get_length();
    if (static_cast<unsigned int>(position) < static_cast<unsigned int>(in_first))
        return m_first[position];
    return m_second[position - in_first];
}

byte_sequence* unibuffer::pes_beginning(unsigned char* saved, unsigned char* next) {
    if (ts::payload_unit_start(next))
        return std::make_unique<array_byte_sequence>(payload_view(saved)).release();
    return std::make_unique<duo>(payload_view(saved), payload_view(next)).release();
}

void unibuffer::warn_of_silence() {
    LogUtil::Warning("mpegParseLib", "PID silent for %zu packets: no longer waiting for it", max_intervening);
}

void unibuffer::queue_intervening(packet_mangler* next_stage, unsigned char* packet, long index) {
    if (m_has_saved && m_intervening.size() >= max_intervening) {
        warn_of_silence();
        flush_buffer(next_stage, index);
    }
    if (m_has_saved)
        m_intervening.push_back({copy_of(packet), index});
    else
        next_stage->process(packet, index);
}

void unibuffer::flush_intervening(packet_mangler* next_stage) {
    for (record& waiting : m_intervening)
        next_stage->process(waiting.packet.data(), waiting.index);
    m_intervening.clear();
}

void unibuffer::flush_buffer(packet_mangler* next_stage, long index) {
    if (m_has_saved) {
        const long following = m_intervening.empty() ? index : m_intervening.front().index;
        next_stage->process(m_saved.data(), following - 1);
        m_has_saved = false;
    }
    flush_intervening(next_stage);
}

void unibuffer::preload_buffer(const unsigned char* packet) {
    m_saved = copy_of(packet);
    m_has_saved = true;
}

void unibuffer::process_buffer(packet_mangler* next_stage, long index, const unsigned char* packet) {
    flush_buffer(next_stage, index);
    preload_buffer(packet);
}
