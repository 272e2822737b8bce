// How people name serial ports, and the devices behind the names.
#pragma once

#include "Failure.h"

#include <map>
#include <string>
#include <string_view>

namespace kestrel::deck {

// Letters of the longest name that fits into a request.
inline constexpr std::size_t portNameLetters = 11;

class PortNames {
public:
    // Reads the "Port" elements (NAME, DEVICE) of the root of an XML file. An element that cannot be used is
    // logged with its line and left out; false, and logged, when there is no such file, when it is no XML or
    // larger or deeper than a map can be.
    bool load(const std::string& path);

    // The device of a name: the map's; else "COM<n>" (1 and up) is /dev/ttyS<n-1>, "tty..." is /dev/tty...,
    // and a path is itself. Empty when it is none of these. Capitals and small letters are alike, but not in
    // paths and tty names.
    [[nodiscard]] std::string device(std::string_view name) const;

private:
    std::map<std::string, std::string> m_devices; // by name in capitals
};

} // namespace kestrel::deck
