#include "mpeg/GetDTSBounds.h"

#include "foundation/Logger.h"
#include "mpeg/mpeg2.h"
#include "mpeg/regular_file.h"
#include "mpeg/video_scan.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace ts = kestrel::ts;

namespace {

constexpr const char* MODULE = "captureEngLib";
// Packets of the first read, and of each further one: most questions are answered near the end they ask at.
constexpr long FIRST_BLOCK = 64;
constexpr long BLOCK = 2048;

long read_at(int descriptor, unsigned char* bytes, long count, std::int64_t offset) {
    long got = 0;
    while (got < count) {
        const ssize_t part =
            pread(descriptor, bytes + got, static_cast<std::size_t>(count - got), offset + got);
        if (part < 0 && errno == EINTR)
            continue;
        if (part <= 0)
            break;
        got += part;
    }
    return got;
}

// A device may be read by offset without ever ending.
bool is_regular(int descriptor) {
    struct stat status {};
    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// Gives the packets from offset 0 on to visit until that returns false or the file ends.
template <typename Visit>
void forward(FILE* file, Visit&& visit) {
    if (!is_regular(fileno(file)))
        return;
    std::vector<unsigned char> block(static_cast<std::size_t>(BLOCK * ts::packet_size));
    std::int64_t offset = 0;
    for (long packets = FIRST_BLOCK;; packets = BLOCK) {
        const long got = read_at(fileno(file), block.data(), packets * ts::packet_size, offset);
        for (long at = 0; at + ts::packet_size <= got; at += ts::packet_size)
            if (!visit(block.data() + at))
                return;
        if (got < packets * ts::packet_size)
            return;
        offset += got;
    }
}

// The same from the last whole packet of length bytes back to the first.
template <typename Visit>
void backward(FILE* file, std::int64_t length, Visit&& visit) {
    std::vector<unsigned char> block(static_cast<std::size_t>(BLOCK * ts::packet_size));
    std::int64_t end = length / ts::packet_size * ts::packet_size;
    for (long packets = FIRST_BLOCK; end > 0; packets = BLOCK) {
        const auto wanted = static_cast<long>(std::min<std::int64_t>(end, packets * ts::packet_size));
        if (read_at(fileno(file), block.data(), wanted, end - wanted) < wanted)
            return;
        for (long at = wanted - ts::packet_size; at >= 0; at -= ts::packet_size)
            if (!visit(block.data() + at))
                return;
        end -= wanted;
    }
}

} // namespace

int GetDTSBounds::get_video_PID(FILE* file) {
    int pmt_pid = 0;
    int found = -1;
    forward(file, [&](const unsigned char* packet) {
        // The first association table that names a map decides; unlike the other queries, later ones do not.
        if (pmt_pid == 0) {
            if (ts::pid(packet) == 0)
                pmt_pid = MPEG::PAT::PID_of_first_PMT(packet);
        } else if (ts::pid(packet) == pmt_pid)
            for (const unsigned char* entry : PMT_PIDInfo_iterable(packet))
                if (found < 0 && kestrel::is_mpeg2_video(MPEG::PMT::PIDInfo::stream_type(entry)))
                    found = MPEG::PMT::PIDInfo::elementary_PID(entry);
        return found < 0;
    });
    return found;
}

PTS GetDTSBounds::get_first_DTS(FILE* file, int pid) {
    PTS found{-1};
    forward(file, [&](const unsigned char* packet) {
        if (packet[0] != ts::sync_byte)
            return false;
        if (ts::pid(packet) != pid || !ts::payload_unit_start(packet))
            return true;
        const ts::bytes header = ts::pes_header(packet);
        if (header.empty())
            return true;
        const int flags = header[7] >> 6;
        if (flags < 2)
            return true;
        found = flags == 3 ? MPEG::PES::get_DTS(header.data()) : MPEG::PES::get_PTS(header.data());
        return false;
    });
    return found;
}

PTS GetDTSBounds::get_last_DTS(FILE* file, int pid, long file_length) {
    PTS found{-1};
    backward(file, file_length, [&](const unsigned char* packet) {
        if (packet[0] != ts::sync_byte)
            return false;
        if (ts::pid(packet) != pid || !ts::payload_unit_start(packet))
            return true;
        const ts::bytes header = ts::pes_header(packet);
        if (header.empty() || header[7] >> 6 != 3)
            return true;
        found = MPEG::PES::get_DTS(header.data());
        return false;
    });
    return found;
}

std::pair<PTS, PTS> GetDTSBounds::parse_file(FILE* file, long file_length) {
    const int pid = get_video_PID(file);
    if (pid < 0)
        return {PTS(-1), PTS(-1)};
    return {get_first_DTS(file, pid), get_last_DTS(file, pid, file_length)};
}

int GetDTSBounds::testHarness(int argc, char** argv) {
    if (argc != 4) {
        LogUtil::Error(MODULE, "Function %s requires args in.mpeg firstDTS lastDTS", "testHarness");
        return 1;
    }
    const kestrel::RegularFile file(argv[1]);
    if (!file) {
        LogUtil::Error(MODULE, "Unable to open input file %s", argv[1]);
        return 1;
    }
    const auto [first, last] = parse_file(file.get(), file.length());
    const struct {
        const char* format;
        PTS found;
        long expected;
    } bounds[] = {{"First DTS = %lld, expected = %lld", first, std::strtol(argv[2], nullptr, 10)},
                  {"Last DTS = %lld, expected = %lld", last, std::strtol(argv[3], nullptr, 10)}};
    for (const auto& bound : bounds)
        if (bound.found.ticks() != bound.expected) {
            // 33 bits of ticks are more than an int holds.
            LogUtil::Error(MODULE, bound.format, static_cast<long long>(bound.found.ticks()),
                           static_cast<long long>(bound.expected));
            return 1;
        }
    return 0;
}
