// H.264 structures and the stage that finds them.
#include "mpeg/grab_h264_header.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<unsigned char> bytes(data, data + size);
    array_byte_sequence view(bytes.data(), static_cast<int>(bytes.size()));
    const H264::SequenceParameterSet sps(view, 0);
    H264::SliceHeader slice(view, 0, sps, static_cast<int>(size % 6));
    slice.set_pic_order_cnt_lsb(static_cast<int>(size));
    const H264::SEI::PicTiming timing(view);
    int next = 0;
    H264::SEI::unFF(view, timing.pic_struct, &next);
    grab_h264_header grabber(0x100, 0);
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188) {
        // Straight to the parsing: every packet begins a PES packet on the PID.
        // It lies in a block of its own, so that a step out of it is seen.
        const auto packet = std::make_unique<unsigned char[]>(188);
        std::copy_n(bytes.data() + at, 188, packet.get());
        packet[1] = 0x41;
        packet[2] = 0x00;
        grabber.process(packet.get(), static_cast<long>(at / 188));
    }
    return 0;
}
