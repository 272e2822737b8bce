// The manager profile.
#include "capture_profile/XmlFile.h"
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/StringUtil.h"
#include "service/ManagerLib.h"

#include <span>
#include <string>
#include <string_view>
#include <tinyxml.h>
#include <vector>

namespace {

constexpr const char* MODULE = "Manager";
constexpr int MAX_PORT = 65535;
// A profile that gives only the port has always had that many handles.
constexpr int MAX_HANDLES = MAX_PORT;

using Settings = CManagerLib::KestrelManagerSettings;

// Reads attributes, and remembers what was wrong with them until there is a log to write it to.
class ProfileReader {
public:
    explicit ProfileReader(TiXmlElement& root) : m_root(root) {}

    // Makes the section current; false when the profile does not have it.
    bool enter(const char* section) {
        TiXmlNode* const node = m_root.FirstChild(section);
        m_section = node == nullptr ? nullptr : node->ToElement();
        m_name = section;
        return m_section != nullptr;
    }

    const char* text(const char* key) const { return m_section->Attribute(key); }

    // The integer of that key. Every integer that is read stays in the scratch integer.
    bool integer(const char* key, int& value) {
        const char* const given = text(key);
        if (given == nullptr)
            return false;
        const std::optional<int> number = kestrel::parseInteger(given);
        if (!number) {
            complain(key, given, "is not an integer");
            return false;
        }
        value = m_scratch = *number;
        return true;
    }

    // The two keys whose presence is not tested: a missing one takes the scratch integer's last value, and
    // only a positive value counts. Kept: profiles that name one of the two have always worked so.
    void integerOrLast(const char* key, int& value, int largest) {
        const char* const given = text(key);
        int number = m_scratch;
        if (given != nullptr && !integer(key, number))
            return;
        if (number > largest)
            complain(key, std::to_string(number).c_str(), "is too large");
        else if (number > 0) {
            if (given == nullptr)
                m_complaints.push_back(
                    std::string("Profile section ") + m_name + ", key " + key +
                    ": absent, the integer read before it is taken: " + std::to_string(number));
            value = number;
        }
    }

    void copy(const char* key, std::span<char> field) {
        const char* const given = text(key);
        if (given != nullptr && !kestrel::copyText(field, given))
            complain(key, given, "is too long and was cut");
    }

    void copyDirectory(const char* key, std::span<char> field) {
        const char* const given = text(key);
        if (given == nullptr)
            return;
        std::vector<char> directory(std::string_view(given).size() + 2);
        cStringUtil::setDirPath(directory.data(), given);
        if (!kestrel::copyText(field, directory.data()))
            complain(key, given, "is too long and was cut");
    }

    void logComplaints() const {
        for (const std::string& complaint : m_complaints)
            LogUtil::Warning(MODULE, "%s", complaint.c_str());
    }

private:
    void complain(const char* key, const char* value, const char* what) {
        m_complaints.push_back(std::string("Profile section ") + m_name + ", key " + key + ": \"" + value +
                               "\" " + what);
    }

    TiXmlElement& m_root;
    TiXmlElement* m_section = nullptr;
    const char* m_name = "";
    int m_scratch = 0;
    std::vector<std::string> m_complaints;
};

void setDefaults(Settings& settings) {
    settings = {};
    settings.portNumber = 5112;
    settings.numSimultaneousHandles = 5;
    settings.listenBacklog = 1;
    kestrel::copyText(settings.captureExe, "/opt/vellumtv/kestrel/capture/kestrelCapture");
    kestrel::copyText(settings.captureLogDir, KESTREL_LOG_PARENT_DIR);
    kestrel::copyText(settings.verifierExe, "/opt/vellumtv/kestrel/verifier/flowScope");
    kestrel::copyText(settings.reportDir, "/tmp/");
    settings.quickPropertiesDurationSecs = 20;
    settings.numAudios = 8;
    kestrel::copyText(settings.audioPlaceholderValue, "placeholder");
    kestrel::copyText(settings.deckCtrlLogFile, KESTREL_LOG_PARENT_DIR);
    settings.deckCtrlLogLevel = 1;
    settings.heartbeatTimeoutSecs = 120;
}

void readLogging(ProfileReader& profile, const char* defaultLogFile, BaseLogger::_LogLevel defaultLevel) {
    LogUtil* const log = LogUtil::GetInstance();
    if (log == nullptr || !profile.enter("Logging"))
        return;
    const char* const file = profile.text("LOG_FILENAME");
    log->addFileLogger(file != nullptr ? file : cStringUtil::cValue(defaultLogFile));
    int level = defaultLevel;
    profile.integer("LOG_LEVEL", level);
    log->setDefaultLogLevel(level);
    const char* const ip = profile.text("LOG_IP");
    int port = 0;
    if (ip != nullptr && *ip != '\0' && profile.integer("LOG_PORT", port))
        log->addNetLogger(ip, port);
}

void readSections(ProfileReader& profile, Settings& settings) {
    if (profile.enter("WebServicesComm")) {
        profile.integerOrLast("PORT_NUMBER", settings.portNumber, MAX_PORT);
        profile.integerOrLast("NUMBER_OF_SIMULTANEOUS_HANDLES", settings.numSimultaneousHandles, MAX_HANDLES);
        int backlog = 0;
        if (profile.integer("LISTEN_BACKLOG", backlog) && backlog > 0)
            settings.listenBacklog = backlog;
    }
    if (profile.enter("Capture")) {
        profile.copy("EXE", settings.captureExe);
        profile.copyDirectory("LOG_DIR", settings.captureLogDir);
    }
    if (profile.enter("Verifier")) {
        profile.copy("EXE", settings.verifierExe);
        profile.copy("REPORT_DIR", settings.reportDir);
        profile.integer("QUICK_PROPERTIES_DURATION_SECS", settings.quickPropertiesDurationSecs);
    }
    if (profile.enter("MPEGProperties")) {
        profile.integer("NUM_AUDIOS", settings.numAudios);
        profile.copy("AUDIO_PLACEHOLDER_VALUE", settings.audioPlaceholderValue);
    }
    if (profile.enter("DeckCtrl")) {
        profile.copy("EXE", settings.deckCtrlExe);
        profile.copy("LOG_FILE", settings.deckCtrlLogFile);
        profile.integer("LOG_LEVEL", settings.deckCtrlLogLevel);
    }
    int timeout = 0;
    if (profile.enter("Job") && profile.integer("HEARTBEAT_TIMEOUT_SECS", timeout) && timeout >= 0)
        settings.heartbeatTimeoutSecs = timeout;
}

// The profile's path; derived from the directory where no manager has set it.
std::string profilePath() {
    if (CManagerLib::m_kestrelMgrSettingsFname[0] != '\0')
        return CManagerLib::m_kestrelMgrSettingsFname;
    return std::string(KESTREL_CONFIG_PARENT_DIR) + "KestrelManagerProfile.xml";
}

} // namespace

int CManagerLib::GetSettings(KestrelManagerSettings& settings, bool loadLogging, const char* defaultLogFile,
                             BaseLogger::_LogLevel defaultLevel) {
    setDefaults(settings);
    TiXmlDocument document;
    if (!kestrel::parseXmlFile(profilePath().c_str(), document))
        return static_cast<int>(kestrel::error::settingsNotLoaded);
    TiXmlElement* const root = document.FirstChildElement();
    if (root == nullptr)
        return static_cast<int>(kestrel::error::settingsNotXml);

    ProfileReader profile(*root);
    if (loadLogging)
        readLogging(profile, defaultLogFile, defaultLevel);
    readSections(profile, settings);
    if (loadLogging)
        profile.logComplaints();
    return 0;
}

void CManagerLib::loadSettings() {
    char defaultLogFile[300];
    kestrel::formatText(defaultLogFile, "%sKestrelManager.log", KESTREL_LOG_PARENT_DIR);
    const int result = GetSettings(m_settings, true, defaultLogFile, BaseLogger::Info);
    // Taken as it stands, for a verifier that has a use for it; ours refuses it.
    if (const int seconds = m_settings.quickPropertiesDurationSecs; result == 0 && seconds < 1)
        LogUtil::Warning(
            MODULE,
            "Profile section Verifier, key QUICK_PROPERTIES_DURATION_SECS: \"%d\" is less than 1; "
            "a verifier may refuse it",
            seconds);
    if (result == 0)
        return;
    // The profile has set up no logging.
    if (LogUtil* const log = LogUtil::GetInstance(); log != nullptr) {
        log->addFileLogger(defaultLogFile);
        log->setDefaultLogLevel(BaseLogger::Info);
    }
    char text[600];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    kestrel::formatText(text, LOG_MSG(result), m_kestrelMgrSettingsFname);
#pragma GCC diagnostic pop
    LogUtil::Error(MODULE, "%s", text);
}
