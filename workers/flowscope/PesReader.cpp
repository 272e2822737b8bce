#include "PesReader.h"

#include "mpeg/mpeg2.h"

#include <algorithm>

namespace kestrel::flowscope {
namespace {

constexpr std::size_t FIXED = 9; // up to PES_header_data_length

} // namespace

void PesReader::begin() {
    m_length = 0;
    m_state = State::header;
}

bool PesReader::takeHeader(std::span<const unsigned char>& bytes) {
    while (m_state == State::header && !bytes.empty()) {
        const std::size_t wanted = m_length < FIXED ? FIXED : FIXED + m_header[8];
        const std::size_t count = std::min(wanted - m_length, bytes.size());
        std::copy_n(bytes.begin(), count, m_header.begin() + static_cast<std::ptrdiff_t>(m_length));
        m_length += count;
        bytes = bytes.subspan(count);
        if (m_length < FIXED || m_length < FIXED + m_header[8])
            continue;
        const bool prefix = m_header[0] == 0 && m_header[1] == 0 && m_header[2] == 1;
        m_state = prefix ? State::data : State::behindLoss;
        return prefix;
    }
    return false;
}

int PesReader::timeFlags() const {
    constexpr int BOTH = 3;
    const int flags = m_header[7] >> 6;
    return flags < 2 || m_length < (flags == BOTH ? 19U : 14U) ? 0 : flags;
}

PTS PesReader::pts() const {
    return timeFlags() == 0 ? PTS() : MPEG::PES::get_PTS(m_header.data());
}

PTS PesReader::dts() const {
    return timeFlags() == 3 ? MPEG::PES::get_DTS(m_header.data()) : pts();
}

} // namespace kestrel::flowscope
