#include "SourceIndex.h"

#include "FrameCount.h"
#include "PacketWindow.h"
#include "PlayedPlaces.h"
#include "SourceFile.h"
#include "SourceLeaps.h"
#include "foundation/ErrorCodes.h"
#include "mpeg/mpeg2.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace kestrel::capture {
namespace {

constexpr int dropFlag = 1 << 24; // of the 25 bits of a GOP's timecode
// A day of pictures that are all random access points.
constexpr std::size_t mostPoints = 6'000'000;
constexpr std::size_t mostFrames = mostPoints;
constexpr std::int64_t longestReordering = PTS::units_per_second;
// By so many frames one may be shown for longer than the stream's period without anything missing.
constexpr std::int64_t longestShown = 2;

class Indexer {
public:
    explicit Indexer(SourceIndex& index) : m_index(index) {}

    void take(const unsigned char* packet, std::uint64_t offset) {
        const std::uint64_t before = m_frames.framesBefore();
        m_leaps.take(packet, offset);
        if (!m_frames.take(packet))
            return;
        settle(m_frames.closedUnit(), before);
        m_unitAt = offset;
    }
    void finish() {
        m_frames.finish();
        m_index.frames = m_frames.frames();
        m_index.frameRateCode = m_frames.frameRateCode();
        const std::uint64_t before = m_frames.framesBefore();
        const std::int64_t end = m_frames.time(); // the last unit has its place by then
        settle(m_frames.unit(), before);
        m_index.time = end - m_firstTime;
        finishLeaps();
        finishShown();
    }

private:
    void settle(const VideoUnit& unit, std::uint64_t before) {
        if (unit.frames > 0)
            compare();
        if (unit.frames > 0 && !unit.randomAccess && !m_index.points.empty() &&
            isBefore(unit.pts, m_pointShown))
            ++m_index.points.back().leading;
        if (!m_index.points.empty() || unit.randomAccess)
            noteShown(unit);
        if (!unit.randomAccess || m_index.points.size() >= mostPoints)
            return;
        if (m_index.points.empty())
            m_firstTime = m_frames.unitTime();
        m_pointShown = unit.temporalReference < 0 ? unit.pts : PTS();
        m_index.points.push_back({m_unitAt, before, unit.gopTimecode,
                                  unit.closedGop ? 0 : std::max(unit.temporalReference, 0),
                                  unit.temporalReference >= 0});
        m_references.push_back(std::max(unit.temporalReference, 0));
    }
    static constexpr std::int64_t wrap = std::int64_t{4} << 33; // the 33-bit clock in PTS units
    // From the other on; none where one of them is absent.
    static std::optional<std::int64_t> wrapped(PTS stamp, PTS other) {
        if (stamp.is_absent() || other.is_absent())
            return std::nullopt;
        return ((stamp - other) % wrap + wrap) % wrap;
    }
    static bool isBefore(PTS stamp, PTS other) { return wrapped(stamp, other).value_or(0) > wrap / 2; }
    void noteShown(const VideoUnit& unit) {
        if (unit.frames == 0)
            return;
        noteStep(unit);
        const auto delay = displayDelay(unit);
        if (unit.frames == 1 && delay && m_index.shown.size() < mostFrames)
            m_index.shown.push_back(m_frames.unitTime() + *delay);
        else
            m_shownUnknown = true;
    }
    // From the unit before, for as long as its frames take or for longer.
    void noteStep(const VideoUnit& unit) {
        const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(m_frames.frameRateCode());
        const std::int64_t step = m_frames.unitTime() - m_lastTime;
        const std::int64_t excess = step - period * m_lastFrames;
        // Frames of a film are shown for that long themselves.
        if (m_lastFrames > 0 && period > 0 && excess > longestShown * period)
            m_leaps.late({m_index.shown.size(), m_frames.unitTime(), {step, excess}}, m_lastAt, m_unitAt);
        if (m_lastFrames == 0 || wrapped(unit.dts, m_lastDts) != step)
            m_stretch = {m_index.shown.size(), m_frames.unitTime()};
        m_lastDts = unit.dts;
        m_lastTime = m_frames.unitTime();
        m_lastFrames = unit.frames;
        m_lastAt = m_unitAt;
    }
    // What is played for no longer than its frames take.
    void finishLeaps() {
        auto& shown = m_index.shown;
        std::int64_t excess = 0;
        std::size_t frame = 0;
        const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(m_index.frameRateCode);
        for (const SourceLeaps::Leap& leap : m_leaps.found(longestShown * period)) {
            for (; frame < std::min(leap.frame, shown.size()); ++frame)
                shown[frame] -= excess;
            if (leap.frame > m_stretch.frame) {
                m_stretch = {leap.frame, leap.time};
                m_stretch.excess = excess + leap.size.excess;
            } else {
                m_stretch.excess += leap.size.excess;
            }
            excess += leap.size.excess;
            m_index.leaps.push_back(leap.size);
        }
        for (; frame < shown.size(); ++frame)
            shown[frame] -= excess;
        m_index.time -= excess;
    }
    void finishShown() {
        auto& shown = m_index.shown;
        const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(m_index.frameRateCode);
        if (m_shownUnknown || period <= 0 || shown.empty())
            return shown.clear();
        // Frames of clips that were put together may be kept back for different times: the last clip tells.
        const auto begin =
            shown.begin() + static_cast<std::ptrdiff_t>(std::min(m_stretch.frame, shown.size() - 1));
        const auto [first, last] = std::minmax_element(begin, shown.end());
        const std::int64_t time = m_stretch.time - m_stretch.excess - m_firstTime + *last + period - *first;
        // Unless a timestamp is wrong the last frame that is shown is not coded much earlier.
        if (time - m_index.time > longestReordering)
            return shown.clear();
        m_index.time = time;
        finishPoints(*std::min_element(shown.begin(), shown.end()), period);
        if (time <= static_cast<std::int64_t>(shown.size()) * period + period / 2)
            return shown.clear();
        std::sort(shown.begin(), shown.end());
        for (std::size_t i = shown.size(); i-- > 0;)
            shown[i] -= shown.front();
    }
    void finishPoints(std::int64_t first, std::int64_t period) {
        const auto& shown = m_index.shown;
        const std::uint64_t begin = m_index.points.front().frame;
        for (std::size_t i = 0; i < m_index.points.size(); ++i) {
            AccessPoint& point = m_index.points[i];
            if (const std::uint64_t at = point.frame - begin; at < shown.size())
                point.shown = shown[static_cast<std::size_t>(at)] - first - m_references[i] * period;
        }
        m_index.hidden = static_cast<std::uint64_t>(std::count_if(
            shown.begin(), shown.end(), [&](std::int64_t time) { return time < shown.front(); }));
    }
    // With the frames before.
    void compare() {
        const int rate = m_frames.frameRateCode();
        const VideoCodec codec = m_frames.codec();
        if ((m_rate != 0 && rate != m_rate) || (m_codec != VideoCodec::none && codec != m_codec))
            m_index.uniform = false;
        m_rate = rate;
        m_codec = codec;
    }

    SourceIndex& m_index;
    FrameCount m_frames;
    std::uint64_t m_unitAt = 0;
    PTS m_pointShown;              // of the last random access point, of H.264
    bool m_shownUnknown = false;   // when one of the frames is
    std::int64_t m_firstTime = 0;  // of the first random access point
    std::vector<int> m_references; // temporal_reference of the random access points
    // Of the unit before: when it begins, its frames, and where in the file it is.
    std::int64_t m_lastTime = 0;
    PTS m_lastDts;
    // From where on the timestamps go on without a jump; the leaps before it take so much less.
    struct Stretch {
        std::size_t frame = 0;
        std::int64_t time = 0;
        std::int64_t excess = 0;
    };
    Stretch m_stretch;
    unsigned m_lastFrames = 0;
    std::uint64_t m_lastAt = 0;
    SourceLeaps m_leaps;
    int m_rate = 0;
    VideoCodec m_codec = VideoCodec::none;
};

// The labels of a file: of its own timecodes, or counted from its first frame.
class Labels {
public:
    // From the frame that has the label of one access point to that of a later one.
    static std::int64_t framesBetween(const AccessPoint& from, const AccessPoint& to) {
        return static_cast<std::int64_t>(to.frame - from.frame) + to.leading - from.leading;
    }

    explicit Labels(const SourceIndex& index) : m_index(index) {
        const AccessPoint& first = index.points.front();
        m_counted = !first.timecode || standsStill(index);
        const bool drop = m_counted ? mpeg_timecode::frameRateCodeToDropFrame(index.frameRateCode)
                                    : (*first.timecode & dropFlag) != 0;
        m_rule = {index.frameRateCode, drop};
        m_period = MPEG::SH::decode_PCRs_per_frame(index.frameRateCode);
        m_byPlaces = tellPlaces();
    }
    [[nodiscard]] bool counted() const noexcept { return m_counted; }
    [[nodiscard]] const LabelRule& rule() const noexcept { return m_rule; }
    [[nodiscard]] std::int64_t of(const AccessPoint& point) const {
        return !m_counted && point.timecode ? m_rule.numberOf(*point.timecode)
                                            : static_cast<std::int64_t>(point.frame);
    }
    // Frames from the file's first random access point to that label.
    [[nodiscard]] std::int64_t position(std::int64_t label) const {
        return m_rule.distance(of(m_index.points.front()), label);
    }

    // Whether the timecodes count the frames one by one from before one label to behind another.
    [[nodiscard]] bool countOn(std::int64_t from, std::int64_t to) const {
        const AccessPoint* before = nullptr;
        for (const AccessPoint& point : m_index.points) {
            if (!point.timecode)
                return false;
            const std::int64_t at = of(point);
            if (m_rule.distance(from, at) <= 0) {
                before = &point;
                continue;
            }
            if (!before || m_rule.distance(of(*before), at) != between(*before, point))
                return false;
            if (m_rule.distance(to, at) > 0)
                return true;
            before = &point;
        }
        return before != nullptr; // up to the end of the file
    }

    // Whether frames take the time that their number gives, as none does that is shown for longer.
    [[nodiscard]] bool countTime() const {
        const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(m_index.frameRateCode);
        const auto frames = static_cast<std::int64_t>(m_index.frames - m_index.points.front().frame);
        return m_index.uniform && std::llabs(stampedTime() - frames * period) <= 2 * period;
    }

    // Whether frames take more time than their number gives: some are shown for longer, or were lost.
    [[nodiscard]] bool takesLonger() const {
        const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(m_index.frameRateCode);
        const auto frames = static_cast<std::int64_t>(m_index.frames - m_index.points.front().frame);
        return stampedTime() > frames * period + period / 2;
    }

    // Frames from the first label to the last.
    [[nodiscard]] std::int64_t length() const {
        return m_byPlaces ? placeOf(m_index.shown.back()) + 1
                          : static_cast<std::int64_t>(m_index.frames - m_index.points.front().frame);
    }
    // Whether a frame has the label at that position, as far as is known: behind the last access point no
    // other label tells where some are missing.
    [[nodiscard]] bool has(std::int64_t at) const {
        if (!m_byPlaces)
            return true;
        const auto before = m_index.points.back().frame - m_index.points.front().frame;
        return (before > 0 && at <= placeOf(m_index.shown[static_cast<std::size_t>(before) - 1])) ||
               hasAll(at, at);
    }
    // Whether frames have all labels from one position to another, where that is known.
    [[nodiscard]] bool hasAll(std::int64_t from, std::int64_t to) const {
        if (!m_byPlaces)
            return true;
        for (const std::int64_t shown : m_index.shown)
            if (from <= to && placeOf(shown) == from)
                ++from;
        return from > to;
    }

private:
    // Labels from one access point's to another's; that each is the label of a frame is told by hasAll().
    [[nodiscard]] std::int64_t between(const AccessPoint& from, const AccessPoint& to) const {
        return m_byPlaces ? placeOf(shown(to)) - placeOf(shown(from)) : framesBetween(from, to);
    }
    // The time that timestamps tell, where what plays the file does not wait, too.
    [[nodiscard]] std::int64_t stampedTime() const {
        std::int64_t time = m_index.time;
        for (const SourceLeap& leap : m_index.leaps)
            time += leap.excess;
        return time;
    }
    // When the frame is shown that has the label of an access point.
    [[nodiscard]] std::int64_t shown(const AccessPoint& point) const {
        return point.shown - (m_counted && !point.exact ? point.leading * m_period : 0);
    }
    // Frames from the first label to the one of the frame that is shown then.
    [[nodiscard]] std::int64_t placeOf(std::int64_t time) const {
        const std::int64_t since = time - shown(m_index.points.front());
        return (since + (since < 0 ? -m_period : m_period) / 2) / m_period;
    }
    [[nodiscard]] bool tellPlaces() const {
        return m_period > 0 && !m_index.shown.empty() &&
               m_index.points.back().frame - m_index.points.front().frame < m_index.shown.size() &&
               position(of(m_index.points.back())) == placeOf(shown(m_index.points.back()));
    }
    // An encoder that is given no timecode repeats the same one.
    static bool standsStill(const SourceIndex& index) {
        const auto& points = index.points;
        return points.size() > 1 && std::all_of(points.begin(), points.end(), [&](const AccessPoint& point) {
                   return point.timecode == points.front().timecode;
               });
    }

    const SourceIndex& m_index;
    bool m_counted = false;
    LabelRule m_rule;
    std::int64_t m_period = 0;
    bool m_byPlaces = false; // the labels tell when frames are shown, of each of which that is known
};

} // namespace

MaybeFailure indexSource(const std::string& path, const std::atomic<bool>& cancel, SourceIndex& index) {
    SourceFile file;
    if (auto failed = file.open(path))
        return failed;
    PacketWindow window;
    Indexer indexer(index);
    std::uint64_t readBytes = 0;
    SourceShape shape = SourceShape::unknown;
    bool inSync = false;
    for (bool last = false; !last && !cancel.load(std::memory_order_relaxed);) {
        std::size_t got = 0;
        if (auto failed = file.read(window.room(), got))
            return failed;
        window.added(got);
        readBytes += got;
        last = got == 0;
        if (shape != SourceShape::transport) {
            shape = shapeOf(window.bytes(), last);
            if (shape == SourceShape::unknown)
                continue;
            if (shape != SourceShape::transport)
                return file.shapeFailure(shape);
            inSync = window.bytes().front() == 0x47;
        }
        for (;;) {
            const std::size_t at = window.unread();
            const SyncStep step = nextPacket(window.bytes(), at, inSync, last);
            if (step.what == SyncStep::What::more)
                break;
            inSync = step.what == SyncStep::What::packet;
            if (inSync)
                indexer.take(window.unreadBytes(), readBytes - (window.bytes().size() - at));
            window.skip(step.next - at);
        }
        window.release(0);
    }
    indexer.finish();
    return std::nullopt;
}

LabelledFrames labelledFrames(const SourceIndex& index) {
    LabelledFrames found;
    if (index.points.empty() || index.frameRateCode == 0)
        return found;
    const AccessPoint& first = index.points.front();
    found.hidden = static_cast<std::uint64_t>(first.exact ? first.skipped : first.leading);
    if (first.exact && index.hidden) // some may not be there either
        found.hidden = std::min(found.hidden, *index.hidden);
    const Labels labels(index);
    std::uint64_t end = index.frames;
    for (const AccessPoint& point : index.points)
        if (!point.timecode || labels.position(labels.of(point)) != Labels::framesBetween(first, point)) {
            end = point.frame;
            break;
        }
    // Frames are missing behind the last access point.
    if (end == index.frames && labels.takesLonger())
        end = index.points.back().frame;
    // Labels that come again after a day tell nothing.
    const auto day = static_cast<std::uint64_t>(labels.rule().perDay());
    if (labels.counted() || !index.uniform || end <= first.frame + found.hidden ||
        end - first.frame >= day / 2)
        return found;
    found.count = end - first.frame - found.hidden;
    const std::int64_t number = labels.of(first) + first.skipped;
    found.first = labels.rule().text(number);
    found.last = labels.rule().text(number + static_cast<std::int64_t>(found.count) - 1);
    return found;
}

MaybeFailure findPart(const SourceIndex& index, const std::string& markIn, const std::string& markOut,
                      int secondsBefore, int secondsBehind, MarkedPart& part) {
    if (index.points.empty() || index.frameRateCode == 0)
        return detailed(failure(error::startTimecodeNotFound, markIn.c_str()),
                        "the source has no video that playing can begin with");
    const Labels labels(index);
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
    bool beginPassed = false;
    part.everyLabel =
        (labels.counted() ? labels.countTime() : labels.countOn(*in, *out)) && labels.hasAll(first, last);
    for (const AccessPoint& point : index.points) {
        // It may lie anywhere between its neighbours.
        if (!point.timecode && !labels.counted())
            continue;
        const std::int64_t at = labels.position(labels.of(point)) + point.skipped;
        // Labels may begin anew behind the part: the first place counts.
        beginPassed = beginPassed || at > first - frames(secondsBefore);
        if (!beginPassed)
            begin = &point;
        if (at > last + frames(secondsBehind)) {
            part.end = point.offset;
            break;
        }
    }
    // Whatever comes before the first random access point is needed for its tables.
    part.begin = begin == &index.points.front() ? 0 : begin->offset;
    part.firstLabel = rule.text(labels.of(*begin) + begin->skipped);
    part.counted = labels.counted();
    return std::nullopt;
}

} // namespace kestrel::capture
