// Numbers with what they count, for texts that an operator reads.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kestrel::capture {

// "1 frame", "2 frames", "0 frames"; the noun is given in the singular and forms its plural with s.
[[nodiscard]] std::string counted(std::uint64_t count, std::string_view noun);

} // namespace kestrel::capture
