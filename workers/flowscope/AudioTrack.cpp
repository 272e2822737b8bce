#include "AudioTrack.h"

#include <algorithm>

namespace kestrel::flowscope {

void AudioTrack::stamp(PTS pts) {
    if (pts.is_absent())
        return;
    if (m_firstPts.is_absent())
        m_firstPts = pts;
    m_lastPts = pts;
}

void AudioTrack::feed(std::span<const unsigned char> bytes) {
    while (!bytes.empty()) {
        if (m_left > 0) {
            const std::size_t count = std::min(m_left, bytes.size());
            m_left -= count;
            bytes = bytes.subspan(count);
            continue;
        }
        m_header[m_headerLength++] = bytes.front();
        bytes = bytes.subspan(1);
        if (m_headerLength == m_header.size())
            takeHeader();
    }
}

void AudioTrack::takeHeader() {
    const auto frame = readAudioFrame(m_codec, m_header);
    if (!frame || frame->frameBytes <= m_header.size()) {
        // No frame begins here: on by one byte.
        std::copy(m_header.begin() + 1, m_header.end(), m_header.begin());
        --m_headerLength;
        return;
    }
    if (m_frames == 0)
        m_format = *frame;
    else if (frame->samplingRate != m_format.samplingRate || frame->allChannels() != m_format.allChannels())
        ++m_changes;
    ++m_frames;
    m_bytes += frame->frameBytes;
    m_left = frame->frameBytes - m_header.size();
    m_headerLength = 0;
}

double AudioTrack::bitsPerSecond() const noexcept {
    if (m_format.bitRate != 0)
        return m_format.bitRate;
    if (m_frames == 0 || m_format.samples == 0)
        return 0;
    const double seconds = static_cast<double>(m_frames) * m_format.samples / m_format.samplingRate;
    return static_cast<double>(m_bytes) * 8 / seconds;
}

} // namespace kestrel::flowscope
