#include "CountedNoun.h"

namespace kestrel::capture {

std::string counted(std::uint64_t count, std::string_view noun) {
    std::string text = std::to_string(count);
    text.append(" ").append(noun);
    if (count != 1)
        text += 's';
    return text;
}

} // namespace kestrel::capture
