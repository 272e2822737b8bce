// The few syntax elements of H.264 (ITU-T H.264) that tell frames apart: from sequence parameter sets,
// picture parameter sets and the beginning of slice headers. Bounded reads with a sticky failure.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

namespace kestrel::capture {

// The headers of one stream. A NAL unit is given from its start code prefix 00 00 01 on and may be cut.
class AvcHeaders {
public:
    struct Slice {
        unsigned firstMacroblock = 0;
        unsigned type = 0;        // slice_type modulo 5: 0 P, 1 B, 2 I, 3 SP, 4 SI
        bool intra = false;       // I or SI
        bool field = false;       // field_pic_flag
        bool bottom = false;      // bottom_field_flag
        unsigned frameNumber = 0; // frame_num
        bool cut = false;         // not all of these were there
    };

    // What the latest sequence says of its pictures.
    struct Format {
        unsigned width = 0; // luma samples shown, after cropping
        unsigned height = 0;
        unsigned sarWidth = 0; // sample aspect ratio; 0: not said
        unsigned sarHeight = 0;
        unsigned unitsInTick = 0; // 0: no timing
        unsigned timeScale = 0;
        unsigned profile = 0; // profile_idc
        unsigned level = 0;   // level_idc
        bool framesOnly = true;
        // What the layout of picture timing depends on (E.1.1, E.1.2).
        bool delays = false;              // CpbDpbDelaysPresentFlag
        unsigned removalBits = 24;        // of cpb_removal_delay
        unsigned outputBits = 24;         // of dpb_output_delay
        unsigned timeOffsetBits = 24;     // of time_offset
        bool pictureStructure = false;    // pic_struct_present_flag
        std::optional<bool> constantRate; // cbr_flag of any schedule; none: no HRD parameters
        // BitRate and CpbSize of that schedule, in bits, of all NAL units (E.2.2); 0: none.
        std::uint64_t bitRate = 0;
        std::uint64_t bufferBits = 0;
    };

    // 7.3.2.1. Returns false when it cannot be read.
    bool takeSequence(std::span<unsigned char> nal);
    // 7.3.2.2.
    void takePicture(std::span<unsigned char> nal);
    // 7.3.3; none when not even the first elements can be read. Without its parameter sets a slice counts as
    // one of a frame.
    [[nodiscard]] std::optional<Slice> readSlice(std::span<unsigned char> nal) const;
    // Whether an SEI NAL unit begins with, or holds near its beginning, a recovery point (D.1.7).
    [[nodiscard]] static bool hasRecoveryPoint(std::span<unsigned char> nal);
    // A picture timing message (D.1.2).
    struct PictureTiming {
        unsigned structure = 0; // pic_struct, table D-1
        // The first clock timestamp, as the 25 bits of an MPEG-2 GOP time_code; none when there is none, or
        // one that leaves hours, minutes or seconds out.
        std::optional<int> time;
        bool discontinuity = false; // discontinuity_flag: the time need not follow from the one before
        bool countsTicks = false;   // not nuit_field_based_flag: labels may count ticks, two a frame
    };
    // That of an SEI NAL unit; none when there is none, or none with a pic_struct.
    [[nodiscard]] std::optional<PictureTiming> pictureTiming(std::span<unsigned char> nal) const;
    // Its time alone.
    [[nodiscard]] std::optional<int> pictureTime(std::span<unsigned char> nal) const;

    // MPEG-2 frame_rate_code by the VUI timing of the latest sequence; 0 when it has none that fits.
    [[nodiscard]] int frameRateCode() const noexcept { return m_frameRateCode; }
    [[nodiscard]] const Format& format() const noexcept { return m_format; }

private:
    struct Sequence {
        bool known = false;
        bool separatePlanes = false;
        bool framesOnly = true;
        unsigned frameNumberBits = 4;
    };

    std::array<Sequence, 32> m_sequences{};
    std::array<std::uint8_t, 256> m_sequenceOfPicture{};
    int m_frameRateCode = 0;
    Format m_format;
};

} // namespace kestrel::capture
