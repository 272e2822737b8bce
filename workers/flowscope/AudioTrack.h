// One audio stream of the asset.
#pragma once

#include "AudioHeaders.h"
#include "mpeg/pts.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kestrel::flowscope {

// Finds the frames, whatever way their bytes are cut into packets, and adds up what they say. Bytes that look
// like a header may be sound: the first frame, and the first after bytes were lost, counts only where another
// frame follows it.
class AudioTrack {
public:
    explicit AudioTrack(AudioCodec codec) : m_codec(codec) {}

    // Where a time stands between the frames.
    struct Place {
        double seconds;      // that the frames before it last
        bool known;          // it is that of the next frame
        std::uint64_t skips; // so often bytes were lost before it
    };
    [[nodiscard]] Place place() const noexcept {
        return {m_seconds, m_inStep && m_headerLength == 0, m_skips};
    }
    // A PES packet begins with that time, or began with it there. Returns by how many seconds it departs from
    // where the frames since the last such time have come; nothing where that is not known.
    std::optional<double> stamp(PTS pts) { return stamp(pts, place()); }
    std::optional<double> stamp(PTS pts, const Place& place);
    // The only time so far was wrong: it should have been that.
    void correctFirst(PTS pts) noexcept { m_firstPts = m_lastPts = pts; }
    // The next bytes of the elementary stream.
    void feed(std::span<const unsigned char> bytes);
    // Bytes were lost.
    void skip();
    // No more bytes come.
    void end();

    // Of the first frame; codec unknown while there is none.
    [[nodiscard]] const AudioFormat& format() const noexcept { return m_format; }
    // The codec of the frames, else the one announced.
    [[nodiscard]] AudioCodec codec() const noexcept {
        return m_format.codec == AudioCodec::unknown ? m_codec : m_format.codec;
    }
    // What the frames say, or what they come to.
    [[nodiscard]] double bitsPerSecond() const noexcept;
    [[nodiscard]] std::uint64_t frames() const noexcept { return m_frames; }
    // That the frames last.
    [[nodiscard]] double seconds() const noexcept { return m_seconds; }
    // Absent without any time.
    [[nodiscard]] PTS firstPts() const noexcept { return m_firstPts; }
    [[nodiscard]] PTS lastPts() const noexcept { return m_lastPts; }
    // Frames of another sampling rate or number of channels than the first.
    [[nodiscard]] std::uint64_t formatChanges() const noexcept { return m_changes; }
    // Places where a frame was not followed by another although no packet was missing.
    [[nodiscard]] std::uint64_t breaks() const noexcept { return m_breaks; }

private:
    [[nodiscard]] bool mayBegin(const AudioFormat& frame) const;
    std::span<const unsigned char> pass(std::span<const unsigned char> bytes);
    bool seek();
    bool takeHeader();
    void count(const AudioFormat& frame);

    AudioCodec m_codec;
    AudioFormat m_format;
    PTS m_firstPts{-1};
    PTS m_lastPts{-1};
    std::optional<Place> m_lastPlace; // of the last time
    std::uint64_t m_skips = 0;
    std::uint64_t m_frames = 0;
    std::uint64_t m_bytes = 0; // of whole frames
    double m_seconds = 0;
    std::uint64_t m_changes = 0;
    std::uint64_t m_breaks = 0;
    // Where one frame follows the other: the header that is being read, and what is left of its frame.
    bool m_inStep = false;
    std::array<unsigned char, audioHeaderBytes> m_header{};
    std::size_t m_headerLength = 0;
    std::size_t m_left = 0;
    // While two frames in a row are sought: at most one frame and two headers, and what was fed last.
    std::vector<unsigned char> m_sought;
};

} // namespace kestrel::flowscope
