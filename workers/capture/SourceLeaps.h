// Where a file's timestamps go on later while what plays it does not wait.
#pragma once

#include "PcrTimeline.h"
#include "ProgramTables.h"
#include "SourceIndex.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrel::capture {

// A step of the PCRs that says nothing of the time between, see PcrTimeline, is played at the pace there was.
// The frames behind it have timestamps that are as much later; which step of theirs that is tells where both
// are in the file.
class SourceLeaps {
public:
    struct Leap {
        std::size_t frame = 0; // the first one behind it
        std::int64_t time = 0; // by the timestamps, when that begins
        SourceLeap size;
    };

    // Takes the next packet, which is that many bytes into the file.
    void take(const unsigned char* packet, std::uint64_t offset);
    // A frame is later than those before take. It begins there, the PES packet before it began there.
    void late(const Leap& leap, std::uint64_t from, std::uint64_t to);
    // In the order of the file; nothing more comes.
    [[nodiscard]] const std::vector<Leap>& found();

private:
    // Bytes of the file, the ends not among them.
    struct Stretch {
        std::uint64_t from = 0;
        std::uint64_t to = 0;
        [[nodiscard]] bool meets(const Stretch& other) const noexcept {
            return from < other.to && other.from < to;
        }
    };
    struct Late {
        Leap leap;
        Stretch where;
    };
    // Of each list; a damaged file may have one in every few packets.
    static constexpr std::size_t most = 1'000'000;

    ProgramTables m_tables;
    int m_pid = -1; // whose PCRs are the clock
    std::int64_t m_pcr = 0;
    std::uint64_t m_pcrAt = 0;
    std::vector<Stretch> m_steps; // of the PCRs
    std::vector<Late> m_open;     // the PCR behind them has not come
    std::vector<Leap> m_found;
};

} // namespace kestrel::capture
