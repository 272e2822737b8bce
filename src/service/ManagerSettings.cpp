// The manager profile.
#include "capture_profile/XmlFile.h"
#include "foundation/ErrnoText.h"
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Mutex.h"
#include "foundation/StringUtil.h"
#include "service/ManagerLib.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <tinyxml.h>
#include <utility>
#include <vector>

namespace {

constexpr const char* MODULE = "Manager";
constexpr int MAX_PORT = 65535;
// A profile that gives only the port has always had that many handles.
constexpr int MAX_HANDLES = MAX_PORT;

using Settings = CManagerLib::KestrelManagerSettings;

// Everything that is read, for the warnings of what is not.
struct Section {
    const char* name;
    std::array<const char*, 4> keys; // null behind the last
};
constexpr std::array<Section, 7> SECTIONS{{
    {"Logging", {"LOG_FILENAME", "LOG_LEVEL", "LOG_IP", "LOG_PORT"}},
    {"WebServicesComm", {"PORT_NUMBER", "NUMBER_OF_SIMULTANEOUS_HANDLES", "LISTEN_BACKLOG"}},
    {"Capture", {"EXE", "LOG_DIR"}},
    {"Verifier", {"EXE", "REPORT_DIR", "QUICK_PROPERTIES_DURATION_SECS"}},
    {"MPEGProperties", {"NUM_AUDIOS", "AUDIO_PLACEHOLDER_VALUE"}},
    {"DeckCtrl", {"EXE", "LOG_FILE", "LOG_LEVEL"}},
    {"Job", {"HEARTBEAT_TIMEOUT_SECS"}},
}};

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

    // The integer of that key, where it is least at least. Every integer that is read stays in the scratch
    // integer.
    bool integer(const char* key, int& value, int least = std::numeric_limits<int>::min()) {
        const char* const given = text(key);
        if (given == nullptr)
            return false;
        const std::optional<int> number = readInteger(key, given, holds(value));
        if (!number)
            return false;
        if (*number < least) {
            complain(key, given, "is less than " + std::to_string(least), holds(value));
            return false;
        }
        value = *number;
        return true;
    }

    // The same where there is no value that would hold in place of a bad one.
    std::optional<int> integerIfAny(const char* key, int least, int largest, const char* otherwise) {
        const char* const given = text(key);
        const auto number = given == nullptr ? std::nullopt : readInteger(key, given, otherwise);
        if (!number || (*number >= least && *number <= largest))
            return number;
        complain(key, given, "is not from " + std::to_string(least) + " to " + std::to_string(largest),
                 otherwise);
        return std::nullopt;
    }

    // Remembers that a value cannot be taken, and what holds instead.
    void complain(const char* key, const std::string& value, const std::string& what,
                  const std::string& otherwise = {}) {
        m_complaints.push_back(std::string("Profile section ") + m_name + ", key " + key + ": \"" + value +
                               "\" " + what + (otherwise.empty() ? "" : ", " + otherwise));
    }

    // The two keys whose presence is not tested: a missing one takes the scratch integer's last value, and
    // only a positive value counts. Kept: profiles that name one of the two have always worked so.
    void integerOrLast(const char* key, int& value, int largest) {
        const char* const given = text(key);
        const std::optional<int> read = given == nullptr ? m_scratch : readInteger(key, given, holds(value));
        if (!read)
            return;
        const int number = *read;
        if (number > largest)
            complain(key, std::to_string(number), "is too large", holds(value));
        else if (number < 1 && given != nullptr)
            complain(key, given, "is less than 1", holds(value));
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

    // A directory that workers are told of in a command line.
    void warnOfQuote(const char* key) {
        const char* const given = text(key);
        if (given != nullptr && std::strchr(given, '"') != nullptr)
            complain(
                key, given,
                "has a double quote, which a worker's command line cannot carry: captures may fail or log "
                "elsewhere");
    }

    // A directory that is taken as it stands, where names are put behind it as it stands.
    void warnUnlessClosed(const char* key) {
        const char* const given = text(key);
        if (given != nullptr && *given != '\0' && !std::string_view(given).ends_with('/'))
            m_complaints.push_back(std::string("Profile section ") + m_name + ", key " + key + ": \"" +
                                   given +
                                   "\" has no closing slash, and names of reports are put right behind it: "
                                   "reports will not be found. Expected is \"" +
                                   given + "/\"");
    }

    // A misspelt name would be left out without a trace.
    void warnOfUnknown() {
        for (TiXmlElement* element = m_root.FirstChildElement(); element != nullptr;
             element = element->NextSiblingElement()) {
            const auto known = std::find_if(SECTIONS.begin(), SECTIONS.end(), [&](const Section& section) {
                return element->ValueStr() == section.name;
            });
            if (known == SECTIONS.end()) {
                std::string names;
                for (const Section& section : SECTIONS)
                    names += (names.empty() ? "" : ", ") + std::string(section.name);
                m_complaints.push_back("Profile section " + std::string(element->Value()) +
                                       " is not known and is ignored; the sections are " + names);
            } else {
                warnOfUnknownKeys(*element, *known);
            }
        }
    }

    void logComplaints() const {
        for (const std::string& complaint : m_complaints)
            LogUtil::Warning(MODULE, "%s", complaint.c_str());
    }

private:
    static std::string holds(int value) { return std::to_string(value) + " holds"; }

    std::optional<int> readInteger(const char* key, const char* given, const std::string& otherwise) {
        const std::optional<int> number = kestrel::parseInteger(given);
        if (number)
            m_scratch = *number;
        else
            complain(key, given, "is not an integer", otherwise);
        return number;
    }

    void warnOfUnknownKeys(TiXmlElement& element, const Section& section) {
        for (const TiXmlAttribute* attribute = element.FirstAttribute(); attribute != nullptr;
             attribute = attribute->Next()) {
            std::string keys;
            bool known = false;
            for (const char* const key : section.keys) {
                if (key == nullptr)
                    continue;
                known = known || attribute->NameTStr() == key;
                keys += (keys.empty() ? "" : ", ") + std::string(key);
            }
            if (!known)
                m_complaints.push_back(std::string("Profile section ") + section.name + ", key " +
                                       attribute->Name() + " is not known and is ignored; the keys are " +
                                       keys);
        }
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

// What the section says of the loggers.
struct LoggingSection {
    const char* file = nullptr; // null: not given
    int level = 0;
    const char* ip = nullptr; // null: no lines are sent
    int port = 0;
};

std::optional<LoggingSection> readLogging(ProfileReader& profile, BaseLogger::_LogLevel defaultLevel) {
    if (!profile.enter("Logging"))
        return std::nullopt;
    LoggingSection section{profile.text("LOG_FILENAME"), defaultLevel};
    profile.integer("LOG_LEVEL", section.level);
    const char* const ip = profile.text("LOG_IP");
    if (ip == nullptr || *ip == '\0')
        return section;
    const auto port = profile.integerIfAny("LOG_PORT", 1, MAX_PORT, "no lines are sent");
    in_addr address{};
    if (inet_pton(AF_INET, ip, &address) != 1)
        profile.complain("LOG_IP", ip, "is not an IPv4 address", "no lines are sent");
    else if (port) {
        section.ip = ip;
        section.port = *port;
    }
    return section;
}

// Why the log could not be opened; empty when it could.
class LogFailureText {
public:
    void set(std::string text) EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_text = std::move(text);
    }
    std::string get() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        return m_text;
    }

private:
    Mutex m_mutex;
    std::string m_text GUARDED_BY(m_mutex);
};

LogFailureText& logFailure() {
    static LogFailureText* const text = new LogFailureText;
    return *text;
}

// A log that cannot be opened stops nothing, and is what no log can tell. Opening the file is the last that
// the logger does, so that errno is that of it.
void openLog(LogUtil& log, const char* path) {
    errno = 0;
    if (log.addFileLogger(path))
        return;
    const int reason = errno;
    logFailure().set("the log " + std::string(path) + " cannot be opened: " + kestrel::errnoText(reason) +
                     "; the service runs without it");
}

void setUpLogging(const LoggingSection& section, const char* defaultLogFile) {
    LogUtil* const log = LogUtil::GetInstance();
    if (log == nullptr)
        return;
    openLog(*log, section.file != nullptr ? section.file : cStringUtil::cValue(defaultLogFile));
    if (section.ip != nullptr)
        log->addNetLogger(section.ip, section.port);
    // While it still can be: with such a level no line is written.
    if (section.level > BaseLogger::Fatal)
        LogUtil::Warning(
            MODULE,
            "Profile section Logging, key LOG_LEVEL: %d is above %d, the highest level of a line: "
            "nothing more is logged",
            section.level, static_cast<int>(BaseLogger::Fatal));
    log->setDefaultLogLevel(section.level);
}

void readSections(ProfileReader& profile, Settings& settings) {
    if (profile.enter("WebServicesComm")) {
        profile.integerOrLast("PORT_NUMBER", settings.portNumber, MAX_PORT);
        profile.integerOrLast("NUMBER_OF_SIMULTANEOUS_HANDLES", settings.numSimultaneousHandles, MAX_HANDLES);
        profile.integer("LISTEN_BACKLOG", settings.listenBacklog, 1);
    }
    if (profile.enter("Capture")) {
        profile.copy("EXE", settings.captureExe);
        profile.copyDirectory("LOG_DIR", settings.captureLogDir);
        profile.warnOfQuote("LOG_DIR");
    }
    if (profile.enter("Verifier")) {
        profile.copy("EXE", settings.verifierExe);
        profile.copy("REPORT_DIR", settings.reportDir);
        profile.warnUnlessClosed("REPORT_DIR");
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
    if (profile.enter("Job"))
        profile.integer("HEARTBEAT_TIMEOUT_SECS", settings.heartbeatTimeoutSecs, 0);
}

// Nothing makes the directory of the reports, and a verifier fails late.
void warnUnlessThere(const char* directory) {
    struct stat status {};
    const int reason = stat(directory, &status) != 0 ? errno : S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
    if (reason != 0)
        LogUtil::Warning(
            MODULE,
            "Profile section Verifier, key REPORT_DIR: \"%s\" is no directory: %s. It must exist: "
            "verifications fail until it does",
            directory, kestrel::errnoText(reason).c_str());
}

// The profile's path; derived from the directory where no manager has set it.
std::string profilePath() {
    if (CManagerLib::m_kestrelMgrSettingsFname[0] != '\0')
        return CManagerLib::m_kestrelMgrSettingsFname;
    return std::string(KESTREL_CONFIG_PARENT_DIR) + "KestrelManagerProfile.xml";
}

// What is done with the section of the loggers. Passed over, its integers are not left as the last ones read.
enum class Logging { passedOver, read, setUp };

// As GetSettings; problem: what is wrong with the profile, where that fails.
int readProfile(CManagerLib::KestrelManagerSettings& settings, Logging logging, const char* defaultLogFile,
                BaseLogger::_LogLevel defaultLevel, std::string& problem) {
    setDefaults(settings);
    if (logging == Logging::setUp)
        logFailure().set({});
    TiXmlDocument document;
    if (const auto unread = kestrel::xmlFileProblem(profilePath().c_str(), document)) {
        problem = *unread;
        return static_cast<int>(kestrel::error::settingsNotLoaded);
    }
    TiXmlElement* const root = document.FirstChildElement();
    if (root == nullptr) {
        problem = "it has no element";
        return static_cast<int>(kestrel::error::settingsNotXml);
    }

    ProfileReader profile(*root);
    if (logging != Logging::passedOver)
        if (const auto section = readLogging(profile, defaultLevel); section && logging == Logging::setUp)
            setUpLogging(*section, defaultLogFile);
    readSections(profile, settings);
    profile.warnOfUnknown();
    if (logging == Logging::setUp)
        profile.logComplaints();
    return 0;
}

} // namespace

int CManagerLib::GetSettings(KestrelManagerSettings& settings, bool loadLogging, const char* defaultLogFile,
                             BaseLogger::_LogLevel defaultLevel) {
    std::string problem;
    return readProfile(settings, loadLogging ? Logging::setUp : Logging::passedOver, defaultLogFile,
                       defaultLevel, problem);
}

int CManagerLib::ServicePort() {
    KestrelManagerSettings settings{};
    std::string problem;
    readProfile(settings, Logging::read, nullptr, BaseLogger::Info, problem);
    return settings.portNumber;
}

std::string CManagerLib::LogFailure() {
    return logFailure().get();
}

void CManagerLib::loadSettings() {
    char defaultLogFile[300];
    kestrel::formatText(defaultLogFile, "%sKestrelManager.log", KESTREL_LOG_PARENT_DIR);
    std::string problem;
    const int result = readProfile(m_settings, Logging::setUp, defaultLogFile, BaseLogger::Info, problem);
    // Taken as it stands, for a verifier that has a use for it; ours refuses it.
    if (const int seconds = m_settings.quickPropertiesDurationSecs; result == 0 && seconds < 1)
        LogUtil::Warning(
            MODULE,
            "Profile section Verifier, key QUICK_PROPERTIES_DURATION_SECS: \"%d\" is less than 1; "
            "a verifier may refuse it",
            seconds);
    if (result == 0) {
        warnUnlessThere(m_settings.reportDir);
        return;
    }
    // The profile has set up no logging.
    if (LogUtil* const log = LogUtil::GetInstance(); log != nullptr) {
        openLog(*log, defaultLogFile);
        log->setDefaultLogLevel(BaseLogger::Info);
    }
    char text[600];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    kestrel::formatText(text, LOG_MSG(result), m_kestrelMgrSettingsFname);
#pragma GCC diagnostic pop
    LogUtil::Error(MODULE, "%s", text);
    // The text does not say what is wrong with it.
    LogUtil::Warning(MODULE,
                     "%s: %s. No setting of it is taken, the defaults hold: port %d, no deck control.",
                     m_kestrelMgrSettingsFname, problem.c_str(), m_settings.portNumber);
}
