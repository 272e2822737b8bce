#include "PortNames.h"

#include "capture_profile/XmlFile.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <charconv>
#include <tinyxml.h>

namespace kestrel::deck {
namespace {

constexpr const char* module = "Deck";
constexpr int mostComPort = 256;

std::string capitals(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
    return result;
}

std::string comDevice(std::string_view digits) {
    int number = 0;
    const auto [end, problem] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (problem != std::errc() || end != digits.data() + digits.size() || number < 1 || number > mostComPort)
        return {};
    return "/dev/ttyS" + std::to_string(number - 1);
}

bool isLetterOrDigit(char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

} // namespace

bool PortNames::load(const std::string& path) {
    TiXmlDocument document;
    std::optional<std::string> unreadable = xmlFileProblem(path.c_str(), document);
    if (!unreadable && !document.RootElement())
        unreadable = "it has no root element";
    if (unreadable) {
        LogUtil::Error(module, "Port map %s cannot be read: %s", path.c_str(), unreadable->c_str());
        return false;
    }
    for (const TiXmlElement* element = document.RootElement()->FirstChildElement(); element;
         element = element->NextSiblingElement()) {
        const char* const name = element->Attribute("NAME");
        const char* const device = element->Attribute("DEVICE");
        const char* problem = nullptr;
        if (element->ValueStr() != "Port")
            problem = "is no Port element";
        else if (!name || *name == '\0' || std::string_view(name).size() > portNameLetters)
            problem = "needs a NAME of 1 to 11 letters";
        else if (!device || *device != '/')
            problem = "needs a DEVICE that is a path";
        else if (!m_devices.emplace(capitals(name), device).second)
            problem = "has a NAME that was given before";
        if (problem)
            LogUtil::Error(module, "Port map %s, line %d %s: left out", path.c_str(), element->Row(),
                           problem);
        else
            LogUtil::Info(module, "Port %s is %s", name, device);
    }
    return true;
}

std::string PortNames::device(std::string_view name) const {
    const std::string upper = capitals(name);
    if (const auto found = m_devices.find(upper); found != m_devices.end())
        return found->second;
    if (name.starts_with('/'))
        return std::string(name);
    if (upper.starts_with("COM"))
        return comDevice(name.substr(3));
    if (name.size() > 3 && name.starts_with("tty") && std::all_of(name.begin(), name.end(), isLetterOrDigit))
        return "/dev/" + std::string(name);
    return {};
}

} // namespace kestrel::deck
