// Reading the values of a job request's fields.
#pragma once

#include "foundation/FixedText.h"

#include <optional>
#include <span>

class InputField;

namespace kestrel {

// The field's value, "" when it has none.
const char* valueText(const InputField& field) noexcept;

// A dotted IPv4 address, in host order. A text that is none gives nothing and is logged with the field's
// name.
std::optional<unsigned long> addressValue(const InputField& field);

// The same for the address of a device, which 0.0.0.0 is not.
std::optional<unsigned long> deviceAddress(const InputField& field);

// What a field says for certain: true for "TRUE", false for "FALSE" (any case), nothing for other texts.
std::optional<bool> saidBool(const InputField& field) noexcept;

// Copies the field's value into a fixed text; a value that does not fit is cut, and logged.
void takeText(std::span<char> text, const InputField& field);

// Minutes of a rolling capture's segment: a plain number, or "hh:mm:ss:ff" without the part below a minute. 0
// when the text is neither.
int minutesValue(const char* text) noexcept;

} // namespace kestrel
