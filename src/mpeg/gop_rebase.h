// Rewrites the time codes of MPEG-2 GOP headers in a transport stream, and nothing else.
#pragma once

#include "mpeg/mpeg.h"
#include "mpeg/ts_file.h"
#include "mpeg/unibuffer.h"
#include "timecode/mpeg_timecode.h"

// A stage that passes every packet on and changes the time_code (ISO/IEC 13818-2, 6.2.2.6) of each GOP header
// at the beginning of a video PES packet: in the payload of the packet that the PES begins in, and of the
// next one of the PID when that does not begin another. A GOP header deeper inside stays as it is,
// deliberately: a GOP header follows the sequence header at the head of an I picture's PES. It serves one
// pass over one file.
class gop_rebase : public pipeline_mangler {
public:
    // What happens to each time code.
    enum Mode {
        rebase_to_zero = 0,  // the first GOP becomes 00:00:00:00, later ones keep their distance from it
        add_offset = 1,      // the offset is added
        subtract_offset = 2, // the offset is taken away
    };

    // pid: of the video; next: the following stage, which must outlive this one; level: see packet_mangler.
    // Any other mode changes nothing. The offset is zero where none is given. Until a sequence header tells
    // another frame_rate_code, time codes are counted at 5 (30 frames a second).
    gop_rebase(int pid, packet_mangler* next, int level, int mode);
    gop_rebase(int pid, packet_mangler* next, int mode, mpeg_timecode offset, int level);

    // Holds each video packet back, and what follows it, until the next one shows how its PES goes on.
    void process(unsigned char* packet, long index) override;
    // Passes on what is held, the last video packet as it is, and flushes the next stage.
    void flush(long index) override;

    // Rewrites the GOP headers in the beginning of a PES packet. The second argument is not used.
    void mangle(byte_sequence& pes, int unused);

    // Rebases a file to zero. 0; -1 when no video PID is found in the first 500,000 bytes, -2 when it is 0,
    // -1 (logged) when in is no regular file or both are one, -3 at the first continuity error (what came
    // before it is in out). The output lacks its tail: what does not fill a block of 65,536 bytes is lost,
    // and a short file comes out empty. level: see packet_mangler.
    static int rebaseFile(const char* in, const char* out, int level);

    // The command form, on PID 481: in, out, [mode, [hh:mm:ss:ff]], the time code at 30 frames a second. A
    // mode above 2 is 0. 1 with too few arguments, -3 as above with a line at Debug.
    static int testHarness(int argc, char** argv);

private:
    void mangle_gop(byte_sequence& gop);

    unibuffer m_buffer;
    int m_pid;
    int m_frame_rate_code = 5;
    mpeg_timecode m_first_gop;
    bool m_before_first_gop = true;
    int m_mode;
    mpeg_timecode m_offset;
};

namespace kestrel {

// What is asked of a rebase from file to file.
struct RebasePlan {
    int mode = gop_rebase::rebase_to_zero;
    mpeg_timecode offset{};
    int level = 0;
};

// The result of the first-pass search for the video PID, within that many bytes: the PID, -1 or -2.
int find_video_pid(const char* in, long long max_bytes);

// Rebases in to out on a known PID; 0, or -3 at the first continuity error, which is logged at Debug when
// log_continuity is set. -1 (logged) when both are one file, which would be lost, or in is no regular file.
int rebase_packets(const char* in, const char* out, int video_pid, const RebasePlan& plan,
                   bool log_continuity);

} // namespace kestrel
