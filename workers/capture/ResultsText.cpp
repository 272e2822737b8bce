#include "ResultsText.h"

#include <algorithm>
#include <vector>

namespace kestrel::capture {
namespace {

// Bytes of each part that are kept in any case: enough to tell what went wrong, or how much was recorded and
// whether it is known to be all.
constexpr std::size_t leastBytes = 99;

} // namespace

std::string resultsText(std::span<const ResultsPart> parts, std::size_t room) {
    if (parts.empty())
        return "";
    const std::size_t least = std::min(leastBytes, room / parts.size());
    std::vector<std::size_t> kept;
    for (const ResultsPart& part : parts) {
        kept.push_back(std::min(part.text.size(), least));
        room -= kept.back();
    }
    for (const bool failures : {true, false})
        for (std::size_t i = 0; i < parts.size(); ++i) {
            if (parts[i].failure != failures)
                continue;
            const std::size_t more = std::min(parts[i].text.size() - kept[i], room);
            kept[i] += more;
            room -= more;
        }
    std::string text;
    for (std::size_t i = 0; i < parts.size(); ++i)
        text += parts[i].text.substr(0, kept[i]);
    return text;
}

} // namespace kestrel::capture
