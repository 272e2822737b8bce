#include "Failure.h"

#include "foundation/ErrorCodes.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace kestrel::capture {
namespace {

std::string formatList(const char* pattern, va_list arguments) {
    std::array<char, 1024> text{};
    std::vsnprintf(text.data(), text.size(), pattern, arguments);
    return text.data();
}

} // namespace

Failure failure(long code, ...) noexcept {
    va_list arguments;
    va_start(arguments, code);
    Failure result{code, formatList(LOG_MSG(code), arguments)};
    va_end(arguments);
    return result;
}

Failure detailed(Failure base, const std::string& detail) {
    base.text += " (" + detail + ")";
    return base;
}

std::string format(const char* pattern, ...) {
    va_list arguments;
    va_start(arguments, pattern);
    std::string text = formatList(pattern, arguments);
    va_end(arguments);
    return text;
}

} // namespace kestrel::capture
