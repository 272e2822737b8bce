#include "PlayedPlaces.h"

#include "ClockTurn.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace kestrel::capture {
namespace {

// No picture is kept back longer until it is shown (ISO/IEC 13818-1, 2.7.10; 2.14.3.1): else a timestamp is
// wrong.
constexpr std::int64_t longestDelay = 10 * std::int64_t{PTS::units_per_second};

} // namespace

std::optional<std::int64_t> displayDelay(const VideoUnit& unit) {
    const auto delay = stampedStep(unit.pts, unit.dts);
    return delay && *delay <= longestDelay ? delay : std::nullopt;
}

PlayedPlaces::PlayedPlaces(std::vector<std::int64_t> source, std::uint64_t hidden)
    : m_source(std::move(source)),
      m_hidden(std::min(static_cast<std::size_t>(hidden), m_source.empty() ? 0 : m_source.size() - 1)) {}

void PlayedPlaces::came(std::optional<std::int64_t> shown) {
    m_came.push_back(shown.value_or(0));
    if (!shown)
        m_unknown = m_came.size();
}

void PlayedPlaces::drop(std::size_t frames) {
    const std::size_t gone = std::min(frames, m_came.size());
    m_came.erase(m_came.begin(), m_came.begin() + static_cast<std::ptrdiff_t>(gone));
    m_unknown -= std::min(gone, m_unknown);
}

std::int64_t PlayedPlaces::earliest() const {
    return m_came.empty() ? 0 : *std::min_element(m_came.begin(), m_came.end());
}

std::vector<std::int64_t> PlayedPlaces::around(std::int64_t time, std::int64_t distance) const {
    std::vector<std::int64_t> near;
    std::copy_if(m_came.begin(), m_came.end(), std::back_inserter(near),
                 [=](std::int64_t shown) { return std::llabs(shown - time) <= distance; });
    return near;
}

std::uint64_t PlayedPlaces::between(std::int64_t from, std::int64_t to) const {
    return static_cast<std::uint64_t>(std::count_if(
        m_came.begin(), m_came.end(), [=](std::int64_t shown) { return shown >= from && shown < to; }));
}

std::optional<std::uint64_t> PlayedPlaces::own(std::int64_t first, std::int64_t period,
                                               bool fromHidden) const {
    if (m_source.empty())
        return std::nullopt;
    // Frames of a film begin with a field.
    const std::int64_t near = period / 4;
    const std::size_t begin = fromHidden ? 0 : m_hidden;
    const std::int64_t offset = first - m_source[begin];
    std::vector<bool> came(m_source.size());
    for (const std::int64_t shown : m_came) {
        const std::int64_t at = shown - offset;
        if (at < m_source[begin] - near || at > m_source.back() + near)
            continue;
        auto place = std::lower_bound(m_source.begin(), m_source.end(), at - near);
        if (place == m_source.end() || *place > at + near)
            return std::nullopt;
        // Where clips were put together two may be shown at the same time.
        while (place != m_source.end() && *place <= at + near &&
               came[static_cast<std::size_t>(place - m_source.begin())])
            ++place;
        if (place != m_source.end() && *place <= at + near)
            came[static_cast<std::size_t>(place - m_source.begin())] = true;
    }
    return static_cast<std::uint64_t>(
        std::count(came.begin() + static_cast<std::ptrdiff_t>(m_hidden), came.end(), true));
}

} // namespace kestrel::capture
