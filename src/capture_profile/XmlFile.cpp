#include "capture_profile/XmlFile.h"

#include "foundation/ErrnoText.h"
#include "foundation/UniqueFd.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <tinyxml.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr std::size_t maxFileBytes = 16U << 20;
// A settings file has ten elements and some hundred attributes. The parser recurses once for each nested
// element and compares each attribute with all before it in its element, so both are bounded before it sees
// the text.
constexpr std::ptrdiff_t maxTags = 4096;
constexpr std::ptrdiff_t maxAttributes = 16384;

constexpr const char* noSuchFile = "it is no file of at most 16 MiB";

// Reads a regular file of at most maxFileBytes; what stands against it, or nothing.
std::optional<std::string> readRegularFile(const char* path, std::string& bytes) {
    // Non-blocking, so that a FIFO without a writer does not hold the caller.
    const UniqueFd fd(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    if (!fd.valid() || ::fstat(fd.get(), &info) != 0)
        return errnoText(errno);
    if (!S_ISREG(info.st_mode) || info.st_size < 0 || static_cast<std::size_t>(info.st_size) > maxFileBytes)
        return noSuchFile;

    char block[16384];
    for (;;) {
        const ssize_t got = ::read(fd.get(), block, sizeof block);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return errnoText(errno);
        if (got == 0)
            return std::nullopt;
        bytes.append(block, static_cast<std::size_t>(got));
        if (bytes.size() > maxFileBytes)
            return noSuchFile;
    }
}

// Whether text can go to the parser without exhausting the stack or the patience of the caller.
bool isParsable(std::string_view text) {
    return text.find('\0') == std::string_view::npos &&
           std::count(text.begin(), text.end(), '<') <= maxTags &&
           std::count(text.begin(), text.end(), '=') <= maxAttributes;
}

// Whether text is well-formed UTF-8 (RFC 3629), as far as the parser could lose its place in it: each byte
// that begins a sequence has its followers.
bool isUtf8(std::string_view text) {
    std::size_t followers = 0;
    for (const char each : text) {
        const auto byte = static_cast<unsigned char>(each);
        if ((byte & 0xC0) == 0x80) {
            if (followers-- == 0)
                return false;
        } else if (followers != 0)
            return false;
        else if (byte >= 0xC0)
            followers = byte >= 0xF0 ? 3 : byte >= 0xE0 ? 2 : 1;
    }
    return followers == 0;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

} // namespace

bool parseXmlFile(const char* path, TiXmlDocument& document) {
    return !xmlFileProblem(path, document);
}

std::optional<std::string> xmlFileProblem(const char* path, TiXmlDocument& document) {
    std::string text;
    if (auto problem = readRegularFile(path, text))
        return problem;
    if (!isParsable(text))
        return "it has more than " + std::to_string(maxTags) + " tags or " + std::to_string(maxAttributes) +
               " attributes, or is no text";
    // The parser looks for a byte-order mark without regard for the end: a cut-off one must not stand there.
    text.append("\n\n\n");
    // A file name may be of any bytes, and a field is cut between two of them: read as UTF-8, the beginning
    // of a character would swallow the quote behind it.
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (isUtf8(text))
        document.Parse(text.c_str());
    else
        document.Parse(text.c_str() + (text.starts_with(byteOrderMark) ? byteOrderMark.size() : 0), nullptr,
                       TIXML_ENCODING_LEGACY);
    if (!document.Error())
        return std::nullopt;
    // The parser often notices what is wrong only behind it, and its texts end in a point.
    std::string_view what(document.ErrorDesc());
    while (what.ends_with('.'))
        what.remove_suffix(1);
    return "at or before line " + std::to_string(document.ErrorRow()) + ": " + std::string(what);
}

std::optional<int> parseInteger(const char* text) {
    if (text == nullptr)
        return std::nullopt;
    std::string_view digits = trimmed(text);
    if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-')
        digits.remove_prefix(1);
    int value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size())
        return std::nullopt;
    return value;
}

} // namespace kestrel
