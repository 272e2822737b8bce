// The frame headers of the audio codings that transport streams carry.
#pragma once

#include <optional>
#include <span>
#include <string>

namespace kestrel::flowscope {

// A coding of sound; unknown: one that is not looked into.
enum class AudioCodec { unknown, ac3, eac3, mpeg, aac };

// What one frame says of its stream.
struct AudioFormat {
    AudioCodec codec = AudioCodec::unknown;
    std::string mode; // "2/0", "3/2", "stereo", ...
    int channels = 0; // full-bandwidth ones
    bool lowFrequency = false;
    int samplingRate = 0; // Hz
    int bitRate = 0;      // bits per second; 0 where the frame does not say
    std::size_t frameBytes = 0;
    int samples = 0; // of one frame, a channel
    int layer = 0;   // of MPEG audio, 1 to 3
    bool substream =
        false; // E-AC-3 that goes with another frame, or belongs to another program: no time of its own

    [[nodiscard]] int allChannels() const noexcept { return channels + (lowFrequency ? 1 : 0); }
};

// The frame that begins at the first byte; nothing when none does, or when the header is cut.
//   AC-3 and E-AC-3: ATSC A/52, 5.3 and annex E; MPEG audio: ISO/IEC 11172-3, 2.4.1.3 and 13818-3;
//   AAC: ADTS, ISO/IEC 13818-7, 6.2
std::optional<AudioFormat> readAudioFrame(AudioCodec codec, std::span<const unsigned char> bytes);

// Bytes that a header has at most.
inline constexpr std::size_t audioHeaderBytes = 8;

} // namespace kestrel::flowscope
