// What an errno says, for logs and failure texts.
#pragma once

#include <string>
#include <system_error>

namespace kestrel {

// "No such file or directory (errno 2)".
inline std::string errnoText(int error) {
    return std::system_category().message(error) + " (errno " + std::to_string(error) + ")";
}

} // namespace kestrel
