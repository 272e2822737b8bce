// Why something failed: a code of the capture messages and the finished text.
#pragma once

#include "foundation/ErrnoText.h"

#include <optional>
#include <string>

namespace kestrel::capture {

struct Failure {
    long code = 0;
    std::string text;
};

using MaybeFailure = std::optional<Failure>;

// The text of a capture message (LOG_MSG) with its placeholders filled from the further arguments.
[[nodiscard]] Failure failure(long code, ...) noexcept;

// The same, followed by a blank and a detail in parentheses.
[[nodiscard]] Failure detailed(Failure base, const std::string& detail);

// printf into a string.
[[nodiscard]] std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

} // namespace kestrel::capture
