// When the pictures of a stream are decoded and shown.
#pragma once

#include "Findings.h"
#include "FrameRates.h"
#include "mpeg/pts.h"

#include <cstdint>
#include <map>

namespace kestrel::flowscope {

// Takes the times of PES packets in their order. The turns of the 33-bit clock are taken out; after an
// announced change of the time base (ISO/IEC 13818-1, 2.4.3.5) the times go on as if there had been none.
class VideoTimes {
public:
    // What one PES packet says, with the turns taken out.
    struct Times {
        PTS pts;
        PTS dts;
    };

    // The times of the next PES packet as they would go on; nothing is kept of them yet.
    [[nodiscard]] Times continued(PTS rawPts, PTS rawDts, double frameRate);
    // They count. What departs from order is told to findings with that packet number; a frameRate of 0 is
    // one that is not known.
    void take(const Times& times, double frameRate, unsigned long long packet, Findings& findings);
    // A new time base begins.
    void expectNewTimeBase() noexcept { m_newTimeBase = true; }

    // Absent before the first.
    [[nodiscard]] PTS firstDts() const noexcept { return m_firstDts; }
    [[nodiscard]] PTS lastDts() const noexcept { return m_lastDts; }
    [[nodiscard]] PTS lowestPts() const noexcept { return m_lowestPts; }
    // Seconds from the first picture shown to the last, without what the last one lasts.
    [[nodiscard]] double shownSeconds() const noexcept;
    // Seconds from the first decoding time to that one; 0 before the first.
    [[nodiscard]] double decodingSeconds(PTS dts) const noexcept;
    // By the steps between the decoding times, of a stream with so many frames; none without steps.
    [[nodiscard]] FrameRate frameRate(std::uint64_t frames) const;

private:
    PTS m_firstDts{-1};
    PTS m_lastDts{-1};
    PTS m_lowestPts{-1};
    PTS m_highestPts{-1};
    std::int64_t m_lastStep = 0;
    std::int64_t m_shift = 0; // of the time base since the first one
    bool m_newTimeBase = false;
    std::uint64_t m_taken = 0;
    std::map<std::int64_t, std::uint64_t> m_steps; // how often each
};

} // namespace kestrel::flowscope
