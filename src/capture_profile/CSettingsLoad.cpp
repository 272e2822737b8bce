// Reading a capture profile.
#include "capture_profile/CSettings.h"
#include "capture_profile/ProfileFormat.h"
#include "capture_profile/XmlFile.h"
#include "foundation/FixedText.h"

#include <arpa/inet.h>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <strings.h>
#include <tinyxml.h>

namespace {

namespace profile = kestrel::profile;
using profile::BoolRule;
using profile::IntegerRule;

using kestrel::parseInteger;

// Fills sections from elements. One reader serves one load: it remembers the integer most recently read.
class ProfileReader {
public:
    template <typename Section, typename Table>
    void readElement(const TiXmlElement& root, const char* name, const Table& table, Section& section) {
        if (const TiXmlElement* element = root.FirstChildElement(name); element != nullptr)
            readAttributes(*element, table, section);
    }

    template <typename Section, typename Table>
    void readAttributes(const TiXmlElement& element, const Table& table, Section& section) {
        for (const profile::Attribute<Section>& attribute : table)
            readAttribute(element, attribute, section);
    }

    template <typename Section>
    void readAttribute(const TiXmlElement& element, const profile::Attribute<Section>& attribute,
                       Section& section) {
        const char* value = element.Attribute(attribute.key);
        std::visit([&](const auto& field) { read(value, field, section); }, attribute.field);
    }

private:
    template <typename Section>
    void read(const char* value, const profile::IntegerField<Section>& field, Section& section) {
        int& target = section.*field.member;
        const std::optional<int> number =
            field.rule == IntegerRule::AlwaysPrevious ? std::nullopt : parseInteger(value);
        if (number && field.rule != IntegerRule::Uncounted)
            m_lastInteger = *number;

        switch (field.rule) {
        case IntegerRule::KeepWhenAbsent:
        case IntegerRule::Uncounted:
            target = number.value_or(target);
            break;
        case IntegerRule::PreviousWhenAbsent:
        case IntegerRule::AlwaysPrevious:
            target = m_lastInteger;
            break;
        case IntegerRule::Fallback:
            target = number.value_or(field.fallback);
            break;
        case IntegerRule::AtLeast:
            target = number && *number >= field.least ? *number : field.fallback;
            break;
        case IntegerRule::AtLeastWhenPresent:
            if (number)
                target = *number >= field.least ? *number : field.fallback;
            break;
        }
    }

    template <typename Section>
    void read(const char* value, const profile::BoolField<Section>& field, Section& section) {
        if (value == nullptr)
            return;
        bool& target = section.*field.member;
        switch (field.rule) {
        case BoolRule::TrueOnly:
            target = ::strcasecmp(value, profile::trueWord) == 0;
            break;
        case BoolRule::UnlessFalse:
            target = ::strcasecmp(value, profile::falseWord) != 0;
            break;
        case BoolRule::OnlyToFalse:
            if (::strcasecmp(value, profile::falseWord) == 0)
                target = false;
            break;
        }
    }

    template <typename Section>
    void read(const char* value, const profile::AddressField<Section>& field, Section& section) {
        in_addr parsed{};
        if (value != nullptr && ::inet_pton(AF_INET, value, &parsed) == 1)
            section.*field.member = ntohl(parsed.s_addr);
    }

    template <typename Section>
    void read(const char* value, const profile::TextField<Section>& field, Section& section) {
        if (value == nullptr)
            value = field.fallback;
        if (value != nullptr)
            kestrel::copyText(section.*field.member, value);
    }

    template <typename Section>
    void read(const char* value, const profile::TimecodeField<Section>& field, Section& section) {
        if (value != nullptr)
            kestrel::copyText(section.*field.member, value);
    }

    template <typename Section>
    void read(const char* value, const profile::EncoderTypeField<Section>& field, Section& section) {
        if (value != nullptr)
            section.*field.member = ::strcasecmp(value, profile::harmonicWord) == 0
                                        ? CSettings::ENCODER_HARMONIC
                                        : CSettings::ENCODER_ORMOND;
    }

    template <typename Section>
    void read(const char* value, const profile::RunTypeField<Section>& field, Section& section) {
        if (value != nullptr)
            section.*field.member = std::strcmp(value, profile::standaloneWord) != 0;
    }

    int m_lastInteger = 0;
};

void readCommand(ProfileReader& reader, const TiXmlElement& element, CSettings::CmdParams& cmd) {
    reader.readAttributes(element, profile::cmdAttributes, cmd);
    const char* name = element.Attribute(profile::jobTypeKey);
    if (name == nullptr)
        return;
    for (const profile::NamedJobType& type : profile::jobTypes) {
        if (::strcasecmp(name, type.name) != 0)
            continue;
        cmd.jobType = type.type;
        for (const profile::JobAttribute& job : profile::jobAttributes) {
            if (type.*job.group)
                reader.readAttribute(element, job.attribute, cmd);
        }
    }
}

} // namespace

bool CSettings::LoadProfile(const char* path) {
    Init();
    if (path == nullptr)
        return false;
    TiXmlDocument document;
    if (!kestrel::parseXmlFile(path, document))
        return false;
    const TiXmlElement* root = document.RootElement();
    if (root == nullptr)
        return false;

    ProfileReader reader;
    for (int i = 0; i < MAX_ENCODERS; ++i) {
        char name[32];
        kestrel::formatText(name, profile::encoderElement, i);
        const TiXmlElement* element = root->FirstChildElement(name);
        if (element == nullptr)
            continue;
        // Counts elements, whichever their numbers: a profile with only the second one saves the first.
        ++numEncoders;
        reader.readAttributes(*element, profile::encoderAttributes, encoders[static_cast<std::size_t>(i)]);
    }
    reader.readElement(*root, profile::decoderElement, profile::decoderAttributes, decoder);
    reader.readElement(*root, profile::mpegElement, profile::mpegAttributes, mpegEngine);
    reader.readElement(*root, profile::interfaceElement, profile::interfaceAttributes, encoderInterface);
    reader.readElement(*root, profile::audioElement, profile::audioAttributes, audioEngine);
    reader.readElement(*root, profile::vtrElement, profile::vtrAttributes, vtr);
    reader.readElement(*root, profile::mezzanineElement, profile::mezzanineAttributes, mezzanine);
    if (const TiXmlElement* element = root->FirstChildElement(profile::cmdElement); element != nullptr)
        readCommand(reader, *element, cmd);
    return true;
}
