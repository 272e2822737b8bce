#include "foundation/StringUtil.h"

#include "foundation/FixedText.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <span>
#include <utility>

namespace kestrel {

std::optional<std::size_t> ArgumentSplit::firstTooLong() const noexcept {
    const auto found = std::find_if(arguments.begin(), arguments.end(), [](const std::string& argument) {
        return argument.size() >= argumentCapacity;
    });
    if (found == arguments.end())
        return std::nullopt;
    return static_cast<std::size_t>(found - arguments.begin());
}

ArgumentSplit splitArguments(std::string_view line, std::string_view separators) {
    ArgumentSplit split;
    std::string current;
    const auto finish = [&] {
        split.arguments.push_back(std::move(current));
        current.clear();
    };
    for (std::size_t at = 0; at < line.size(); ++at) {
        const char c = line[at];
        if (separators.find(c) != std::string_view::npos) {
            if (!current.empty())
                finish();
            continue;
        }
        const std::size_t partner = c == '"' ? line.find('"', at + 1) : std::string_view::npos;
        if (partner == std::string_view::npos) {
            current += c;
            continue;
        }
        // A closing quote always ends an argument, so that "" is an empty one.
        current += line.substr(at + 1, partner - at - 1);
        finish();
        at = partner;
    }
    if (!current.empty())
        finish();
    return split;
}

} // namespace kestrel

const char* cStringUtil::cValue(char* s) noexcept {
    return s != nullptr ? s : "";
}

void cStringUtil::setDirPath(char* dst, const char* src) noexcept {
    if (dst == nullptr)
        return;
    const char* text = cValue(src);
    std::size_t length = std::strlen(text);
    std::memmove(dst, text, length);
    if (length == 0 || dst[length - 1] != '/')
        dst[length++] = '/';
    dst[length] = '\0';
}

const char* cStringUtil::getStrippedFilename(const char* path) noexcept {
    const std::string_view text = cValue(path);
    const char* whole = text.data();
    if (!text.ends_with('/')) {
        const std::size_t slash = text.rfind('/');
        return slash == std::string_view::npos ? whole : whole + slash + 1;
    }
    if (text.size() <= 2)
        return whole;
    // The component before the final "/". A "/" at the very start does not separate: /a/ stays whole.
    const std::size_t slash = text.rfind('/', text.size() - 2);
    return slash == std::string_view::npos || slash == 0 ? whole : whole + slash + 1;
}

int cStringUtil::stripFileSpec(char* path) noexcept {
    const char* component = getStrippedFilename(path);
    if (path == nullptr || component == path)
        return 0;
    // Without a "." it is taken to be a directory, whatever it is on disk.
    if (std::strchr(component, '.') == nullptr)
        return 0;
    path[component - path - 1] = '\0';
    return 1;
}

int cStringUtil::stripFileExt(char* path) noexcept {
    char* dot = path != nullptr ? std::strrchr(path, '.') : nullptr;
    if (dot == nullptr)
        return 0;
    *dot = '\0';
    return 1;
}

int cStringUtil::getArgumentList(const char* line, char (*args)[kestrel::argumentCapacity],
                                 const char* separators) noexcept try {
    if (args == nullptr)
        return 0;
    const std::span<char[kestrel::argumentCapacity]> slots(args, kestrel::maxArguments);
    for (auto& slot : slots)
        slot[0] = '\0';
    const kestrel::ArgumentSplit split = kestrel::splitArguments(cValue(line), cValue(separators));
    const std::size_t count = std::min(split.arguments.size(), slots.size());
    for (std::size_t i = 0; i < count; ++i)
        kestrel::copyText(slots[i], split.arguments[i]);
    return static_cast<int>(count);
} catch (const std::bad_alloc&) {
    return 0;
}

void cStringUtil::allocate(std::size_t length, std::size_t bytesPerCharacter) {
    const std::size_t characters = std::min<std::size_t>(length, INT_MAX - 1) + 1;
    auto narrow = std::make_unique<char[]>(characters * bytesPerCharacter);
    auto wide = std::make_unique<wchar_t[]>(characters);
    cstr = narrow.release();
    wcstr = wide.release();
    size = static_cast<int>(characters);
    m_narrowBytes = characters * bytesPerCharacter;
}

cStringUtil::cStringUtil(const char* text) {
    const std::string_view source = cValue(text);
    allocate(source.size(), 1);
    kestrel::copyText(std::span(cstr, m_narrowBytes), source);
    updateWcstr();
}

cStringUtil::cStringUtil(const wchar_t* text) {
    const std::wstring_view source = text != nullptr ? text : L"";
    allocate(source.size(), MB_LEN_MAX);
    const std::size_t length = std::min(source.size(), static_cast<std::size_t>(size) - 1);
    std::wmemcpy(wcstr, source.data(), length);
    wcstr[length] = L'\0';
    updateCstr();
}

cStringUtil::cStringUtil(const cStringUtil& other) {
    const auto characters = static_cast<std::size_t>(other.size);
    allocate(characters - 1, other.m_narrowBytes / characters);
    std::memcpy(cstr, other.cstr, m_narrowBytes);
    std::wmemcpy(wcstr, other.wcstr, characters);
}

cStringUtil& cStringUtil::operator=(const cStringUtil& other) {
    cStringUtil copy(other);
    std::swap(cstr, copy.cstr);
    std::swap(wcstr, copy.wcstr);
    std::swap(size, copy.size);
    std::swap(m_narrowBytes, copy.m_narrowBytes);
    return *this;
}

cStringUtil::~cStringUtil() {
    delete[] cstr;
    delete[] wcstr;
}

void cStringUtil::updateWcstr() noexcept {
    std::mbstate_t state{};
    const char* from = cstr;
    const char* const end = cstr + ::strnlen(cstr, m_narrowBytes);
    const wchar_t* const last = wcstr + size - 1;
    wchar_t* to = wcstr;
    while (from < end && to < last) {
        const std::size_t used = std::mbrtowc(to, from, static_cast<std::size_t>(end - from), &state);
        // Both failure values are above any length: nothing after such a character can be trusted.
        if (used == 0 || used > static_cast<std::size_t>(end - from))
            break;
        from += used;
        ++to;
    }
    *to = L'\0';
}

void cStringUtil::updateCstr() noexcept {
    std::mbstate_t state{};
    char* to = cstr;
    const char* const last = cstr + m_narrowBytes - 1;
    for (const wchar_t* from = wcstr; from < wcstr + size && *from != L'\0'; ++from) {
        char bytes[MB_LEN_MAX];
        const std::size_t used = std::wcrtomb(bytes, *from, &state);
        if (used == static_cast<std::size_t>(-1) || used > static_cast<std::size_t>(last - to))
            break;
        to = std::copy_n(bytes, used, to);
    }
    *to = '\0';
}

int cStringUtil::stripFileSpec() {
    const int cut = stripFileSpec(cstr);
    updateWcstr();
    return cut;
}

int cStringUtil::stripFileExt() {
    const int cut = stripFileExt(cstr);
    updateWcstr();
    return cut;
}

const char* cStringUtil::getStrippedFilename() {
    const char* component = getStrippedFilename(cstr);
    std::memmove(cstr, component, std::strlen(component) + 1);
    updateWcstr();
    return cstr;
}

char* cStringUtil::cstrTrim(const char* set) {
    const char* unwanted = cValue(set);
    const char* start = cstr + std::strspn(cstr, unwanted);
    std::string_view kept = start;
    while (!kept.empty() && std::strchr(unwanted, kept.back()) != nullptr)
        kept.remove_suffix(1);
    std::memmove(cstr, kept.data(), kept.size());
    cstr[kept.size()] = '\0';
    updateWcstr();
    return cstr;
}

wchar_t* cStringUtil::wcstrTrim(const wchar_t* set) {
    const wchar_t* start = wcstr + std::wcsspn(wcstr, set != nullptr ? set : L"");
    std::wmemmove(wcstr, start, std::wcslen(start) + 1);
    updateCstr();
    return wcstr;
}
