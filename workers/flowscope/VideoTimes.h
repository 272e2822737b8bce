// When the pictures of a stream are decoded and shown.
#pragma once

#include "Findings.h"
#include "FrameRates.h"
#include "mpeg/pts.h"

#include <cstdint>
#include <map>
#include <optional>

namespace kestrel::flowscope {

// Takes the times of PES packets in their order. The turns of the 33-bit clock are taken out; after an
// announced change of the time base (ISO/IEC 13818-1, 2.4.3.5), and where time goes back by more than a
// second without one, the times go on as if there had been none.
class VideoTimes {
public:
    // What one PES packet says, with the turns taken out, and as it stands there.
    struct Times {
        PTS pts;
        PTS dts;
        PTS rawPts;
        PTS rawDts;
        bool back = false; // time went back
    };
    // Where a PES packet is, and what to expect of it.
    struct Place {
        unsigned long long packet;
        int pid;
        double frameRate; // 0: not known
        double frames; // that were sent since the last PES packet with a time (2.7.4), as long as they last
    };

    // The times of the next PES packet as they would go on; nothing is kept of them yet.
    [[nodiscard]] Times continued(PTS rawPts, PTS rawDts, const Place& place);
    // They count. What departs from order is told to findings.
    void take(const Times& times, const Place& place, Findings& findings);
    // A new time base begins.
    void expectNewTimeBase() noexcept { m_newTimeBase = true; }

    // Absent before the first.
    [[nodiscard]] PTS firstDts() const noexcept { return m_firstDts; }
    [[nodiscard]] PTS lastDts() const noexcept { return m_lastDts; }
    [[nodiscard]] PTS lowestPts() const noexcept { return m_lowestPts; }
    // Whether time went back without a new time base.
    [[nodiscard]] bool wentBack() const noexcept { return m_shiftBefore.has_value(); }
    // Seconds from the first picture shown to the last, without what the last one lasts.
    [[nodiscard]] double shownSeconds() const noexcept;
    // Seconds from the first decoding time to that one; 0 before the first.
    [[nodiscard]] double decodingSeconds(PTS dts) const noexcept;
    // By the steps between the decoding times, of a stream with so many frames; none without steps.
    [[nodiscard]] FrameRate frameRate(std::uint64_t frames) const;

private:
    [[nodiscard]] double frameUnits(double frameRate) const noexcept;

    PTS m_firstDts{-1};
    PTS m_lastDts{-1};
    PTS m_lowestPts{-1};
    PTS m_highestPts{-1};
    PTS m_lastRawDts{-1};
    std::int64_t m_lastStep = 0;
    double m_framesOfLastStep = 1;
    std::int64_t m_shift = 0;                  // of the time base since the first one
    std::optional<std::int64_t> m_shiftBefore; // time went back, the latest time
    bool m_newTimeBase = false;
    std::uint64_t m_taken = 0;
    std::map<std::int64_t, std::uint64_t> m_steps; // how often each
};

} // namespace kestrel::flowscope
