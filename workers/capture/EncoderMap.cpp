#include "EncoderMap.h"

#include "Ipv4.h"
#include "capture_profile/XmlFile.h"
#include "foundation/ErrorCodes.h"

#include <algorithm>
#include <strings.h>
#include <tinyxml.h>

namespace kestrel::capture {
namespace {

// An address attribute; an absent one is 0 unless it is required.
bool readAddress(const TiXmlElement& element, const char* key, bool required, std::uint32_t& address) {
    const char* text = element.Attribute(key);
    if (!text)
        return !required;
    const auto parsed = parseAddress(text);
    address = parsed.value_or(0);
    return parsed.has_value();
}

bool readEntry(const TiXmlElement& element, EncoderMap::Entry& entry) {
    const char* overwrite = element.Attribute("OVERWRITE");
    entry.overwrite = overwrite && strcasecmp(overwrite, "TRUE") == 0;
    return readAddress(element, "CONTROL_ADDRESS", true, entry.controlAddress) &&
           readAddress(element, "STREAM_ADDRESS", false, entry.streamAddress) &&
           readAddress(element, "INTERFACE", false, entry.interfaceAddress) &&
           element.QueryIntAttribute("PORT", &entry.port) == TIXML_SUCCESS && entry.port > 0 &&
           entry.port < 65536;
}

} // namespace

MaybeFailure EncoderMap::load(const std::string& path) {
    m_entries.clear();
    m_rtpDecoders.clear();
    TiXmlDocument document;
    std::optional<std::string> unreadable = xmlFileProblem(path.c_str(), document);
    if (!unreadable && !document.RootElement())
        unreadable = "it has no root element";
    if (unreadable)
        return detailed(failure(error::invalidConfigurationFile), "encoder map " + path + ": " + *unreadable);
    for (const TiXmlElement* element = document.RootElement()->FirstChildElement("Encoder"); element;
         element = element->NextSiblingElement("Encoder")) {
        Entry entry;
        if (!readEntry(*element, entry))
            return detailed(failure(error::invalidConfigurationFile),
                            format("encoder map %s, line %d", path.c_str(), element->Row()));
        m_entries.push_back(entry);
    }
    for (const TiXmlElement* element = document.RootElement()->FirstChildElement("Decoder"); element;
         element = element->NextSiblingElement("Decoder")) {
        std::uint32_t address = 0;
        if (!readAddress(*element, "CONTROL_ADDRESS", true, address))
            return detailed(failure(error::invalidConfigurationFile),
                            format("encoder map %s, line %d", path.c_str(), element->Row()));
        const char* rtp = element->Attribute("RTP");
        if (rtp && strcasecmp(rtp, "TRUE") == 0)
            m_rtpDecoders.push_back(address);
    }
    return std::nullopt;
}

bool EncoderMap::decoderTakesRtp(std::uint32_t controlAddress) const noexcept {
    return std::find(m_rtpDecoders.begin(), m_rtpDecoders.end(), controlAddress) != m_rtpDecoders.end();
}

const EncoderMap::Entry* EncoderMap::find(std::uint32_t controlAddress) const noexcept {
    for (const Entry& entry : m_entries)
        if (entry.controlAddress == controlAddress)
            return &entry;
    return nullptr;
}

} // namespace kestrel::capture
