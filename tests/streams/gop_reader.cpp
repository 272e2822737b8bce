#include "streams/gop_reader.h"

#include <cstdio>
#include <fstream>
#include <iterator>

namespace kestrel::test {

std::string GopHeader::text() const {
    char label[40];
    std::snprintf(label, sizeof label, "%02d:%02d:%02d%c%02d", hours, minutes, seconds, drop ? ';' : ':',
                  frames);
    return label;
}

std::vector<unsigned char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

std::vector<GopHeader> readGops(const std::string& path, int pid) {
    const std::vector<unsigned char> file = readFile(path);
    // The elementary stream, and where each of its bytes stands. PES headers stay in: they hold no GOP
    // header.
    std::vector<unsigned char> bytes;
    std::vector<std::size_t> positions;
    for (std::size_t packet = 0; packet + 188 <= file.size(); packet += 188) {
        if (((file[packet + 1] & 0x1F) << 8 | file[packet + 2]) != pid || (file[packet + 3] & 0x10) == 0)
            continue;
        std::size_t at = packet + 4;
        if ((file[packet + 3] & 0x20) != 0)
            at += 1U + file[packet + 4];
        for (; at < packet + 188; ++at) {
            bytes.push_back(file[at]);
            positions.push_back(at);
        }
    }
    std::vector<GopHeader> gops;
    for (std::size_t i = 0; i + 8 <= bytes.size(); ++i) {
        if (bytes[i] != 0 || bytes[i + 1] != 0 || bytes[i + 2] != 1 || bytes[i + 3] != 0xB8)
            continue;
        const unsigned char* const b = bytes.data() + i + 4;
        gops.push_back({b[0] >> 2 & 31,
                        (b[0] & 3) << 4 | b[1] >> 4,
                        (b[1] & 7) << 3 | b[2] >> 5,
                        (b[2] & 31) << 1 | b[3] >> 7,
                        (b[0] & 0x80) != 0,
                        (b[3] & 0x40) != 0,
                        (b[3] & 0x20) != 0,
                        {positions[i + 4], positions[i + 5], positions[i + 6], positions[i + 7]}});
    }
    return gops;
}

} // namespace kestrel::test
