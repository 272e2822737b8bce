// Supplemental enhancement information.
#include "mpeg/h264.h"

#include <algorithm>
#include <climits>

int H264::SEI::unFF(const byte_sequence& s, int pos, int* next) {
    constexpr int MORE = 0xFF;
    const int length = s.get_length();
    std::int64_t sum = 0;
    int at = std::max(pos, 0);
    while (at < length) {
        const int byte = s[at++];
        sum += byte;
        if (byte != MORE)
            break;
    }
    if (next != nullptr)
        *next = at;
    return static_cast<int>(std::min<std::int64_t>(sum, INT_MAX));
}

H264::SEI::PicTiming::PicTiming(const byte_sequence& payload) {
    VBDecode bits(payload, 0);
    pic_struct = bits.uint(4);
    clock_timestamp_flag = bits.bit();
    if (clock_timestamp_flag == 0)
        return;
    // Only this one of up to three (table D-1): the time code of a picture is that of its first field.
    bits.uint(8); // ct_type, nuit_field_based_flag, counting_type
    const bool full = bits.bit() != 0;
    bits.uint(2); // discontinuity_flag, cnt_dropped_flag
    n_frames = bits.uint(8);
    // In the short form each field has a flag, and the next one is only there behind a field that is.
    if (!full && bits.bit() == 0)
        return;
    seconds = bits.uint(6);
    if (!full && bits.bit() == 0)
        return;
    minutes = bits.uint(6);
    if (!full && bits.bit() == 0)
        return;
    hours = bits.uint(5);
}

mpeg_timecode H264::SEI::PicTiming::time_code(int rate) const {
    // Never drop-frame: cnt_dropped_flag tells that counts were left out here, and how labels are counted
    // follows from the rate anyway.
    return {hours, minutes, seconds, n_frames, false, rate};
}
