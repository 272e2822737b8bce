#include "StreamTypes.h"

#include <algorithm>
#include <array>

namespace kestrel::flowscope {
namespace {

struct Kind {
    int type; // stream_type
    const char* description;
    std::optional<VideoCodec> video;
    std::optional<AudioCodec> audio;
};

// Table 2-34, and the ATSC's own values (A/53-3). The service looks for "H.264" and "AC3".
const Kind KINDS[] = {
    {0x01, "MPEG-1 Video (ISO/IEC 11172-2)", VideoCodec::mpeg2, {}},
    {0x02, "MPEG-2 Video (ISO/IEC 13818-2)", VideoCodec::mpeg2, {}},
    {0x03, "MPEG-1 Audio (ISO/IEC 11172-3)", {}, AudioCodec::mpeg},
    {0x04, "MPEG-2 Audio (ISO/IEC 13818-3)", {}, AudioCodec::mpeg},
    {0x06, "Private PES data", {}, {}},
    {0x0F, "AAC Audio, ADTS (ISO/IEC 13818-7)", {}, AudioCodec::aac},
    {0x11, "AAC Audio, LATM (ISO/IEC 14496-3)", {}, AudioCodec::unknown},
    {0x1C, "MPEG-4 Audio (ISO/IEC 14496-3)", {}, AudioCodec::unknown},
    {0x1B, "H.264 Video (ITU-T H.264)", VideoCodec::h264, {}},
    {0x24, "HEVC Video (ITU-T H.265)", {}, {}},
    {0x2D, "MPEG-H Audio (ISO/IEC 23008-3)", {}, AudioCodec::unknown},
    {0x81, "AC3 Audio (ATSC A/52)", {}, AudioCodec::ac3},
    {0x82, "Subtitles (SCTE 27)", {}, {}}, // or sound: decideByPayload()
    {0x8A, "DTS Audio", {}, AudioCodec::unknown},
    {0x86, "Splice information (SCTE 35)", {}, {}},
    {0x87, "E-AC-3 Audio (ATSC A/52)", {}, AudioCodec::eac3},
};

// What private PES data may be by its registration or by a descriptor of DVB; not more than one of the two.
struct PrivateKind {
    const char* registration; // format_identifier
    int descriptor;           // 0: none
    const char* description;
    AudioCodec audio;
};
const PrivateKind PRIVATE_KINDS[] = {
    {"AC-3", 0x6A, "AC3 Audio (private PES)", AudioCodec::ac3},
    {"EAC3", 0x7A, "E-AC-3 Audio (private PES)", AudioCodec::eac3},
    {"BSSD", 0, "PCM Audio (SMPTE 302M)", AudioCodec::unknown},
    {"Opus", 0, "Opus Audio (private PES)", AudioCodec::unknown},
    {"AC-4", 0, "AC-4 Audio (private PES)", AudioCodec::unknown},
    {"DTS1", 0x7B, "DTS Audio (private PES)", AudioCodec::unknown},
    {"DTS2", 0, "DTS Audio (private PES)", AudioCodec::unknown},
    {"DTS3", 0, "DTS Audio (private PES)", AudioCodec::unknown},
    {"", 0x7C, "AAC Audio (private PES)", AudioCodec::unknown},
};

// Descriptors that tell what private PES data is: registration (2.6.8), and DVB's for AC-3 and E-AC-3 (ETSI
// EN 300 468, annex D).
void readDescriptor(int tag, std::span<const unsigned char> body, StreamEntry& stream) {
    constexpr int REGISTRATION = 0x05;
    constexpr int LANGUAGE = 0x0A;
    const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
    if (tag == LANGUAGE && body.size() >= 3 &&
        std::all_of(body.begin(), body.begin() + 3, [](unsigned char c) { return c >= 'A' && c <= 'z'; }))
        stream.language = text.substr(0, 3);
    if (stream.type != 0x06)
        return;
    for (const PrivateKind& kind : PRIVATE_KINDS) {
        const std::string_view registration(kind.registration);
        const bool registered =
            tag == REGISTRATION && !registration.empty() && text.starts_with(registration);
        const bool described = kind.descriptor != 0 && tag == kind.descriptor;
        if (!registered && !described)
            continue;
        stream.description = kind.description;
        stream.audio = kind.audio;
    }
}

} // namespace

StreamEntry describeStream(std::span<const unsigned char> entry) {
    StreamEntry stream;
    stream.type = entry[0];
    stream.pid = (entry[1] & 0x1F) << 8 | entry[2];
    stream.description = "stream_type " + std::to_string(stream.type);
    for (const Kind& kind : KINDS)
        if (kind.type == stream.type) {
            stream.description = kind.description;
            stream.video = kind.video;
            stream.audio = kind.audio;
        }
    for (std::size_t at = 5; at + 2 <= entry.size();) {
        const std::size_t length = entry[at + 1];
        if (at + 2 + length > entry.size())
            break;
        readDescriptor(entry[at], entry.subspan(at + 2, length), stream);
        at += 2 + length;
    }
    return stream;
}

bool undecided(const StreamEntry& stream) {
    constexpr int SUBTITLES_OR_SOUND = 0x82;
    return stream.type == SUBTITLES_OR_SOUND && !stream.audio;
}

void decideByPayload(std::span<const unsigned char> payload, StreamEntry& stream) {
    constexpr std::array<unsigned char, 3> PES_PREFIX{0, 0, 1};
    if (!undecided(stream) || payload.size() < PES_PREFIX.size() ||
        !std::equal(PES_PREFIX.begin(), PES_PREFIX.end(), payload.begin()))
        return;
    stream.description = "DTS Audio";
    stream.audio = AudioCodec::unknown;
}

} // namespace kestrel::flowscope
