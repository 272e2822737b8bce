// Whether pictures are decoded as often as the headers of their stream say.
#pragma once

#include <limits>
#include <optional>

namespace kestrel::flowscope {

// Each step between decoding times may be off by half a frame, so that none of them tells of a wrong rate;
// all of them together do.
class StepsByRate {
public:
    // A step that is in order, behind that many frames by either way of counting, of so many a second by the
    // headers. In the units of PTS.
    void add(double step, double mostFrames, double leastFrames, double frameRate);
    // One that is not, or of which frames may be missing.
    void leaveOut() noexcept { ++m_leftOut; }

    struct Rates {
        double measured; // frames a second
        double ofHeaders;
    };
    // Nothing unless the steps depart by several percent from the rate of the headers, all alike.
    [[nodiscard]] std::optional<Rates> contradiction() const;

private:
    double m_passed = 0; // units of PTS
    double m_byRate = 0; // and as many as the frames last by the headers
    double m_frames = 0;
    double m_leftOut = 0;
    // Of what single steps last by the headers, they last so much.
    double m_mostOfAll = 0;
    double m_leastOfAll = std::numeric_limits<double>::max();
};

} // namespace kestrel::flowscope
