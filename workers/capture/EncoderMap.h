// The encoder map: a file of the installation that tells where the stream of each encoder is to be found, by
// the encoder's control address.
#pragma once

#include "Failure.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::capture {

class EncoderMap {
public:
    struct Entry {
        std::uint32_t controlAddress = 0;   // CONTROL_ADDRESS: the encoder's own address
        std::uint32_t streamAddress = 0;    // STREAM_ADDRESS: multicast group, or an address of this host
        int port = 0;                       // PORT: UDP
        std::uint32_t interfaceAddress = 0; // INTERFACE: where a group is joined; 0 leaves it to the routes
        bool overwrite = false;             // OVERWRITE: an existing output file is replaced
    };

    // Reads the "Encoder" elements of the root. An element with a wrong or missing address or port is a
    // failure that names its line: a map half understood would record the wrong stream.
    [[nodiscard]] MaybeFailure load(const std::string& path);

    // Whether a decoder is to be sent RTP: a "Decoder" element with its CONTROL_ADDRESS says RTP="TRUE".
    [[nodiscard]] bool decoderTakesRtp(std::uint32_t controlAddress) const noexcept;

    // The entry of an encoder; null when the map has none.
    [[nodiscard]] const Entry* find(std::uint32_t controlAddress) const noexcept;

    // Existing output files of every encoder are replaced, also of those that the map does not name.
    void setOverwriteAll(bool overwrite) noexcept { m_overwriteAll = overwrite; }
    [[nodiscard]] bool overwriteAll() const noexcept { return m_overwriteAll; }

    [[nodiscard]] const std::vector<Entry>& entries() const noexcept { return m_entries; }

private:
    std::vector<Entry> m_entries;
    std::vector<std::uint32_t> m_rtpDecoders;
    bool m_overwriteAll = false;
};

} // namespace kestrel::capture
