// When the pictures of a stream are decoded and shown.
#pragma once

#include "Findings.h"
#include "FrameRates.h"
#include "Leaps.h"
#include "ShowingOrder.h"
#include "StepsByRate.h"
#include "mpeg/pts.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::flowscope {

// Takes the times of PES packets in their order. The turns of the 33-bit clock are taken out; after an
// announced change of the time base (ISO/IEC 13818-1, 2.4.3.5), and where time goes back by more than a
// second without one, the times go on as if there had been none. A time that leaps by more than a second is
// held until others tell whether it is damaged (see Leaps.h); a damaged one counts as if it had not been
// sent.
class VideoTimes {
public:
    // What one PES packet says, with the turns taken out, and as it stands there.
    struct Times {
        PTS pts;
        PTS dts; // of one that leaps: where it is expected
        PTS rawPts;
        PTS rawDts;
        bool back = false;    // time went back
        bool newBase = false; // it begins one that was announced
        bool leaps = false;   // to be held
    };
    // Where a PES packet is, and what to expect of it.
    struct Place {
        unsigned long long packet;
        int pid;
        double frameRate; // 0: not known
        double frames; // that were sent since the last PES packet with a time (2.7.4), as long as they last
        // At least so many, where that depends on the way they are counted.
        double leastFrames = 0;
        bool beginsWhole = false; // the first picture had a time and is an I picture
        // How far its DTS lies ahead of the latest clock reference; nothing without one.
        std::optional<std::int64_t> ahead = std::nullopt;
        // None of these frames is lost, and each lasts as long as the rate says.
        bool allAtRate = false;
    };

    // The next PES packet tells what the times that are held are worth; to be called before the next two.
    // Where one of them was true and lies so many seconds behind the first time, the pass was to end there:
    // which one of them.
    std::optional<std::size_t> settle(PTS rawDts, const Place& place, std::optional<int> seconds,
                                      Findings& findings);
    // Times that are held now, at most two.
    [[nodiscard]] std::size_t held() const noexcept { return m_held.size(); }
    // The times of the next PES packet as they would go on; nothing is kept of them yet.
    [[nodiscard]] Times continued(PTS rawPts, PTS rawDts, const Place& place);
    // They count, or are held. What departs from order is told to findings.
    void take(const Times& times, const Place& place, Findings& findings);
    // No more times come. Where one that was held was true, and the pass was to end there: which one.
    std::optional<std::size_t> end(std::optional<int> seconds, Findings& findings);
    // A new time base begins.
    void expectNewTimeBase() noexcept { m_newTimeBase = true; }

    // Absent before the first.
    [[nodiscard]] PTS firstDts() const noexcept { return m_firstDts; }
    [[nodiscard]] PTS lastDts() const noexcept { return m_lastDts; }
    // The last one, or where one that is held is expected.
    [[nodiscard]] PTS latestDts() const noexcept { return m_latestDts; }
    // Frames between the last time that counts and the latest one, where that does not.
    [[nodiscard]] double framesHeld() const noexcept { return m_framesHeld; }
    [[nodiscard]] PTS lowestPts() const noexcept { return m_lowestPts; }
    // Steps so far that are longer than their frames: some may be lost of which no counter tells.
    [[nodiscard]] std::uint64_t gaps() const noexcept { return m_gaps; }
    // Whether time went back without a new time base.
    [[nodiscard]] bool wentBack() const noexcept { return m_shiftBefore.has_value(); }
    // Seconds from the first picture shown to the last, without what the last one lasts.
    [[nodiscard]] double shownSeconds() const noexcept;
    // Seconds from the first decoding time to that one; 0 before the first.
    [[nodiscard]] double decodingSeconds(PTS dts) const noexcept;
    // By the steps between the decoding times, of a stream with so many frames; none without steps.
    [[nodiscard]] FrameRate frameRate(std::uint64_t frames) const;

private:
    struct Held {
        Times times;
        Place place;
    };
    struct HeldPts : Held {
        int since = 0; // times that have come
    };
    [[nodiscard]] double frameUnits(double frameRate) const noexcept;
    // Of so many frames, by their rate or by the latest steps, whichever is longer.
    [[nodiscard]] std::int64_t expected(const Place& place, double frames) const noexcept;
    // frames: since the last time that counts.
    [[nodiscard]] Times follow(PTS rawPts, PTS rawDts, const Place& place, double frames, bool confirmed);
    // From the time that is held in that place to the next.
    [[nodiscard]] Leap leapOf(std::size_t index, PTS rawDts, const Place& next) const;
    void dropHeld(const char* around, Findings& findings);
    Held takeHeld();
    // A time that was held is true; false where the pass was to end there.
    bool keepHeld(const Held& held, std::optional<int> seconds, Findings& findings);
    [[nodiscard]] bool endsInOrder() const;
    // Whether the clock has gone as far as the times from the one to the other; nothing without a clock.
    [[nodiscard]] static std::optional<bool> clockAgrees(const Place& from, const Place& to) noexcept;
    void keep(const Times& times, const Place& place, Findings& findings);
    // Whether it is as long as its frames.
    bool judgeStep(const Times& times, const Place& place, double frames, Findings& findings);
    // step: from the last time, where it is as long as its frames.
    void judgeShowing(const Times& times, const Place& place, std::optional<std::int64_t> step,
                      Findings& findings);
    void keepPts(const Times& times, const Place& place, Findings& findings);
    // On which side of its DTS a PTS lies too far off; 0: on none.
    [[nodiscard]] int outside(std::int64_t offset, const Place& place) const noexcept;
    void widen(PTS pts) noexcept;
    void tellWrongFirst(PTS dts, const Held& second, Findings& findings) const;
    void beginBefore(PTS dts, const Held& second);
    void tellDamaged(const Held& held, const char* around, Findings& findings) const;
    void tellPts(const Held& held, Findings& findings);
    void tellRate(Findings& findings) const;

    PTS m_firstDts{-1};
    PTS m_lastDts{-1};
    PTS m_lowestPts{-1};
    PTS m_highestPts{-1};
    PTS m_lastRawDts{-1};
    PTS m_latestDts{-1};
    std::vector<Held> m_held;       // their DTS leap
    std::vector<HeldPts> m_heldPts; // their PTS lie far from their DTS
    Place m_lastPlace{};            // of the last time
    double m_framesHeld = 0;
    std::int64_t m_leastOffset = 0; // of PTS from DTS that was borne out
    std::int64_t m_mostOffset = 0;
    Held m_first{};           // of the first time base, or of the latest that was announced
    bool m_beganBase = false; // the last time is that
    double m_usualStep = 0;   // the shorter one of the last two, for one frame
    std::int64_t m_lastStep = 0;
    double m_framesOfLastStep = 1;
    bool m_lastShort = false;                  // the last step was far shorter than its frames
    std::string m_stepToTell;                  // to the last time, if the next one bears it out
    std::int64_t m_shift = 0;                  // of the time base since the first one
    std::optional<std::int64_t> m_shiftBefore; // time went back, the latest time
    bool m_newTimeBase = false;
    ShowingOrder m_showing;
    StepsByRate m_byRate;
    std::uint64_t m_taken = 0;
    std::uint64_t m_gaps = 0;
    std::map<std::int64_t, std::uint64_t> m_steps; // how often each
};

} // namespace kestrel::flowscope
