#include "jobs/RefusalDetail.h"

#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "jobs/CaptureJob.h"
#include "jobs/RequestValues.h"
#include "resources/ResourceMgr.h"
#include "timecode/frame_rates.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <system_error>

namespace kestrel {

namespace {

// Moves text behind the next what; false, and text as it was, when it has none.
bool skipTo(std::string_view& text, std::string_view what) {
    const std::size_t at = text.find(what);
    if (at == std::string_view::npos)
        return false;
    text.remove_prefix(at + what.size());
    return true;
}

// Which stream of the job's a text is about: what a job of two encoders says of one begins with its number
// ("Encoder 2: ").
std::string streamName(std::string_view beforeText, const CaptureJob& job) {
    constexpr std::string_view NUMBERED = "Encoder ";
    std::size_t number = job.encoders.size() == 1 ? 1 : 0;
    if (const std::size_t at = beforeText.rfind(NUMBERED); at != std::string_view::npos)
        std::from_chars(beforeText.data() + at + NUMBERED.size(), beforeText.data() + beforeText.size(),
                        number);
    if (number < 1 || number > job.encoders.size())
        return "the stream";
    unsigned long address = 0;
    ResourceMgr::GetResourceMgrInst()->withRecords([&] { address = job.encoders[number - 1]->address; });
    return "the stream of encoder " + addressText(address);
}

// "Error: Invalid Duration %s for rate_code %d and drop frame %d."
std::string durationDetail(std::string_view results, const CaptureJob& job) {
    const std::string_view whole = results;
    constexpr std::string_view BEGINNING = "Error: Invalid Duration ";
    constexpr std::string_view BEFORE_CODE = " for rate_code ";
    if (!skipTo(results, BEGINNING))
        return {};
    const std::string_view before = whole.substr(0, whole.size() - results.size() - BEGINNING.size());
    const std::string duration(results.substr(0, results.find(BEFORE_CODE)));
    int code = 0;
    if (!skipTo(results, BEFORE_CODE) ||
        std::from_chars(results.data(), results.data() + results.size(), code).ec != std::errc())
        return {};
    const std::string text = "Duration: \"" + duration + "\" ";
    const FrameRate* const rate = findFrameRate(code);
    if (rate == nullptr)
        return text +
               "is not of the form hh:mm:ss:ff, two digits each (of the hours two or three), with minutes, "
               "seconds and frames up to 59; no stream was looked at.";
    char numbers[120];
    formatText(numbers, " has %.6g frames a second, so the last part goes from 00 to %02d.", rate->fps,
               rate->labelsPerSecond - 1);
    return text + "has no such frame: " + streamName(before, job) + numbers;
}

// Of a relative name the whole path, in brackets: the worker has the service's working directory.
std::string fullName(const std::filesystem::path& file) {
    std::error_code failed;
    const std::filesystem::path directory = std::filesystem::current_path(failed);
    return failed || file.is_absolute() ? std::string() : "(" + (directory / file).string() + ") ";
}

// "Error: Invalid filename. (%s)": which file is meant stands behind the text, and is not always the first
// encoder's.
std::string filenameDetail(std::string_view behindText, const char* outputFile) {
    std::string file = outputFile;
    const std::size_t end = behindText.rfind(')');
    if (behindText.starts_with(" (") && end != std::string_view::npos)
        file = behindText.substr(2, end - 2);
    const std::string text = "Filename: \"" + file + "\" " + fullName(file);
    struct stat found {};
    if (file.ends_with('/'))
        return text + "ends in a slash: the name of the file is missing.";
    if (stat(file.c_str(), &found) != 0)
        // One that does not exist yet is what is expected of an output.
        return errno == ENOENT ? std::string()
                               : text + "cannot be looked at: errno " + std::to_string(errno) + " (" +
                                     std::strerror(errno) + ").";
    return S_ISDIR(found.st_mode) ? text + "is a directory, not a file." : std::string();
}

} // namespace

std::string refusalDetail(std::string_view results, const CaptureJob& job) {
    std::string_view behindText = results;
    if (job.outputFile != nullptr && skipTo(behindText, LOG_MSG(error::invalidFilename)))
        return filenameDetail(behindText, job.outputFile);
    return durationDetail(results, job);
}

} // namespace kestrel
