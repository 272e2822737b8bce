#include "jobs/RequestValues.h"

#include "foundation/Logger.h"
#include "jobs/InputField.h"
#include "jobs/Job.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>

namespace kestrel {

namespace {

constexpr std::size_t GUID_BYTES = sizeof Job::guid;

} // namespace

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

std::string addressText(unsigned long address) {
    const in_addr value{htonl(static_cast<std::uint32_t>(address))};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &value, text, sizeof text);
    return text;
}

void warnOfValue(const InputField& field, const char* expected) {
    LogUtil::Warning("JobMgmt", "%s: \"%s\" is not %s.", field.name ? field.name : "", valueText(field),
                     expected);
}

void warnOfTaken(const InputField& field, const char* expected, const std::string& taken) {
    LogUtil::Warning("JobMgmt", "%s: \"%s\" is not %s, it is taken as %s.", field.name ? field.name : "",
                     valueText(field), expected, taken.c_str());
}

namespace {

// Hours, minutes, seconds and frames as they were written, and with how many digits.
struct Fields {
    std::array<int, 4> number{};
    std::array<std::size_t, 4> digits{};

    // Whether minutes and seconds are those of a clock, and the frames could be those of the highest rate.
    [[nodiscard]] bool inRange() const noexcept {
        return std::all_of(number.begin() + 1, number.end(), [](int part) { return part <= 59; });
    }
};

// Reads hh:mm:ss:ff with these separators, any part with fewer digits or, of the hours, with one more.
std::optional<Fields> readFields(std::string_view rest, std::string_view between,
                                 std::string_view beforeFrames) noexcept {
    Fields fields;
    for (std::size_t part = 0; part < fields.number.size(); ++part) {
        if (part > 0) {
            const std::string_view separators = part == 3 ? beforeFrames : between;
            if (rest.empty() || separators.find(rest.front()) == std::string_view::npos)
                return std::nullopt;
            rest.remove_prefix(1);
        }
        const std::size_t digits = std::min(rest.find_first_not_of("0123456789"), rest.size());
        if (digits == 0 || digits > (part == 0 ? 3 : 2))
            return std::nullopt;
        for (const char digit : rest.substr(0, digits))
            fields.number[part] = fields.number[part] * 10 + (digit - '0');
        fields.digits[part] = digits;
        rest.remove_prefix(digits);
    }
    return rest.empty() ? std::optional(fields) : std::nullopt;
}

} // namespace

void warnUnlessTimecode(const InputField& field) {
    // A drop-frame label has ';' or '.' before the frames.
    const auto fields = readFields(valueText(field), ":", ":;.");
    if (!fields || fields->digits[0] > 2)
        warnOfValue(field, TIMECODE);
    else if (fields->number[0] > 23 || !fields->inRange())
        warnOfValue(field, TIMECODE_OF_A_DAY);
}

void warnUnlessDuration(const char* name, const char* kept) {
    const std::string_view text = kept;
    const auto fields = readFields(text, ":;.,", ":;.,");
    // Of three digits of hours the field has no room for the last digit of the frames.
    const bool complete = fields && fields->digits[0] >= 2 && fields->digits[1] == 2 &&
                          fields->digits[2] == 2 && (fields->digits[3] == 2 || fields->digits[0] == 3);
    if (complete && fields->inRange())
        return;
    const std::string what =
        text.empty() ? "none is given, expected is" : '"' + std::string(text) + "\" is not";
    LogUtil::Warning(
        "JobMgmt",
        "%s: %s hh:mm:ss:ff, two digits each (of the hours two or three), with minutes, seconds and "
        "frames up to 59. The worker is given it as it is.",
        name, what.c_str());
}

// A name instead of a GUID is taken as the digits that happen to stand in it, and so may another job's.
void warnUnlessGuid(const char* guid) {
    constexpr std::string_view DIGITS = "0123456789ABCDEFabcdef";
    constexpr std::string_view SEPARATORS = "-{} ";
    const std::string_view text(guid == nullptr ? "" : guid);
    std::string left;
    std::size_t digits = 0;
    for (const char c : text) {
        if (DIGITS.find(c) != std::string_view::npos)
            ++digits;
        else if (SEPARATORS.find(c) == std::string_view::npos && left.find(c) == std::string::npos)
            left += c;
    }
    std::string why;
    if (digits == 0)
        why = "it has no hex digit";
    else if (!left.empty())
        why = "what is no hex digit is left out (" + left + ")";
    else if (digits > 2 * GUID_BYTES)
        why = "it has more than 32 hex digits";
    else
        return;
    std::array<unsigned char, GUID_BYTES> bytes{};
    Job::getGuid(guid, bytes.data());
    std::string taken;
    for (const unsigned char byte : bytes) {
        taken += DIGITS[byte >> 4];
        taken += DIGITS[byte & 15];
    }
    LogUtil::Warning("JobMgmt",
                     "GUID \"%.*s\": %s. It is taken as %s, and so is any other text of the same digits.",
                     static_cast<int>(text.size()), text.data(), why.c_str(), taken.c_str());
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
