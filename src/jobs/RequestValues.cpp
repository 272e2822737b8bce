#include "jobs/RequestValues.h"

#include "foundation/Logger.h"
#include "jobs/InputField.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>

namespace kestrel {

const char* valueText(const InputField& field) noexcept {
    return field.currValue ? field.currValue : "";
}

std::optional<unsigned long> addressValue(const InputField& field) noexcept {
    in_addr address{};
    if (inet_pton(AF_INET, valueText(field), &address) == 1)
        return ntohl(address.s_addr);
    return std::nullopt;
}

std::optional<unsigned long> deviceAddress(const InputField& field) noexcept {
    const auto address = addressValue(field);
    return address && *address != 0 ? address : std::nullopt;
}

void warnOfValue(const InputField& field, const char* expected) {
    LogUtil::Warning("JobMgmt", "%s: \"%s\" is not %s.", field.name ? field.name : "", valueText(field),
                     expected);
}

void warnUnlessTimecode(const InputField& field) {
    if (!looksLikeTimecode(valueText(field)))
        warnOfValue(field, TIMECODE);
}

bool looksLikeTimecode(const char* text) noexcept {
    std::string_view rest = text ? text : "";
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            // A drop-frame label has ';' or '.' before the frames.
            const std::string_view separators = part == 3 ? ":;." : ":";
            if (rest.empty() || separators.find(rest.front()) == std::string_view::npos)
                return false;
            rest.remove_prefix(1);
        }
        const std::size_t digits = std::min(rest.find_first_not_of("0123456789"), rest.size());
        if (digits == 0 || digits > 2)
            return false;
        rest.remove_prefix(digits);
    }
    return rest.empty();
}

std::optional<bool> saidBool(const InputField& field) noexcept {
    const bool certain = field.getCurrValue_bool(false) == field.getCurrValue_bool(true);
    return certain ? std::optional(field.getCurrValue_bool(false)) : std::nullopt;
}

void takeText(std::span<char> text, const InputField& field) {
    if (!copyText(text, valueText(field)))
        LogUtil::Warning("JobMgmt", "%s: \"%s\" is too long and is cut to \"%s\".",
                         field.name ? field.name : "", valueText(field), text.data());
}

namespace {

// One number without a sign at the front of text, which is moved behind it.
std::optional<std::int64_t> takeNumber(std::string_view& text) noexcept {
    if (text.empty() || text.front() == '-')
        return std::nullopt;
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

int asInt(std::int64_t number) noexcept {
    return number <= std::numeric_limits<int>::max() ? static_cast<int>(number) : 0;
}

} // namespace

int minutesValue(const char* text) noexcept {
    std::string_view rest = text ? text : "";
    const auto first = takeNumber(rest);
    if (!first || *first > std::numeric_limits<int>::max())
        return 0;
    if (rest.empty())
        return asInt(*first);

    // hh:mm:ss:ff, where a drop-frame label has ';' before the frames.
    std::int64_t part[3] = {};
    for (std::size_t i = 0; i < 3; ++i) {
        const bool separated = !rest.empty() && (rest.front() == ':' || (i == 2 && rest.front() == ';'));
        if (!separated)
            return 0;
        rest.remove_prefix(1);
        const auto number = takeNumber(rest);
        if (!number || *number > 59)
            return 0;
        part[i] = *number;
    }
    return rest.empty() ? asInt(*first * 60 + part[0]) : 0;
}

} // namespace kestrel
