// The programs of a transport stream, from its program association and map tables (ISO/IEC 13818-1, 2.4.4).
#pragma once

#include "AudioHeaders.h"
#include "Findings.h"
#include "VideoTrack.h"
#include "capture/SectionCollector.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kestrel::flowscope {

// One elementary stream of a program.
struct StreamEntry {
    int pid = 0;
    int type = 0;            // stream_type, ISO/IEC 13818-1, table 2-34
    std::string description; // with "AC3" and "H.264" where the service looks for them
    std::string language;    // ISO 639 code, empty when not given
    std::optional<AudioCodec> audio;
    std::optional<VideoCodec> video;
};

// One program of the association table, and what its map said first.
struct Program {
    int number = 0; // program_number
    int pmtPid = 0;
    int pcrPid = -1;     // -1 without a map
    int clockPid = -1;   // the PCR PID of the latest map
    bool mapped = false; // a map has come
    std::vector<StreamEntry> streams;

    // The first video of the map; null when there is none.
    [[nodiscard]] const StreamEntry* video() const noexcept;
};

// Takes the packets of the tables. Several programs may have their maps on one PID.
class ProgramTables {
public:
    // The next packet of PID 0 or of a map's PID. True when there is something new about a program. What
    // departs from the standard, or changes, is told to findings with that packet number.
    bool take(const unsigned char* packet, unsigned long long number, Findings& findings);

    // In the order of the association table, those too whose map has not come.
    [[nodiscard]] const std::vector<Program>& programs() const noexcept { return m_programs; }
    // Null when there is none of that number.
    [[nodiscard]] const Program* find(int number) const noexcept;
    // What a unit of the payload on that PID tells of the program's stream, of which the map does not tell
    // it.
    void decide(int number, int pid, std::span<const unsigned char> payload);
    // There is an association table, and the maps of all of its programs have come.
    [[nodiscard]] bool complete() const noexcept;

private:
    // A section may end in one packet with others: all of a packet are kept for take().
    using Sections = std::vector<std::vector<unsigned char>>;
    struct Collector {
        explicit Collector(int tableId);
        std::shared_ptr<Sections> sections;
        capture::SectionCollector collector;
    };

    bool takeAssociation(std::span<const unsigned char> section, unsigned long long number,
                         Findings& findings);
    bool takeMap(int pid, std::span<const unsigned char> section, unsigned long long number,
                 Findings& findings);
    [[nodiscard]] Program* programOf(int pid, int number);

    Collector m_association{0};
    std::map<int, Collector> m_maps; // by PID
    std::vector<Program> m_programs;
    std::map<int, int> m_places;                      // in the association table, by program number
    std::map<int, std::vector<StreamEntry>> m_latest; // streams of the latest map, by program number
};

} // namespace kestrel::flowscope
