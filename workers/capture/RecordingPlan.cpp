#include "RecordingPlan.h"

#include "CaptureDuration.h"
#include "MarkedRange.h"
#include "OutputNames.h"
#include "foundation/ErrorCodes.h"
#include "foundation/FileUtil.h"
#include "foundation/Logger.h"

#include <filesystem>
#include <system_error>

namespace kestrel::capture {
namespace {

// Whether a file lies in a directory or below, with links and ".." resolved as far as the path exists.
bool liesWithin(const std::string& file, const std::string& directory) {
    std::error_code failed;
    const auto resolve = [&failed](const std::filesystem::path& path) {
        auto resolved = std::filesystem::weakly_canonical(std::filesystem::absolute(path, failed), failed);
        return resolved.has_filename() ? resolved : resolved.parent_path();
    };
    const std::filesystem::path inner = resolve(file);
    const std::filesystem::path outer = resolve(directory);
    if (failed)
        return false;
    const std::filesystem::path relative = inner.lexically_relative(outer);
    return !relative.empty() && *relative.begin() != "..";
}

} // namespace

MaybeFailure checkOutput(const RecordingPlan& plan) {
    if (plan.output.empty())
        return failure(error::outputFileNotSpecified);
    if (plan.lockDirectory && !plan.mainDirectory.empty() && !liesWithin(plan.output, plan.mainDirectory))
        return detailed(failure(error::pathNotAllowed), plan.output + " is outside " + plan.mainDirectory);
    if (plan.output.back() == '/' || cFileUtil::IsDirectory(plan.output.c_str()))
        return detailed(failure(error::invalidFilename), plan.output);
    const std::filesystem::path directory = std::filesystem::path(plan.output).parent_path();
    std::error_code failed;
    // By any of its names: a link to the source is the source.
    if (!plan.source.empty() && std::filesystem::equivalent(plan.source, plan.output, failed))
        return detailed(failure(error::invalidPathAndFile), "the output file is the source file");
    if (!directory.empty() && !std::filesystem::is_directory(directory, failed)) {
        std::filesystem::create_directories(directory, failed);
        if (failed)
            return detailed(failure(error::outputFileNotOpened, plan.output.c_str()),
                            "directory " + directory.string() + ": " + errnoText(failed.value()));
        // A disk that is not mounted is seen by this alone.
        LogUtil::Warning("Capture", "The directory %s was not there and has been made",
                         absolutePath(directory.string()).c_str());
    }
    if (plan.mode != CaptureMode::rolling && !plan.overwrite && cFileUtil::FileExists(plan.output.c_str()))
        return detailed(failure(error::fileAlreadyExists), plan.output);
    return std::nullopt;
}

MaybeFailure checkPlan(const RecordingPlan& plan) {
    if (plan.output.empty())
        return failure(error::outputFileNotSpecified);
    if (plan.mode == CaptureMode::rolling && plan.rollingMinutes < 1)
        return failure(error::invalidRollingDuration, plan.rollingMinutes);
    if (plan.mode == CaptureMode::timed && plan.wantedFrames == 0) {
        CaptureDuration duration;
        if (auto failed = duration.set(plan.duration))
            return failed;
    }
    if (plan.mode == CaptureMode::marks)
        if (auto failed = MarkedRange::check(plan.markIn, plan.markOut))
            return failed;
    return checkOutput(plan);
}

} // namespace kestrel::capture
