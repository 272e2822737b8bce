// Writing a capture profile.
#include "capture_profile/CSettings.h"
#include "capture_profile/ProfileFormat.h"
#include "foundation/FixedText.h"
#include "foundation/UniqueFd.h"
#include "foundation/file_io.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <sys/random.h>
#include <tinyxml.h>
#include <unistd.h>

namespace {

namespace profile = kestrel::profile;

// The text of each kind of attribute.

template <typename Section>
std::string valueOf(const profile::IntegerField<Section>& field, const Section& section) {
    return std::to_string(section.*field.member);
}

template <typename Section>
std::string valueOf(const profile::BoolField<Section>& field, const Section& section) {
    return section.*field.member ? profile::trueWord : profile::falseWord;
}

template <typename Section>
std::string valueOf(const profile::AddressField<Section>& field, const Section& section) {
    in_addr wire{};
    wire.s_addr = htonl(section.*field.member);
    char dotted[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &wire, dotted, sizeof dotted);
    return dotted;
}

template <typename Section>
std::string valueOf(const profile::TextField<Section>& field, const Section& section) {
    return std::string(kestrel::fieldText(section.*field.member));
}

template <typename Section>
std::string valueOf(const profile::TimecodeField<Section>& field, const Section& section) {
    return std::string(kestrel::fieldText(section.*field.member));
}

template <typename Section>
std::string valueOf(const profile::EncoderTypeField<Section>& field, const Section& section) {
    return section.*field.member == CSettings::ENCODER_HARMONIC ? profile::harmonicWord : profile::ormondWord;
}

template <typename Section>
std::string valueOf(const profile::RunTypeField<Section>& field, const Section& section) {
    return section.*field.member ? profile::serviceInvokedWord : profile::standaloneWord;
}

template <typename Section>
void writeAttribute(TiXmlElement& element, const profile::Attribute<Section>& attribute,
                    const Section& section) {
    const std::string value =
        std::visit([&](const auto& field) { return valueOf(field, section); }, attribute.field);
    element.SetAttribute(attribute.key, value.c_str());
}

// Appends an element with all attributes of its table and returns it; the document owns it.
template <typename Section, typename Table>
TiXmlElement& writeElement(TiXmlElement& root, const char* name, const Table& table, const Section& section) {
    auto element = std::make_unique<TiXmlElement>(name);
    for (const profile::Attribute<Section>& attribute : table)
        writeAttribute(*element, attribute, section);
    TiXmlElement& appended = *element;
    root.LinkEndChild(element.release());
    return appended;
}

void writeCommand(TiXmlElement& root, const CSettings::CmdParams& cmd) {
    TiXmlElement& element = writeElement(root, profile::cmdElement, profile::cmdAttributes, cmd);
    for (const profile::NamedJobType& type : profile::jobTypes) {
        if (type.type != cmd.jobType)
            continue;
        element.SetAttribute(profile::jobTypeKey, type.name);
        for (const profile::JobAttribute& job : profile::jobAttributes) {
            if (type.*job.group)
                writeAttribute(element, job.attribute, cmd);
        }
    }
}

std::string documentText(const CSettings& settings) {
    TiXmlDocument document;
    document.LinkEndChild(new TiXmlDeclaration("1.0", "UTF-8", ""));
    auto* root = new TiXmlElement("CaptureSettings");
    document.LinkEndChild(root);

    const int encoders = std::clamp(settings.numEncoders, 0, CSettings::MAX_ENCODERS);
    for (int i = 0; i < encoders; ++i) {
        char name[32];
        kestrel::formatText(name, profile::encoderElement, i);
        writeElement(*root, name, profile::encoderAttributes, settings.encoders[static_cast<std::size_t>(i)]);
    }
    writeElement(*root, profile::decoderElement, profile::decoderAttributes, settings.decoder);
    writeElement(*root, profile::mpegElement, profile::mpegAttributes, settings.mpegEngine);
    writeElement(*root, profile::interfaceElement, profile::interfaceAttributes, settings.encoderInterface);
    writeElement(*root, profile::audioElement, profile::audioAttributes, settings.audioEngine);
    writeElement(*root, profile::vtrElement, profile::vtrAttributes, settings.vtr);
    writeElement(*root, profile::mezzanineElement, profile::mezzanineAttributes, settings.mezzanine);
    writeCommand(*root, settings.cmd);

    TiXmlPrinter printer;
    document.Accept(&printer);
    return printer.Str();
}

// A new file beside path that nobody can have prepared; its name goes to temporary.
kestrel::UniqueFd createBeside(const char* path, std::string& temporary) {
    constexpr int attempts = 16;
    for (int i = 0; i < attempts; ++i) {
        std::uint64_t random = 0;
        if (::getrandom(&random, sizeof random, 0) != static_cast<ssize_t>(sizeof random))
            return {};
        char suffix[32];
        kestrel::formatText(suffix, ".%016" PRIx64 ".tmp", random);
        temporary = std::string(path) + suffix;
        constexpr mode_t readableByWorkers = 0644; // less what the umask takes
        kestrel::UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                                    readableByWorkers));
        if (fd.valid() || errno != EEXIST)
            return fd;
    }
    return {};
}

} // namespace

bool CSettings::SaveProfile(const char* path) const {
    if (path == nullptr || *path == '\0') {
        errno = EINVAL;
        return false;
    }
    const std::string text = documentText(*this);
    std::string temporary;
    kestrel::UniqueFd fd = createBeside(path, temporary);
    if (!fd.valid())
        return false;

    // Some file systems report a full disk only when the file is closed.
    const std::span bytes(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    if (kestrel::writeAll(fd.get(), bytes) && ::close(fd.release()) == 0 &&
        ::rename(temporary.c_str(), path) == 0)
        return true;
    const int error = errno;
    fd.reset();
    ::unlink(temporary.c_str());
    errno = error;
    return false;
}
