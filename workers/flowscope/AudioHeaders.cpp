#include "AudioHeaders.h"

#include <array>

namespace kestrel::flowscope {
namespace {

using Bytes = std::span<const unsigned char>;

// A/52, table 5.8: full-bandwidth channels and name by acmod.
struct CodingMode {
    int channels;
    const char* name;
};
constexpr std::array<CodingMode, 8> CODING_MODES{
    {{2, "1+1"}, {1, "1/0"}, {2, "2/0"}, {3, "3/0"}, {3, "2/1"}, {4, "3/1"}, {4, "2/2"}, {5, "3/2"}}};
// A/52, table 5.18: nominal bit rate in kb/s by frmsizecod / 2.
constexpr std::array<int, 19> AC3_KBPS{32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                       192, 224, 256, 320, 384, 448, 512, 576, 640};
constexpr std::array<int, 3> AC3_HZ{48'000, 44'100, 32'000};
constexpr int AC3_SAMPLES = 1536;

void setCodingMode(AudioFormat& format, int acmod, bool lfe) {
    const CodingMode& mode = CODING_MODES[static_cast<std::size_t>(acmod)];
    format.channels = mode.channels;
    format.lowFrequency = lfe;
    format.mode = std::string(mode.name) + (lfe ? " LFE" : "");
}

// A/52, 5.3.2: lfeon follows acmod behind the mix levels that acmod calls for.
bool ac3LowFrequency(Bytes b, int acmod) {
    int bit = 3; // of byte 6, behind acmod
    if ((acmod & 1) != 0 && acmod != 1)
        bit += 2; // cmixlev
    if ((acmod & 4) != 0)
        bit += 2; // surmixlev
    if (acmod == 2)
        bit += 2; // dsurmod
    return (b[static_cast<std::size_t>(6 + bit / 8)] >> (7 - bit % 8) & 1) != 0;
}

std::optional<AudioFormat> readAc3(Bytes b) {
    if (b.size() < 8 || b[0] != 0x0B || b[1] != 0x77)
        return std::nullopt;
    const std::size_t rate = b[4] >> 6;
    const std::size_t size = (b[4] & 0x3F) / 2;
    if (b[5] >> 3 > 10 || rate >= AC3_HZ.size() || size >= AC3_KBPS.size())
        return std::nullopt;
    AudioFormat format;
    format.codec = AudioCodec::ac3;
    format.samplingRate = AC3_HZ[rate];
    format.bitRate = AC3_KBPS[size] * 1000;
    const int acmod = b[6] >> 5;
    setCodingMode(format, acmod, ac3LowFrequency(b, acmod));
    format.samples = AC3_SAMPLES;
    // At 44.1 kHz a frame has a fraction of words, and the low bit says which way it was rounded.
    format.frameBytes =
        static_cast<std::size_t>(std::int64_t{format.bitRate} * AC3_SAMPLES / format.samplingRate / 16 * 2);
    if (rate == 1 && (b[4] & 1) != 0)
        format.frameBytes += 2;
    return format;
}

// A/52, annex E, 2.3.1. Only independent substream 0 has the program's sound and time: the others either add
// channels to it or are programs of their own.
std::optional<AudioFormat> readEac3(Bytes b) {
    constexpr std::array<int, 4> BLOCKS{1, 2, 3, 6};
    constexpr std::array<int, 3> HALF_HZ{24'000, 22'050, 16'000};
    constexpr int DEPENDENT = 1;
    constexpr int RESERVED = 3;
    if (b.size() < 6 || b[0] != 0x0B || b[1] != 0x77 || b[5] >> 3 <= 10 || b[5] >> 3 > 16)
        return std::nullopt;
    const int type = b[2] >> 6; // strmtyp, then substreamid
    if (type == RESERVED)
        return std::nullopt;
    AudioFormat format;
    format.codec = AudioCodec::eac3;
    format.substream = type == DEPENDENT || (b[2] >> 3 & 7) != 0;
    format.frameBytes = static_cast<std::size_t>(((b[2] & 7) << 8 | b[3]) + 1) * 2;
    const std::size_t rate = b[4] >> 6;
    const std::size_t second = b[4] >> 4 & 3;
    if (rate == 3 && second == 3)
        return std::nullopt;
    format.samplingRate = rate == 3 ? HALF_HZ[second] : AC3_HZ[rate];
    format.samples = 256 * (rate == 3 ? 6 : BLOCKS[second]);
    setCodingMode(format, b[4] >> 1 & 7, (b[4] & 1) != 0);
    return format;
}

// ISO/IEC 11172-3, 2.4.2.3, in kb/s; index 0 is the free format.
constexpr int MPEG1_KBPS[3][15] = {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
                                   {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
                                   {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}};
// ISO/IEC 13818-3, 2.4.2.3: layer I, layers II and III.
constexpr int MPEG2_KBPS[2][15] = {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
                                   {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}};
constexpr std::array<int, 3> MPEG_HZ{44'100, 48'000, 32'000};

std::optional<AudioFormat> readMpeg(Bytes b) {
    if (b.size() < 4 || b[0] != 0xFF || (b[1] & 0xF0) != 0xF0)
        return std::nullopt;
    const bool mpeg1 = (b[1] & 8) != 0;
    const int layer = 4 - (b[1] >> 1 & 3); // 4: reserved
    const std::size_t rate = b[2] >> 4;
    const std::size_t sampling = b[2] >> 2 & 3;
    if (layer == 4 || rate == 0 || rate == 15 || sampling == 3)
        return std::nullopt;
    AudioFormat format;
    format.codec = AudioCodec::mpeg;
    format.layer = layer;
    format.samplingRate = MPEG_HZ[sampling] / (mpeg1 ? 1 : 2);
    format.bitRate = 1000 * (mpeg1 ? MPEG1_KBPS[layer - 1][rate] : MPEG2_KBPS[layer == 1 ? 0 : 1][rate]);
    constexpr const char* MODES[] = {"stereo", "joint stereo", "dual channel", "mono"};
    format.mode = MODES[b[3] >> 6];
    format.channels = b[3] >> 6 == 3 ? 1 : 2;
    const int padding = b[2] >> 1 & 1;
    format.samples = layer == 1 ? 384 : layer == 3 && !mpeg1 ? 576 : 1152;
    if (layer == 1)
        format.frameBytes =
            static_cast<std::size_t>((12 * format.bitRate / format.samplingRate + padding) * 4);
    else
        format.frameBytes =
            static_cast<std::size_t>(format.samples / 8 * format.bitRate / format.samplingRate + padding);
    return format;
}

std::optional<AudioFormat> readAac(Bytes b) {
    constexpr std::array<int, 13> HZ{96'000, 88'200, 64'000, 48'000, 44'100, 32'000, 24'000,
                                     22'050, 16'000, 12'000, 11'025, 8'000,  7'350};
    if (b.size() < 7 || b[0] != 0xFF || (b[1] & 0xF6) != 0xF0)
        return std::nullopt;
    const std::size_t sampling = b[2] >> 2 & 0xF;
    const int channels = (b[2] & 1) << 2 | b[3] >> 6;
    AudioFormat format;
    format.codec = AudioCodec::aac;
    format.frameBytes = static_cast<std::size_t>((b[3] & 3) << 11 | b[4] << 3 | b[5] >> 5);
    if (sampling >= HZ.size() || format.frameBytes < 7)
        return std::nullopt;
    format.samplingRate = HZ[sampling];
    format.samples = 1024 * ((b[6] & 3) + 1);
    // ISO/IEC 13818-7, table 42: 6 is 5.1, 7 is 7.1.
    constexpr const char* MODES[] = {"in program config", "1/0",    "2/0", "3/0", "3/1", "3/2",
                                     "3/2 LFE",           "5/2 LFE"};
    constexpr int CHANNELS[] = {0, 1, 2, 3, 4, 5, 5, 7};
    format.mode = MODES[channels];
    format.channels = CHANNELS[channels];
    format.lowFrequency = channels >= 6;
    return format;
}

} // namespace

std::optional<AudioFormat> readAudioFrame(AudioCodec codec, Bytes bytes) {
    switch (codec) {
    case AudioCodec::ac3:
    case AudioCodec::eac3: {
        // Either may be announced as the other; the frame knows.
        const auto format = readAc3(bytes);
        return format ? format : readEac3(bytes);
    }
    case AudioCodec::mpeg:
        return readMpeg(bytes);
    case AudioCodec::aac:
        return readAac(bytes);
    default:
        return std::nullopt;
    }
}

} // namespace kestrel::flowscope
