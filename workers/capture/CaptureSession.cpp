#include "CaptureSession.h"

#include "foundation/Logger.h"

#include <algorithm>
#include <ctime>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

CaptureMode modeOf(int jobType) {
    switch (jobType) {
    case CSettings::JOB_TIMED:
        return CaptureMode::timed;
    case CSettings::JOB_ROLLING:
        return CaptureMode::rolling;
    default:
        return CaptureMode::manual;
    }
}

// A rolling capture that does not start now starts at the next whole multiple of its segments' length since
// local midnight, so that segments begin on the hour, the quarter and so on.
Clock::time_point rollingBegin(int minutes) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const int length = std::max(minutes, 1) * 60;
    const int sinceMidnight = local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
    const int wait = std::min(length - sinceMidnight % length, 86400 - sinceMidnight);
    return Clock::now() + std::chrono::seconds(wait);
}

} // namespace

MaybeFailure CaptureSession::start() {
    const CSettings::CmdParams& job = m_context.settings.cmd;
    RecordingPlan plan;
    plan.mode = modeOf(job.jobType);
    plan.duration = job.duration;
    plan.rollingMinutes = job.rollingDurationMin;
    if (plan.mode == CaptureMode::rolling && !job.rollingStartNow) {
        plan.begin = rollingBegin(plan.rollingMinutes);
        LogUtil::Info(module, "Recording starts in %.0f s",
                      std::chrono::duration<double>(plan.begin - Clock::now()).count());
    }
    if (auto failed = m_encoders.open(m_context.settings, m_context.map, plan))
        return failed;
    return m_encoders.start();
}

Outcome CaptureSession::end() {
    m_encoders.stop();
    m_encoders.join();
    return m_encoders.outcome();
}

} // namespace kestrel::capture
