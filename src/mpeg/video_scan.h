// What the bounded queries of transport-stream files have in common: packets from the beginning, each checked
// for continuity, and the way to the program map table.
#pragma once

#include "mpeg/mpeg.h"
#include "mpeg/mpeg2.h"
#include "mpeg/ts_file.h"

#include "foundation/Logger.h"

namespace kestrel {

// Queries read at most this many packets: the first ones, up to 20,000,004 bytes.
inline constexpr long scan_limit_packets = 106'383;

// Whether a stream_type (ISO/IEC 13818-1, table 2-34) is that of MPEG-1 or MPEG-2 video, or of H.264.
constexpr bool is_mpeg2_video(int stream_type) noexcept {
    return stream_type == 0x01 || stream_type == 0x02;
}
constexpr bool is_h264_video(int stream_type) noexcept {
    return stream_type == 0x1B;
}

// Learns the PID of the first program's map table, and knows its packets.
class PmtFinder {
public:
    // Whether the packet is one of the map table's. To be asked for every packet, in order.
    bool is_pmt(const unsigned char* packet) {
        const int pid = ts::pid(packet);
        if (pid == 0)
            m_pmt_pid = MPEG::PAT::PID_of_first_PMT(packet);
        return m_pmt_pid != 0 && pid == m_pmt_pid;
    }

private:
    int m_pmt_pid = 0;
};

// Whether a continuity failure of a scan is worth a line of its own, at Debug under "captureEngLib". The
// checker's lines come in any case.
enum class ContinuityLines { none, debug };

// Gives each packet of the file, with its index, to visit until that returns false, the file ends, or limit
// packets have been read.
template <typename Visit>
void scan_packets(const char* path, long limit, ContinuityLines lines, Visit&& visit) {
    ts_file source(path);
    continuity_nazi checker;
    for (long index = 0; index < limit; ++index) {
        unsigned char* const packet = source.get_ts();
        if (packet == nullptr)
            return;
        if (!checker.packetIsCool(packet, true) && lines == ContinuityLines::debug)
            LogUtil::Debug("captureEngLib", "Continuity error: %s", checker.message());
        if (!visit(packet, index))
            return;
    }
}

} // namespace kestrel
