// Streams of the builder made into others: with other tables and PIDs, or with packets sent twice.
#pragma once

#include "capture/stream_builder.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace capture_test {

// The program that a stream is given.
struct ProgramShape {
    int pmtPid = capture_test::pmtPid;
    int videoPid = capture_test::videoPid;
    int audioPid = capture_test::audioPid;
    int audioType = 3;
    int videoType = 2;
    std::size_t programInfo = 0; // bytes of descriptors, which spread the PMT over several packets
};

// Gives the builder's packets another program. Continuity counters go on from call to call, also of a PID
// that a later shape comes back to.
class Reprogrammer {
public:
    Packets operator()(const Packets& packets, const ProgramShape& shape);

private:
    Packet counted(Packet packet, int pid);
    void section(Packets& out, int pid, std::vector<unsigned char> bytes);
    std::vector<int> m_counters = std::vector<int>(8192);
};

// Each packet that begins a PES packet of video, or carries a table, comes twice (ISO/IEC 13818-1, 2.4.3.3).
Packets withDuplicates(const Packets& packets);

// Picture headers of MPEG-2 video, however many a packet has.
int pictureHeaders(const Packets& packets, int video = videoPid);

} // namespace capture_test
