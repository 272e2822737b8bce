#include "VideoTrack.h"

#include "mpeg/mpeg2.h"

#include <algorithm>
#include <bit>
#include <numeric>
#include <utility>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kestrel::flowscope {

std::string pictureAspect(std::int64_t width, std::int64_t height) {
    const std::int64_t divisor = std::gcd(width, height);
    return divisor == 0 ? "" : std::to_string(width / divisor) + ":" + std::to_string(height / divisor);
}

int VideoFormat::rateCode() const noexcept {
    return frameRate.numerator == 0 ? 0 : std::max(0, MPEG::fake_frame_rate_code(rate()));
}

void VideoTrack::skip() {
    m_zeros = 0;
    m_prefix = false;
    m_headerWanted = 0;
    m_timecodes.skip();
    realign();
}

void VideoTrack::realign() {
    m_realign = true;
    m_gops.lose(position().decoded != m_position.decoded);
}

void VideoTrack::end() {
    if (m_headerWanted > 0)
        endHeader();
    if (m_pictureType != 0)
        settlePicture(3);
    m_timecodes.end(m_format.rate());
}

namespace {

// The first place from `at` on whose byte ends a start code prefix 00 00 01, else the size; at is 2 at least.
std::size_t prefixEnd(std::span<const unsigned char> bytes, std::size_t at) {
#if defined(__SSE2__)
    constexpr std::size_t BLOCK = 16;
    const auto load = [&bytes](std::size_t from) {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes.data() + from));
    };
    const __m128i zero = _mm_setzero_si128();
    const __m128i one = _mm_set1_epi8(1);
    while (at + BLOCK <= bytes.size()) {
        const __m128i zeros = _mm_cmpeq_epi8(_mm_or_si128(load(at - 2), load(at - 1)), zero);
        const int found = _mm_movemask_epi8(_mm_and_si128(zeros, _mm_cmpeq_epi8(load(at), one)));
        if (found != 0)
            return at + static_cast<std::size_t>(std::countr_zero(static_cast<unsigned>(found)));
        at += BLOCK;
    }
#endif
    while (at < bytes.size() && (bytes[at] != 1 || bytes[at - 1] != 0 || bytes[at - 2] != 0))
        ++at;
    return at;
}

} // namespace

void VideoTrack::feed(std::span<const unsigned char> bytes) {
    // The first two bytes may end a prefix that began before them.
    constexpr std::size_t CARRIED = 2;
    std::size_t at = 0;
    while (at < bytes.size()) {
        if (at < CARRIED || m_prefix || m_headerWanted > 0) {
            step(bytes[at++]);
            continue;
        }
        // Everything up to the next prefix is only counted.
        const std::size_t end = prefixEnd(bytes, at);
        m_bytes += end - at;
        at = end;
        m_zeros = bytes[at - 1] != 0 ? 0 : bytes[at - 2] != 0 ? 1 : 2;
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
    if (m_codec == VideoCodec::mpeg2 && mpeg2Aligned(code)) {
        // The prefix began three bytes ago.
        const std::uint64_t at = m_bytes - 3;
        const unsigned off = (at - m_base) % 4 != 0 ? 1 : 0;
        if (std::exchange(m_realign, false)) {
            m_begunUnaligned += off;
            m_base = at;
            ++m_begun;
        } else {
            m_unaligned += off;
            m_begun += m_headers == 0 ? 1 : 0; // with which the stream begins
        }
        ++m_headers;
    }
    if (m_headerWanted == 0)
        return;
    m_header[0] = m_header[1] = 0;
    m_header[2] = 1;
    m_header[3] = code;
    m_headerLength = 4;
}

void VideoTrack::endHeader() {
    const std::span<unsigned char> header(m_header.data(), m_headerLength);
    m_headerWanted = 0;
    if (m_codec == VideoCodec::mpeg2)
        takeMpeg2(header);
    else
        takeNal(header);
}

void VideoTrack::countFrame(char type, bool beginsGroup, unsigned fields) {
    if (m_frames++ == 0)
        m_firstType = type;
    const FrameRate rate = std::exchange(m_rateOfPicture, m_format.frameRate);
    m_rateChanged = m_rateChanged || (rate.numerator != 0 && rate != m_format.frameRate);
    if (!m_rateOfBits && m_headerRate.bitsPerSecond > 0)
        m_rateOfBits = m_headerRate;
    m_rateOfBitsChanged = m_rateOfBitsChanged || (m_rateOfBits && *m_rateOfBits != m_headerRate);
    m_gops.frame(type, beginsGroup);
    m_position.shown += fields;
    m_position.decoded += type == 'B' ? fields : m_heldFields;
    if (type != 'B')
        m_heldFields = fields;
}

std::optional<VideoTrack::CodedRate> VideoTrack::codedRate() const {
    const bool told = m_constantRate == true && m_rateOfBits && m_rateOfBits->bitsPerSecond > 0;
    return told && !m_rateOfBitsChanged ? m_rateOfBits : std::nullopt;
}

VideoTrack::Position VideoTrack::position() const {
    Position position = m_position;
    unsigned begun = 0; // fields of a picture whose header is not whole yet
    if (m_codec == VideoCodec::mpeg2) {
        constexpr unsigned char PICTURE = 0;
        begun = m_pictureType != 0 || (m_headerWanted > 0 && m_header[3] == PICTURE) ? 2 : 0;
    } else if (m_headerWanted > 0 && isSlice(m_header[3])) {
        // A picture in which nothing moves may be shorter than what is read of its header.
        std::array<unsigned char, longestHeader> header = m_header;
        const auto slice = m_avc.readSlice(std::span(header).first(m_headerLength));
        if (slice && slice->firstMacroblock == 0)
            begun = slice->field ? 1 : std::max(2U, fieldsOfTiming());
    }
    position.shown += begun;
    position.decoded += begun;
    return position;
}

} // namespace kestrel::flowscope
