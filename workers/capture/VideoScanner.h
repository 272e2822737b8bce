// Finds the frames of a video elementary stream, whatever way its bytes are cut into packets.
#pragma once

#include "AvcHeaders.h"
#include "mpeg/pts.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace kestrel::capture {

enum class VideoCodec { none, mpeg2, avc, other };

// The codec of a stream_type (ISO/IEC 13818-1, table 2-34); none when it is not video.
[[nodiscard]] VideoCodec videoCodec(int streamType) noexcept;
[[nodiscard]] const char* codecName(int streamType) noexcept;

// What is known of one PES packet of video.
struct VideoUnit {
    bool known = false;        // its first picture has been seen
    bool newFrame = false;     // that picture begins a frame (is not the second field of one)
    bool randomAccess = false; // decoding can begin here
    unsigned frames = 0;       // frames that begin in it
    PTS pts;
    PTS dts; // the PTS where no DTS is coded
    // 25 bits of the GOP header; of H.264 those that the picture timing of the picture comes to.
    std::optional<int> gopTimecode;
    bool closedGop = false; // closed_gop of that header
    // MPEG-2 only.
    int temporalReference = -1; // of its first picture
    int highestReference = -1;  // of all its pictures
    bool bidirectional = false; // its first picture is a B picture
};

// Scans for start codes and keeps no more than the beginning of the headers it needs.
class VideoScanner {
public:
    // Starts over with a codec.
    void reset(VideoCodec codec) noexcept;
    // A PES packet begins; randomAccessIndicator is that of its first transport packet. What the one before
    // still left open is settled first and is in closed().
    void beginUnit(bool randomAccessIndicator) noexcept;
    // The timestamps of its header.
    void stamp(PTS pts, PTS dts) noexcept;
    // The next bytes of the elementary stream.
    void feed(std::span<const unsigned char> bytes) noexcept;
    // Bytes were lost: what was being read is dropped.
    void skip() noexcept;
    // Nothing more of the PES packet may come, as behind its last packet or at the end of a file: a picture
    // whose slice is shorter than what is collected of others begins with what there is. Changes nothing for
    // what comes all the same.
    void settle() noexcept;

    [[nodiscard]] const VideoUnit& unit() const noexcept { return m_unit; }
    [[nodiscard]] const VideoUnit& closed() const noexcept { return m_closed; }
    // frame_rate_code of the stream's headers; 0 while none is known.
    [[nodiscard]] int frameRateCode() const noexcept;
    [[nodiscard]] VideoCodec codec() const noexcept { return m_codec; }

private:
    void beginHeader(unsigned char code) noexcept;
    void endHeader() noexcept;
    void takeMpeg2Header(std::span<unsigned char> header) noexcept;
    void takeAvcNal(std::span<unsigned char> nal) noexcept;
    void takeSlice(std::span<unsigned char> nal, bool idr) noexcept;
    void settlePicture(int structure) noexcept;
    void picture(bool newFrame, bool randomAccess) noexcept;

    VideoCodec m_codec = VideoCodec::none;
    VideoUnit m_unit;
    VideoUnit m_closed;
    bool m_indicated = false; // random_access_indicator of the unit

    // Start code search: trailing zeros (at most 2) of what was fed, and whether a prefix was just completed.
    unsigned m_zeros = 0;
    bool m_prefix = false;
    // The header being collected, with its start code.
    std::array<unsigned char, 512> m_header{};
    std::size_t m_headerLength = 0;
    std::size_t m_headerWanted = 0; // 0: none

    // MPEG-2
    int m_sequenceRate = 0;
    bool m_sequenceInUnit = false;
    bool m_gopInUnit = false;
    int m_pictureType = 0; // of a picture header whose structure is not known yet; 0: none
    int m_reference = -1;  // temporal_reference of that header
    int m_firstField = 0;  // picture_structure of a field that waits for its second
    // H.264
    AvcHeaders m_avc;
    bool m_spsInUnit = false;
    bool m_recoveryInUnit = false;
    bool m_delimited = false; // an access unit delimiter came, its picture not yet
    std::optional<AvcHeaders::Slice> m_fieldSlice;
};

} // namespace kestrel::capture
