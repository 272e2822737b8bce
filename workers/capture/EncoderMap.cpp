#include "EncoderMap.h"

#include "Ipv4.h"
#include "capture_profile/XmlFile.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>
#include <strings.h>
#include <tinyxml.h>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

constexpr std::string_view rootName = "Encoders";
constexpr std::array elementNames{"Encoder", "Decoder"};
constexpr std::array encoderKeys{"CONTROL_ADDRESS", "STREAM_ADDRESS", "PORT", "INTERFACE", "OVERWRITE"};
constexpr std::array decoderKeys{"CONTROL_ADDRESS", "RTP"};

std::string listed(std::span<const char* const> names) {
    std::string text;
    for (const char* name : names)
        text.append(text.empty() ? "" : ", ").append(name);
    return text;
}

std::string atLine(const std::string& map, int line) {
    return "encoder map " + map + ", line " + std::to_string(line) + ": ";
}

// What is not understood, and would be left out without a trace.
void warn(const std::string& map, int line, const std::string& what) {
    LogUtil::Warning(module, "%s%s", atLine(map, line).c_str(), what.c_str());
}

// The attributes of one element. The first that is missing or means nothing is kept as the problem.
class Attributes {
public:
    Attributes(const std::string& map, const TiXmlElement& element, std::span<const char* const> keys)
        : m_map(map), m_element(element) {
        const std::string known =
            " of " + element.ValueStr() + " is not known and is ignored; the attributes are " + listed(keys);
        for (const TiXmlAttribute* each = element.FirstAttribute(); each; each = each->Next())
            if (std::find(keys.begin(), keys.end(), each->NameTStr()) == keys.end())
                leaveOut(element.Row(), "attribute ", each->NameTStr(), known);
        for (const TiXmlElement* each = element.FirstChildElement(); each; each = each->NextSiblingElement())
            leaveOut(each->Row(), "element ", each->ValueStr(), known);
    }

    [[nodiscard]] bool has(const char* key) const { return m_element.Attribute(key) != nullptr; }
    // Of an equipment or an interface: no group.
    std::uint32_t hostAddress(const char* key) {
        const std::uint32_t address = read(key, "an IPv4 address");
        if (isMulticast(address))
            refuse(key, "an IPv4 address, and no multicast group");
        return address;
    }
    std::uint32_t controlAddress() {
        constexpr const char* key = "CONTROL_ADDRESS";
        const std::uint32_t address = hostAddress(key);
        if (address == 0)
            refuse(key, "an IPv4 address, that of the equipment itself");
        return address;
    }
    // Without one anybody's stream on the port is recorded. That may be meant, unless it was misspelt.
    std::uint32_t streamAddress() {
        constexpr const char* key = "STREAM_ADDRESS";
        constexpr const char* expected = "a multicast group or an address of this host";
        if (has(key))
            return read(key, expected);
        if (!m_leftOut.empty())
            refuse(key, expected);
        return 0;
    }
    int port() {
        constexpr const char* key = "PORT";
        const int port = parseInteger(m_element.Attribute(key)).value_or(0);
        if (port < 1 || port > 65535)
            refuse(key, "a number from 1 to 65535");
        return port;
    }
    // An absent one is false.
    bool flag(const char* key) {
        const char* text = m_element.Attribute(key);
        const bool is = text && strcasecmp(text, "TRUE") == 0;
        if (text && !is && strcasecmp(text, "FALSE") != 0)
            refuse(key, "TRUE or FALSE");
        return is;
    }

    [[nodiscard]] MaybeFailure problem() const {
        if (m_problem.empty())
            return std::nullopt;
        return detailed(failure(error::invalidConfigurationFile),
                        atLine(m_map, m_element.Row()) + m_problem +
                            (m_leftOut.empty() ? "" : "; not known: " + m_leftOut));
    }

private:
    void leaveOut(int line, const char* kind, const std::string& name, const std::string& known) {
        warn(m_map, line, kind + name + known);
        m_leftOut.append(m_leftOut.empty() ? "" : ", ").append(name);
    }

    std::uint32_t read(const char* key, const char* expected) {
        const char* text = m_element.Attribute(key);
        const auto address = text ? parseAddress(text) : std::nullopt;
        if (!address)
            refuse(key, expected);
        return address.value_or(0);
    }

    void refuse(const char* key, const char* expected) {
        if (!m_problem.empty())
            return;
        const char* text = m_element.Attribute(key);
        m_problem = m_element.ValueStr() + ", " + key;
        if (text)
            m_problem.append("=\"").append(text).append("\"");
        else
            m_problem.append(" is missing");
        m_problem.append(": expected is ").append(expected);
    }

    const std::string& m_map;
    const TiXmlElement& m_element;
    std::string m_leftOut;
    std::string m_problem;
};

// Whether the equipment has no line yet; one that has keeps it.
bool isNew(const std::string& map, const TiXmlElement& element, bool known) {
    if (known)
        warn(map, element.Row(),
             element.ValueStr() + " with CONTROL_ADDRESS=\"" + element.Attribute("CONTROL_ADDRESS") +
                 "\" is there before and is ignored");
    return !known;
}

} // namespace

MaybeFailure EncoderMap::load(const std::string& path) {
    m_entries.clear();
    m_decoders.clear();
    TiXmlDocument document;
    std::optional<std::string> unreadable = xmlFileProblem(path.c_str(), document);
    if (!unreadable && !document.RootElement())
        unreadable = "it has no root element";
    if (unreadable)
        return detailed(failure(error::invalidConfigurationFile), "encoder map " + path + ": " + *unreadable);
    const TiXmlElement& root = *document.RootElement();
    if (root.ValueStr() != rootName)
        warn(path, root.Row(), "root element " + root.ValueStr() + " is taken for Encoders");
    for (const TiXmlElement* each = root.NextSiblingElement(); each; each = each->NextSiblingElement())
        warn(path, each->Row(),
             "element " + each->ValueStr() + " stands behind the root element and is ignored");
    for (const TiXmlElement* each = root.FirstChildElement(); each; each = each->NextSiblingElement())
        if (auto failed = read(path, *each))
            return failed;
    return std::nullopt;
}

MaybeFailure EncoderMap::read(const std::string& path, const TiXmlElement& element) {
    if (element.ValueStr() == "Encoder")
        return readEncoder(path, element);
    if (element.ValueStr() == "Decoder")
        return readDecoder(path, element);
    warn(path, element.Row(),
         "element " + element.ValueStr() + " is not known and is ignored; the elements are " +
             listed(elementNames));
    return std::nullopt;
}

MaybeFailure EncoderMap::readEncoder(const std::string& path, const TiXmlElement& element) {
    Attributes attributes(path, element, encoderKeys);
    Entry entry;
    entry.controlAddress = attributes.controlAddress();
    entry.streamAddress = attributes.streamAddress();
    entry.port = attributes.port();
    if (attributes.has("INTERFACE"))
        entry.interfaceAddress = attributes.hostAddress("INTERFACE");
    entry.overwrite = attributes.flag("OVERWRITE");
    if (auto problem = attributes.problem())
        return problem;
    if (isNew(path, element, find(entry.controlAddress) != nullptr))
        m_entries.push_back(entry);
    return std::nullopt;
}

MaybeFailure EncoderMap::readDecoder(const std::string& path, const TiXmlElement& element) {
    Attributes attributes(path, element, decoderKeys);
    const Decoder decoder{attributes.controlAddress(), attributes.flag("RTP")};
    if (auto problem = attributes.problem())
        return problem;
    if (isNew(path, element, find(m_decoders, decoder.controlAddress) != nullptr))
        m_decoders.push_back(decoder);
    return std::nullopt;
}

bool EncoderMap::decoderTakesRtp(std::uint32_t controlAddress) const noexcept {
    const Decoder* decoder = find(m_decoders, controlAddress);
    return decoder && decoder->rtp;
}

const EncoderMap::Entry* EncoderMap::find(std::uint32_t controlAddress) const noexcept {
    return find(m_entries, controlAddress);
}

} // namespace kestrel::capture
