#include "ShowingOrder.h"

#include "capture/Failure.h"

#include <algorithm>
#include <cmath>

namespace kestrel::flowscope {
namespace {

using capture::format;

// More than can be shown later than one that comes (H.264, A.3.1), with room for wrong ones.
constexpr std::size_t MOST_COMING = 64;
// Frames that a decoder holds back at most.
constexpr int REORDERED = 16;
// How many pictures show how far a stream reorders them.
constexpr std::size_t KNOWN = 50;
// Like the steps between decoding times.
constexpr double HALF = 0.5;
constexpr double ROUNDED = 8.0 * PTS::units_per_second / 90'000;

long long ticks(PTS time) {
    return static_cast<long long>(time.ticks());
}

} // namespace

void ShowingOrder::lasts(const Length& length) noexcept {
    for (Shown& each : m_coming)
        if (each.packet == m_added)
            each.length = length;
}

void ShowingOrder::add(PTS dts, const Picture& picture, Findings& findings) {
    if (m_latestDts.is_absent())
        m_tolerated = dts;
    m_latestDts = dts;
    auto settled = m_coming.begin();
    for (; settled != m_coming.end() && settled->pts < dts; ++settled)
        settle(*settled, false, findings);
    m_coming.erase(m_coming.begin(), settled);
    if (m_coming.size() >= MOST_COMING)
        interrupt(dts);
    const auto place = std::upper_bound(m_coming.begin(), m_coming.end(), picture.pts,
                                        [](PTS pts, const Shown& each) { return pts < each.pts; });
    for (auto later = place; later != m_coming.end(); ++later)
        ++later->earlier;
    m_coming.insert(place, Shown{picture, std::nullopt});
    m_added = picture.packet;
}

void ShowingOrder::interrupt(PTS dts) {
    m_coming.clear();
    m_added.reset();
    m_shown.reset();
    m_departed = 0;
    tolerate(dts);
}

void ShowingOrder::remove(unsigned long long packet) {
    std::erase_if(m_coming, [packet](const Shown& each) { return each.packet == packet; });
}

void ShowingOrder::end(Findings& findings) {
    for (const Shown& each : m_coming)
        settle(each, true, findings);
    m_coming.clear();
}

void ShowingOrder::settle(const Shown& shown, bool last, Findings& findings) {
    if (m_shown)
        judge(*m_shown, shown, last, findings);
    if (!last)
        m_reordered = std::min(REORDERED, std::max(m_reordered, shown.earlier));
    ++m_settled;
    m_shown = shown;
}

void ShowingOrder::judge(const Shown& before, const Shown& shown, bool last, Findings& findings) {
    const auto step = static_cast<double>(shown.pts - before.pts);
    const auto where = [&] { return format("packet %llu, PID %d: ", shown.packet, shown.pid); };
    const double frame = before.length ? before.length->frame : 0;
    if (step <= 0) {
        if (before.length)
            madeUpFor(-before.length->least, frame, shown.pts);
        findings.add("timestamps", where() + format("PTS %lld is that of the picture in packet %llu, too",
                                                    ticks(shown.rawPts), before.packet));
        return;
    }
    if (!before.length)
        return;
    // Pictures whose decoding came before the first time, or comes behind the end, are not there.
    double missing = 0;
    if (!m_tolerated.is_absent() && before.pts < PTS(m_tolerated + std::llround(REORDERED * frame)))
        missing = REORDERED;
    else if (last && shown.pts > m_latestDts)
        missing = m_settled < KNOWN ? REORDERED : m_reordered;
    const double longer = step - before.length->most;
    const double shorter = before.length->least - step;
    if (longer > (HALF + missing) * frame + ROUNDED) {
        if (!madeUpFor(longer, frame, shown.pts))
            findings.add("timestamps", where() + format("a gap of %.1f frames before PTS %lld", step / frame,
                                                        ticks(shown.rawPts)));
    } else if (shorter > HALF * frame + ROUNDED) {
        if (!madeUpFor(-shorter, frame, shown.pts))
            findings.add("timestamps", where() + format("a step of %.2f frames to PTS %lld", step / frame,
                                                        ticks(shown.rawPts)));
    }
}

bool ShowingOrder::madeUpFor(double departs, double frame, PTS pts) {
    const bool known = m_departed * departs < 0 && pts <= m_departedUntil;
    if (known && std::abs(departs) <= std::abs(m_departed) + HALF * frame + ROUNDED) {
        m_departed += departs;
        return true;
    }
    m_departed = departs;
    // A time that lies further off is judged by its DTS alone.
    m_departedUntil =
        PTS(pts + std::max<std::int64_t>(PTS::units_per_second, std::llround(REORDERED * frame)));
    return false;
}

} // namespace kestrel::flowscope
