// Whether the time codes of a stream follow from one another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::flowscope {

// Time codes are the 25 bits of a GOP header (ISO/IEC 13818-2, 6.3.8), lengths are counted in fields: a frame
// has two, one with a repeated field three.
class TimecodeCheck {
public:
    // A GOP header's time code of a stream with so many frames a second (0: not known), so many fields from
    // its beginning. It is that of the first picture shown, which may be a B picture sent behind its I
    // picture: three frames of difference are none.
    void group(int timecode, std::uint64_t fields, double frameRate);
    // One frame of H.264.
    struct Frame {
        char type = 'I';             // 'I', 'P' or 'B'
        unsigned fields = 2;         // how long it is shown
        std::optional<int> timecode; // if it has one
        bool announced = false;      // that it does not follow
        bool byFields = false;       // its labels may count fields
    };
    // The next in the order of coding. B frames are shown before the frame they come behind.
    void frame(const Frame& frame, double frameRate);
    // Bytes were lost, and frames with them.
    void skip() { m_lost = true; }
    // No more frames come.
    void end(double frameRate) { showWaiting(frameRate); }

    // Time codes that do not follow from the one before and the frames since, and the latest of them.
    [[nodiscard]] std::uint64_t jumps() const noexcept { return m_jumps; }
    // "00:00:01:00 does not follow from 00:00:00:00 and 12 frames".
    [[nodiscard]] const std::string& latest() const noexcept { return m_latest; }

private:
    void showWaiting(double frameRate);
    void showLabelled(double frameRate);
    void showSome(double frameRate);
    void judge(int timecode, std::uint64_t fields, double frameRate, double tolerance, bool byFields);

    std::optional<int> m_last;
    std::uint64_t m_fieldsAtLast = 0; // of the stream, by group()
    std::uint64_t m_fieldsSince = 0;  // that are shown from the last time code on, by frame()
    std::vector<Frame> m_waiting;     // a frame and the B frames behind it
    bool m_lost = false;
    std::uint64_t m_jumps = 0;
    std::string m_latest;
};

// "01:00:00:00", ";" before the frames where the time code has its drop flag.
std::string labelText(int timecode);

} // namespace kestrel::flowscope
