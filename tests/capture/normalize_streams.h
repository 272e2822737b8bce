// Puts transport streams together packet by packet, faults and all, and measures what became of them.
#pragma once

#include "capture/Normalizer.h"
#include "capture/stream_builder.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace capture_test {

using Bytes = std::vector<unsigned char>;

struct Program {
    int number = 1;
    int pmtPid = 0x1000;
    int pcrPid = 0x100;
    int videoPid = 0x100;
    int videoType = 2;
    std::size_t descriptorBytes = 0; // of the program, to make the section long
    int version = 0;
};

// Sections, from table_id to CRC.
Bytes patSection(const std::vector<Program>& programs, int version = 0);
Bytes pmtSection(const Program& program);
// A section from pointer_field on in as many packets as it needs.
Packets sectionPackets(int pid, const Bytes& section, int firstCounter = 0);

// One packet: payload at its end, an adaptation field with stuffing before it where it is shorter.
struct PacketShape {
    int pid = 0x100;
    int counter = 0;
    bool start = false;
    bool payload = true;
    std::int64_t pcr = -1; // 27 MHz
    bool discontinuity = false;
};
Packet makePacket(const PacketShape& shape, const Bytes& payload = {});
// A PES packet's beginning: header with a PTS, sequence header and GOP header with this timecode at 25 frames
// a second, an I picture.
Bytes pesWithGop(int hours, int minutes, int seconds, int frames, std::size_t stuffing = 0);

Bytes joined(const Packets& packets);

// A normalizer with all that it gives.
struct Normalized {
    Bytes bytes;
    Packets packets;
    kestrel::capture::NormalizerCounts counts;
    kestrel::capture::SourceShape shape{};
    std::uint64_t frames = 0;
    std::vector<std::string> log;
    bool finished = false;
};
// chunk: bytes that it gets at once.
Normalized normalize(std::span<const unsigned char> source, bool keepNulls = false,
                     std::size_t chunk = SIZE_MAX);
Normalized normalize(const Packets& source, bool keepNulls = false);

// Milliseconds between two starts of a section of that PID at most, each placed between the PCRs around it
// (of that PID) by its bytes; of a stream's part that has PCRs on both sides. -1 with fewer than two.
double longestTableGap(const Packets& packets, int tablePid, int pcrPid);
// Whether all counters go on by 13818-1, 2.4.3.3: none skipped, packets without payload and duplicates
// repeat.
int brokenCounters(const Packets& packets);
std::vector<std::int64_t> pcrs(const Packets& packets, int pid);

} // namespace capture_test
