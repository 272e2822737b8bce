// What a transport stream contains, found in a first pass, and the CRC of its sections.
#pragma once

#include <array>
#include <cstdint>

// The table of the polynomial 0x04C11DB7, most significant bit first.
extern const std::array<std::uint32_t, 256> crc_table;

// CRC_32 of PSI sections (ISO/IEC 13818-1, annex A): initial value 0xFFFFFFFF, most significant bit first, no
// final XOR. A length below 1 gives 0xFFFFFFFF.
std::uint32_t crc32(const char* data, int length);

class CaptureEngUtils {
public:
    // Scans a file until more than max_bytes have been read. PIDs that are not found stay -1; of several
    // video streams (stream_type 0x01, 0x02, 0x1B) the last wins. Returns 0 when there is one, else -1.
    static int GetStreamBasicPidInfo(const char* file, int& pcr_pid, int& pmt_pid, int& video_pid,
                                     long long max_bytes);
};
