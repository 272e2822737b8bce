// Whether the pictures of a stream are shown one behind the other.
#pragma once

#include "Findings.h"
#include "mpeg/pts.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kestrel::flowscope {

// Takes the PTS of pictures in the order of decoding and judges them in the order of showing: no picture that
// comes later is shown before its decoding, so that all are known up to the latest DTS (ISO/IEC 13818-1,
// 2.4.3.7). A wrong one leaves a hole, and is one too many elsewhere: told is what comes first of it.
class ShowingOrder {
public:
    struct Picture {
        PTS pts; // with the turns of the clock taken out
        PTS rawPts;
        unsigned long long packet; // in which it begins
        int pid;
    };
    // How long a picture is shown, in the units of PTS: not more, not less, and what one frame lasts.
    struct Length {
        double most;
        double least;
        double frame;
    };

    // What the latest one lasts is known with the next. Without it only equal times are told.
    void lasts(const Length& length) noexcept;
    // The next picture; of those that are shown before that DTS none is to come.
    void add(PTS dts, const Picture& picture, Findings& findings);
    // Pictures may be missing around that DTS, as at the beginning.
    void tolerate(PTS dts) noexcept { m_tolerated = dts; }
    // None is missing: the stream begins with what is decoded first.
    void beginsWhole() noexcept { m_tolerated = PTS(); }
    // The times before are of no use for those behind.
    void interrupt(PTS dts);
    // That one has turned out to be no picture's time.
    void remove(unsigned long long packet);
    // No more pictures come.
    void end(Findings& findings);

private:
    struct Shown : Picture {
        std::optional<Length> length;
        int earlier = 0; // pictures that came behind it and are shown before
    };
    void settle(const Shown& shown, bool last, Findings& findings);
    void judge(const Shown& before, const Shown& shown, bool last, Findings& findings);
    // Whether a departure from the length was told of the same wrong time: it is made up for.
    bool madeUpFor(double departs, double frame, PTS pts);

    std::vector<Shown> m_coming;               // in the order of showing
    std::optional<unsigned long long> m_added; // the latest
    std::optional<Shown> m_shown;              // the last one that was judged
    PTS m_tolerated{-1};
    PTS m_latestDts{-1};
    std::size_t m_settled = 0;
    int m_reordered = 0; // pictures that came behind another and were shown before, at most
    double m_departed = 0;
    PTS m_departedUntil{-1};
};

} // namespace kestrel::flowscope
