#include "foundation/FixedText.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kestrel {

bool copyText(std::span<char> field, std::string_view text) noexcept {
    if (field.empty())
        return false;
    const std::size_t length = std::min(text.size(), field.size() - 1);
    // The text may lie in the field itself.
    if (length > 0)
        std::memmove(field.data(), text.data(), length);
    field[length] = '\0';
    return length == text.size();
}

bool copyText(std::span<char> field, const char* text) noexcept {
    return copyText(field, text ? std::string_view(text) : std::string_view());
}

bool formatText(std::span<char> field, const char* format, ...) noexcept {
    if (field.empty())
        return false;
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(field.data(), field.size(), format, args);
    va_end(args);
    if (length < 0) {
        field[0] = '\0';
        return false;
    }
    return static_cast<std::size_t>(length) < field.size();
}

bool appendText(std::span<char> field, std::string_view text) noexcept {
    if (field.empty())
        return false;
    const std::size_t used = fieldText(field).size();
    if (used == field.size()) {
        // No terminator anywhere: the field is full.
        field.back() = '\0';
        return false;
    }
    return copyText(field.subspan(used), text);
}

std::string_view fieldText(std::span<const char> field) noexcept {
    if (field.empty())
        return {};
    return {field.data(), ::strnlen(field.data(), field.size())};
}

} // namespace kestrel
