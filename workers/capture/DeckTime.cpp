#include "DeckTime.h"

#include "Failure.h"

#include <cmath>

namespace kestrel::capture {
namespace {

constexpr int secondsPerDay = 86400;
constexpr int mostLabels = 30;

} // namespace

std::optional<DeckTime> DeckTime::parse(std::string_view text) {
    constexpr std::size_t length = 11;
    if (text.size() != length)
        return std::nullopt;
    int fields[4] = {};
    for (std::size_t i = 0; i < length; ++i) {
        const char c = text[i];
        if (i % 3 == 2) {
            if (std::string_view(":;.,").find(c) == std::string_view::npos)
                return std::nullopt;
        } else if (c < '0' || c > '9') {
            return std::nullopt;
        } else {
            fields[i / 3] = fields[i / 3] * 10 + (c - '0');
        }
    }
    const auto [h, m, s, f] = fields;
    if (h > 23 || m > 59 || s > 59 || f >= 2 * mostLabels)
        return std::nullopt;
    return DeckTime{h, m, s, f >= mostLabels ? f / 2 : f, text[8] == ';'};
}

double DeckTime::secondsOfDay(int labelsPerSecond) const {
    return (hours * 60 + minutes) * 60 + seconds + static_cast<double>(frames) / labelsPerSecond;
}

DeckTime DeckTime::before(int count) const {
    const int day =
        ((hours * 60 + minutes) * 60 + seconds - count % secondsPerDay + secondsPerDay) % secondsPerDay;
    DeckTime time{day / 3600, day / 60 % 60, day % 60, frames, drop};
    if (drop && time.minutes % 10 != 0 && time.seconds == 0 && time.frames < 2)
        time.frames = 2;
    return time;
}

std::string DeckTime::text() const {
    return format("%02d:%02d:%02d%c%02d", hours, minutes, seconds, drop ? ';' : ':', frames);
}

double secondsBetween(double from, double to) {
    double distance = std::fmod(to - from, secondsPerDay);
    if (distance > secondsPerDay / 2.0)
        distance -= secondsPerDay;
    if (distance < -secondsPerDay / 2.0)
        distance += secondsPerDay;
    return distance;
}

} // namespace kestrel::capture
