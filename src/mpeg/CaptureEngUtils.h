// What a transport stream contains, found in a first pass, and the CRC of its sections.
#pragma once

#include <array>
#include <cstdint>

// The remainders of all bytes for the polynomial 0x04C11DB7, most significant bit first, that crc32 works
// with.
extern const std::array<std::uint32_t, 256> crc_table;

// CRC_32 of length bytes, as in PSI sections (ISO/IEC 13818-1, annex A): initial value 0xFFFFFFFF, most
// significant bit first, no final XOR. A length below 1 gives 0xFFFFFFFF.
std::uint32_t crc32(const char* data, int length);

// Questions to be answered before a stream is worked on: a namespace in the shape of a class.
class CaptureEngUtils {
public:
    // Scans a transport-stream file from its beginning until more than max_bytes have been read (whole
    // packets, at least one). pmt_pid is that of the first program of the latest PAT (ISO/IEC
    // 13818-1, 2.4.4.3), pcr_pid and video_pid come from the map tables on it (2.4.4.8); PIDs that are not
    // found are -1. Of several video streams (stream_type 0x01, 0x02, 0x1B) the last wins. Returns 0 when
    // there is one, else -1, also for a file that cannot be read.
    static int GetStreamBasicPidInfo(const char* file, int& pcr_pid, int& pmt_pid, int& video_pid,
                                     long long max_bytes);
};
