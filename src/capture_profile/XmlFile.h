// Reading XML files that may be anything: bounded before the parser sees them.
#pragma once

#include <optional>
#include <string>

class TiXmlDocument;

namespace kestrel {

// Reads path, a regular file of at most 16 MiB, into document. False when it cannot be read, is no XML, or is
// larger or more deeply nested than a settings file can be. A document without a root element is true.
[[nodiscard]] bool parseXmlFile(const char* path, TiXmlDocument& document);
// The same: what stands against the file in words, with the line where it is no XML, or nothing.
[[nodiscard]] std::optional<std::string> xmlFileProblem(const char* path, TiXmlDocument& document);

// The whole text, but for blanks around it, as a decimal integer; nothing for null, for any other text and
// for a number beyond an int.
[[nodiscard]] std::optional<int> parseInteger(const char* text);

} // namespace kestrel
