#include "foundation/Logger.h"
#include "mpeg/mpeg.h"

#include <cstdio>

namespace ts = kestrel::ts;

namespace {

constexpr const char* module_name = "mpegParseLib";

} // namespace

continuity_nazi::continuity_nazi() {
    m_counters.fill(unseen);
}

bool continuity_nazi::packetIsCool(const unsigned char* packet, bool verbose) {
    const int pid = ts::pid(packet);
    if (pid == ts::null_pid)
        return true;

    signed char& last = m_counters[static_cast<std::size_t>(pid)];
    const int actual = getCounter(packet);
    if (last == unseen) {
        last = static_cast<signed char>(actual);
        return true;
    }
    // A packet without payload repeats the counter (ISO/IEC 13818-1, 2.4.3.3).
    const int predicted = (last + (ts::has_payload(packet) ? 1 : 0)) & 0x0F;
    last = static_cast<signed char>(actual);
    if (verbose && !LogUtil::IsFiltered(module_name, BaseLogger::Debug)) {
        LogUtil::Debug(module_name, "PredictCC = %d", predicted);
        LogUtil::Debug(module_name, "CC = %d", actual);
    }
    if (predicted == actual)
        return true;

    if (verbose)
        LogUtil::Info(module_name, "ContinuityNazi: error in countinuity counter!");
    std::snprintf(m_message, sizeof m_message, "expected %d not %d : PID %d", predicted, actual, pid);
    return false;
}

std::map<int, int> continuity_nazi::counters() const {
    std::map<int, int> seen;
    for (int pid = 0; pid < ts::pid_count; ++pid)
        if (const signed char last = m_counters[static_cast<std::size_t>(pid)]; last != unseen)
            seen.emplace_hint(seen.end(), pid, last);
    return seen;
}
