#include "ReportValues.h"

#include "capture/Failure.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
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

namespace {

std::string label(std::int64_t hours, std::int64_t minutes, std::int64_t seconds, std::int64_t frames) {
    return format("%02lld:%02lld:%02lld:%02lld", static_cast<long long>(hours),
                  static_cast<long long>(minutes), static_cast<long long>(seconds),
                  static_cast<long long>(frames));
}

// Of a day that has as many labels a second as the rate has frames, rounded: for rates without a code.
std::string plainLabel(std::int64_t frames, std::int64_t perSecond) {
    const std::int64_t seconds = frames / perSecond;
    return label(seconds / 3600, seconds / 60 % 60, seconds % 60, frames % perSecond);
}

std::string days(std::int64_t count) {
    return count == 0 ? "" : std::to_string(count) + "d ";
}

} // namespace

std::string durationText(const Analysis& analysis) {
    if (analysis.video() == nullptr || analysis.video()->format().rate() <= 0)
        return {};
    const std::int64_t frames = analysis.videoFrames();
    const int code = analysis.video()->format().rateCode();
    if (code == 0) {
        const std::int64_t perSecond = std::max(1LL, std::llround(analysis.video()->format().rate()));
        const std::int64_t day = 86'400 * perSecond;
        return days(frames / day) + plainLabel(frames % day, perSecond);
    }
    const bool drop = analysis.video()->dropFrame();
    const std::int64_t day = mpeg_timecode::rollover_frames_count(drop, code);
    return days(frames / day) +
           mpeg_timecode::from_frames(static_cast<int>(frames % day), drop, code).windows_string();
}

std::string timecodeText(const Analysis& analysis) {
    if (analysis.video() == nullptr || !analysis.video()->firstTimecode())
        return {};
    // Of any rate: the label is shown as it is coded.
    const int packed = *analysis.video()->firstTimecode();
    const int code = analysis.video()->format().rateCode();
    return mpeg_timecode::parse_GOP(packed, code != 0 ? code : 3).windows_string();
}

std::string encodingText(const Analysis& analysis) {
    return analysis.video()->codec() == VideoCodec::mpeg2 ? "MPEG2" : "H.264";
}

std::string audioTypeText(const Analysis& analysis, const Analysis::Audio& audio) {
    for (const StreamEntry& stream : analysis.asset()->streams)
        if (stream.pid == audio.pid)
            return stream.description;
    return {};
}

bool clean(const Analysis& analysis) {
    return analysis.findings().empty();
}

std::string findingsText(const Analysis& analysis) {
    const auto total = static_cast<unsigned long long>(analysis.findings().total());
    return total == 0 ? "no findings" : counted(total, "finding");
}

std::string counted(unsigned long long number, const char* thing) {
    return format("%llu %s%s", number, thing, number == 1 ? "" : "s");
}

std::string framesText(const Analysis& analysis) {
    const auto sent = static_cast<unsigned long long>(analysis.video()->frames());
    const auto shown = static_cast<unsigned long long>(analysis.videoFrames());
    return sent == shown ? counted(sent, "frame")
                         : counted(sent, "frame") + format(" that last as long as %llu", shown);
}

std::string sizeText(const Analysis& analysis) {
    const VideoFormat& picture = analysis.video()->format();
    return picture.width > 0 && picture.height > 0 ? format("%dx%d", picture.width, picture.height) : "";
}

std::string summary(const Analysis& analysis) {
    const std::string size = sizeText(analysis);
    return format("%s, %s, %s at %s, %zu audio, ", framesText(analysis).c_str(),
                  durationText(analysis).c_str(), size.empty() ? "size not known" : size.c_str(),
                  rateText(analysis.video()->format().rate()).c_str(), analysis.audios().size()) +
           findingsText(analysis);
}

} // namespace kestrel::flowscope
