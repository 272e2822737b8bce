#include "jobs/RequestValues.h"

#include "foundation/Logger.h"
#include "jobs/InputField.h"

#include <arpa/inet.h>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>

namespace kestrel {

const char* valueText(const InputField& field) noexcept {
    return field.currValue ? field.currValue : "";
}

std::optional<unsigned long> addressValue(const InputField& field) {
    in_addr address{};
    if (inet_pton(AF_INET, valueText(field), &address) == 1)
        return ntohl(address.s_addr);
    LogUtil::Warning("JobMgmt", "%s: \"%s\" is not an IPv4 address.", field.name ? field.name : "",
                     valueText(field));
    return std::nullopt;
}

std::optional<unsigned long> deviceAddress(const InputField& field) {
    const auto address = addressValue(field);
    if (!address || *address != 0)
        return address;
    LogUtil::Warning("JobMgmt", "%s: \"%s\" is not the address of a device.", field.name ? field.name : "",
                     valueText(field));
    return std::nullopt;
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
