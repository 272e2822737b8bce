// The program tables of a transport stream with any number of programs: what they say, and copies of them.
#pragma once

#include "SectionCollector.h"

#include <array>
#include <bitset>
#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <vector>

namespace kestrel::capture {

// PAT and PMTs as they are in force (ISO/IEC 13818-1, 2.4.4), section by section. Bounded: of more programs
// than a multiplex has room for the rest is not followed.
class ProgramTables {
public:
    // Time by the clock of the stream, in 27 MHz ticks.
    using Ticks = std::int64_t;
    static constexpr Ticks never = std::numeric_limits<Ticks>::max();

    struct Section {
        int pid;
        int extension; // table_id_extension: transport_stream_id or program_number
        int number;
        int version;
        std::vector<unsigned char> bytes; // to the end of the CRC
        Ticks sent;                       // when it was last in the stream
    };

    // The PID carries a table that is followed.
    [[nodiscard]] bool carries(int pid) const noexcept {
        return m_followed[static_cast<std::size_t>(pid) % m_followed.size()];
    }
    // Takes the next packet of such a PID, that is in the stream at that time. True when the programs
    // changed.
    bool take(const unsigned char* packet, Ticks now);

    // The PAT and all PMTs that it names are known.
    [[nodiscard]] bool complete() const noexcept;
    // A PMT is known.
    [[nodiscard]] bool anyProgram() const noexcept;
    [[nodiscard]] bool isPcr(int pid) const noexcept;
    // PIDs of MPEG-2 video (stream_type 1 and 2).
    [[nodiscard]] const std::vector<int>& mpeg2Videos() const noexcept { return m_videos; }
    [[nodiscard]] const std::vector<int>& pcrPids() const noexcept { return m_pcrs; }

    // All sections as packets of their own, those of the PAT first (the continuity counters are 0).
    void copyAll(std::vector<Packet>& copies) const;

    // The earliest time at which a section was sent last; never without any.
    [[nodiscard]] Ticks oldest() const noexcept { return m_oldest; }
    // The sections sent at `until` or before, as packets of their own (the continuity counters are 0); they
    // count as sent at `now`. One on whose PID a section has begun but not ended waits.
    void repeat(Ticks until, Ticks now, std::vector<Packet>& copies);

private:
    static constexpr std::size_t mostPids = 256;
    static constexpr std::size_t mostSections = 512;

    void hear(int pid, std::span<const unsigned char> section);
    void followPat();
    void readPrograms();
    void findOldest() noexcept;
    [[nodiscard]] static bool carriesPat(const Section& section) noexcept { return section.pid == 0; }

    std::bitset<8192> m_followed{1}; // the PAT
    std::map<int, SectionCollector> m_collectors;
    std::vector<Section> m_sections;
    std::vector<int> m_pcrs;
    std::vector<int> m_videos;
    Ticks m_now = 0;
    Ticks m_oldest = never;
    bool m_changed = false;
};

} // namespace kestrel::capture
