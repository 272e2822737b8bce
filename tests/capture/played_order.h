// Recordings of what comes back of a source that is played, from encoders that code frames in another order
// than they are shown.
#pragma once

#include "capture/played_fixture.h"
#include "capture/stamped_frames.h"

#include <algorithm>
#include <string>
#include <vector>

namespace capture_test {

inline std::string nameOf(const LabelledShape& shape) {
    return std::string(shape.avc ? "H264" : "Mpeg2") + "With" + std::to_string(shape.bFrames) + "BFrames" +
           (shape.open ? "InOpenGops" : "") + (shape.fields ? "OfFields" : "") +
           (shape.delay != 0 ? "Delayed" : "") + (shape.rateCode == 6 ? "At50" : "");
}

class PlayedOrder : public PlayedRecording {
protected:
    // The labels of the frames that are in the file.
    std::vector<std::string> recordedOf(const std::vector<CodedFrame>& fed) {
        const Packets file = readPackets(m_file);
        std::vector<std::string> labels;
        for (const CodedFrame& frame : fed) {
            const auto first = std::find_if(frame.packets.begin(), frame.packets.end(), startsPicture);
            if (std::find(file.begin(), file.end(), *first) != file.end())
                labels.push_back(frame.label);
        }
        return labels;
    }
    static std::vector<CodedFrame> unstamped(std::vector<CodedFrame> frames) {
        for (CodedFrame& frame : frames)
            for (Packet& packet : frame.packets)
                if (startsPicture(packet) && packet[11] != 0) {
                    packet[11] = 0;
                    std::fill_n(packet.begin() + 13, 10, static_cast<unsigned char>(0xFF));
                }
        return frames;
    }
};

} // namespace capture_test
