#include "MarkedPart.h"

#include "FileLabels.h"
#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace kestrel::capture {

MaybeFailure findPart(const SourceIndex& index, const std::string& markIn, const std::string& markOut,
                      int secondsBefore, int secondsBehind, MarkedPart& part) {
    if (index.points.empty() || index.frameRateCode == 0)
        return detailed(failure(error::startTimecodeNotFound, markIn.c_str()),
                        "the source has no video that playing can begin with");
    const FileLabels labels(index);
    const LabelRule& rule = labels.rule();
    const auto in = rule.number(markIn);
    const auto out = rule.number(markOut);
    if (!in)
        return detailed(failure(error::invalidMarkIn), markIn);
    if (!out || rule.distance(*in, *out) < 0)
        return detailed(failure(error::invalidMarkOut), markOut);
    const std::int64_t length = labels.length();
    const std::int64_t first = labels.position(*in);
    const std::int64_t last = labels.position(*out);
    const std::int64_t hidden = index.points.front().skipped;
    const std::string reach = "the source has " + rule.text(labels.of(index.points.front()) + hidden) +
                              " to " + rule.text(labels.of(index.points.front()) + length - 1);
    if (first < hidden || first >= length || !labels.has(first))
        return detailed(failure(error::startTimecodeNotFound, markIn.c_str()), reach);
    if (last >= length || !labels.has(last))
        return detailed(failure(error::invalidMarkOut), markOut + ": " + reach);

    const auto frames = [&rule](int seconds) {
        return static_cast<std::int64_t>(std::ceil(std::max(seconds, 0) * rule.framesPerSecond()));
    };
    const AccessPoint* begin = &index.points.front();
    part.end = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t endFrame = index.frames;
    std::uint64_t inFrame = begin->frame;
    bool beginPassed = false;
    bool inPassed = false;
    part.labelsKnown = labels.known(*in, *out);
    part.lacking = labels.lacking(*in, *out);
    for (const AccessPoint& point : index.points) {
        // It may lie anywhere between its neighbours.
        if (!point.timecode && !labels.counted())
            continue;
        const std::int64_t at = labels.position(labels.of(point)) + point.skipped;
        // Labels may begin anew behind the part: the first place counts.
        beginPassed = beginPassed || at > first - frames(secondsBefore);
        if (!beginPassed)
            begin = &point;
        inPassed = inPassed || at > first;
        if (!inPassed)
            inFrame = point.frame;
        if (at > last)
            endFrame = std::min(endFrame, point.frame);
        if (at > last + frames(secondsBehind)) {
            part.end = point.offset;
            break;
        }
    }
    const std::uint64_t firstFrame = index.points.front().frame;
    std::copy_if(index.leaps.begin(), index.leaps.end(), std::back_inserter(part.leaps),
                 [&](const SourceLeap& leap) {
                     const std::uint64_t frame = firstFrame + leap.frame;
                     return frame > begin->frame && frame < endFrame;
                 });
    part.leapsBefore = static_cast<std::size_t>(
        std::count_if(part.leaps.begin(), part.leaps.end(),
                      [&](const SourceLeap& leap) { return firstFrame + leap.frame <= inFrame; }));
    // Whatever comes before the first random access point is needed for its tables.
    part.begin = begin == &index.points.front() ? 0 : begin->offset;
    part.firstLabel = rule.text(labels.of(*begin) + begin->skipped);
    part.counted = labels.counted();
    part.lackingBefore = labels.lackingBefore(first);
    if (first - part.lackingBefore < labels.position(labels.of(*begin)) + begin->skipped)
        part.lackingBefore = 0;
    return std::nullopt;
}

} // namespace kestrel::capture
