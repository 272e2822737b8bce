#include "AvcHeaders.h"

#include "mpeg/mpeg.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <tuple>
#include <utility>

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

bool skipChroma(Bits& in, unsigned& chroma) {
    bool separatePlanes = false;
    chroma = in.ue();
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

// Table E-1, sample aspect ratios by aspect_ratio_idc.
constexpr std::array<std::pair<unsigned, unsigned>, 17> sampleAspects{{{0, 0},
                                                                       {1, 1},
                                                                       {12, 11},
                                                                       {10, 11},
                                                                       {16, 11},
                                                                       {40, 33},
                                                                       {24, 11},
                                                                       {20, 11},
                                                                       {32, 11},
                                                                       {80, 33},
                                                                       {18, 11},
                                                                       {15, 11},
                                                                       {64, 33},
                                                                       {160, 99},
                                                                       {4, 3},
                                                                       {3, 2},
                                                                       {2, 1}}};

// E.1.2.
void readHrd(Bits& in, AvcHeaders::Format& format, bool allUnits) {
    const unsigned schedules = in.ue() + 1;
    const unsigned rateScale = in.bits(4) + 6;
    const unsigned sizeScale = in.bits(4) + 4;
    constexpr unsigned mostSchedules = 32;
    bool constant = false;
    std::uint64_t bitRate = 0;
    std::uint64_t bufferBits = 0;
    for (unsigned i = 0; i < std::min(schedules, mostSchedules) && !in.failed(); ++i) {
        const std::uint64_t rate = std::uint64_t{in.ue()} + 1;
        const std::uint64_t size = std::uint64_t{in.ue()} + 1;
        // A stream of constant rate keeps to one schedule; those of higher rates are then variable.
        if (in.bit() == 0 || constant)
            continue;
        constant = true;
        bitRate = rate << rateScale;
        bufferBits = size << sizeScale;
    }
    if (allUnits && !in.failed()) {
        format.bitRate = bitRate;
        format.bufferBits = bufferBits;
    }
    // Of two the first is that of all NAL units, filler data among them.
    if (!format.constantRate && !in.failed())
        format.constantRate = constant;
    in.bits(5); // initial_cpb_removal_delay_length_minus1
    format.delays = true;
    format.removalBits = in.bits(5) + 1;
    format.outputBits = in.bits(5) + 1;
    format.timeOffsetBits = in.bits(5);
}

// E.1.1 up to pic_struct_present_flag.
void readVui(Bits& in, AvcHeaders::Format& format) {
    constexpr unsigned extendedSar = 255;
    if (in.bit()) { // aspect_ratio_info_present_flag
        const unsigned aspect = in.bits(8);
        if (aspect == extendedSar) {
            format.sarWidth = in.bits(16);
            format.sarHeight = in.bits(16);
        } else if (aspect < sampleAspects.size()) {
            std::tie(format.sarWidth, format.sarHeight) = sampleAspects[aspect];
        }
    }
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
    if (in.bit()) { // timing_info_present_flag
        format.unitsInTick = in.bits(32);
        format.timeScale = in.bits(32);
        if (in.failed())
            format.unitsInTick = format.timeScale = 0;
        in.bit(); // fixed_frame_rate_flag
    }
    const bool nalHrd = in.bit();
    if (nalHrd)
        readHrd(in, format, true);
    const bool vclHrd = in.bit();
    if (vclHrd)
        readHrd(in, format, false);
    if (nalHrd || vclHrd)
        in.bit(); // low_delay_hrd_flag
    format.pictureStructure = in.bit() && !in.failed();
}

// Cropping offsets count chroma samples, and lines of one field where fields are coded (7.4.2.1.1).
unsigned cropped(unsigned size, unsigned offsets, unsigned unit) {
    const std::uint64_t away = std::uint64_t{offsets} * unit;
    return away < size ? size - static_cast<unsigned>(away) : 0;
}

} // namespace

bool AvcHeaders::takeSequence(std::span<unsigned char> nal) {
    if (nal.size() <= nalHead)
        return false;
    Bits in(nal);
    const unsigned profile = in.bits(8);
    const unsigned levelAndFlags = in.bits(16);
    const unsigned id = in.ue();
    Sequence sequence;
    Format format;
    format.profile = profile;
    format.level = levelAndFlags & 0xFF;
    unsigned chroma = 1;
    if (std::find(chromaProfiles.begin(), chromaProfiles.end(), profile) != chromaProfiles.end())
        sequence.separatePlanes = skipChroma(in, chroma);
    sequence.frameNumberBits = in.ue() + 4;
    skipOrderCount(in);
    in.ue(); // max_num_ref_frames
    in.bit();
    constexpr unsigned mostMacroblocks = 4096;
    const unsigned width = 16 * (std::min(in.ue(), mostMacroblocks) + 1);
    const unsigned mapUnits = std::min(in.ue(), mostMacroblocks) + 1;
    sequence.framesOnly = in.bit();
    if (in.failed() || id >= m_sequences.size() || sequence.frameNumberBits > 16)
        return false;
    sequence.known = true;
    m_sequences[id] = sequence;
    const unsigned fields = sequence.framesOnly ? 1 : 2;
    format.framesOnly = sequence.framesOnly;
    format.width = width;
    format.height = 16 * mapUnits * fields;
    if (!sequence.framesOnly)
        in.bit();
    in.bit();       // direct_8x8_inference_flag
    if (in.bit()) { // frame_cropping_flag
        const unsigned left = in.ue();
        const unsigned right = in.ue();
        const unsigned top = in.ue();
        const unsigned bottom = in.ue();
        const unsigned chromaWidth = chroma == 1 || chroma == 2 ? 2 : 1; // table 6-1
        const unsigned chromaHeight = chroma == 1 ? 2 : 1;
        format.width = cropped(width, std::min(left, width) + std::min(right, width), chromaWidth);
        format.height = cropped(format.height, std::min(top, format.height) + std::min(bottom, format.height),
                                chromaHeight * fields);
    }
    if (in.bit())
        readVui(in, format);
    m_format = format;
    m_frameRateCode =
        format.unitsInTick == 0
            ? 0
            : std::max(0, MPEG::fake_frame_rate_code(format.timeScale / (2.0 * format.unitsInTick)));
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
    slice.type = in.ue() % 5;
    slice.intra = slice.type == 2 || slice.type == 4;
    const unsigned picture = in.ue();
    if (in.failed() || picture >= m_sequenceOfPicture.size())
        return std::nullopt;
    const Sequence& sequence = m_sequences[m_sequenceOfPicture[picture]];
    if (sequence.known) {
        if (sequence.separatePlanes)
            in.bits(2);
        slice.frameNumber = in.bits(sequence.frameNumberBits);
        if (!sequence.framesOnly) {
            slice.field = in.bit();
            slice.bottom = slice.field && in.bit();
        }
    }
    slice.cut = in.failed();
    return slice;
}

namespace {

// Moves to the payload of a message of that type (7.3.2.3.1); false when there is none.
bool findMessage(Bits& in, unsigned wanted) {
    const auto number = [&in] { // bytes 255 add up
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
        if (type == wanted)
            return true;
        for (unsigned skipped = 0; skipped < size && !in.failed(); ++skipped)
            in.bits(8);
    }
    return false;
}

} // namespace

bool AvcHeaders::hasRecoveryPoint(std::span<unsigned char> nal) {
    constexpr unsigned recoveryPoint = 6;
    if (nal.size() <= nalHead)
        return false;
    Bits in(nal);
    return findMessage(in, recoveryPoint);
}

std::optional<int> AvcHeaders::pictureTime(std::span<unsigned char> nal) const {
    const std::optional<PictureTiming> timing = pictureTiming(nal);
    return timing ? timing->time : std::nullopt;
}

std::optional<AvcHeaders::PictureTiming> AvcHeaders::pictureTiming(std::span<unsigned char> nal) const {
    constexpr unsigned pictureTiming = 1;
    constexpr std::array<unsigned, 9> clockTimestamps{1, 1, 1, 2, 2, 3, 3, 2, 3}; // table D-1, NumClockTS
    if (nal.size() <= nalHead || !m_format.pictureStructure)
        return std::nullopt;
    Bits in(nal);
    if (!findMessage(in, pictureTiming))
        return std::nullopt;
    if (m_format.delays) {
        in.bits(m_format.removalBits);
        in.bits(m_format.outputBits);
    }
    const unsigned structure = in.bits(4);
    if (in.failed() || structure >= clockTimestamps.size())
        return std::nullopt;
    PictureTiming timing;
    timing.structure = structure;
    unsigned skipped = 0;
    while (skipped < clockTimestamps[structure] && !in.bit()) // clock_timestamp_flag
        ++skipped;
    if (skipped == clockTimestamps[structure])
        return timing;
    in.bits(2);                           // ct_type
    timing.countsTicks = !in.bit();       // nuit_field_based_flag
    const unsigned counting = in.bits(5); // counting_type
    const bool full = in.bit();
    timing.discontinuity = in.bit() != 0;
    in.bit(); // cnt_dropped_flag
    const unsigned frames = in.bits(8);
    unsigned seconds = 0;
    unsigned minutes = 0;
    unsigned hours = 0;
    if (full) {
        seconds = in.bits(6);
        minutes = in.bits(6);
        hours = in.bits(5);
    } else {
        if (!in.bit())
            return timing;
        seconds = in.bits(6);
        if (!in.bit())
            return timing;
        minutes = in.bits(6);
        if (!in.bit())
            return timing;
        hours = in.bits(5);
    }
    if (in.failed() || frames > 63 || seconds > 59 || minutes > 59 || hours > 23)
        return timing;
    // Table D-2: counting_type 4 drops two labels a minute.
    constexpr unsigned dropping = 4;
    timing.time = static_cast<int>((counting == dropping ? 1u << 24 : 0u) | hours << 19 | minutes << 13 |
                                   1u << 12 | seconds << 6 | frames);
    return timing;
}

} // namespace kestrel::capture
