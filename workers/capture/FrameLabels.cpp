#include "FrameLabels.h"

#include "ClockTurn.h"
#include "mpeg/mpeg2.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace kestrel::capture {
namespace {

std::int64_t modulo(std::int64_t value, std::int64_t divisor) {
    return (value % divisor + divisor) % divisor;
}

// To the nearest, for either sign.
std::int64_t divideRounded(std::int64_t value, std::int64_t divisor) {
    return (value + (value < 0 ? -divisor : divisor) / 2) / divisor;
}

} // namespace

bool parseTimecode(const std::string& text, int (&fields)[4]) {
    if (text.size() != 11)
        return false;
    std::fill(std::begin(fields), std::end(fields), 0);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool separator = i % 3 == 2;
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (separator ? std::string(":;.,").find(text[i]) == std::string::npos : !digit)
            return false;
        if (!separator)
            fields[i / 3] = fields[i / 3] * 10 + (text[i] - '0');
    }
    return true;
}

bool tellsDropFrame(const std::string& text) {
    return text.find_first_of(";.,") != std::string::npos;
}

int LabelRule::countingCode() const noexcept {
    if (drop || !known() || mpeg_timecode::IsFrameRateIntegral(rateCode))
        return rateCode;
    return rateCode + 1; // 23.976, 29.97 and 59.94 each stand before their integral rate
}

std::int64_t LabelRule::perDay() const {
    return known() ? std::max(mpeg_timecode::rollover_frames_count(drop, countingCode()), 1) : 1;
}

std::optional<std::int64_t> LabelRule::number(const std::string& text, bool pairs) const {
    int fields[4] = {};
    if (!known() || !parseTimecode(text, fields))
        return std::nullopt;
    auto [h, m, s, f] = fields;
    if (pairs && doubled())
        f *= 2;
    if (h > 23 || m > 59 || s > 59 || f >= mpeg_timecode::fps_ceil(countingCode()) ||
        !mpeg_timecode::IsTimecodeValid(h, m, s, f, countingCode()))
        return std::nullopt;
    return mpeg_timecode(h, m, s, f, drop, countingCode()).frame_count();
}

std::int64_t LabelRule::numberOf(int packed) const {
    // Not by the constructor, which would log and move a label that does not exist.
    const auto bits = static_cast<unsigned>(packed);
    mpeg_timecode label;
    label.hours = static_cast<int>(bits >> 19 & 0x1F);
    label.minutes = static_cast<int>(bits >> 13 & 0x3F);
    label.seconds = static_cast<int>(bits >> 6 & 0x3F);
    label.frames = static_cast<int>(bits & 0x3F);
    label.dropFrame = drop;
    label.frameRateCode = countingCode();
    return modulo(label.frame_count(), perDay());
}

std::string LabelRule::text(std::int64_t number) const {
    return mpeg_timecode::from_frames(static_cast<int>(modulo(number, perDay())), drop, countingCode())
        .windows_string();
}

std::int64_t LabelRule::distance(std::int64_t from, std::int64_t to) const {
    const std::int64_t day = perDay();
    const std::int64_t forward = modulo(to - from, day);
    return forward > day / 2 ? forward - day : forward;
}

double LabelRule::framesPerSecond() const {
    return known() ? mpeg_timecode::fps(rateCode) : 0;
}

void FrameLabels::forget() {
    m_started = false;
    m_origin = LabelOrigin::none;
    m_kept = false;
    m_stillPacked = -1;
    if (m_reference && (!m_reference->first || m_referenceTaken))
        m_reference.reset();
}

void FrameLabels::breakOff() {
    m_started = false;
    m_origin = m_kept ? m_origin : LabelOrigin::none;
    m_referenceTaken = m_referenceTaken && m_kept;
}

void FrameLabels::refer(const LabelReference& reference) {
    m_reference = reference;
    m_referenceTaken = false;
}

std::optional<std::int64_t> FrameLabels::label(const VideoUnit& unit, std::int64_t elapsed, int rateCode,
                                               VideoCodec codec, Clock::time_point now) {
    if (rateCode == 0)
        return std::nullopt;
    if (rateCode != m_rule.rateCode) {
        m_started = false;
        m_rule = {rateCode, false};
        m_period = std::max(MPEG::SH::decode_PCRs_per_frame(rateCode), 1);
    }
    m_codec = codec;
    m_shown = elapsed + stampedStep(unit.pts, unit.dts).value_or(0);

    const bool mayBeStream = m_useStream && (!m_kept || m_origin == LabelOrigin::stream);
    const bool still = unit.gopTimecode && !runs(*unit.gopTimecode);
    // A timecode that was lost on the way does not end the count by the others.
    const bool countsOn = m_started && m_origin == LabelOrigin::stream && !still;
    if (unit.gopTimecode && mayBeStream && !still)
        takeStream(unit, rateCode);
    else if (!unit.randomAccess || countsOn || m_kept || !takeReference(unit, rateCode, now)) {
        if (!m_started)
            return std::nullopt;
        m_last = counted(unit);
        if (unit.randomAccess || unit.gopTimecode)
            anchor(unit, m_last);
    }
    return m_last;
}

// Whether these are timecodes that run, as far as a deck that is told of shows. A deck that stands still
// gives the same label for every group, and so does an encoder that has no timecode to give.
bool FrameLabels::runs(int packed) {
    constexpr auto standstill = std::chrono::seconds(2);
    const bool told = m_reference && !m_reference->first;
    if (packed != m_stillPacked || !told) {
        m_stillPacked = packed;
        m_stillSince = told ? m_reference->at : Clock::time_point{};
        m_stillText = told ? m_reference->text : std::string();
        return true;
    }
    return m_reference->at - m_stillSince < standstill || m_reference->text == m_stillText;
}

void FrameLabels::takeStream(const VideoUnit& unit, int rateCode) {
    constexpr int dropFlag = 1 << 24;
    const bool runsOn = m_started && m_origin == LabelOrigin::stream;
    const LabelRule before = m_rule;
    m_rule = {rateCode,
              (*unit.gopTimecode & dropFlag) != 0 && mpeg_timecode::frameRateCodeToDropFrame(rateCode)};
    const std::int64_t number = m_rule.numberOf(*unit.gopTimecode);
    m_origin = LabelOrigin::stream;
    if (m_codec == VideoCodec::avc) { // it is the picture's own
        if (unit.randomAccess || !m_started)
            m_group = number;
        m_last = number;
        m_byReferenceNumber = false;
        m_earlier =
            runsOn && before == m_rule ? std::optional(Anchor{m_anchorLabel, m_anchorShown}) : std::nullopt;
        m_anchorLabel = m_last;
        m_anchorShown = m_shown;
    } else {
        m_last = number + std::max(unit.temporalReference, 0);
        anchor(unit, m_last);
    }
    m_started = true;
}

// The label that a reference gives a random access point of now.
std::optional<std::int64_t> FrameLabels::referred(Clock::time_point now) const {
    const auto number = m_rule.number(m_reference->text, m_pairs);
    if (!number)
        return std::nullopt;
    const double seconds =
        m_reference->first ? 0.0 : std::chrono::duration<double>(now - m_reference->at).count();
    return *number + static_cast<std::int64_t>(std::lround(seconds * m_rule.framesPerSecond())) -
           m_reference->offset;
}

bool FrameLabels::takeReference(const VideoUnit& unit, int rateCode, Clock::time_point now) {
    if (!m_reference || m_referenceTaken)
        return false;
    const bool drop = tellsDropFrame(m_reference->text) && mpeg_timecode::frameRateCodeToDropFrame(rateCode);
    const LabelRule before = m_rule;
    m_rule = {rateCode, drop};
    const auto told = referred(now);
    if (!told) {
        m_rule = before;
        return false;
    }
    const LabelOrigin origin = m_reference->first ? LabelOrigin::counted : LabelOrigin::deck;
    const bool counts = m_started && m_origin == origin && before == m_rule;
    m_referenceTaken = true;
    if (counts && !m_reference->first &&
        std::llabs(m_rule.distance(counted(unit), *told)) <= std::int64_t{m_tolerance})
        return false;
    m_origin = origin;
    m_started = true;
    m_last = *told;
    anchor(unit, m_last);
    return true;
}

// The label of a unit that goes on from what is known: by its time, which frames that were lost take too; by
// its number within the group where it has no timestamp.
std::int64_t FrameLabels::counted(const VideoUnit& unit) const {
    constexpr std::int64_t references = 1024; // temporal_reference is counted modulo this
    if (unit.pts.is_absent() && m_byReferenceNumber && unit.temporalReference >= 0 && !unit.gopTimecode) {
        const std::int64_t label = m_group + unit.temporalReference;
        return label + divideRounded(m_last - label, references) * references;
    }
    return m_anchorLabel + divideRounded(m_shown - m_anchorShown, m_period);
}

std::optional<std::int64_t> FrameLabels::earlier() const {
    if (!m_earlier || m_shown + m_period / 2 >= m_anchorShown)
        return std::nullopt;
    return m_earlier->label + divideRounded(m_shown - m_earlier->shown, m_period);
}

std::int64_t FrameLabels::goBack() {
    return m_last = earlier().value_or(m_last);
}

// A group begins with this unit.
void FrameLabels::anchor(const VideoUnit& unit, std::int64_t label) {
    m_byReferenceNumber = unit.gopTimecode.has_value() && unit.temporalReference >= 0;
    m_group = label - (m_byReferenceNumber ? unit.temporalReference : 0);
    m_earlier.reset();
    m_anchorLabel = label;
    m_anchorShown = m_shown;
}

std::int64_t FrameLabels::highest(const VideoUnit& unit) const {
    if (unit.highestReference > unit.temporalReference && unit.temporalReference >= 0)
        return m_last + unit.highestReference - unit.temporalReference;
    return m_last + (unit.frames > 1 ? unit.frames - 1 : 0);
}

std::int64_t FrameLabels::presentation(std::int64_t label) const {
    return m_anchorShown + m_rule.distance(m_anchorLabel, label) * m_period;
}

} // namespace kestrel::capture
