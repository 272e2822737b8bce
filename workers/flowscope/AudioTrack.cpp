#include "AudioTrack.h"

#include "ClockTurns.h"

#include <algorithm>

namespace kestrel::flowscope {
namespace {

bool sameKind(const AudioFormat& a, const AudioFormat& b) {
    return a.codec == b.codec && a.layer == b.layer;
}

} // namespace

std::optional<double> AudioTrack::stamp(PTS pts, const Place& place) {
    if (pts.is_absent())
        return std::nullopt;
    if (m_firstPts.is_absent())
        m_firstPts = pts;
    // The time is that of the first frame that begins in this packet (2.4.3.7). Where a header is cut in two,
    // it cannot be told yet whether its frame has a time of its own.
    std::optional<double> departure;
    if (place.known && m_lastPlace && m_lastPlace->known && m_lastPlace->skips == place.skips)
        departure = kestrel::flowscope::seconds(pts - m_lastPts) - (place.seconds - m_lastPlace->seconds);
    m_lastPlace = place;
    m_lastPts = pts;
    return departure;
}

void AudioTrack::skip() {
    m_inStep = false;
    m_headerLength = m_left = 0;
    m_sought.clear();
    ++m_skips;
}

void AudioTrack::feed(std::span<const unsigned char> bytes) {
    if (m_inStep)
        bytes = pass(bytes);
    if (bytes.empty())
        return;
    m_sought.insert(m_sought.end(), bytes.begin(), bytes.end());
    while (!m_inStep && seek()) {
        std::vector<unsigned char> found;
        found.swap(m_sought);
        const auto rest = pass(found);
        m_sought.insert(m_sought.end(), rest.begin(), rest.end());
    }
}

void AudioTrack::end() {
    // The last frame has no other behind it, and may be the only one.
    for (std::size_t at = 0; !m_inStep && m_sought.size() - at >= audioHeaderBytes; ++at) {
        const auto frame = readAudioFrame(m_codec, std::span(m_sought).subspan(at, audioHeaderBytes));
        if (frame && mayBegin(*frame) && at + frame->frameBytes == m_sought.size()) {
            count(*frame);
            break;
        }
    }
    m_sought.clear();
}

// Whether a frame can be the first in a row: never another kind than the track's first.
bool AudioTrack::mayBegin(const AudioFormat& frame) const {
    return frame.frameBytes > audioHeaderBytes && !frame.substream &&
           (m_frames == 0 || sameKind(frame, m_format));
}

// Drops what comes before the first of two frames in a row; false when there is none yet.
bool AudioTrack::seek() {
    const std::span<const unsigned char> bytes(m_sought);
    std::size_t at = 0;
    for (; bytes.size() - at >= audioHeaderBytes; ++at) {
        const auto first = readAudioFrame(m_codec, bytes.subspan(at, audioHeaderBytes));
        if (!first || !mayBegin(*first))
            continue;
        if (bytes.size() - at < first->frameBytes + audioHeaderBytes)
            break;
        const auto next = readAudioFrame(m_codec, bytes.subspan(at + first->frameBytes, audioHeaderBytes));
        if (next && next->frameBytes > audioHeaderBytes && next->samplingRate == first->samplingRate &&
            (next->substream || sameKind(*first, *next))) {
            m_inStep = true;
            break;
        }
    }
    m_sought.erase(m_sought.begin(), m_sought.begin() + static_cast<std::ptrdiff_t>(at));
    return m_inStep;
}

// Passes over frame after frame; returns what is left when one does not follow.
std::span<const unsigned char> AudioTrack::pass(std::span<const unsigned char> bytes) {
    while (!bytes.empty()) {
        if (m_left > 0) {
            const std::size_t passed = std::min(m_left, bytes.size());
            m_left -= passed;
            bytes = bytes.subspan(passed);
            continue;
        }
        m_header[m_headerLength++] = bytes.front();
        bytes = bytes.subspan(1);
        if (m_headerLength == m_header.size() && !takeHeader())
            break;
    }
    return bytes;
}

bool AudioTrack::takeHeader() {
    const auto frame = readAudioFrame(m_codec, m_header);
    m_headerLength = 0;
    if (frame && frame->frameBytes > m_header.size() &&
        (frame->substream || m_frames == 0 || sameKind(*frame, m_format))) {
        count(*frame);
        m_left = frame->frameBytes - m_header.size();
        return true;
    }
    ++m_breaks;
    skip();
    m_sought.assign(m_header.begin(), m_header.end());
    return false;
}

void AudioTrack::count(const AudioFormat& frame) {
    m_bytes += frame.frameBytes;
    if (frame.substream)
        return;
    if (m_frames == 0)
        m_format = frame;
    else if (frame.samplingRate != m_format.samplingRate || frame.allChannels() != m_format.allChannels())
        ++m_changes;
    ++m_frames;
    m_seconds += static_cast<double>(frame.samples) / frame.samplingRate;
}

double AudioTrack::bitsPerSecond() const noexcept {
    if (m_format.bitRate != 0)
        return m_format.bitRate;
    return m_seconds <= 0 ? 0 : static_cast<double>(m_bytes) * 8 / m_seconds;
}

} // namespace kestrel::flowscope
