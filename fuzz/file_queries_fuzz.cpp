// Every question that can be asked about a file, of a file of whatever bytes behind tables that lead to them.
#include "mpeg/CaptureEngUtils.h"
#include "mpeg/GetDTSBounds.h"
#include "mpeg/MpegWrapper.h"
#include "mpeg/grab_h264_header.h"
#include "mpeg/grab_video_header.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int descriptor = memfd_create("file", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    constexpr std::array<unsigned char, 17> PAT{0x47, 0x40, 0, 0x10, 0, 0, 0xB0, 13,  0,
                                                1,    0xC1, 0, 0,    0, 1, 0xF0, 0x00};
    std::array<unsigned char, 22> pmt{0x47, 0x50, 0,    0x10, 0,    2, 0xB0, 18,   0,    1,    0xC1,
                                      0,    0,    0xE1, 0,    0xF0, 0, 0x02, 0xE1, 0x00, 0xF0, 0};
    if (size > 0 && data[0] % 2 != 0)
        pmt[17] = 0x1B;
    std::vector<unsigned char> bytes(2 * 188, 0xFF);
    std::copy(PAT.begin(), PAT.end(), bytes.begin());
    std::copy(pmt.begin(), pmt.end(), bytes.begin() + 188);
    bytes.insert(bytes.end(), data, data + size);
    // Most packets are the video's.
    for (std::size_t at = 2 * 188; at + 188 <= bytes.size(); at += 188)
        if (bytes[at] % 4 != 0) {
            bytes[at] = 0x47;
            bytes[at + 1] = static_cast<unsigned char>((bytes[at + 1] & 0xC0) | 1);
            bytes[at + 2] = 0;
        }
    if (ftruncate(descriptor, 0) != 0 || pwrite(descriptor, bytes.data(), bytes.size(), 0) < 0)
        std::abort();

    const char* const file = path.c_str();
    std::string name = path;
    int width = 0;
    int height = 0;
    MpegWrapper::videoProfile profile{};
    MpegWrapper::videoLevel level{};
    H264::SequenceParameterSet sps;
    mpeg_timecode duration;
    grab_video_header::getDimensions(name.data(), width, height, 0);
    grab_h264_header::getSequenceParams(name.data(), sps, 0);
    MpegWrapper::GetMpeg2VideoProfileAndLevel(file, profile, level);
    MpegWrapper::GetFrameRateFromFile(file);
    MpegWrapper::IsTransportStreamFile(file);
    MpegWrapper::IsMpeg2HD(file);
    int pcr_pid = 0;
    int pmt_pid = 0;
    int video_pid = 0;
    CaptureEngUtils::GetStreamBasicPidInfo(file, pcr_pid, pmt_pid, video_pid, 500'000);
    if (pcr_pid > 0x1FFF || pmt_pid > 0x1FFF || video_pid > 0x1FFF)
        std::abort();
    MpegWrapper::GetDuration(file, false, static_cast<int>(size % 10), duration);
    if (MpegWrapper::GetVideoPid(file) != 3 || MpegWrapper::GetVideoType(file) > 3 || width > 0x3FFF ||
        height > 0x3FFF)
        std::abort();
    return 0;
}
