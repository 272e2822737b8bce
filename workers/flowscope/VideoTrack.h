// The video stream of the asset: MPEG-2 (ISO/IEC 13818-2) or H.264 (ITU-T H.264).
#pragma once

#include "FrameRates.h"
#include "GopStatistics.h"
#include "TimecodeCheck.h"
#include "capture/AvcHeaders.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kestrel::flowscope {

// A coding of pictures; MPEG-1 counts as MPEG-2, which says the same in its headers.
enum class VideoCodec { mpeg2, h264 };

// What the headers of a video stream say.
struct VideoFormat {
    int width = 0;
    int height = 0;
    std::string aspect;  // of the picture, "16:9"
    FrameRate frameRate; // as the headers say; none while they say nothing
    std::optional<bool> interlaced;
    std::string profile;

    // Frames a second, 0 while unknown.
    [[nodiscard]] double rate() const noexcept { return frameRate.value(); }
    // frame_rate_code, 0 when none stands for the rate.
    [[nodiscard]] int rateCode() const noexcept;
};

// "16:9" of a width and a height in square samples; empty when both are 0.
std::string pictureAspect(std::int64_t width, std::int64_t height);

// Finds the headers, whatever way their bytes are cut into packets, and adds up what they say. Pictures are
// not decoded.
class VideoTrack {
public:
    explicit VideoTrack(VideoCodec codec) : m_codec(codec) {}

    // The next bytes of the elementary stream.
    void feed(std::span<const unsigned char> bytes);
    // Bytes were lost: what was being read is dropped.
    void skip();
    // How many bytes there were up to here is not known, or no matter, nor whether pictures are missing: the
    // alignment begins anew with the next header, and the group of pictures is not whole.
    void realign();
    // So many bytes of the elementary stream that cannot be looked into, behind others that were lost.
    void count(std::uint64_t bytes) { m_bytes += bytes; }
    // No more bytes come.
    void end();
    // For a stream whose headers say nothing of its frame rate.
    void assumeFrameRate(FrameRate rate) {
        if (m_format.frameRate.numerator == 0)
            m_format.frameRate = rate;
    }

    // As it was announced.
    [[nodiscard]] VideoCodec codec() const noexcept { return m_codec; }
    // What the latest headers say.
    [[nodiscard]] const VideoFormat& format() const noexcept { return m_format; }
    // Of the frames that have been counted.
    [[nodiscard]] const GopStatistics& gops() const noexcept { return m_gops; }
    // Two fields are one frame.
    [[nodiscard]] std::uint64_t frames() const noexcept { return m_frames; }
    // Fields that the frames are shown for: two each, more where one is repeated (13818-2, 6.3.10; H.264,
    // table D-1).
    [[nodiscard]] std::uint64_t fields() const noexcept { return m_position.shown; }
    // Fields from the beginning of the stream to the picture that comes next: those of the pictures that have
    // begun, as long as they are shown, and as long as a decoder that holds each I and P frame back until the
    // next one takes for them.
    struct Position {
        std::uint64_t shown;
        std::uint64_t decoded;
    };
    [[nodiscard]] Position position() const;
    // Of the elementary stream.
    [[nodiscard]] std::uint64_t bytes() const noexcept { return m_bytes; }
    // Whether the first picture is an I picture.
    [[nodiscard]] bool beginsDecodable() const noexcept { return m_firstType == 'I'; }
    // Whether pictures of another rate have come behind those of the first one.
    [[nodiscard]] bool rateChanged() const noexcept { return m_rateChanged; }
    // Every sequence, group and picture header begins at a multiple of four bytes of the elementary stream,
    // or behind a loss or a join, of those from the next header on. Where that tells of none of them, what
    // has come is taken for all of the stream.
    [[nodiscard]] bool quadByteAligned() const noexcept {
        return m_headers > 0 && m_unaligned == 0 && (m_headers > m_begun || m_begunUnaligned == 0);
    }
    // Of the time codes: drop_frame_flag of the latest GOP header (13818-2, 6.3.8), or counting_type of the
    // first picture timing (H.264, D.2.2).
    [[nodiscard]] bool dropFrame() const noexcept { return m_dropFrame; }
    // CEA-608/708 in the picture user data, or in that of an SEI message (ATSC A/53-4, 6.2.3).
    [[nodiscard]] bool closedCaptions() const noexcept { return m_captions; }
    // MPEG-2: whether every picture has its vbv_delay coded (13818-2, 6.3.9). H.264: cbr_flag of the HRD
    // parameters (E.2.2); nothing where there are none.
    [[nodiscard]] std::optional<bool> constantBitRate() const noexcept { return m_constantRate; }
    // What the headers say of a constant rate and of the decoder's buffer: bit_rate and vbv_buffer_size
    // (13818-2, 6.3.3, 6.3.5), BitRate and CpbSize of the HRD parameters for all NAL units (H.264, E.2.2).
    struct CodedRate {
        double bitsPerSecond = 0;
        double bufferBits = 0;

        bool operator==(const CodedRate&) const = default;
    };
    // Nothing unless constantBitRate() holds and all pictures have the same.
    [[nodiscard]] std::optional<CodedRate> codedRate() const;
    // Of the access unit delimiters of H.264 (7.3.2.4), start codes of four bytes among them.
    [[nodiscard]] double delimiterBits() const noexcept { return 48.0 * static_cast<double>(m_delimiters); }
    // The first time code of GOP header or picture timing, as the 25 bits of a GOP header.
    [[nodiscard]] std::optional<int> firstTimecode() const noexcept { return m_firstTimecode; }
    // Of GOP headers or picture timing: which do not follow from the one before and its frames.
    [[nodiscard]] const TimecodeCheck& timecodes() const noexcept { return m_timecodes; }

private:
    static constexpr std::size_t longestHeader = 512;
    // Bytes from the start code on that are needed of a header; 0: of no interest.
    [[nodiscard]] static std::size_t mpeg2HeaderBytes(unsigned char code);
    [[nodiscard]] static std::size_t nalBytes(unsigned char header);
    // One of the headers that alignment is asked of.
    [[nodiscard]] static bool mpeg2Aligned(unsigned char code);

    void step(unsigned char byte);
    void beginHeader(unsigned char code);
    void endHeader();
    void takeMpeg2(std::span<unsigned char> header);
    void takeSequence(std::span<unsigned char> header);
    void takeSequenceExtension(std::span<unsigned char> header);
    void takeGop(std::span<unsigned char> header);
    void takePicture(std::span<unsigned char> header);
    void takeCodingExtension(std::span<unsigned char> header);
    void takeNal(std::span<unsigned char> nal);
    void takeSequenceSet(std::span<unsigned char> nal);
    void takeMessages(std::span<const unsigned char> nal);
    void takeSlice(std::span<unsigned char> nal, bool idr);
    void takeUserData(std::span<const unsigned char> data);
    void countFrame(char type, bool beginsGroup, unsigned fields);
    void settlePicture(int structure, unsigned fields = 2);
    [[nodiscard]] static bool isSlice(unsigned char header);
    [[nodiscard]] unsigned fieldsOfTiming() const;
    void takeTiming(std::span<unsigned char> nal);

    VideoCodec m_codec;
    VideoFormat m_format;
    GopStatistics m_gops;
    std::uint64_t m_frames = 0;
    Position m_position{0, 0}; // of the pictures whose headers are whole
    unsigned m_heldFields = 2; // of the latest I or P frame
    char m_firstType = 0;      // of the first picture
    FrameRate m_rateOfPicture; // the latest
    bool m_rateChanged = false;
    std::uint64_t m_bytes = 0;
    std::uint64_t m_headers = 0;
    std::uint64_t m_unaligned = 0;
    bool m_realign = false;
    std::uint64_t m_base = 0;           // byte that the alignment is counted from
    std::uint64_t m_begun = 0;          // headers from which it is
    std::uint64_t m_begunUnaligned = 0; // of these, by the bytes that have come
    bool m_dropFrame = false;
    bool m_captions = false;
    std::optional<bool> m_constantRate;
    std::optional<int> m_firstTimecode;
    TimecodeCheck m_timecodes;

    // Start code search: trailing zeros (at most 2), and whether a prefix was just completed.
    unsigned m_zeros = 0;
    bool m_prefix = false;
    std::array<unsigned char, longestHeader> m_header{};
    std::size_t m_headerLength = 0;
    std::size_t m_headerWanted = 0; // 0: none

    // MPEG-2
    char m_pictureType = 0;     // of a picture whose structure is not known yet
    int m_firstField = 0;       // picture_structure of a field that waits for its second
    bool m_progressive = false; // progressive_sequence
    FrameRate m_codedRate;      // of the last sequence header
    // H.264
    capture::AvcHeaders m_avc;
    bool m_keyAhead = false; // a parameter set or a recovery point came before the picture
    std::optional<capture::AvcHeaders::Slice> m_lastField;
    std::optional<capture::AvcHeaders::PictureTiming> m_timing; // of the next picture

    // The rate of bits. Behind all that each byte of the stream needs.
    int m_bitRate = 0; // bit_rate_value and vbv_buffer_size_value of the last sequence header
    int m_bufferSize = 0;
    CodedRate m_headerRate;                // of the latest headers
    std::optional<CodedRate> m_rateOfBits; // of the first picture behind any
    bool m_rateOfBitsChanged = false;
    std::uint64_t m_delimiters = 0;
};

} // namespace kestrel::flowscope
