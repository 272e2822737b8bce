#include "CaptureSession.h"
#include "NormalizeSession.h"
#include "ReencodeSession.h"
#include "Session.h"
#include "VtrSession.h"
#include "foundation/ErrorCodes.h"

#include <array>

namespace kestrel::capture {
namespace {

using Maker = std::unique_ptr<Session> (*)(const SessionContext&);

template <typename Kind>
std::unique_ptr<Session> make(const SessionContext& context) {
    return std::make_unique<Kind>(context);
}

// In the order of CSettings::JobType; null: not a job of this worker.
constexpr std::array<Maker, CSettings::JOB_NONE + 1> makers = {
    &make<VtrSession>,       // JOB_VTR
    &make<CaptureSession>,   // JOB_MANUAL
    &make<CaptureSession>,   // JOB_TIMED
    &make<ReencodeSession>,  // JOB_TIMED_REENCODE
    nullptr,                 // JOB_SCHEDULED: written as JOB_TIMED
    &make<ReencodeSession>,  // JOB_MEZZANINE
    &make<CaptureSession>,   // JOB_ROLLING
    &make<NormalizeSession>, // JOB_MPEG_NORMALIZE
    nullptr,                 // JOB_NONE
};
static_assert(CSettings::JOB_VTR == 0 && CSettings::JOB_NONE == 8);

} // namespace

std::unique_ptr<Session> makeSession(const SessionContext& context, MaybeFailure& failed) {
    const int type = context.settings.cmd.jobType;
    const bool known = type >= 0 && static_cast<std::size_t>(type) < makers.size();
    if (known && makers[static_cast<std::size_t>(type)])
        return makers[static_cast<std::size_t>(type)](context);
    failed = detailed(failure(error::unknownCaptureMode, type), "this worker has no such job");
    return nullptr;
}

} // namespace kestrel::capture
