#include "streams/h264_timing.h"
#include "foundation/Bytes.h"

#include "streams/gop_reader.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <span>
#include <stdexcept>
#include <vector>

namespace kestrel::test {

namespace {

using Bits = std::vector<bool>;

[[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string("H.264 parameter set: ") + what);
}

// Reads bits and remembers where it is.
class Reader {
public:
    explicit Reader(const Bits& bits) : m_bits(bits) {}

    unsigned u(int count) {
        unsigned value = 0;
        for (; count > 0; --count) {
            if (m_at >= m_bits.size())
                fail("too short");
            value = value << 1 | (m_bits[m_at++] ? 1U : 0U);
        }
        return value;
    }
    unsigned ue() {
        int zeros = 0;
        while (u(1) == 0)
            if (++zeros > 31)
                fail("no number");
        return (1U << zeros) + u(zeros) - 1;
    }
    [[nodiscard]] std::size_t at() const { return m_at; }

private:
    const Bits& m_bits;
    std::size_t m_at = 0;
};

// The bits behind the NAL header, up to and with the stop bit; emulation prevention bytes are gone (7.4.1).
Bits payloadOf(std::span<const unsigned char> nal) {
    Bits bits;
    int zeros = 0;
    for (const unsigned char byte : nal.subspan(1)) {
        if (zeros == 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? std::min(zeros + 1, 2) : 0;
        for (int bit = 7; bit >= 0; --bit)
            bits.push_back((byte >> bit & 1) != 0);
    }
    while (!bits.empty() && !bits.back())
        bits.pop_back();
    return bits;
}

std::vector<unsigned char> nalOf(unsigned char header, const Bits& bits) {
    std::vector<unsigned char> nal{header};
    int zeros = 0;
    for (std::size_t i = 0; i < bits.size(); i += 8) {
        unsigned byte = 0;
        for (std::size_t bit = 0; bit < 8; ++bit)
            byte = byte << 1 | (i + bit < bits.size() && bits[i + bit] ? 1U : 0U);
        if (zeros == 2 && byte <= 3) {
            nal.push_back(3);
            zeros = 0;
        }
        zeros = byte == 0 ? zeros + 1 : 0;
        nal.push_back(static_cast<unsigned char>(byte));
    }
    return nal;
}

// Where timing_info_present_flag stands (7.3.2.1.1 and E.1.1).
std::size_t timingFlagOf(const Bits& bits) {
    Reader in(bits);
    const unsigned profile = in.u(8);
    in.u(16); // constraints, level_idc
    in.ue();  // seq_parameter_set_id
    if (profile == 100) {
        if (in.ue() == 3) // chroma_format_idc
            in.u(1);
        in.ue(); // bit depths
        in.ue();
        in.u(1); // qpprime_y_zero_transform_bypass_flag
        if (in.u(1) != 0)
            fail("has scaling lists");
    }
    in.ue(); // log2_max_frame_num_minus4
    const unsigned pocType = in.ue();
    if (pocType == 1)
        fail("has pic_order_cnt_type 1");
    if (pocType == 0)
        in.ue(); // log2_max_pic_order_cnt_lsb_minus4
    in.ue();     // max_num_ref_frames
    in.u(1);     // gaps_in_frame_num_value_allowed_flag
    in.ue();     // size
    in.ue();
    if (in.u(1) == 0) // frame_mbs_only_flag
        in.u(1);      // mb_adaptive_frame_field_flag
    in.u(1);          // direct_8x8_inference_flag
    if (in.u(1) != 0) // frame_cropping_flag
        for (int i = 0; i < 4; ++i)
            in.ue();
    if (in.u(1) == 0)
        fail("has no VUI parameters");
    if (in.u(1) != 0 && in.u(8) == 255) // aspect_ratio_idc Extended_SAR
        in.u(32);
    if (in.u(1) != 0) // overscan_info_present_flag
        in.u(1);
    if (in.u(1) != 0) { // video_signal_type_present_flag
        in.u(4);
        if (in.u(1) != 0) // colour_description_present_flag
            in.u(24);
    }
    if (in.u(1) != 0) { // chroma_loc_info_present_flag
        in.ue();
        in.ue();
    }
    return in.at();
}

void dropTiming(std::span<unsigned char> nal) {
    constexpr std::ptrdiff_t TIMING_BITS = 32 + 32 + 1;
    Bits bits = payloadOf(nal);
    const std::size_t flag = timingFlagOf(bits);
    if (bits.size() < flag + 1 + TIMING_BITS || !bits[flag])
        fail("has no timing");
    bits[flag] = false;
    const auto timing = bits.begin() + static_cast<std::ptrdiff_t>(flag) + 1;
    bits.erase(timing, timing + TIMING_BITS);
    const std::vector<unsigned char> changed = nalOf(nal[0], bits);
    if (changed.size() > nal.size())
        fail("grew");
    std::fill(std::copy(changed.begin(), changed.end(), nal.begin()), nal.end(),
              static_cast<unsigned char>(0));
}

bool startCodeAt(std::span<const unsigned char> packet, std::size_t at) {
    return packet[at] == 0 && packet[at + 1] == 0 && packet[at + 2] == 1;
}

// How many parameter sets were found in the packet.
int dropTimingIn(std::span<unsigned char> packet) {
    constexpr unsigned char SPS = 7;
    int sets = 0;
    for (std::size_t i = 4; i + 4 <= packet.size(); ++i) {
        if (!startCodeAt(packet, i) || (packet[i + 3] & 0x1F) != SPS)
            continue;
        std::size_t end = i + 4;
        while (end + 3 <= packet.size() && !startCodeAt(packet, end))
            ++end;
        if (end + 3 > packet.size())
            fail("runs into the next packet");
        dropTiming(packet.subspan(i + 3, end - i - 3));
        ++sets;
    }
    return sets;
}

} // namespace

void dropH264Timing(const std::string& in, const std::string& out, int pid) {
    std::vector<unsigned char> bytes = bytesOfFile(in);
    int sets = 0;
    for (std::size_t at = 0; at + 188 <= bytes.size(); at += 188)
        if (((bytes[at + 1] & 0x1F) << 8 | bytes[at + 2]) == pid)
            sets += dropTimingIn(std::span(bytes).subspan(at, 188));
    if (sets == 0)
        fail("there is none");
    std::ofstream file(out, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush())
        throw std::runtime_error("cannot write " + out);
}

} // namespace kestrel::test
