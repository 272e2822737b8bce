#include "ReturnProbe.h"

#include <algorithm>

namespace kestrel::capture {

std::size_t ReturnProbe::take(const Packet& packet, Clock::time_point now, SourceLabels& labels) {
    std::size_t released = 0;
    if (m_analyzer.take(packet.data())) {
        count(m_analyzer.closedUnit(), now, labels);
        m_clock.openUnit();
        released = releasable();
        m_unitAt = m_held.size();
        m_unitOpen = true;
    }
    m_held.push_back({packet, now});
    count(m_analyzer.unit(), now, labels);
    if (m_unitOpen && m_analyzer.unit().known)
        released = std::max(released, settle(now));
    if (!m_pointHeld && (!m_unitOpen || m_held.size() - m_unitAt >= heldPackets))
        released = m_held.size();
    // So much that no recording could begin with it any more once the play-out begins, or once its rate
    // comes.
    if (m_held.size() >= heldGroupPackets && (!begun(now) || otherRate())) {
        released = m_held.size();
        m_pointHeld = false;
    }
    return released;
}

// Where no random access point is held, what lies before the current PES packet is of no use.
std::size_t ReturnProbe::releasable() noexcept {
    return m_pointHeld ? 0 : m_held.size();
}

std::size_t ReturnProbe::settle(Clock::time_point now) {
    m_unitOpen = false;
    if (!m_analyzer.unit().randomAccess || !m_analyzer.programKnown() ||
        (m_pointHeld && begun(now) && !m_pointOfOthers))
        return 0;
    m_pointHeld = true;
    m_pointOfOthers = otherRate();
    return m_unitAt;
}

bool ReturnProbe::otherRate() const noexcept {
    const int rate = m_analyzer.frameRateCode();
    return rate != 0 && m_sourceRateCode != 0 && rate != m_sourceRateCode;
}

void ReturnProbe::count(const VideoUnit& unit, Clock::time_point now, SourceLabels& labels) {
    const bool first = m_clock.unitFrames() == 0;
    if (m_clock.count(unit, m_analyzer.clock(), m_analyzer.frameRateCode()) == 0 || !first || otherRate())
        return;
    const auto label = m_labels.label(unit, m_analyzer.clock().elapsed(), m_analyzer.frameRateCode(),
                                      m_analyzer.codec(), now);
    if (!label || !unit.gopTimecode || m_confirmed)
        return;
    // The same frame has another label where frames are counted otherwise.
    if (m_begin && m_labels.rule().drop != tellsDropFrame(m_begin->text))
        return;
    const ReturnedLabel seen{*label, m_labels.shown(), m_clock.period(), {}};
    if (!begun(now)) {
        m_before = seen;
        return;
    }
    const auto tell = [&](ReturnedLabel one, Clock::duration since) {
        const auto begin = m_labels.rule().number(m_begin->text);
        one.frame = begin ? m_labels.rule().distance(*begin, one.frame) : -1;
        one.since = since;
        return labels.confirms(one);
    };
    if (m_before)
        m_confirmed = tell(*m_before, Clock::duration(-1));
    m_before.reset();
    m_confirmed = tell(seen, now - m_begin->at);
}

ReturnProbe::Verdict ReturnProbe::verdict(Clock::time_point now, const SourceLabels& labels) const {
    if (!m_pointHeld || !begun(now))
        return Verdict::open;
    // What an encoder sends until the source is there may have a rate of its own.
    if (otherRate())
        return now < m_begin->at + m_longestReturn ? Verdict::open : Verdict::otherRate;
    if (!m_useLabels)
        return Verdict::others;
    if (m_confirmed)
        return Verdict::theSources;
    if (now < m_begin->at + m_longestReturn && m_held.size() < heldGroupPackets)
        return Verdict::open;
    return labels.onlyOne() ? Verdict::theSources : Verdict::others;
}

void ReturnProbe::drop(std::size_t packets) {
    m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(packets));
    m_unitAt -= std::min(m_unitAt, packets);
}

std::optional<Clock::time_point> ReturnProbe::deadline() const {
    if (!m_pointHeld)
        return std::nullopt;
    return m_begin ? m_begin->at + m_longestReturn : Clock::time_point::max();
}

} // namespace kestrel::capture
