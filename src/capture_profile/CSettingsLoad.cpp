// Reading a capture profile.
#include "capture_profile/CSettings.h"
#include "capture_profile/ProfileFormat.h"
#include "foundation/FixedText.h"
#include "foundation/UniqueFd.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <strings.h>
#include <sys/stat.h>
#include <tinyxml.h>
#include <unistd.h>

namespace {

namespace profile = kestrel::profile;
using profile::BoolRule;
using profile::IntegerRule;

constexpr std::size_t maxProfileBytes = 16U << 20;
// A profile has ten elements and some hundred attributes. The parser recurses once for each nested element
// and compares each attribute with all before it in its element, so both are bounded before it sees the text.
constexpr std::ptrdiff_t maxTags = 4096;
constexpr std::ptrdiff_t maxAttributes = 16384;

// The bytes of a regular file of at most maxProfileBytes.
std::optional<std::string> readProfile(const char* path) {
    // Non-blocking, so that a FIFO without a writer does not hold the caller.
    const kestrel::UniqueFd fd(::open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    if (!fd.valid() || ::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < 0 ||
        static_cast<std::size_t>(info.st_size) > maxProfileBytes)
        return std::nullopt;

    std::string bytes;
    char block[16384];
    for (;;) {
        const ssize_t got = ::read(fd.get(), block, sizeof block);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            return bytes;
        bytes.append(block, static_cast<std::size_t>(got));
        if (bytes.size() > maxProfileBytes)
            return std::nullopt;
    }
}

// Whether text can go to the parser without exhausting the stack or the patience of the caller.
bool isParsable(std::string_view text) {
    return text.find('\0') == std::string_view::npos &&
           std::count(text.begin(), text.end(), '<') <= maxTags &&
           std::count(text.begin(), text.end(), '=') <= maxAttributes;
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// The whole text as an integer.
std::optional<int> parseInteger(const char* text) {
    if (text == nullptr)
        return std::nullopt;
    std::string_view digits = trimmed(text);
    if (digits.size() > 1 && digits[0] == '+' && digits[1] != '-')
        digits.remove_prefix(1);
    int value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size())
        return std::nullopt;
    return value;
}

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
    std::optional<std::string> text = readProfile(path);
    if (!text || !isParsable(*text))
        return false;
    // The parser looks for a byte-order mark without regard for the end: a cut-off one must not stand there.
    text->append("\n\n\n");
    TiXmlDocument document;
    document.Parse(text->c_str());
    const TiXmlElement* root = document.Error() ? nullptr : document.RootElement();
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
