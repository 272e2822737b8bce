// Makes transport streams whose frames carry timecodes, in coding order, and reads the labels of recorded
// ones back.
#pragma once

#include "capture/stream_builder.h"

#include <cstdint>
#include <string>
#include <vector>

namespace capture_test {

struct LabelledShape {
    int rateCode = 3;                     // MPEG-2 frame_rate_code
    std::string timecode = "10:00:00:00"; // of the first frame; ';' before the frames: drop-frame
    int gop = 12;                         // frames
    int bFrames = 0;                      // between two others
    bool open = false;                    // GOPs begin, as they are shown, with B pictures
    bool timecodes = true;                // false: GOP headers without one that runs (all zero)
    bool gopHeaders = true;               // false: sequence headers only
    bool avc = false;                     // H.264, the label in picture timing
    bool avcHrd = false;                  // with buffering parameters, which lengthen picture timing
    bool keysOnly = false;                // H.264: only random access points have a label
    bool fields = false;                  // MPEG-2: each frame is two field pictures
    int packetsPerFrame = 2;
    bool tables = false; // before each frame; else before each GOP
    int delay = 0;       // further frames from when a picture is decoded to when it is shown
    bool stuffed = true; // the last packet of a frame ends with it
};

// One coded frame with the tables before it.
struct CodedFrame {
    Packets packets;
    std::string label;
    char type = 'P';
};

class LabelledStream {
public:
    explicit LabelledStream(LabelledShape shape = {});
    // The next frames, in coding order.
    std::vector<CodedFrame> frames(int count);
    // From the next GOP on the labels go on from this one.
    void jumpTo(const std::string& timecode);
    // From the frame on that is shown as that one (the first is 0) they go on from this one, be it in the
    // middle of a GOP, or stand still, any number of times; there are timecodes from then on.
    void switchAt(int shown, const std::string& timecode, bool runs = true);

private:
    struct Switch {
        int shown;
        std::string timecode;
        bool runs;
    };

    Packets packetsOf(const std::vector<unsigned char>& pes);
    std::vector<unsigned char> mpeg2Picture(int shown, char type, int structure) const;
    std::vector<unsigned char> avcPicture(int shown, char type) const;
    std::string label(int shown) const;
    bool hasTimecode(int shown) const {
        return m_shape.timecodes || (!m_switches.empty() && shown >= m_switches.front().shown);
    }
    void planGop();

    LabelledShape m_shape;
    int m_coded = 0;           // frames until now
    int m_group = 0;           // first frame of the GOP, in the order of display
    std::vector<int> m_order;  // of display, of the frames still to come of this GOP, in coding order
    std::vector<char> m_types; // likewise
    int m_base = 0;            // frame from which the labels count
    std::string m_jump;
    std::vector<Switch> m_switches;
    std::array<int, 8192> m_counters{};
};

Packets join(const std::vector<CodedFrame>& frames);

// The labels of the MPEG-2 frames of a file in the order of display, by their GOP headers and
// temporal_references; field pairs count once.
std::vector<std::string> labelsOf(const Packets& packets, int rateCode);

} // namespace capture_test
