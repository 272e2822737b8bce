// The video stream of the asset: MPEG-2 (ISO/IEC 13818-2) or H.264 (ITU-T H.264).
#pragma once

#include "GopStatistics.h"
#include "capture/AvcHeaders.h"
#include "mpeg/pts.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace kestrel::flowscope {

enum class VideoCodec { mpeg2, h264 };

// What the headers of a video stream say.
struct VideoFormat {
    int width = 0;
    int height = 0;
    std::string aspect; // of the picture, "16:9"
    // Frames a second as a fraction; 0 while unknown.
    std::int64_t rateNumerator = 0;
    std::int64_t rateDenominator = 1;
    bool interlaced = false;
    std::string profile;

    [[nodiscard]] double rate() const noexcept {
        return static_cast<double>(rateNumerator) / static_cast<double>(rateDenominator);
    }
    [[nodiscard]] int rateCode() const noexcept; // frame_rate_code, 0 when none
};

class VideoTrack {
public:
    explicit VideoTrack(VideoCodec codec) : m_codec(codec) {}

    // A PES packet begins, with its times (dts is the pts where none is sent).
    void stamp(PTS pts, PTS dts);
    // The next bytes of the elementary stream.
    void feed(std::span<const unsigned char> bytes);
    // Bytes were lost: what was being read is dropped.
    void skip();
    // No more bytes come.
    void end();

    [[nodiscard]] VideoCodec codec() const noexcept { return m_codec; }
    [[nodiscard]] const VideoFormat& format() const noexcept { return m_format; }
    [[nodiscard]] const GopStatistics& gops() const noexcept { return m_gops; }
    [[nodiscard]] std::uint64_t frames() const noexcept { return m_frames; }
    [[nodiscard]] std::uint64_t bytes() const noexcept { return m_bytes; }
    // Every sequence, group and picture header begins at a multiple of four bytes of the elementary stream.
    [[nodiscard]] bool quadByteAligned() const noexcept { return m_headers > 0 && m_unaligned == 0; }
    // drop_frame_flag of the GOP headers (6.3.8).
    [[nodiscard]] bool dropFrame() const noexcept { return m_dropFrame; }
    // CEA-608/708 in the picture user data (ATSC A/53 part 4, 6.2.3).
    [[nodiscard]] bool closedCaptions() const noexcept { return m_captions; }
    // vbv_delay is coded (13818-2, 6.3.9), or the HRD is one of constant rate; nothing when the stream does
    // not say.
    [[nodiscard]] std::optional<bool> constantBitRate() const noexcept { return m_constantRate; }
    // 25 bits of the first GOP header's time_code.
    [[nodiscard]] std::optional<int> firstTimecode() const noexcept { return m_firstTimecode; }
    // GOP time codes that do not follow from the one before and its frames.
    [[nodiscard]] std::uint64_t timecodeJumps() const noexcept { return m_timecodeJumps; }
    [[nodiscard]] PTS firstPts() const noexcept { return m_firstPts; }

private:
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
    void takeSlice(std::span<unsigned char> nal, bool idr);
    void takeUserData(std::span<unsigned char> data);
    void countFrame(char type, bool beginsGroup);
    void settlePicture(int structure);

    VideoCodec m_codec;
    VideoFormat m_format;
    GopStatistics m_gops;
    std::uint64_t m_frames = 0;
    std::uint64_t m_bytes = 0;
    std::uint64_t m_headers = 0;
    std::uint64_t m_unaligned = 0;
    bool m_dropFrame = false;
    bool m_captions = false;
    std::optional<bool> m_constantRate;
    std::optional<int> m_firstTimecode;
    std::optional<int> m_lastTimecode;
    std::uint64_t m_framesAtTimecode = 0;
    std::uint64_t m_timecodeJumps = 0;
    PTS m_firstPts{-1};

    // Start code search: trailing zeros (at most 2), and whether a prefix was just completed.
    unsigned m_zeros = 0;
    bool m_prefix = false;
    std::array<unsigned char, 512> m_header{};
    std::size_t m_headerLength = 0;
    std::size_t m_headerWanted = 0; // 0: none

    // MPEG-2
    bool m_gopSeen = false; // since the last picture
    char m_pictureType = 0; // of a picture whose structure is not known yet
    int m_firstField = 0;   // picture_structure of a field that waits for its second
    // H.264
    capture::AvcHeaders m_avc;
    bool m_delimited = false;
    bool m_keyAhead = false; // a parameter set or a recovery point came before the picture
    std::optional<capture::AvcHeaders::Slice> m_lastField;
};

} // namespace kestrel::flowscope
