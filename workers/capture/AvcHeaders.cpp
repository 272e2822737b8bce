#include "AvcHeaders.h"

#include "mpeg/mpeg.h"
#include "mpeg/mpeg2.h"

#include <algorithm>

namespace kestrel::capture {
namespace {

// Start code prefix and NAL unit header.
constexpr int nalHead = 4;

// Reads bits of an unescaped payload; past its end everything is 0 and failed() stays true.
class Bits {
public:
    explicit Bits(std::span<unsigned char> nal)
        : m_view(nal.data(), static_cast<int>(nal.size())), m_bytes(m_view, nalHead) {}

    unsigned bit() {
        const int byte = m_position >> 3;
        if (byte >= m_bytes.get_length()) {
            m_failed = true;
            return 0;
        }
        const unsigned value = m_bytes[byte] >> (7 - (m_position & 7)) & 1u;
        ++m_position;
        return value;
    }
    unsigned bits(unsigned count) {
        unsigned value = 0;
        while (count-- > 0)
            value = value << 1 | bit();
        return value;
    }
    // ue(v), 9.1.
    unsigned ue() {
        unsigned zeros = 0;
        while (!m_failed && bit() == 0)
            if (++zeros > 31)
                m_failed = true;
        return m_failed ? 0 : (1u << zeros) - 1 + bits(zeros);
    }
    // se(v), 9.1.1.
    int se() {
        const unsigned code = ue();
        return code & 1 ? static_cast<int>(code / 2 + 1) : -static_cast<int>(code / 2);
    }
    [[nodiscard]] bool failed() const noexcept { return m_failed; }

private:
    array_byte_sequence m_view;
    rbsp_byte_sequence m_bytes;
    int m_position = 0;
    bool m_failed = false;
};

// The profiles with chroma_format_idc in their sequence parameter sets (7.3.2.1.1).
constexpr std::array<unsigned, 13> chromaProfiles{100, 110, 122, 244, 44,  83, 86,
                                                  118, 128, 138, 139, 134, 135};

void skipScalingList(Bits& in, int size) {
    int last = 8;
    int next = 8;
    for (int i = 0; i < size && !in.failed(); ++i) {
        if (next != 0)
            next = (last + in.se() % 256 + 256) % 256;
        last = next == 0 ? last : next;
    }
}

bool skipChroma(Bits& in) {
    bool separatePlanes = false;
    const unsigned chroma = in.ue();
    if (chroma == 3)
        separatePlanes = in.bit();
    in.ue(); // bit_depth_luma_minus8
    in.ue(); // bit_depth_chroma_minus8
    in.bit();
    if (in.bit()) // seq_scaling_matrix_present_flag
        for (int list = 0; list < (chroma == 3 ? 12 : 8); ++list)
            if (in.bit())
                skipScalingList(in, list < 6 ? 16 : 64);
    return separatePlanes;
}

void skipOrderCount(Bits& in) {
    const unsigned type = in.ue();
    if (type == 0) {
        in.ue();
    } else if (type == 1) {
        in.bit();
        in.se();
        in.se();
        for (unsigned left = std::min(in.ue(), 255u); left > 0 && !in.failed(); --left)
            in.se();
    }
}

// E.1.1 up to the timing; the frame rate code, or 0.
int readVuiRate(Bits& in) {
    if (in.bit() && in.bits(8) == 255) // aspect_ratio_idc Extended_SAR
        in.bits(32);
    if (in.bit()) // overscan
        in.bit();
    if (in.bit()) { // video_signal_type
        in.bits(4);
        if (in.bit())
            in.bits(24);
    }
    if (in.bit()) { // chroma_loc_info
        in.ue();
        in.ue();
    }
    if (!in.bit()) // timing_info_present_flag
        return 0;
    const unsigned units = in.bits(32);
    const unsigned scale = in.bits(32);
    if (in.failed() || units == 0)
        return 0;
    return std::max(0, MPEG::fake_frame_rate_code(scale / (2.0 * units)));
}

} // namespace

bool AvcHeaders::takeSequence(std::span<unsigned char> nal) {
    if (nal.size() <= nalHead)
        return false;
    Bits in(nal);
    const unsigned profile = in.bits(8);
    in.bits(16);
    const unsigned id = in.ue();
    Sequence sequence;
    if (std::find(chromaProfiles.begin(), chromaProfiles.end(), profile) != chromaProfiles.end())
        sequence.separatePlanes = skipChroma(in);
    sequence.frameNumberBits = in.ue() + 4;
    skipOrderCount(in);
    in.ue(); // max_num_ref_frames
    in.bit();
    in.ue(); // width
    in.ue(); // height
    sequence.framesOnly = in.bit();
    if (in.failed() || id >= m_sequences.size() || sequence.frameNumberBits > 16)
        return false;
    sequence.known = true;
    m_sequences[id] = sequence;
    if (!sequence.framesOnly)
        in.bit();
    in.bit();     // direct_8x8_inference_flag
    if (in.bit()) // cropping
        for (int side = 0; side < 4; ++side)
            in.ue();
    m_frameRateCode = in.bit() ? readVuiRate(in) : 0;
    return true;
}

void AvcHeaders::takePicture(std::span<unsigned char> nal) {
    if (nal.size() <= nalHead)
        return;
    Bits in(nal);
    const unsigned id = in.ue();
    const unsigned sequence = in.ue();
    if (!in.failed() && id < m_sequenceOfPicture.size() && sequence < m_sequences.size())
        m_sequenceOfPicture[id] = static_cast<std::uint8_t>(sequence);
}

std::optional<AvcHeaders::Slice> AvcHeaders::readSlice(std::span<unsigned char> nal) const {
    if (nal.size() <= nalHead)
        return std::nullopt;
    Bits in(nal);
    Slice slice;
    slice.firstMacroblock = in.ue();
    const unsigned type = in.ue() % 5;
    slice.intra = type == 2 || type == 4;
    const unsigned picture = in.ue();
    if (in.failed() || picture >= m_sequenceOfPicture.size())
        return std::nullopt;
    const Sequence& sequence = m_sequences[m_sequenceOfPicture[picture]];
    if (!sequence.known)
        return slice;
    if (sequence.separatePlanes)
        in.bits(2);
    slice.frameNumber = in.bits(sequence.frameNumberBits);
    if (!sequence.framesOnly) {
        slice.field = in.bit();
        slice.bottom = slice.field && in.bit();
    }
    return slice;
}

bool AvcHeaders::hasRecoveryPoint(std::span<unsigned char> nal) {
    constexpr unsigned recoveryPoint = 6;
    if (nal.size() <= nalHead)
        return false;
    Bits in(nal);
    const auto number = [&in] { // 7.3.2.3.1: bytes 255 add up
        unsigned value = 0;
        unsigned byte = 0;
        do {
            byte = in.bits(8);
            value += byte;
        } while (byte == 255 && !in.failed());
        return value;
    };
    while (!in.failed()) {
        const unsigned type = number();
        const unsigned size = number();
        if (in.failed())
            return false;
        if (type == recoveryPoint)
            return true;
        for (unsigned skipped = 0; skipped < size && !in.failed(); ++skipped)
            in.bits(8);
    }
    return false;
}

} // namespace kestrel::capture
