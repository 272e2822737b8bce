#include "NormalizeSession.h"

#include "OutputNames.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>

namespace kestrel::capture {

MaybeFailure NormalizeSession::start() {
    const CSettings& settings = m_context.settings;
    NormalizePlan plan;
    plan.source = settings.cmd.sourceFile;
    plan.output = outputPath(settings.cmd.outputFile, settings.encoders[0].mainCaptureDirectory);
    plan.mainDirectory = settings.encoders[0].mainCaptureDirectory;
    plan.lockDirectory = settings.encoders[0].lockMainCaptureDirectory;
    plan.overwrite = m_context.options.overwrite;
    plan.keepNulls = m_context.options.keepNulls;
    m_lastStatus = Clock::now();
    return m_work.emplace(std::move(plan), m_context.wake).start();
}

void NormalizeSession::sendStatus() {
    const NormalizeStatus status = m_work->status();
    const Clock::time_point now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - m_lastStatus).count();
    m_lastStatus = now;
    _CaptureJobStatusData record{};
    record.frames = static_cast<std::uint32_t>(status.frames);
    // Before the rate is known there is nothing to count; 25 is a code the service can print 0 with.
    record.frameRateCode = static_cast<std::uint32_t>(status.frameRateCode != 0 ? status.frameRateCode : 3);
    record.dropFrame = mpeg_timecode::frameRateCodeToDropFrame(static_cast<int>(record.frameRateCode));
    record.statusNumber1 =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(status.continuityErrors, UINT32_MAX));
    record.statusNumber2 = status.bytes;
    if (seconds > 0)
        record.statusNumber3 =
            static_cast<std::uint64_t>(static_cast<double>(status.bytes - m_lastBytes) * 8 / seconds);
    m_lastBytes = status.bytes;
    m_context.link.sendStatus(record);
}

Outcome NormalizeSession::end() {
    m_work->cancel();
    m_work->join();
    const NormalizeStatus status = m_work->status();
    return {status.succeeded, status.text};
}

} // namespace kestrel::capture
