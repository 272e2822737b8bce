// Reads the GOP headers of MPEG-2 video in a transport-stream file, with none of the library's code, so that
// it can judge what the library wrote.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace kestrel::test {

struct GopHeader {
    int hours, minutes, seconds, frames;
    bool drop, closed, broken;
    // Where the four bytes behind the start code stand in the file.
    std::array<std::size_t, 4> positions;

    // "hh:mm:ss:ff", ";" before the frames when drop.
    [[nodiscard]] std::string text() const;
    // Which packet of the file the header's first of these bytes is in.
    [[nodiscard]] std::size_t packet() const { return positions[0] / 188; }
};

// All GOP headers of the PID, in order, wherever in a PES packet they stand and however many packets share
// one.
std::vector<GopHeader> readGops(const std::string& path, int pid);
// The same of a file in memory.
std::vector<GopHeader> gopsOf(const std::vector<unsigned char>& file, int pid);

// The payloads of the PES packets of the PID, joined.
std::vector<unsigned char> elementaryStreamOf(const std::string& path, int pid);

} // namespace kestrel::test
