#include "Failure.h"

#include "foundation/ErrorCodes.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace kestrel::deck {
namespace {

Failure make(const std::string& detail, long code, ...) {
    std::array<char, 1024> text{};
    va_list arguments;
    va_start(arguments, code);
    std::vsnprintf(text.data(), text.size(), LOG_MSG(code), arguments);
    va_end(arguments);
    return {code, text.data() + (" (" + detail + ")")};
}

} // namespace

Failure notConnected(const std::string& port, const std::string& detail) {
    return make(detail, error::vtrNotConnected, port.c_str());
}

Failure commandFailed(int kind, const std::string& port, const std::string& detail) {
    return make(detail, error::vtrCommandFailed, kind, port.c_str());
}

Failure prerollFailed(const std::string& timecode, const std::string& port, const std::string& detail) {
    return make(detail, error::vtrPrerollFailed, timecode.c_str(), port.c_str());
}

Failure unknownRequest(int number, const std::string& detail) {
    return make(detail, error::unknownVtrRequest, number);
}

Failure tooLate(const std::string& detail) {
    return make(detail, error::vtrResponseTimeout);
}

} // namespace kestrel::deck
