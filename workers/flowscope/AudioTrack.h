// One audio stream of the asset.
#pragma once

#include "AudioHeaders.h"
#include "mpeg/pts.h"

#include <array>
#include <cstdint>
#include <span>

namespace kestrel::flowscope {

// Finds the frames, whatever way their bytes are cut into packets, and adds up what they say.
class AudioTrack {
public:
    explicit AudioTrack(AudioCodec codec) : m_codec(codec) {}

    // A PES packet begins with that time; the next bytes of the elementary stream.
    void stamp(PTS pts);
    void feed(std::span<const unsigned char> bytes);
    // Bytes were lost.
    void skip() { m_headerLength = m_left = 0; }

    // Of the first frame; codec unknown while there is none.
    [[nodiscard]] const AudioFormat& format() const noexcept { return m_format; }
    // The codec of the frames, else the one announced.
    [[nodiscard]] AudioCodec codec() const noexcept {
        return m_format.codec == AudioCodec::unknown ? m_codec : m_format.codec;
    }
    // What the frames say, or what they come to.
    [[nodiscard]] double bitsPerSecond() const noexcept;
    [[nodiscard]] std::uint64_t frames() const noexcept { return m_frames; }
    [[nodiscard]] PTS firstPts() const noexcept { return m_firstPts; }
    [[nodiscard]] PTS lastPts() const noexcept { return m_lastPts; }
    // Frames that another format than the first one's.
    [[nodiscard]] std::uint64_t formatChanges() const noexcept { return m_changes; }

private:
    void takeHeader();

    AudioCodec m_codec;
    AudioFormat m_format;
    PTS m_firstPts{-1};
    PTS m_lastPts{-1};
    std::uint64_t m_frames = 0;
    std::uint64_t m_bytes = 0; // of whole frames
    std::uint64_t m_changes = 0;
    std::array<unsigned char, audioHeaderBytes> m_header{};
    std::size_t m_headerLength = 0;
    std::size_t m_left = 0; // of the frame that is being passed over
};

} // namespace kestrel::flowscope
