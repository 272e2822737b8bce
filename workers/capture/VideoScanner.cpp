#include "VideoScanner.h"

#include "mpeg/mpeg.h"
#include "mpeg/mpeg2.h"

#include <algorithm>
#include <cstring>

namespace kestrel::capture {
namespace {

// Start code values of ISO/IEC 13818-2, table 6-1.
constexpr unsigned char pictureStart = 0x00;
constexpr unsigned char firstSlice = 0x01;
constexpr unsigned char lastSlice = 0xAF;
constexpr unsigned char sequenceStart = 0xB3;
constexpr unsigned char extensionStart = 0xB5;
constexpr unsigned char groupStart = 0xB8;
constexpr int pictureCodingExtension = 8;
constexpr int framePicture = 3;
constexpr int intraPicture = 1;
constexpr int bidirectionalPicture = 3;

// nal_unit_type of ITU-T H.264, table 7-1.
enum Nal : unsigned {
    nalSlice = 1,
    nalPartition = 2,
    nalIdr = 5,
    nalSei = 6,
    nalSps = 7,
    nalPps = 8,
    nalAud = 9
};

// Bytes of a header, start code included, that hold what is read of it.
std::size_t mpeg2HeaderBytes(unsigned char code) noexcept {
    switch (code) {
    case sequenceStart:
    case groupStart:
        return 8;
    case pictureStart:
        return 6;
    case extensionStart:
        return 7;
    default:
        return code >= firstSlice && code <= lastSlice ? 4 : 0;
    }
}

std::size_t nalBytes(unsigned type) noexcept {
    switch (type) {
    case nalSlice:
    case nalPartition:
    case nalIdr:
        return 40;
    case nalSei:
        return 128;
    case nalSps:
        return 512;
    case nalPps:
        return 24;
    case nalAud:
        return 4;
    default:
        return 0;
    }
}

// Position of the 01 that ends a start code prefix, or bytes.size(). zeros: those before bytes, at most 2;
// becomes those at its end.
std::size_t findPrefix(std::span<const unsigned char> bytes, unsigned& zeros) noexcept {
    const std::size_t size = bytes.size();
    for (std::size_t at = 0; at < size;) {
        const void* one = std::memchr(bytes.data() + at, 1, size - at);
        if (!one)
            break;
        at = static_cast<std::size_t>(static_cast<const unsigned char*>(one) - bytes.data());
        const bool before1 = at >= 1 ? bytes[at - 1] == 0 : zeros >= 1;
        const bool before2 = at >= 2 ? bytes[at - 2] == 0 : zeros >= 2 - at;
        if (before1 && before2) {
            zeros = 0;
            return at;
        }
        ++at;
    }
    unsigned trailing = 0;
    while (trailing < 2 && trailing < size && bytes[size - 1 - trailing] == 0)
        ++trailing;
    zeros = trailing < size ? trailing : std::min(2u, zeros + trailing);
    return size;
}

} // namespace

VideoCodec videoCodec(int streamType) noexcept {
    switch (streamType) {
    case 0x01:
    case 0x02:
        return VideoCodec::mpeg2;
    case 0x1B:
        return VideoCodec::avc;
    case 0x10:
    case 0x24:
        return VideoCodec::other;
    default:
        return VideoCodec::none;
    }
}

const char* codecName(int streamType) noexcept {
    switch (streamType) {
    case 0x01:
        return "MPEG-1 video";
    case 0x02:
        return "MPEG-2 video";
    case 0x10:
        return "MPEG-4 video";
    case 0x1B:
        return "H.264 video";
    case 0x24:
        return "H.265 video";
    case 0x03:
    case 0x04:
        return "MPEG audio";
    case 0x0F:
    case 0x11:
        return "AAC audio";
    case 0x81:
        return "AC-3 audio";
    default:
        return "data";
    }
}

void VideoScanner::reset(VideoCodec codec) noexcept {
    *this = VideoScanner{};
    m_codec = codec;
}

int VideoScanner::frameRateCode() const noexcept {
    return m_codec == VideoCodec::avc ? m_avc.frameRateCode() : m_sequenceRate;
}

void VideoScanner::beginUnit(bool randomAccessIndicator) noexcept {
    // A NAL unit ends with its PES packet, so a slice shorter than what is wanted of it belongs there. MPEG-2
    // headers may go on in the next.
    if (m_codec == VideoCodec::avc)
        endHeader();
    m_closed = m_unit;
    m_unit = {};
    m_indicated = randomAccessIndicator;
    m_sequenceInUnit = m_gopInUnit = m_spsInUnit = m_recoveryInUnit = false;
}

void VideoScanner::stamp(PTS pts, PTS dts) noexcept {
    m_unit.pts = pts;
    m_unit.dts = dts.is_absent() ? pts : dts;
    // Nothing is read of other codecs: each PES packet with a timestamp is a frame.
    if (m_codec == VideoCodec::other && !pts.is_absent())
        picture(true, m_indicated);
}

void VideoScanner::skip() noexcept {
    m_zeros = 0;
    m_prefix = false;
    m_headerWanted = 0;
    m_pictureType = 0;
}

void VideoScanner::settle() noexcept {
    if (m_codec != VideoCodec::avc || m_headerWanted == 0)
        return;
    const unsigned type = m_header[3] & 0x1Fu;
    if (type != nalSlice && type != nalPartition && type != nalIdr)
        return;
    auto header = m_header;
    const std::span<unsigned char> slice(header.data(), m_headerLength);
    const auto read = m_avc.readSlice(slice);
    if (!read || read->cut)
        return;
    m_headerWanted = 0;
    takeAvcNal(slice);
}

void VideoScanner::feed(std::span<const unsigned char> bytes) noexcept {
    if (m_codec != VideoCodec::mpeg2 && m_codec != VideoCodec::avc)
        return;
    while (!bytes.empty()) {
        if (m_prefix) {
            m_prefix = false;
            m_zeros = bytes[0] == 0 ? 1 : 0;
            beginHeader(bytes[0]);
            bytes = bytes.subspan(1);
            continue;
        }
        const std::size_t end = findPrefix(bytes, m_zeros);
        const bool found = end < bytes.size();
        if (m_headerWanted != 0) {
            const std::size_t more = std::min(m_headerWanted - m_headerLength, end);
            std::copy_n(bytes.begin(), more, m_header.begin() + static_cast<std::ptrdiff_t>(m_headerLength));
            m_headerLength += more;
            if (found || m_headerLength == m_headerWanted)
                endHeader();
        }
        m_prefix = found;
        bytes = bytes.subspan(std::min(end + 1, bytes.size()));
    }
}

void VideoScanner::beginHeader(unsigned char code) noexcept {
    m_headerWanted = m_codec == VideoCodec::avc ? nalBytes(code & 0x1Fu) : mpeg2HeaderBytes(code);
    m_header[0] = m_header[1] = 0;
    m_header[2] = 1;
    m_header[3] = code;
    m_headerLength = 4;
    if (m_headerWanted == m_headerLength)
        endHeader();
}

void VideoScanner::endHeader() noexcept {
    if (m_headerWanted == 0)
        return;
    const std::size_t wanted = m_headerWanted;
    m_headerWanted = 0;
    const std::span<unsigned char> header(m_header.data(), m_headerLength);
    if (m_codec == VideoCodec::avc)
        takeAvcNal(header);
    else if (m_headerLength == wanted)
        takeMpeg2Header(header);
}

void VideoScanner::takeMpeg2Header(std::span<unsigned char> header) noexcept {
    const array_byte_sequence view(header.data(), static_cast<int>(header.size()));
    const unsigned char code = header[3];
    // A picture header that no coding extension followed is one of MPEG-1: a frame.
    const bool extension =
        code == extensionStart && MPEG::SED::get_extension_id(view) == pictureCodingExtension;
    if (m_pictureType != 0 && code != extensionStart)
        settlePicture(framePicture);
    if (code == sequenceStart) {
        m_sequenceInUnit = true;
        m_sequenceRate = MPEG::SH::get_frame_rate_code(view);
        if (MPEG::SH::decode_PCRs_per_frame(m_sequenceRate) < 0)
            m_sequenceRate = 0;
    } else if (code == groupStart) {
        m_gopInUnit = true;
        if (!m_unit.gopTimecode) {
            m_unit.gopTimecode = MPEG::GOP::get_timecode(view);
            m_unit.closedGop = MPEG::GOP::closed_GOP(view);
        }
    } else if (code == pictureStart) {
        const int type = MPEG::PH::get_picture_coding_type(view);
        m_pictureType = type != 0 ? type : -1;
        m_reference = MPEG::PH::get_temporal_reference(view);
    } else if (extension && m_pictureType != 0) {
        settlePicture(MPEG::PCE::get_picture_structure(view));
    }
}

void VideoScanner::settlePicture(int structure) noexcept {
    const bool intra = m_pictureType == intraPicture;
    if (!m_unit.known) {
        m_unit.temporalReference = m_reference;
        m_unit.bidirectional = m_pictureType == bidirectionalPicture;
    }
    m_unit.highestReference = std::max(m_unit.highestReference, m_reference);
    m_pictureType = 0;
    const bool field = structure == 1 || structure == 2;
    const bool second = field && m_firstField != 0 && m_firstField != structure;
    m_firstField = field && !second ? structure : 0;
    picture(!second, m_sequenceInUnit && (m_gopInUnit || intra));
}

void VideoScanner::takeAvcNal(std::span<unsigned char> nal) noexcept {
    switch (nal[3] & 0x1Fu) {
    case nalAud:
        m_delimited = true;
        break;
    case nalSps:
        m_spsInUnit = m_avc.takeSequence(nal) || m_spsInUnit;
        break;
    case nalPps:
        m_avc.takePicture(nal);
        break;
    case nalSei:
        m_recoveryInUnit = m_recoveryInUnit || AvcHeaders::hasRecoveryPoint(nal);
        if (!m_unit.gopTimecode)
            m_unit.gopTimecode = m_avc.pictureTime(nal);
        break;
    case nalIdr:
        takeSlice(nal, true);
        break;
    default:
        takeSlice(nal, false);
        break;
    }
}

void VideoScanner::takeSlice(std::span<unsigned char> nal, bool idr) noexcept {
    const auto slice = m_avc.readSlice(nal);
    // A picture begins at its first macroblock, or, where that slice was lost, after the delimiter.
    if (!slice || (slice->firstMacroblock != 0 && !m_delimited))
        return;
    m_delimited = false;
    const bool second = slice->field && m_fieldSlice && m_fieldSlice->bottom != slice->bottom &&
                        m_fieldSlice->frameNumber == slice->frameNumber;
    m_fieldSlice.reset();
    if (slice->field && !second)
        m_fieldSlice = slice;
    // Parameter sets alone may come with any picture; with an intra one, or a recovery point, decoding
    // starts.
    picture(!second, idr || m_indicated || (m_spsInUnit && (slice->intra || m_recoveryInUnit)));
}

void VideoScanner::picture(bool newFrame, bool randomAccess) noexcept {
    m_unit.frames += newFrame ? 1 : 0;
    if (m_unit.known)
        return;
    m_unit.known = true;
    m_unit.newFrame = newFrame;
    m_unit.randomAccess = newFrame && randomAccess;
}

} // namespace kestrel::capture
