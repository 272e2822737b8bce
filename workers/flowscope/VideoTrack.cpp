#include "VideoTrack.h"

#include "mpeg/mpeg2.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace kestrel::flowscope {
namespace {

// Table 6-4.
constexpr std::array<std::pair<int, int>, 9> RATES{
    {{0, 1}, {24'000, 1001}, {24, 1}, {25, 1}, {30'000, 1001}, {30, 1}, {50, 1}, {60'000, 1001}, {60, 1}}};

constexpr std::size_t PREFIX = 4; // start code prefix and value
constexpr unsigned char PICTURE = 0x00;
constexpr unsigned char USER_DATA = 0xB2;
constexpr unsigned char SEQUENCE = 0xB3;
constexpr unsigned char EXTENSION = 0xB5;
constexpr unsigned char GROUP = 0xB8;

std::string ratio(std::int64_t width, std::int64_t height) {
    const std::int64_t divisor = std::gcd(width, height);
    return divisor == 0 ? "" : std::to_string(width / divisor) + ":" + std::to_string(height / divisor);
}

// Bytes from the start code on that are needed of a header; 0: of no interest.
std::size_t mpeg2HeaderBytes(unsigned char code) {
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

std::size_t nalBytes(unsigned char header) {
    switch (header & 0x1F) { // table 7-1
    case 1:
    case 5:
        return 64; // slice header
    case 6:
        return 256; // SEI
    case 7:
        return 512;
    case 8:
        return 128;
    case 9:
        return 5;
    default:
        return 0;
    }
}

const char* mpeg2Profile(int indication) {
    switch (indication >> 4 & 7) {
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

const char* h264Profile(unsigned profile) {
    switch (profile) {
    case 66:
        return "Baseline";
    case 77:
        return "Main";
    case 88:
        return "Extended";
    case 100:
        return "High";
    case 110:
        return "High 10";
    case 122:
        return "High 4:2:2";
    default:
        return "";
    }
}

} // namespace

int VideoFormat::rateCode() const noexcept {
    return rateNumerator == 0 ? 0 : std::max(0, MPEG::fake_frame_rate_code(rate()));
}

void VideoTrack::stamp(PTS pts, PTS /*dts*/) {
    if (m_firstPts.is_absent())
        m_firstPts = pts;
    else if (!pts.is_absent() && pts < m_firstPts && m_firstPts - pts < 10 * PTS::units_per_second)
        m_firstPts = pts; // pictures that are shown before the first one coded
}

void VideoTrack::skip() {
    m_zeros = 0;
    m_prefix = false;
    m_headerWanted = 0;
}

void VideoTrack::end() {
    if (m_headerWanted > 0)
        endHeader();
    if (m_pictureType != 0)
        settlePicture(3);
}

void VideoTrack::feed(std::span<const unsigned char> bytes) {
    // The first two bytes may end a prefix that began before them.
    constexpr std::size_t CARRIED = 2;
    std::size_t at = 0;
    while (at < bytes.size()) {
        if (at < CARRIED || m_prefix || m_headerWanted > 0) {
            step(bytes[at++]);
            continue;
        }
        // Of everything else only the bytes that can end a prefix are looked at.
        const auto* const found =
            static_cast<const unsigned char*>(std::memchr(bytes.data() + at, 1, bytes.size() - at));
        const std::size_t end =
            found == nullptr ? bytes.size() : static_cast<std::size_t>(found - bytes.data());
        m_bytes += end - at;
        at = end;
        const bool zero = bytes[at - 1] == 0;
        m_zeros = zero ? (bytes[at - 2] == 0 ? 2 : 1) : 0;
        if (at < bytes.size())
            step(bytes[at++]);
    }
}

void VideoTrack::step(unsigned char byte) {
    if (m_prefix) {
        m_prefix = false;
        beginHeader(byte);
    } else if (m_headerWanted > 0) {
        m_header[m_headerLength++] = byte;
    }
    ++m_bytes;
    if (m_zeros == 2 && byte == 1) {
        // The prefix that ends here is no part of the header before it.
        if (m_headerWanted > 0) {
            m_headerLength -= std::min<std::size_t>(m_headerLength, 3);
            endHeader();
        }
        m_prefix = true;
        m_zeros = 0;
        return;
    }
    m_zeros = byte == 0 ? std::min(m_zeros + 1, 2U) : 0;
    if (m_headerWanted > 0 && m_headerLength == m_headerWanted)
        endHeader();
}

void VideoTrack::beginHeader(unsigned char code) {
    m_headerWanted = m_codec == VideoCodec::mpeg2 ? mpeg2HeaderBytes(code) : nalBytes(code);
    if (m_codec == VideoCodec::mpeg2 && (code == SEQUENCE || code == GROUP || code == PICTURE)) {
        ++m_headers;
        // The prefix began three bytes ago.
        m_unaligned += (m_bytes - 3) % 4 != 0 ? 1 : 0;
    }
    if (m_headerWanted == 0)
        return;
    m_header[0] = m_header[1] = 0;
    m_header[2] = 1;
    m_header[3] = code;
    m_headerLength = PREFIX;
}

void VideoTrack::endHeader() {
    const std::span<unsigned char> header(m_header.data(), m_headerLength);
    m_headerWanted = 0;
    if (m_codec == VideoCodec::mpeg2)
        takeMpeg2(header);
    else
        takeNal(header);
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
    m_format.width = header[4] << 4 | header[5] >> 4;
    m_format.height = (header[5] & 0x0F) << 8 | header[6];
    switch (header[7] >> 4) { // table 6-3
    case 1:
        m_format.aspect = ratio(m_format.width, m_format.height);
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
    if (code < RATES.size())
        std::tie(m_format.rateNumerator, m_format.rateDenominator) = RATES[code];
}

// 6.2.2.3
void VideoTrack::takeSequenceExtension(std::span<unsigned char> header) {
    m_format.profile = mpeg2Profile((header[4] & 0x0F) << 4 | header[5] >> 4);
    m_format.interlaced = (header[5] & 0x08) == 0;
    m_format.width |= (header[5] & 1) << 13 | (header[6] & 0x80) << 5;
    m_format.height |= (header[6] & 0x60) << 7;
    if (header.size() < 10 || m_format.rateNumerator == 0)
        return;
    m_format.rateNumerator *= (header[9] >> 5 & 3) + 1; // frame_rate_extension_n
    m_format.rateDenominator *= (header[9] & 0x1F) + 1; // frame_rate_extension_d
}

// 6.2.2.6
void VideoTrack::takeGop(std::span<unsigned char> header) {
    const int packed = header[4] << 17 | header[5] << 9 | header[6] << 1 | header[7] >> 7;
    m_gopSeen = true;
    m_dropFrame = (packed >> 24 & 1) != 0;
    const int rate = m_format.rateCode();
    if (!m_firstTimecode)
        m_firstTimecode = packed;
    else if (rate != 0 && m_lastTimecode) {
        const mpeg_timecode last = mpeg_timecode::parse_GOP(*m_lastTimecode, rate);
        const mpeg_timecode now = mpeg_timecode::parse_GOP(packed, rate);
        // An open group's time code is that of the first picture shown, which may be a B frame before its I.
        const auto expected =
            static_cast<int>((m_frames + (m_pictureType != 0 ? 1U : 0U)) - m_framesAtTimecode);
        const int distance = (now - last).frame_count();
        constexpr int REORDERED = 3;
        if (std::abs(distance - expected) > REORDERED)
            ++m_timecodeJumps;
    }
    m_lastTimecode = packed;
    m_framesAtTimecode = m_frames + (m_pictureType != 0 ? 1U : 0U);
}

// 6.2.3
void VideoTrack::takePicture(std::span<unsigned char> header) {
    if (m_pictureType != 0)
        settlePicture(3); // MPEG-1: no coding extension
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

// 6.2.3.1
void VideoTrack::takeCodingExtension(std::span<unsigned char> header) {
    if (m_pictureType != 0)
        settlePicture(header[6] & 3);
}

void VideoTrack::settlePicture(int structure) {
    constexpr int FRAME = 3;
    const char type = m_pictureType;
    m_pictureType = 0;
    const bool second = m_firstField != 0 && structure != FRAME && structure != m_firstField;
    m_firstField = structure == FRAME || second ? 0 : structure;
    if (second)
        return;
    countFrame(type, type == 'I');
    m_gopSeen = false;
}

void VideoTrack::countFrame(char type, bool beginsGroup) {
    ++m_frames;
    m_gops.frame(type, beginsGroup);
}

// ATSC A/53 part 4, 6.2.3: "GA94", user_data_type_code 3, then cc_count.
void VideoTrack::takeUserData(std::span<unsigned char> data) {
    constexpr unsigned char CAPTIONS = 3;
    if (data.size() >= 6 && data[0] == 'G' && data[1] == 'A' && data[2] == '9' && data[3] == '4' &&
        data[4] == CAPTIONS && (data[5] & 0x40) != 0 && (data[5] & 0x1F) != 0)
        m_captions = true;
}

void VideoTrack::takeNal(std::span<unsigned char> nal) {
    switch (nal[3] & 0x1F) {
    case 1:
        takeSlice(nal, false);
        return;
    case 5:
        takeSlice(nal, true);
        return;
    case 6: {
        m_keyAhead = m_keyAhead || capture::AvcHeaders::hasRecoveryPoint(nal);
        // user_data_registered_itu_t_t35 of the United States and ATSC (A/53 part 4, 6.2.3).
        constexpr unsigned char T35 = 4;
        if (nal.size() > 10 && nal[4] == T35 && nal[6] == 0xB5)
            takeUserData(nal.subspan(9));
        return;
    }
    case 7: {
        if (!m_avc.takeSequence(nal))
            return;
        m_keyAhead = true;
        const auto& format = m_avc.format();
        m_format.width = static_cast<int>(format.width);
        m_format.height = static_cast<int>(format.height);
        m_format.interlaced = !format.framesOnly;
        m_format.profile = h264Profile(format.profile);
        const std::int64_t sarWidth = format.sarWidth == 0 ? 1 : format.sarWidth;
        const std::int64_t sarHeight = format.sarHeight == 0 ? 1 : format.sarHeight;
        m_format.aspect = ratio(format.width * sarWidth, format.height * sarHeight);
        if (format.unitsInTick != 0) {
            // Two ticks a frame (E.2.1).
            const std::int64_t numerator = format.timeScale;
            const std::int64_t denominator = std::int64_t{2} * format.unitsInTick;
            const std::int64_t divisor = std::max<std::int64_t>(std::gcd(numerator, denominator), 1);
            m_format.rateNumerator = numerator / divisor;
            m_format.rateDenominator = denominator / divisor;
        }
        return;
    }
    case 8:
        m_avc.takePicture(nal);
        return;
    default:
        m_delimited = true;
    }
}

void VideoTrack::takeSlice(std::span<unsigned char> nal, bool idr) {
    const auto slice = m_avc.readSlice(nal);
    if (!slice || slice->firstMacroblock != 0)
        return;
    const bool second = m_lastField && slice->field && slice->bottom != m_lastField->bottom &&
                        slice->frameNumber == m_lastField->frameNumber;
    if (second) {
        m_lastField.reset();
        return;
    }
    m_lastField.reset();
    if (slice->field)
        m_lastField = slice;
    constexpr char TYPES[] = {'P', 'B', 'I', 'P', 'I'};
    const char type = TYPES[slice->type];
    countFrame(type, idr || (type == 'I' && m_keyAhead));
    m_keyAhead = false;
}

} // namespace kestrel::flowscope
