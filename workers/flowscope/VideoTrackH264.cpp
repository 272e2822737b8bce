// H.264 NAL units: ITU-T H.264, 7.3 and annexes D and E.
#include "VideoTrack.h"

#include <algorithm>
#include <numeric>

namespace kestrel::flowscope {
namespace {

constexpr std::size_t PREFIX = 4; // start code prefix and NAL unit header

// Table 7-1.
enum NalType : int { SLICE = 1, IDR_SLICE = 5, SEI = 6, SEQUENCE = 7, PICTURE = 8, DELIMITER = 9 };

const char* profileName(unsigned profile) {
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

// Without its emulation prevention bytes (7.4.1).
std::vector<unsigned char> unescaped(std::span<const unsigned char> payload) {
    std::vector<unsigned char> bytes;
    bytes.reserve(payload.size());
    int zeros = 0;
    for (const unsigned char byte : payload) {
        if (zeros == 2 && byte == 3) {
            zeros = 0;
            continue;
        }
        zeros = byte == 0 ? std::min(zeros + 1, 2) : 0;
        bytes.push_back(byte);
    }
    return bytes;
}

} // namespace

std::size_t VideoTrack::nalBytes(unsigned char header) {
    switch (header & 0x1F) {
    case SLICE:
    case IDR_SLICE:
        return 64; // slice header
    case SEI:
    case SEQUENCE:
        return longestHeader;
    case PICTURE:
        return 128;
    case DELIMITER:
        return 5;
    default:
        return 0;
    }
}

void VideoTrack::takeNal(std::span<unsigned char> nal) {
    switch (nal[3] & 0x1F) {
    case SLICE:
        takeSlice(nal, false);
        return;
    case IDR_SLICE:
        takeSlice(nal, true);
        return;
    case SEI:
        m_keyAhead = m_keyAhead || capture::AvcHeaders::hasRecoveryPoint(nal);
        takeMessages(nal.subspan(PREFIX));
        takeTiming(nal);
        return;
    case SEQUENCE:
        takeSequenceSet(nal);
        return;
    case PICTURE:
        m_avc.takePicture(nal);
        return;
    case DELIMITER:
        ++m_delimiters;
        return;
    default:
        return;
    }
}

void VideoTrack::takeTiming(std::span<unsigned char> nal) {
    const auto timing = m_avc.pictureTiming(nal);
    if (!timing)
        return;
    m_timing = timing;
    if (m_firstTimecode || !timing->time)
        return;
    m_firstTimecode = timing->time;
    constexpr int DROP = 1 << 24;
    m_dropFrame = (*m_firstTimecode & DROP) != 0;
}

bool VideoTrack::isSlice(unsigned char header) {
    return (header & 0x1F) == SLICE || (header & 0x1F) == IDR_SLICE;
}

// Table D-1: a frame of three fields, one shown twice, one shown three times.
unsigned VideoTrack::fieldsOfTiming() const {
    constexpr std::array<unsigned, 9> FIELDS{2, 1, 1, 2, 2, 3, 3, 4, 6};
    return m_timing && m_timing->structure < FIELDS.size() ? FIELDS[m_timing->structure] : 2;
}

// 7.4.2.1.1 and E.2.1.
void VideoTrack::takeSequenceSet(std::span<unsigned char> nal) {
    if (!m_avc.takeSequence(nal))
        return;
    m_keyAhead = true;
    const auto& format = m_avc.format();
    m_format.width = static_cast<int>(format.width);
    m_format.height = static_cast<int>(format.height);
    m_format.interlaced = !format.framesOnly;
    m_format.profile = profileName(format.profile);
    // One sequence of variable rate makes the stream one.
    if (format.constantRate && m_constantRate != false)
        m_constantRate = format.constantRate;
    m_headerRate = {static_cast<double>(format.bitRate), static_cast<double>(format.bufferBits)};
    const std::int64_t sarWidth = format.sarWidth == 0 ? 1 : format.sarWidth;
    const std::int64_t sarHeight = format.sarHeight == 0 ? 1 : format.sarHeight;
    m_format.aspect = pictureAspect(format.width * sarWidth, format.height * sarHeight);
    if (format.unitsInTick == 0)
        return;
    // Two ticks a frame.
    const std::int64_t numerator = format.timeScale;
    const std::int64_t denominator = std::int64_t{2} * format.unitsInTick;
    const std::int64_t divisor = std::max<std::int64_t>(std::gcd(numerator, denominator), 1);
    if (const FrameRate rate{numerator / divisor, denominator / divisor}; rate.plausible())
        m_format.frameRate = rate;
}

// 7.3.2.3.1: any number of messages, type and size in bytes of which 255 adds up.
void VideoTrack::takeMessages(std::span<const unsigned char> nal) {
    // user_data_registered_itu_t_t35 (D.1.6), country code of the United States, provider code of the ATSC.
    constexpr std::size_t T35 = 4;
    constexpr unsigned char UNITED_STATES = 0xB5;
    constexpr std::size_t CODES = 3;
    const std::vector<unsigned char> bytes = unescaped(nal);
    std::span<const unsigned char> rest(bytes);
    const auto number = [&rest] {
        std::size_t value = 0;
        while (!rest.empty()) {
            const unsigned char byte = rest.front();
            rest = rest.subspan(1);
            value += byte;
            if (byte != 255)
                break;
        }
        return value;
    };
    while (rest.size() > 2) { // the last byte has the trailing bits
        const std::size_t type = number();
        const std::size_t announced = number();
        const std::size_t size = std::min(announced, rest.size());
        if (type == T35 && size > CODES && rest[0] == UNITED_STATES)
            takeUserData(rest.subspan(CODES, size - CODES));
        rest = rest.subspan(size);
    }
}

void VideoTrack::takeSlice(std::span<unsigned char> nal, bool idr) {
    const auto slice = m_avc.readSlice(nal);
    if (!slice || slice->firstMacroblock != 0)
        return;
    const bool second = m_lastField && slice->field && slice->bottom != m_lastField->bottom &&
                        slice->frameNumber == m_lastField->frameNumber;
    if (second) {
        ++m_position.shown;
        ++m_position.decoded;
        m_timing.reset();
        m_lastField.reset();
        return;
    }
    m_lastField.reset();
    if (slice->field)
        m_lastField = slice;
    constexpr char TYPES[] = {'P', 'B', 'I', 'P', 'I'};
    const char type = TYPES[slice->type];
    const unsigned fields = std::max(2U, fieldsOfTiming());
    TimecodeCheck::Frame frame{type, fields, std::nullopt, false, false};
    if (m_timing) {
        frame.timecode = m_timing->time;
        frame.announced = m_timing->discontinuity;
        frame.byFields = m_timing->countsTicks;
    }
    m_timecodes.frame(frame, m_format.rate());
    m_timing.reset();
    countFrame(type, idr || (type == 'I' && m_keyAhead), slice->field ? 1 : fields);
    m_keyAhead = false;
}

} // namespace kestrel::flowscope
