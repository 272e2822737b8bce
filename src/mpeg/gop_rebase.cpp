#include "mpeg/gop_rebase.h"

#include "mpeg/mpeg2.h"
#include "mpeg/packet_view.h"

#include <memory>

namespace ts = kestrel::ts;

namespace {

constexpr int SEQUENCE_HEADER = 0xB3;
constexpr int GROUP_START = 0xB8;
constexpr int PREFIX_SIZE = 3;
// From the start code value to the end of time_code, and to the byte with frame_rate_code.
constexpr int GOP_BYTES = 5;
constexpr int SEQUENCE_BYTES = 5;

} // namespace

gop_rebase::gop_rebase(int pid, packet_mangler* next, int level, int mode)
    : gop_rebase(pid, next, mode, mpeg_timecode(), level) {}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the signature that callers know.
gop_rebase::gop_rebase(int pid, packet_mangler* next, int mode, mpeg_timecode offset, int level)
    : pipeline_mangler(next, level), m_pid(pid), m_mode(mode), m_offset(offset) {}

void gop_rebase::process(unsigned char* packet, long index) {
    if (ts::pid(packet) != m_pid) {
        m_buffer.queue_intervening(m_next, packet, index);
        return;
    }
    // Rewritten in the saved copy, before it goes on; a header's end that lies in this packet is rewritten
    // here.
    if (m_buffer.has_saved() && ts::payload_unit_start(m_buffer.saved_packet())) {
        const std::unique_ptr<byte_sequence> pes(unibuffer::pes_beginning(m_buffer.saved_packet(), packet));
        mangle(*pes, 0);
    }
    m_buffer.process_buffer(m_next, index, packet);
}

void gop_rebase::flush(long index) {
    m_buffer.flush_buffer(m_next, index);
    m_next->flush(index);
}

void gop_rebase::mangle(byte_sequence& pes, int /*unused*/) {
    const int length = pes.get_length();
    int position = 0;
    for (;;) {
        const int distance = MPEG::find_es_start_code(pes, static_cast<unsigned>(position));
        if (distance < 0 || position + distance >= length)
            return;
        const int value = position + distance;
        if (pes[value] == SEQUENCE_HEADER && value + SEQUENCE_BYTES <= length) {
            m_frame_rate_code = MPEG::SH::get_frame_rate_code(subsequence(pes, value - PREFIX_SIZE));
        } else if (pes[value] == GROUP_START && value + GOP_BYTES <= length) {
            subsequence gop(pes, value - PREFIX_SIZE);
            mangle_gop(gop);
        }
        position = value + 1;
    }
}

void gop_rebase::mangle_gop(byte_sequence& gop) {
    const mpeg_timecode timecode = mpeg_timecode::parse_GOP(MPEG::GOP::get_timecode(gop), m_frame_rate_code);
    switch (m_mode) {
    case rebase_to_zero:
        if (m_before_first_gop) {
            m_before_first_gop = false;
            m_first_gop = timecode;
            MPEG::GOP::set_timecode(gop,
                                    mpeg_timecode(0, 0, 0, 0, timecode.dropFrame, timecode.frameRateCode));
        } else {
            MPEG::GOP::set_timecode(gop, timecode - m_first_gop);
        }
        return;
    case add_offset:
        MPEG::GOP::set_timecode(gop, timecode + m_offset);
        return;
    case subtract_offset:
        MPEG::GOP::set_timecode(gop, timecode - m_offset);
        return;
    default:
        return;
    }
}
