// The queries that read packets until they know.
#include "mpeg/MpegWrapper.h"

#include "mpeg/grab_h264_header.h"
#include "mpeg/grab_video_header.h"
#include "mpeg/video_scan.h"

#include <iterator>
#include <memory>

using kestrel::ContinuityLines;
using kestrel::is_h264_video;
using kestrel::is_mpeg2_video;
using kestrel::PmtFinder;
using kestrel::scan_limit_packets;
using kestrel::scan_packets;

namespace {

constexpr int LEVEL = 0; // no stage prints

int stream_type(const unsigned char* entry) {
    return MPEG::PMT::PIDInfo::stream_type(entry);
}

int elementary_pid(const unsigned char* entry) {
    return MPEG::PMT::PIDInfo::elementary_PID(entry);
}

// profile_and_level_indication with the escape bit, ISO/IEC 13818-2, table 8-4.
struct EscapedIndication {
    int indication;
    int profile;
    int level;
};

constexpr EscapedIndication ESCAPED[] = {{0x82, 7, 4}, {0x85, 7, 8}, {0x8A, 6, 4},
                                         {0x8B, 6, 6}, {0x8D, 6, 8}, {0x8E, 6, 10}};

void split_indication(int indication, MpegWrapper::videoProfile& profile, MpegWrapper::videoLevel& level) {
    constexpr int ESCAPE = 0x80;
    if ((indication & ESCAPE) == 0) {
        profile = static_cast<MpegWrapper::videoProfile>(indication >> 4 & 7);
        level = static_cast<MpegWrapper::videoLevel>(indication & 0x0F);
        return;
    }
    for (const EscapedIndication& row : ESCAPED)
        if (row.indication == indication) {
            profile = static_cast<MpegWrapper::videoProfile>(row.profile);
            level = static_cast<MpegWrapper::videoLevel>(row.level);
        }
}

// Frames a second by frame_rate_code from 1 on. Code 1 is right here, unlike in FrameRateTable.
constexpr double RATES[] = {24000.0 / 1001, 24, 25, 30000.0 / 1001, 30, 50, 60000.0 / 1001, 60};

double rate_of(const unsigned char* sequence_header) {
    const int code = sequence_header[7] & 0x0F;
    return code >= 1 && code <= static_cast<int>(std::size(RATES)) ? RATES[code - 1] : -1.0;
}

// Two fields a frame (ITU-T H.264, E.2.1). A parameter set whose parsing ended before its timing (one whose
// pic_order_cnt_type is not 0) has -1 in both fields and comes to half a frame a second: callers know that
// rate as the sign of it.
double rate_of(const H264::SequenceParameterSet& sps) {
    if (sps.num_units_in_tick == 0)
        return 0.0;
    return static_cast<double>(sps.time_scale) / static_cast<double>(sps.num_units_in_tick) * 0.5;
}

} // namespace

bool MpegWrapper::GetMpeg2VideoProfileAndLevel(const char* file, videoProfile& profile, videoLevel& level) {
    profile = profileReserved;
    level = levelReserved;
    PmtFinder pmt;
    std::unique_ptr<grab_video_header> grabber;
    bool found = false;
    scan_packets(file, scan_limit_packets, ContinuityLines::none, [&](unsigned char* packet, long index) {
        if (pmt.is_pmt(packet))
            for (const unsigned char* entry : PMT_PIDInfo_iterable(packet)) {
                if (is_h264_video(stream_type(entry)))
                    return false;
                if (grabber == nullptr && is_mpeg2_video(stream_type(entry)))
                    grabber = std::make_unique<grab_video_header>(elementary_pid(entry), LEVEL);
            }
        if (grabber == nullptr)
            return true;
        grabber->process(packet, index);
        if (grabber->gop_count() <= 1)
            return true;
        // MPEG-1 has no sequence extension, and neither profile nor level.
        const unsigned char* const extension = grabber->sequence_extension();
        found = extension != nullptr;
        if (found)
            split_indication((extension[4] & 0x0F) << 4 | extension[5] >> 4, profile, level);
        return false;
    });
    return found;
}

int MpegWrapper::GetVideoPid(const char* file) {
    constexpr int ANSWER = 3;
    PmtFinder pmt;
    scan_packets(file, scan_limit_packets, ContinuityLines::none, [&](const unsigned char* packet, long) {
        if (pmt.is_pmt(packet))
            for (const unsigned char* entry : PMT_PIDInfo_iterable(packet))
                if (is_mpeg2_video(stream_type(entry)) || is_h264_video(stream_type(entry)))
                    return false;
        return true;
    });
    return ANSWER;
}

int MpegWrapper::GetVideoType(const char* file) {
    constexpr int MPEG2 = 0;
    constexpr int H264 = 1;
    constexpr int NEITHER = 3;
    int type = NEITHER;
    PmtFinder pmt;
    // To the end of the range: the last map table decides.
    scan_packets(file, scan_limit_packets, ContinuityLines::none, [&](const unsigned char* packet, long) {
        if (pmt.is_pmt(packet))
            for (const unsigned char* entry : PMT_PIDInfo_iterable(packet)) {
                if (is_mpeg2_video(stream_type(entry)))
                    type = MPEG2;
                else if (is_h264_video(stream_type(entry)))
                    type = H264;
            }
        return true;
    });
    return type;
}

double MpegWrapper::GetFrameRateFromFile(const char* file) {
    PmtFinder pmt;
    std::unique_ptr<grab_video_header> mpeg2;
    std::unique_ptr<grab_h264_header> h264;
    double rate = 0.0;
    scan_packets(file, scan_limit_packets, ContinuityLines::none, [&](unsigned char* packet, long index) {
        if (mpeg2 == nullptr && h264 == nullptr && pmt.is_pmt(packet))
            for (const unsigned char* entry : PMT_PIDInfo_iterable(packet)) {
                // The last video entry of the table wins.
                if (is_mpeg2_video(stream_type(entry))) {
                    mpeg2 = std::make_unique<grab_video_header>(elementary_pid(entry), LEVEL);
                    h264.reset();
                } else if (is_h264_video(stream_type(entry))) {
                    h264 = std::make_unique<grab_h264_header>(elementary_pid(entry), LEVEL);
                    mpeg2.reset();
                }
            }
        if (mpeg2 != nullptr) {
            mpeg2->process(packet, index);
            // A GOP may come without a sequence header; the next one with both tells.
            if (mpeg2->gop_count() <= 1 || mpeg2->sequence_header() == nullptr)
                return true;
            rate = rate_of(mpeg2->sequence_header());
            return false;
        }
        if (h264 != nullptr) {
            h264->process(packet, index);
            if (h264->sps_count() <= 1)
                return true;
            rate = rate_of(h264->sps());
            return false;
        }
        return true;
    });
    return rate;
}
