#include "ContinuityLog.h"

#include "CountedNoun.h"

#include "foundation/Logger.h"

#include <cinttypes>

namespace kestrel::capture {

void ContinuityLog::check(const unsigned char* packet, std::uint64_t index, Clock::time_point now) {
    if (m_checker.packetIsCool(packet, false))
        return;
    ++m_errors;
    tick(now);
    if (m_lines == 0)
        m_second = now;
    if (m_lines >= continuityLinesPerSecond) {
        ++m_unlogged;
        return;
    }
    ++m_lines;
    LogUtil::Error("Capture", "%s: continuity error at packet %" PRIu64 ": %s", m_name.c_str(), index,
                   m_checker.message());
}

void ContinuityLog::tick(Clock::time_point now) {
    if (m_lines == 0 || now - m_second < std::chrono::seconds(1))
        return;
    if (m_unlogged != 0)
        LogUtil::Error("Capture", "%s: %s within that second", m_name.c_str(),
                       counted(m_unlogged, "more continuity error").c_str());
    m_lines = 0;
    m_unlogged = 0;
}

} // namespace kestrel::capture
