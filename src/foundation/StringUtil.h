// Text helpers: a string in a narrow and a wide copy, path helpers, and the splitting of argument lines.
#pragma once

#include <concepts>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// The bounds of an argument list: slots, and bytes of one slot with its terminator.
inline constexpr std::size_t maxArguments = 50;
inline constexpr std::size_t argumentCapacity = 300;

// All arguments of a line, whole, with what the bounds say about them.
struct ArgumentSplit {
    std::vector<std::string> arguments;

    // More arguments than slots.
    [[nodiscard]] bool tooMany() const noexcept { return arguments.size() > maxArguments; }

    // Position of the first argument, among all, that does not fit its slot.
    [[nodiscard]] std::optional<std::size_t> firstTooLong() const noexcept;

    [[nodiscard]] bool withinBounds() const noexcept { return !tooMany() && !firstTooLong(); }
};

// Splits line at any character of separators. Empty arguments are dropped. A double quote with a partner
// later in the line takes everything between as text and ends the argument; one without is an ordinary
// character; two in a row are an empty argument that keeps its place.
[[nodiscard]] ArgumentSplit splitArguments(std::string_view line, std::string_view separators);

} // namespace kestrel

// A text held in a narrow and a wide copy. Whatever changes one copy converts it into the other with the
// locale's multibyte conversion, which stops at the first character it cannot convert.
class cStringUtil {
public:
    // Null counts as empty.
    cStringUtil(const char* text);
    cStringUtil(const wchar_t* text);
    ~cStringUtil();
    cStringUtil(const cStringUtil& other);
    cStringUtil& operator=(const cStringUtil& other);

    // s, or "" when it is null. The form for constant texts is a template so that cValue(nullptr) is not
    // ambiguous.
    static const char* cValue(char* s) noexcept;
    template <std::same_as<const char*> Text>
    static const char* cValue(Text s) noexcept {
        return s != nullptr ? s : "";
    }

    // Copies src and appends "/" unless it ends with one; an empty or null src gives "/". dst needs the
    // length of src + 2 bytes.
    static void setDirPath(char* dst, const char* src) noexcept;

    // The last component inside path; of a path that ends with "/", the component before with its "/". A
    // path of two characters or fewer that ends with "/" is its own last component. Null gives "".
    static const char* getStrippedFilename(const char* path) noexcept;

    // Cuts path at the separator before its last component, only when it has a directory part and the last
    // component holds a "." (one without is taken to be a directory). Returns 1 when it cut, else 0.
    static int stripFileSpec(char* path) noexcept;

    // Cuts path at its last ".", wherever that is. Returns 1 when it cut, else 0.
    static int stripFileExt(char* path) noexcept;

    // Splits line at separators (see kestrel::splitArguments) into the 50 slots of args, all of which are
    // emptied first. Arguments beyond the slots are dropped and long ones cut at 299 characters. Returns
    // the number of arguments stored.
    static int getArgumentList(const char* line, char (*args)[kestrel::argumentCapacity],
                               const char* separators) noexcept;

    // The helpers above on this text.
    int stripFileSpec();
    int stripFileExt();
    // Replaces the text with its last component and returns it.
    const char* getStrippedFilename();

    // Removes the leading and the trailing characters that are in set; returns the narrow text.
    char* cstrTrim(const char* set);

    // Removes only leading characters that are in set; returns the wide text.
    wchar_t* wcstrTrim(const wchar_t* set);

    // Convert the narrow copy into the wide one, and back.
    void updateWcstr() noexcept;
    void updateCstr() noexcept;

    char* cstr = nullptr;
    wchar_t* wcstr = nullptr;
    // Capacity in characters: length + 1 at construction.
    int size = 0;

private:
    void allocate(std::size_t length, std::size_t bytesPerCharacter);

    // A wide character may need several bytes, so cstr may have more bytes than size.
    std::size_t m_narrowBytes = 0;
};
