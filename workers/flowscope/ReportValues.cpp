#include "ReportValues.h"

#include "capture/Failure.h"
#include "timecode/mpeg_timecode.h"

#include <cmath>

namespace kestrel::flowscope {

using capture::format;

std::string rateText(double framesPerSecond) {
    if (framesPerSecond <= 0)
        return {};
    // Three places at most, without zeros at the end: 29.97, 23.976, 25.
    std::string text = format("%.3f", framesPerSecond);
    while (text.back() == '0')
        text.pop_back();
    if (text.back() == '.')
        text.pop_back();
    return text;
}

std::string bitRateText(double bitsPerSecond) {
    return bitsPerSecond <= 0 ? "" : format("%.0f", bitsPerSecond);
}

std::string durationText(const Analysis& analysis) {
    const int code = analysis.video() == nullptr ? 0 : analysis.video()->format().rateCode();
    if (code == 0)
        return {};
    const bool drop = analysis.video()->dropFrame();
    const std::int64_t day = mpeg_timecode::rollover_frames_count(drop, code);
    const std::int64_t frames = analysis.videoFrames();
    mpeg_timecode label = mpeg_timecode::from_frames(static_cast<int>(frames % day), drop, code);
    return (frames >= day ? std::to_string(frames / day) + "d " : "") + label.windows_string();
}

std::string timecodeText(const Analysis& analysis) {
    if (analysis.video() == nullptr || !analysis.video()->firstTimecode())
        return {};
    const int code = analysis.video()->format().rateCode();
    if (code == 0)
        return {};
    mpeg_timecode first = mpeg_timecode::parse_GOP(*analysis.video()->firstTimecode(), code);
    return first.windows_string();
}

bool clean(const Analysis& analysis) {
    return analysis.findings().empty();
}

std::string summary(const Analysis& analysis) {
    const VideoFormat& video = analysis.video()->format();
    return format("%lld frames, %s, %dx%d at %s, %zu audio, ", static_cast<long long>(analysis.videoFrames()),
                  durationText(analysis).c_str(), video.width, video.height, rateText(video.rate()).c_str(),
                  analysis.audios().size()) +
           (clean(analysis) ? "no findings" : format("%zu findings", analysis.findings().first().size()));
}

} // namespace kestrel::flowscope
