// Reading the values of a job request's fields.
#pragma once

#include "foundation/FixedText.h"

#include <optional>
#include <span>
#include <string>

class InputField;

namespace kestrel {

// The field's value, "" when it has none.
const char* valueText(const InputField& field) noexcept;

// A dotted IPv4 address, in host order; nothing for any other text.
std::optional<unsigned long> addressValue(const InputField& field) noexcept;

// The same for the address of a device, which 0.0.0.0 is not.
std::optional<unsigned long> deviceAddress(const InputField& field) noexcept;

// The dotted form of an address in host order.
std::string addressText(unsigned long address);

// Logs that a field's value is not what was expected, both named. The refusal that may follow has a text of
// its own, which clients know.
void warnOfValue(const InputField& field, const char* expected);
// The same for a value that is taken all the same, as something else.
void warnOfTaken(const InputField& field, const char* expected, const std::string& taken);
// The same unless the value is a timecode of one day.
void warnUnlessTimecode(const InputField& field);
// The same unless the text that is kept of a duration, cut where its field ends, is one that a worker can
// take.
void warnUnlessDuration(const char* name, const char* kept);

// Logs which digits a job's GUID is taken as where it has characters that are left out, more digits than one
// has, or none.
void warnUnlessGuid(const char* guid);

// What is expected of a value, in words for the log.
inline constexpr const char* ADDRESS = "an IPv4 address";
inline constexpr const char* DEVICE_ADDRESS = "the IPv4 address of a device";
inline constexpr const char* TIMECODE = "a timecode hh:mm:ss:ff";
inline constexpr const char* TIMECODE_OF_A_DAY = "a timecode of one day, 23:59:59:59 at most";
inline constexpr const char* DATE_AND_TIME = "a time month/day/year hour:minute:second";
inline constexpr const char* CALENDAR_TIME = "a time of the calendar";
inline constexpr const char* TRUE_OR_FALSE = "TRUE or FALSE";
inline constexpr const char* MINUTES = "a number of minutes or a time hh:mm:ss:ff of one minute at least";

// The text of a flag, as requests have it.
constexpr const char* boolText(bool flag) noexcept {
    return flag ? "TRUE" : "FALSE";
}

// What a field says for certain: true for "TRUE", false for "FALSE" (any case), nothing for other texts.
std::optional<bool> saidBool(const InputField& field) noexcept;

// Copies the field's value into a fixed text; a value that does not fit is cut, and logged.
void takeText(std::span<char> text, const InputField& field);

// Minutes of a rolling capture's segment: a plain number, or "hh:mm:ss:ff" without the part below a minute. 0
// when the text is neither.
int minutesValue(const char* text) noexcept;

} // namespace kestrel
