// The clock of a transport stream, as it is played.
#pragma once

#include "ProgramTables.h"

#include <cstddef>
#include <cstdint>

namespace kestrel::capture {

// The PCR of a packet in 27 MHz ticks (ISO/IEC 13818-1, 2.4.3.5); -1 when it has none.
[[nodiscard]] std::int64_t pcrOf(const unsigned char* packet) noexcept;
// discontinuity_indicator.
[[nodiscard]] bool isDiscontinuity(const unsigned char* packet) noexcept;

// Between two PCRs of one PID time goes by evenly with the packets (2.4.2.2). Where the clock jumps, is
// missing or changes to another PID, the pace there was goes on, however much later the next PCR is.
class PcrClock {
public:
    using Ticks = std::int64_t; // 27 MHz

    // Packets without a PCR after which no PCR is waited for and any PID may go on with one: 9 MB.
    static constexpr std::size_t mostSilent = 49'152;

    // Takes the next packet. True when it has a PCR of the clock. Once the tables know whose PCRs are a
    // clock, only those are.
    bool take(const unsigned char* packet, const ProgramTables& tables);
    // The tables have changed.
    void follow(const ProgramTables& tables);
    // Any PID may go on.
    void lose() noexcept { m_pid = -1; }

    // The last packet is one of those for which no PCR is waited any more.
    [[nodiscard]] bool silent() const noexcept { return m_since > mostSilent; }
    // Time from packet to packet up to the last PCR and from there on; 0 while no two PCRs have told it.
    [[nodiscard]] double ticksEach() const noexcept { return m_ticksEach; }
    // By how much the last PCR is later than the packets since the one before are played; negative when it is
    // earlier.
    [[nodiscard]] Ticks unplayed() const noexcept { return m_unplayed; }

private:
    int m_pid = -1; // whose PCRs are the clock
    Ticks m_last = -1;
    std::size_t m_since = 0; // packets from that one on
    double m_ticksEach = 0;
    Ticks m_unplayed = 0;
};

} // namespace kestrel::capture
