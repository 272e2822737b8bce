// Finds the sequence parameter sets of an H.264 stream (ITU-T H.264, 7.3.2.1) in its transport packets.
#pragma once

#include "mpeg/h264.h"
#include "mpeg/pts.h"
#include "mpeg/ts_file.h"

// A stage that looks into the packets in which a PES packet of the video PID begins, and at nothing else: of
// each NAL unit only what lies in that one packet is seen.
class grab_h264_header : public packet_mangler {
public:
    // pid: of the video; level: see packet_mangler. Nothing has been seen: default parameter set, no PTS.
    grab_h264_header(int pid, int level) : packet_mangler(level), m_pid(pid) {}

    // Looks at one packet of 188 bytes and changes nothing in it; the index is not used.
    void process(unsigned char* packet, long index) override;
    // Nothing is held back.
    void flush(long) override {}

    // Reads a transport-stream file, at most its first 106,383 packets, until the first H.264 stream has
    // shown two parameter sets, and copies the latest to out; out stays as it is when there are none. level:
    // see packet_mangler. Always 0.
    static int getSequenceParams(char* filename, H264::SequenceParameterSet& out, int level);

    // The last parameter set (H.264, 7.3.2.1.1), and how many have been seen.
    [[nodiscard]] const H264::SequenceParameterSet& sps() const noexcept { return m_sps; }
    [[nodiscard]] int sps_count() const noexcept { return m_sps_count; }
    // Presentation time of the last PES packet that began on the PID; absent (-1) when it has none.
    [[nodiscard]] PTS pts() const noexcept { return m_pts; }
    // Whether a picture timing message (H.264, D.1.2) with a clock timestamp was seen.
    [[nodiscard]] bool has_time_code() const noexcept { return m_time_code_seen; }
    // Twice the number of slices (H.264, 7.3.3) between the first and the second parameter set.
    [[nodiscard]] int slice_counter() const noexcept { return m_slice_counter; }

private:
    void take_nal_unit(const byte_sequence& bytes, int header);
    void take_sei(const byte_sequence& rbsp);

    H264::SequenceParameterSet m_sps;
    PTS m_pts{-1};
    bool m_time_code_seen = false;
    int m_slice_counter = 0;
    int m_sps_count = 0;
    int m_pid;
};
