// Makes small, exact transport streams, and looks into recorded ones.
#pragma once

#include "capture/PacketRing.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace capture_test {

using kestrel::capture::Packet;
using Packets = std::vector<Packet>;

struct StreamShape {
    int rateCode = 3;          // MPEG-2 frame_rate_code
    int gop = 12;              // frames from one random access point to the next
    std::int64_t dts = 126000; // of the first frame, 90 kHz
    int packetsPerFrame = 3;
    bool fieldPictures = false; // each frame is two field pictures, each in a PES packet of its own
    bool avc = false;           // H.264 with VUI timing at 25 frames/s, rather than MPEG-2
    int tablesEvery = 4;        // frames between PAT and PMT
    bool avcTiming = true;      // false: H.264 without VUI
    int framesPerUnit = 1;      // frames in one PES packet, whose timestamps are those of the first
};

inline constexpr int pmtPid = 0x1000;
inline constexpr int videoPid = 0x100;
inline constexpr int audioPid = 0x101;

// A stream that goes on with each call. The first frame is a random access point.
class StreamBuilder {
public:
    explicit StreamBuilder(StreamShape shape = {}) : m_shape(shape) {}
    // The packets of the next frames: tables, video, one packet of audio within each frame.
    Packets frames(int count);
    // The timestamps jump: 90 kHz, of the next frame.
    void setDts(std::int64_t dts) { m_shape.dts = dts; }

private:
    void table(Packets& out, int pid, const std::vector<unsigned char>& section);
    void unit(Packets& out, const std::vector<unsigned char>& elementary, std::int64_t dts);
    std::vector<unsigned char> picture(bool intra, int structure) const;
    std::vector<unsigned char> avcPicture(bool intra, int structure) const;
    void put(Packets& out, int pid, bool start, std::vector<unsigned char> payload);

    StreamShape m_shape;
    int m_frame = 0;
    std::array<int, 8192> m_counters{};
};

// A packet of that PID whose payload says nothing (0xFF throughout); a null packet.
Packet packetOf(int pid);
inline Packet nullPacket() {
    return packetOf(0x1FFF);
}

// A temporary directory, removed with all that is in it.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    std::string path(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

Packets readPackets(const std::string& file); // fails the test when it holds anything but whole packets
// Of a file whose writer was killed, maybe inside a write: a last packet that is cut is left out.
Packets readPacketsOfKilled(const std::string& file);
void writePackets(const Packets& packets, const std::string& file);
std::string readText(const std::string& file);
std::vector<std::string> filesIn(const std::string& directory); // sorted paths
int pid(const Packet& packet);
int pictures(const Packets& packets);         // picture headers of MPEG-2 video
int continuityErrors(const Packets& packets); // by continuity_nazi
// Position of the first packet of `stream` from which it equals `part`; -1 when nowhere.
int positionOf(const Packets& part, const Packets& stream);

} // namespace capture_test
