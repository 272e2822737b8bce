// The decision where the stream of an encoder is received.
#pragma once

#include "EncoderMap.h"
#include "capture_profile/CSettings.h"

#include <cstdint>
#include <string>

namespace kestrel::capture {

struct StreamSource {
    std::uint32_t address = 0;          // multicast group or address of this host; 0: any of this host
    int port = 0;                       // UDP
    std::uint32_t interfaceAddress = 0; // where a group is joined; 0 leaves it to the routes
    std::uint32_t sender = 0;           // only datagrams of this sender count; 0: of any
    bool overwrite = false;             // an existing output file is replaced
    std::string origin;                 // what decided, for the log

    // The address to name to people: the group or host address, else the encoder's.
    [[nodiscard]] std::uint32_t shownAddress() const noexcept { return address ? address : sender; }
};

// The reception's own IP_ADDRESS and PORT come first, then the map's line for its SNMP_IP_ADDRESS, then what
// that address sends to the default port of this host. A map line also gives the interface of a group that
// the reception names, since the settings file cannot.
[[nodiscard]] StreamSource decideStreamSource(const CSettings::EncoderReception& reception,
                                              const EncoderMap& map);

} // namespace kestrel::capture
