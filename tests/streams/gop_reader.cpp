#include "streams/gop_reader.h"
#include "foundation/Bytes.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace kestrel::test {

namespace {

// The elementary stream of a PID, and where each of its bytes stands in the file.
struct Elementary {
    std::vector<unsigned char> bytes;
    std::vector<std::size_t> positions;
};

Elementary elementaryStream(const std::vector<unsigned char>& file, int pid) {
    constexpr std::size_t PES_FIXED = 9; // up to and with PES_header_data_length
    Elementary stream;
    stream.bytes.reserve(file.size());
    stream.positions.reserve(file.size());
    std::vector<unsigned char> header; // of the PES, as far as seen
    std::size_t headerLeft = 0;
    for (std::size_t packet = 0; packet + 188 <= file.size(); packet += 188) {
        if (((file[packet + 1] & 0x1F) << 8 | file[packet + 2]) != pid || (file[packet + 3] & 0x10) == 0)
            continue;
        std::size_t at = packet + 4;
        if ((file[packet + 3] & 0x20) != 0)
            at += 1U + file[packet + 4];
        if ((file[packet + 1] & 0x40) != 0) {
            header.clear();
            headerLeft = PES_FIXED;
        }
        for (; at < packet + 188; ++at) {
            if (headerLeft > 0) {
                header.push_back(file[at]);
                if (--headerLeft == 0 && header.size() == PES_FIXED)
                    headerLeft = header.back();
                continue;
            }
            stream.bytes.push_back(file[at]);
            stream.positions.push_back(at);
        }
    }
    return stream;
}

} // namespace

std::string GopHeader::text() const {
    char label[40];
    std::snprintf(label, sizeof label, "%02d:%02d:%02d%c%02d", hours, minutes, seconds, drop ? ';' : ':',
                  frames);
    return label;
}

std::vector<GopHeader> gopsOf(const std::vector<unsigned char>& file, int pid) {
    const auto [bytes, positions] = elementaryStream(file, pid);
    std::vector<GopHeader> gops;
    constexpr unsigned char GROUP_START[] = {0, 0, 1, 0xB8};
    const auto begin = bytes.begin();
    for (auto at = begin;; ++at) {
        at = std::search(at, bytes.end(), std::begin(GROUP_START), std::end(GROUP_START));
        if (bytes.end() - at < 8)
            return gops;
        const auto i = static_cast<std::size_t>(at - begin);
        // ISO/IEC 13818-2, 6.2.2.6: drop 1, hours 5, minutes 6, marker 1, seconds 6, pictures 6, closed 1,
        // broken 1.
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
}

std::vector<GopHeader> readGops(const std::string& path, int pid) {
    return gopsOf(bytesOfFile(path), pid);
}

std::vector<unsigned char> elementaryStreamOf(const std::string& path, int pid) {
    return elementaryStream(bytesOfFile(path), pid).bytes;
}

} // namespace kestrel::test
