#include "SourceLeaps.h"

#include "mpeg/packet_view.h"

#include <algorithm>

namespace kestrel::capture {
void SourceLeaps::take(const unsigned char* packet, std::uint64_t offset) {
    const int number = ts::pid(packet);
    if (m_tables.carries(number) && !(packet[1] & 0x80) && m_tables.take(packet, 0) && m_pid >= 0 &&
        !m_tables.pcrPids().empty() && !m_tables.isPcr(m_pid))
        m_pid = -1;
    if (m_pid >= 0 && number != m_pid)
        return;
    const std::int64_t pcr = pcrOf(packet);
    if (pcr < 0 || (!m_tables.pcrPids().empty() && !m_tables.isPcr(number)))
        return;
    const Stretch before{m_pcrAt, offset};
    if (m_pid >= 0 && (pcrStep(m_pcr, pcr) < 0 || isDiscontinuity(packet)) && m_steps.size() < most) {
        m_steps.push_back(before);
        for (const Late& late : m_open)
            if (late.where.meets(before) && m_found.size() < most)
                m_found.push_back(late.leap);
        m_open.clear();
    }
    std::erase_if(m_open, [offset](const Late& late) { return late.where.to <= offset; });
    m_pid = number;
    m_pcr = pcr;
    m_pcrAt = offset;
}

void SourceLeaps::late(const Leap& leap, std::uint64_t from, std::uint64_t to) {
    if (m_found.size() >= most)
        return;
    const Stretch where{from, to};
    for (auto step = m_steps.rbegin(); step != m_steps.rend() && step->to > from; ++step)
        if (step->meets(where)) {
            m_found.push_back(leap);
            return;
        }
    if (m_pcrAt < to && m_open.size() < most)
        m_open.push_back({leap, where});
}

const std::vector<SourceLeaps::Leap>& SourceLeaps::found() {
    std::sort(m_found.begin(), m_found.end(),
              [](const Leap& one, const Leap& other) { return one.frame < other.frame; });
    return m_found;
}

} // namespace kestrel::capture
