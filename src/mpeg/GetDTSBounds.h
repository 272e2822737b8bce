// First and last decoding time of a transport-stream file, from both of its ends.
#pragma once

#include "mpeg/pts.h"

#include <cstdio>
#include <utility>

// The functions read the open file through its descriptor, by offset: the stream's own position stays. Each
// ends at the end of the file, and reads that far when it finds nothing: a file whose video has decoding
// times is answered from its ends. Anything but a regular file has no packets.
class GetDTSBounds {
public:
    // elementary_PID (ISO/IEC 13818-1, 2.4.4.9) of the first MPEG-1 or MPEG-2 video stream of the first map
    // table that an association table names; H.264 is not considered. -1 when there is none.
    static int get_video_PID(FILE* file);
    // Decoding time (ISO/IEC 13818-1, 2.4.3.7) of the first PES packet of the PID that has one, its PTS where
    // it has no DTS of its own.
    // Stops at the first record without a sync byte. -1 when there is none.
    static PTS get_first_DTS(FILE* file, int pid);
    // DTS of the last PES packet of the PID that has one. Deliberately unlike the first: a packet with only a
    // PTS is passed over, since the last bound is to be a true decoding time, which the PTS of a reordered
    // picture is not. file_length in bytes; the search begins at the last whole packet. Stops at the first
    // record without a sync byte, from the end. -1 when there is none.
    static PTS get_last_DTS(FILE* file, int pid, long file_length);
    // Both, of the video PID; -1 for what is not found. file_length in bytes.
    static std::pair<PTS, PTS> parse_file(FILE* file, long file_length);

    // The command form: file, expected first and last DTS in 90 kHz ticks. 0 when both match, else 1.
    static int testHarness(int argc, char** argv);
};
