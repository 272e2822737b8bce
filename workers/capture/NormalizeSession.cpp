#include "NormalizeSession.h"

#include "OutputNames.h"

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
    m_meter.start(Clock::now());
    return m_work.emplace(std::move(plan), m_context.wake).start();
}

void NormalizeSession::sendStatus() {
    const NormalizeStatus status = m_work->status();
    m_context.link.sendStatus(m_meter.record(
        0, {status.frames, status.frameRateCode, status.continuityErrors, status.bytes}, Clock::now()));
}

Outcome NormalizeSession::end() {
    m_work->cancel();
    m_work->join();
    const NormalizeStatus status = m_work->status();
    return {status.succeeded, status.text};
}

} // namespace kestrel::capture
