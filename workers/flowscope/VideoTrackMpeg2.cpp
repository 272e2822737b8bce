// MPEG-2 (and MPEG-1) video headers: ISO/IEC 13818-2, 6.2.
#include "VideoTrack.h"

namespace kestrel::flowscope {
namespace {

constexpr std::size_t PREFIX = 4; // start code prefix and value
constexpr unsigned char PICTURE = 0x00;
constexpr unsigned char USER_DATA = 0xB2;
constexpr unsigned char SEQUENCE = 0xB3;
constexpr unsigned char EXTENSION = 0xB5;
constexpr unsigned char GROUP = 0xB8;

// 6.3.3, 6.3.5
VideoTrack::CodedRate codedRateOf(int bitRate, int bufferSize) {
    return {bitRate * 400.0, bufferSize * 16.0 * 1024};
}

const char* profileName(int indication) {
    switch (indication >> 4 & 7) { // table 8-2
    case 1:
        return "High";
    case 4:
        return "Main";
    case 5:
        return "Simple";
    default:
        return indication == 0x82 || indication == 0x85 ? "4:2:2" : "";
    }
}

} // namespace

std::size_t VideoTrack::mpeg2HeaderBytes(unsigned char code) {
    switch (code) {
    case PICTURE:
        return 8;
    case SEQUENCE:
        return 12;
    case EXTENSION:
        return 10;
    case GROUP:
        return 8;
    case USER_DATA:
        return 16;
    default:
        return 0;
    }
}

bool VideoTrack::mpeg2Aligned(unsigned char code) {
    return code == SEQUENCE || code == GROUP || code == PICTURE;
}

void VideoTrack::takeMpeg2(std::span<unsigned char> header) {
    const unsigned char code = header[3];
    if (code == USER_DATA) {
        takeUserData(header.subspan(PREFIX));
        return;
    }
    if (header.size() < mpeg2HeaderBytes(code) && code != EXTENSION)
        return;
    if (code == SEQUENCE)
        takeSequence(header);
    else if (code == GROUP)
        takeGop(header);
    else if (code == PICTURE)
        takePicture(header);
    else if (header.size() >= 9 && header[4] >> 4 == 1)
        takeSequenceExtension(header);
    else if (header.size() >= 9 && header[4] >> 4 == 8)
        takeCodingExtension(header);
}

// 6.2.2.1
void VideoTrack::takeSequence(std::span<unsigned char> header) {
    const int width = header[4] << 4 | header[5] >> 4;
    const int height = (header[5] & 0x0F) << 8 | header[6];
    if (width == 0 || height == 0) // neither ever is (6.3.3): it is damaged
        return;
    m_format.width = width;
    m_format.height = height;
    switch (header[7] >> 4) { // table 6-3
    case 1:
        m_format.aspect = pictureAspect(m_format.width, m_format.height);
        break;
    case 2:
        m_format.aspect = "4:3";
        break;
    case 3:
        m_format.aspect = "16:9";
        break;
    case 4:
        m_format.aspect = "2.21:1";
        break;
    default:
        m_format.aspect.clear();
    }
    const std::size_t code = header[7] & 0x0F;
    if (code < codedFrameRates.size())
        m_format.frameRate = m_codedRate = codedFrameRates[code];
    m_bitRate = header[8] << 10 | header[9] << 2 | header[10] >> 6;
    m_bufferSize = (header[10] & 0x1F) << 5 | header[11] >> 3;
    m_headerRate = codedRateOf(m_bitRate, m_bufferSize);
}

// 6.2.2.3
void VideoTrack::takeSequenceExtension(std::span<unsigned char> header) {
    m_format.profile = profileName((header[4] & 0x0F) << 4 | header[5] >> 4);
    m_progressive = (header[5] & 0x08) != 0;
    m_format.interlaced = !m_progressive;
    if (m_format.width > 0) { // it has the upper bits of what a header says
        m_format.width = (m_format.width & 0xFFF) | (header[5] & 1) << 13 | (header[6] & 0x80) << 5;
        m_format.height = (m_format.height & 0xFFF) | (header[6] & 0x60) << 7;
    }
    if (header.size() < 10)
        return;
    const int bitRateExtension = (header[6] & 0x1F) << 7 | header[7] >> 1;
    m_headerRate = codedRateOf(bitRateExtension << 18 | m_bitRate, header[8] << 10 | m_bufferSize);
    // frame_rate_extension_n and frame_rate_extension_d. Of the header's rate: an extension may be repeated.
    const FrameRate extended{m_codedRate.numerator * ((header[9] >> 5 & 3) + 1),
                             m_codedRate.denominator * ((header[9] & 0x1F) + 1)};
    if (extended.plausible())
        m_format.frameRate = extended;
}

// 6.2.2.6
void VideoTrack::takeGop(std::span<unsigned char> header) {
    const int packed = header[4] << 17 | header[5] << 9 | header[6] << 1 | header[7] >> 7;
    m_dropFrame = (packed >> 24 & 1) != 0;
    if (!m_firstTimecode)
        m_firstTimecode = packed;
    m_timecodes.group(packed, fields() + (m_pictureType != 0 ? 2 : 0), m_format.rate());
}

// 6.2.3
void VideoTrack::takePicture(std::span<unsigned char> header) {
    if (m_pictureType != 0) { // MPEG-1: no extensions, and frames only
        settlePicture(3);
        m_format.interlaced = m_format.interlaced.value_or(false);
    }
    constexpr char TYPES[] = {0, 'I', 'P', 'B', 'I'};
    const int type = header[5] >> 3 & 7;
    m_pictureType = type >= 1 && type <= 4 ? TYPES[type] : 0;
    const int delay = (header[5] & 7) << 13 | header[6] << 5 | header[7] >> 3;
    constexpr int VARIABLE = 0xFFFF;
    if (delay == VARIABLE)
        m_constantRate = false;
    else if (!m_constantRate)
        m_constantRate = true;
}

// 6.2.3.1; how long a frame with repeat_first_field is shown: 6.3.10.
void VideoTrack::takeCodingExtension(std::span<unsigned char> header) {
    if (m_pictureType == 0)
        return;
    const bool topFirst = (header[7] & 0x80) != 0;
    const bool repeat = (header[7] & 0x02) != 0;
    settlePicture(header[6] & 3, !repeat ? 2 : !m_progressive ? 3 : topFirst ? 6 : 4);
}

void VideoTrack::settlePicture(int structure, unsigned fields) {
    constexpr int FRAME = 3;
    const char type = m_pictureType;
    m_pictureType = 0;
    const bool second = m_firstField != 0 && structure != FRAME && structure != m_firstField;
    m_firstField = structure == FRAME || second ? 0 : structure;
    // Each field of a frame that is coded in two has a time of its own.
    const unsigned shown = structure == FRAME ? fields : 1;
    if (second) {
        m_position.shown += shown;
        m_position.decoded += shown;
        return;
    }
    countFrame(type, type == 'I', shown);
}

// ATSC A/53-4, 6.2.3: "GA94", user_data_type_code 3, then cc_count.
void VideoTrack::takeUserData(std::span<const unsigned char> data) {
    constexpr unsigned char CAPTIONS = 3;
    if (data.size() >= 6 && data[0] == 'G' && data[1] == 'A' && data[2] == '9' && data[3] == '4' &&
        data[4] == CAPTIONS && (data[5] & 0x40) != 0 && (data[5] & 0x1F) != 0)
        m_captions = true;
}

} // namespace kestrel::flowscope
