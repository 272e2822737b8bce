#include "SourceIndex.h"

#include "ClockTurn.h"
#include "FrameCount.h"
#include "PacketWindow.h"
#include "PlayedPlaces.h"
#include "SourceFile.h"
#include "SourceLeaps.h"
#include "mpeg/mpeg2.h"

#include <algorithm>

namespace kestrel::capture {
namespace {

// A day of pictures that are all random access points.
constexpr std::size_t mostPoints = 6'000'000;
constexpr std::size_t mostFrames = mostPoints;
constexpr std::int64_t longestReordering = PTS::units_per_second;

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
            noteShown(unit, m_index.points.empty() ? 0 : before - m_index.points.front().frame);
        if (!unit.randomAccess || m_index.points.size() >= mostPoints)
            return;
        if (m_index.points.empty())
            m_firstTime = m_frames.unitTime();
        m_pointShown = unit.temporalReference < 0 ? unit.pts : PTS();
        const int reference = std::max(unit.temporalReference, 0);
        m_index.points.push_back({m_unitAt, before, unit.gopTimecode, unit.closedGop ? 0 : reference,
                                  unit.temporalReference >= 0, 0, reference});
    }
    static bool isBefore(PTS stamp, PTS other) {
        return stampedStep(stamp, other).value_or(0) > clockTurn / 2;
    }
    // The next frame is that one, counted from the first random access point.
    void noteShown(const VideoUnit& unit, std::uint64_t frame) {
        if (unit.frames == 0)
            return;
        noteStep(unit, static_cast<std::size_t>(frame));
        const auto delay = displayDelay(unit);
        if (unit.frames == 1 && delay && m_index.shown.size() < mostFrames)
            m_index.shown.push_back(m_frames.unitTime() + *delay);
        else
            m_shownUnknown = true;
    }
    // From the unit before, for as long as its frames take or for longer.
    void noteStep(const VideoUnit& unit, std::size_t frame) {
        const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(m_frames.frameRateCode());
        const std::int64_t step = m_frames.unitTime() - m_lastTime;
        const std::int64_t excess = step - period * m_lastFrames;
        // Frames of a film are shown for that long themselves.
        const std::int64_t stamped = stampedStep(unit.dts, m_lastDts).value_or(step);
        if (m_lastFrames > 0 && period > 0 && excess > longestShown * period)
            m_leaps.late({frame, m_frames.unitTime(), {step, excess}}, m_lastAt, m_unitAt);
        else if (m_lastFrames > 0 && period > 0 && stamped >= StreamClock::largestStep &&
                 stamped < clockTurn / 2)
            m_leaps.late({frame, m_frames.unitTime(), {stamped, stamped - step}, false}, m_lastAt, m_unitAt);
        if (m_lastFrames == 0 || stampedStep(unit.dts, m_lastDts) != step)
            m_stretch = {frame, m_frames.unitTime()};
        m_lastDts = unit.dts;
        m_lastTime = m_frames.unitTime();
        m_lastFrames = unit.frames;
        m_lastAt = m_unitAt;
    }
    // What is played for no longer than its frames take.
    void finishLeaps() {
        const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(m_index.frameRateCode);
        std::int64_t later = 0;
        std::size_t from = 0;
        const auto moveUntil = [&](std::size_t frame) {
            for (; from < std::min(frame, m_index.shown.size()); ++from)
                m_index.shown[from] += later;
        };
        for (const SourceLeaps::Leap& leap : m_leaps.found(longestShown * period)) {
            moveUntil(leap.frame);
            later += leap.clocked ? 0 : leap.later;
            if (leap.frame > m_stretch.frame)
                m_stretch = {leap.frame, leap.time};
            const std::int64_t unplayed = leap.size.excess - (leap.clocked ? 0 : leap.later);
            m_index.time -= unplayed;
            m_unplayed += unplayed;
            m_index.leaps.push_back(leap.size);
            m_index.leaps.back().frame = leap.frame;
        }
        moveUntil(m_index.shown.size());
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
        const std::int64_t time = m_stretch.time - m_unplayed - m_firstTime + *last + period - *first;
        // Unless a timestamp is wrong the last frame that is shown is not coded much earlier.
        if (time - m_index.time > longestReordering)
            return shown.clear();
        m_index.time = time;
        m_index.hidden = static_cast<std::uint64_t>(std::count_if(
            shown.begin(), shown.end(), [&](std::int64_t other) { return other < shown.front(); }));
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
    PTS m_pointShown;            // of the last random access point, of H.264
    bool m_shownUnknown = false; // when one of the frames is
    std::int64_t m_firstTime =
        0; // of the first random access point
           // Of the unit before: when it begins, its frames, and where in the file it is.
    std::int64_t m_lastTime = 0;
    PTS m_lastDts;
    // From where on the timestamps go on without a jump.
    struct Stretch {
        std::size_t frame = 0;
        std::int64_t time = 0;
    };
    Stretch m_stretch;
    std::int64_t m_unplayed = 0; // of the timestamps, over all leaps
    unsigned m_lastFrames = 0;
    std::uint64_t m_lastAt = 0;
    SourceLeaps m_leaps;
    int m_rate = 0;
    VideoCodec m_codec = VideoCodec::none;
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

std::vector<std::int64_t> playedTimes(const SourceIndex& index) {
    std::vector<std::int64_t> shown = index.shown;
    std::int64_t unplayed = 0;
    auto leap = index.leaps.begin();
    for (std::size_t frame = 0; frame < shown.size(); ++frame) {
        for (; leap != index.leaps.end() && leap->frame <= frame; ++leap)
            unplayed += leap->excess;
        shown[frame] -= unplayed;
    }
    return shown;
}

std::vector<std::int64_t> longerPlaces(const SourceIndex& index) {
    const std::int64_t period = MPEG::SH::decode_PCRs_per_frame(index.frameRateCode);
    if (index.time <= static_cast<std::int64_t>(index.shown.size()) * period + period / 2)
        return {};
    std::vector<std::int64_t> shown = playedTimes(index);
    std::sort(shown.begin(), shown.end());
    for (std::size_t i = shown.size(); i-- > 0;)
        shown[i] -= shown.front();
    return shown;
}

} // namespace kestrel::capture
