#include "mpeg/CaptureEngUtils.h"

#include "mpeg/mpeg2.h"
#include "mpeg/ts_file.h"

namespace ts = kestrel::ts;

namespace {

bool is_video(int stream_type) {
    return stream_type == 0x01 || stream_type == 0x02 || stream_type == 0x1B;
}

} // namespace

int CaptureEngUtils::GetStreamBasicPidInfo(const char* file, int& pcr_pid, int& pmt_pid, int& video_pid,
                                           long long max_bytes) {
    constexpr std::size_t pcr_pid_end = 10; // of a PMT section
    pcr_pid = pmt_pid = video_pid = -1;
    int result = -1;

    ts_file source(file);
    long long count = 0;
    while (count <= max_bytes || count == 0) {
        const unsigned char* packet = source.get_ts();
        if (packet == nullptr)
            break;
        const int pid = ts::pid(packet);
        if (pid == 0)
            pmt_pid = MPEG::PAT::PID_of_first_PMT(packet);
        // A PAT without programs makes PID 0 the PMT PID, so that packet itself is looked at as a PMT.
        if (pid == pmt_pid) {
            const ts::bytes section = ts::section(packet);
            if (section.size() >= pcr_pid_end)
                pcr_pid = (section[8] & 0x1F) << 8 | section[9];
            for (const unsigned char* entry : PMT_PIDInfo_iterable(packet)) {
                if (is_video(MPEG::PMT::PIDInfo::stream_type(entry))) {
                    video_pid = MPEG::PMT::PIDInfo::elementary_PID(entry);
                    result = 0;
                }
            }
        }
        count += ts::packet_size;
    }
    return result;
}
