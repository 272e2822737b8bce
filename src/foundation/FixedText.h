// Texts in fixed-size character fields: always cut at the capacity, always terminated.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace kestrel {

// Copies text into field, cut at the field's capacity and terminated. Returns whether all of it fitted.
// An empty field takes nothing.
bool copyText(std::span<char> field, std::string_view text) noexcept;

// The same from a C string; null counts as empty.
bool copyText(std::span<char> field, const char* text) noexcept;

// printf into field, cut at the field's capacity and terminated. Returns whether all of it fitted.
bool formatText(std::span<char> field, const char* format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

// Appends text to the terminated text in field, cut and terminated. Returns whether all of it fitted.
bool appendText(std::span<char> field, std::string_view text) noexcept;

// The text in a field that may lack its terminator: up to the first zero byte, at most the whole field.
std::string_view fieldText(std::span<const char> field) noexcept;

} // namespace kestrel
