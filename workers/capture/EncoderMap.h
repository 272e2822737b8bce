// The encoder map: a file of the installation that tells where the stream of each encoder is to be found, by
// the encoder's control address.
#pragma once

#include "Failure.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

class TiXmlElement;

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

    // Reads the "Encoder" and "Decoder" elements of the root. One that lacks an attribute it needs, or has
    // one whose value means nothing, is a failure that names line, element, attribute, value and what was
    // expected: a map half understood would record the wrong stream. Other elements and attributes are warned
    // of in the log and ignored; but an encoder that has such, and no STREAM_ADDRESS, is a failure as well.
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
    struct Decoder {
        std::uint32_t controlAddress = 0;
        bool rtp = false;
    };

    [[nodiscard]] MaybeFailure read(const std::string& path, const TiXmlElement& element);
    [[nodiscard]] MaybeFailure readEncoder(const std::string& path, const TiXmlElement& element);
    [[nodiscard]] MaybeFailure readDecoder(const std::string& path, const TiXmlElement& element);
    template <typename Equipment>
    [[nodiscard]] static const Equipment* find(const std::vector<Equipment>& all,
                                               std::uint32_t controlAddress) noexcept {
        const auto found = std::find_if(all.begin(), all.end(), [controlAddress](const Equipment& each) {
            return each.controlAddress == controlAddress;
        });
        return found == all.end() ? nullptr : &*found;
    }

    std::vector<Entry> m_entries;
    std::vector<Decoder> m_decoders;
    bool m_overwriteAll = false;
};

} // namespace kestrel::capture
