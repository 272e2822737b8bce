// The manager profile.
#include "loopback.h"
#include "service/StopClient.h"
#include "service_directories.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <gmock/gmock.h>
#include <string_view>
#include <sys/stat.h>
#include <thread>

using testing::HasSubstr;
using testing::Not;

namespace {

using Settings = CManagerLib::KestrelManagerSettings;

constexpr auto NO_LEVEL = static_cast<BaseLogger::_LogLevel>(-1);

class SettingsTest : public ServiceDirectories {
protected:
    int readFile() { return CManagerLib::GetSettings(settings, false, nullptr, NO_LEVEL); }

    int read(const std::string& sections) {
        writeProfile("<Root>" + sections + "</Root>");
        return readFile();
    }

    // Reads with the loggers, and gives what was logged.
    std::string logOf(const std::string& sections) {
        LogUtil::Cleanup();
        std::filesystem::remove_all(root + "logs");
        writeProfile("<Root><Logging LOG_FILENAME='" + root + "logs/m.log'/>" + sections + "</Root>");
        EXPECT_EQ(CManagerLib::GetSettings(settings, true, nullptr, BaseLogger::Debug), 0);
        std::stringstream text;
        for (const auto& entry : std::filesystem::directory_iterator(root + "logs"))
            text << std::ifstream(entry.path()).rdbuf();
        return text.str();
    }

    void expectDefaults() const {
        EXPECT_EQ(settings.portNumber, 5112);
        EXPECT_EQ(settings.numSimultaneousHandles, 5);
        EXPECT_STREQ(settings.captureExe, "/opt/vellumtv/kestrel/capture/kestrelCapture");
        EXPECT_STREQ(settings.captureLogDir, root.c_str());
        EXPECT_STREQ(settings.verifierExe, "/opt/vellumtv/kestrel/verifier/flowScope");
        EXPECT_STREQ(settings.reportDir, "/tmp/");
        EXPECT_EQ(settings.quickPropertiesDurationSecs, 20);
        EXPECT_EQ(settings.numAudios, 8);
        EXPECT_STREQ(settings.audioPlaceholderValue, "placeholder");
        EXPECT_STREQ(settings.deckCtrlExe, "");
        EXPECT_STREQ(settings.deckCtrlLogFile, root.c_str());
        EXPECT_EQ(settings.deckCtrlLogLevel, 1);
        EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
        EXPECT_EQ(settings.listenBacklog, 1);
    }

    Settings settings{};
};

struct TextKey {
    const char* section;
    const char* key;
    char (Settings::*field)[260];
};
constexpr TextKey TEXT_KEYS[] = {
    {"Capture", "EXE", &Settings::captureExe},
    {"Capture", "LOG_DIR", &Settings::captureLogDir},
    {"Verifier", "EXE", &Settings::verifierExe},
    {"Verifier", "REPORT_DIR", &Settings::reportDir},
    {"MPEGProperties", "AUDIO_PLACEHOLDER_VALUE", &Settings::audioPlaceholderValue},
    {"DeckCtrl", "EXE", &Settings::deckCtrlExe},
    {"DeckCtrl", "LOG_FILE", &Settings::deckCtrlLogFile},
};

struct IntegerKey {
    const char* section;
    const char* key;
    std::int32_t Settings::*field;
    std::int32_t byDefault;
};
constexpr IntegerKey INTEGER_KEYS[] = {
    {"WebServicesComm", "PORT_NUMBER", &Settings::portNumber, 5112},
    {"WebServicesComm", "NUMBER_OF_SIMULTANEOUS_HANDLES", &Settings::numSimultaneousHandles, 5},
    {"WebServicesComm", "LISTEN_BACKLOG", &Settings::listenBacklog, 1},
    {"Verifier", "QUICK_PROPERTIES_DURATION_SECS", &Settings::quickPropertiesDurationSecs, 20},
    {"MPEGProperties", "NUM_AUDIOS", &Settings::numAudios, 8},
    {"DeckCtrl", "LOG_LEVEL", &Settings::deckCtrlLogLevel, 1},
    {"Job", "HEARTBEAT_TIMEOUT_SECS", &Settings::heartbeatTimeoutSecs, 120},
};

std::string section(const char* name, const char* key, const std::string& value) {
    return std::string("<") + name + " " + key + "='" + value + "'/>";
}

TEST_F(SettingsTest, TheRecordHasItsFieldsInOrder) {
    EXPECT_EQ(offsetof(Settings, portNumber), 0U);
    EXPECT_EQ(offsetof(Settings, numSimultaneousHandles), 4U);
    EXPECT_EQ(offsetof(Settings, captureExe), 8U);
    EXPECT_EQ(offsetof(Settings, captureLogDir), 268U);
    EXPECT_EQ(offsetof(Settings, verifierExe), 528U);
    EXPECT_EQ(offsetof(Settings, reportDir), 788U);
    EXPECT_EQ(offsetof(Settings, quickPropertiesDurationSecs), 1048U);
    EXPECT_EQ(offsetof(Settings, numAudios), 1052U);
    EXPECT_EQ(offsetof(Settings, audioPlaceholderValue), 1056U);
    EXPECT_EQ(offsetof(Settings, deckCtrlExe), 1316U);
    EXPECT_EQ(offsetof(Settings, deckCtrlLogFile), 1576U);
    EXPECT_EQ(offsetof(Settings, deckCtrlLogLevel), 1836U);
    EXPECT_EQ(offsetof(Settings, heartbeatTimeoutSecs), 1840U);
}

TEST_F(SettingsTest, WithoutAProfileEveryDefaultHolds) {
    EXPECT_EQ(CManagerLib::GetSettings(settings, false, nullptr, BaseLogger::Info), 10040);
    expectDefaults();
}

TEST_F(SettingsTest, DefaultsReplaceWhatTheRecordHeld) {
    std::memset(static_cast<void*>(&settings), 'x', sizeof settings);
    EXPECT_EQ(read(""), 0);
    expectDefaults();
}

TEST_F(SettingsTest, EveryKeyIsRead) {
    EXPECT_EQ(
        read("<WebServicesComm PORT_NUMBER='6000' NUMBER_OF_SIMULTANEOUS_HANDLES='9' LISTEN_BACKLOG='3'/>"
             "<Capture EXE='/c' LOG_DIR='/logs'/><Verifier EXE='/v' REPORT_DIR='/r' "
             "QUICK_PROPERTIES_DURATION_SECS='30'/><MPEGProperties NUM_AUDIOS='4' "
             "AUDIO_PLACEHOLDER_VALUE='none'/><DeckCtrl EXE='/d' LOG_FILE='/d.log' LOG_LEVEL='2'/>"
             "<Job HEARTBEAT_TIMEOUT_SECS='7'/>"),
        0);
    EXPECT_EQ(settings.portNumber, 6000);
    EXPECT_EQ(settings.numSimultaneousHandles, 9);
    EXPECT_EQ(settings.listenBacklog, 3);
    EXPECT_STREQ(settings.captureExe, "/c");
    EXPECT_STREQ(settings.captureLogDir, "/logs/") << "made a directory path";
    EXPECT_STREQ(settings.verifierExe, "/v");
    EXPECT_STREQ(settings.reportDir, "/r") << "taken as it stands";
    EXPECT_EQ(settings.quickPropertiesDurationSecs, 30);
    EXPECT_EQ(settings.numAudios, 4);
    EXPECT_STREQ(settings.audioPlaceholderValue, "none");
    EXPECT_STREQ(settings.deckCtrlExe, "/d");
    EXPECT_STREQ(settings.deckCtrlLogFile, "/d.log");
    EXPECT_EQ(settings.deckCtrlLogLevel, 2);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 7);
}

TEST_F(SettingsTest, ALogDirectoryGetsOneSlashAndAnEmptyOneIsTheRoot) {
    read("<Capture LOG_DIR='/logs/'/>");
    EXPECT_STREQ(settings.captureLogDir, "/logs/");
    read("<Capture LOG_DIR=''/>");
    EXPECT_STREQ(settings.captureLogDir, "/");
}

TEST_F(SettingsTest, AnEmptyTextIsATextToo) {
    read("<Capture EXE=''/><Verifier REPORT_DIR=''/>");
    EXPECT_STREQ(settings.captureExe, "");
    EXPECT_STREQ(settings.reportDir, "");
}

TEST_F(SettingsTest, IntegersMayHaveBlanksAndASign) {
    read("<MPEGProperties NUM_AUDIOS=' +12 '/><DeckCtrl LOG_LEVEL='-3'/>"
         "<Verifier QUICK_PROPERTIES_DURATION_SECS='-1'/>");
    EXPECT_EQ(settings.numAudios, 12);
    EXPECT_EQ(settings.deckCtrlLogLevel, -3) << "taken whenever it is there";
    EXPECT_EQ(settings.quickPropertiesDurationSecs, -1) << "taken whenever it is there";
}

TEST_F(SettingsTest, AMissingNumberTakesTheIntegerReadBefore) {
    EXPECT_EQ(read("<WebServicesComm/>"), 0);
    EXPECT_EQ(settings.portNumber, 5112) << "nothing was read before";
    EXPECT_EQ(read("<WebServicesComm PORT_NUMBER='77'/>"), 0);
    EXPECT_EQ(settings.portNumber, 77);
    EXPECT_EQ(settings.numSimultaneousHandles, 77);
    EXPECT_EQ(read("<WebServicesComm NUMBER_OF_SIMULTANEOUS_HANDLES='6'/>"), 0);
    EXPECT_EQ(settings.portNumber, 5112);
    EXPECT_EQ(settings.numSimultaneousHandles, 6);
}

TEST_F(SettingsTest, APortAloneIsTheNumberOfHandlesTooWhateverPortItIs) {
    for (const int port : {5112, 65535}) {
        EXPECT_EQ(read(section("WebServicesComm", "PORT_NUMBER", std::to_string(port))), 0);
        EXPECT_EQ(settings.portNumber, port);
        EXPECT_EQ(settings.numSimultaneousHandles, port);
    }
}

TEST_F(SettingsTest, TheIntegerReadBeforeMayComeFromAnotherSection) {
    writeProfile("<R><Logging LOG_LEVEL='3'/><WebServicesComm/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "x.log").c_str(), BaseLogger::Info), 0);
    EXPECT_EQ(settings.portNumber, 3);
    EXPECT_EQ(settings.numSimultaneousHandles, 3);
    EXPECT_EQ(readFile(), 0);
    EXPECT_EQ(settings.portNumber, 5112) << "the section is not read without the loggers";
}

TEST_F(SettingsTest, SectionsAreReadInAFixedOrderWhateverTheirPlace) {
    writeProfile("<R><Job HEARTBEAT_TIMEOUT_SECS='44'/><WebServicesComm/><Logging LOG_LEVEL='2'/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "x.log").c_str(), BaseLogger::Info), 0);
    EXPECT_EQ(settings.portNumber, 2);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 44);
}

TEST_F(SettingsTest, ABadIntegerLeavesTheOneReadBefore) {
    read("<WebServicesComm PORT_NUMBER='88' NUMBER_OF_SIMULTANEOUS_HANDLES='many'/>");
    EXPECT_EQ(settings.numSimultaneousHandles, 5) << "a bad number is not a missing one";
    read("<WebServicesComm PORT_NUMBER='-88'/>");
    EXPECT_EQ(settings.portNumber, 5112);
    EXPECT_EQ(settings.numSimultaneousHandles, 5) << "a negative one is remembered and does not count";
}

TEST_F(SettingsTest, OnlyPositiveConnectionNumbersCount) {
    EXPECT_EQ(
        read("<WebServicesComm PORT_NUMBER='0' NUMBER_OF_SIMULTANEOUS_HANDLES='-4' LISTEN_BACKLOG='0'/>"), 0);
    EXPECT_EQ(settings.portNumber, 5112);
    EXPECT_EQ(settings.numSimultaneousHandles, 5);
    EXPECT_EQ(settings.listenBacklog, 1);
}

TEST_F(SettingsTest, TheHeartbeatTimeoutMayBeZeroButNotNegative) {
    read("<Job HEARTBEAT_TIMEOUT_SECS='-1'/>");
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
    read("<Job HEARTBEAT_TIMEOUT_SECS='0'/>");
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 0);
}

TEST_F(SettingsTest, ElementsInOtherPlacesTextAndUnknownAttributesAreIgnored) {
    EXPECT_EQ(read("text<Deep><Job HEARTBEAT_TIMEOUT_SECS='3'/></Deep><Job COLOUR='red'>text</Job>"
                   "<!-- <Job HEARTBEAT_TIMEOUT_SECS='4'/> -->"),
              0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
}

TEST_F(SettingsTest, NamesOfSectionsAndKeysAreCaseSensitive) {
    EXPECT_EQ(read("<job HEARTBEAT_TIMEOUT_SECS='3'/><MPEGProperties num_audios='3'/>"), 0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
    EXPECT_EQ(settings.numAudios, 8);
}

TEST_F(SettingsTest, OfTwoSectionsOfOneNameTheFirstCounts) {
    read("<Job/><Job HEARTBEAT_TIMEOUT_SECS='3'/>");
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
    read("<Job HEARTBEAT_TIMEOUT_SECS='3'/><Job HEARTBEAT_TIMEOUT_SECS='4'/>");
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
}

TEST_F(SettingsTest, ANodeOfTheSectionsNameThatIsNoElementHidesTheSection) {
    read("<!--Job--><Job HEARTBEAT_TIMEOUT_SECS='3'/>");
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
    read("Job<Job HEARTBEAT_TIMEOUT_SECS='3'/>");
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
}

TEST_F(SettingsTest, TheFirstElementIsTheRootWhateverItsNameAndWhatStandsBefore) {
    writeProfile("<?xml version='1.0' encoding='UTF-8'?>\n<!-- profile -->\n"
                 "<Anything><Job HEARTBEAT_TIMEOUT_SECS='3'/></Anything>"
                 "<Second><Job HEARTBEAT_TIMEOUT_SECS='4'/></Second>");
    EXPECT_EQ(readFile(), 0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
}

TEST_F(SettingsTest, EntitiesInValuesAreResolved) {
    read("<Capture EXE='/a&amp;b'/>");
    EXPECT_STREQ(settings.captureExe, "/a&b");
}

TEST_F(SettingsTest, MalformedProfilesKeepTheDefaults) {
    for (const char* text :
         {"", " \n", "no xml at all", "<Root", "<Root><Job HEARTBEAT_TIMEOUT_SECS='3'",
          "<Root><Job HEARTBEAT_TIMEOUT_SECS='3'/>", "<Root><Job HEARTBEAT_TIMEOUT_SECS='3'></Root>"}) {
        writeProfile(text);
        EXPECT_EQ(readFile(), 10040) << text;
        expectDefaults();
    }
}

TEST_F(SettingsTest, AProfileCutAnywhereIsRefusedWhole) {
    const std::string whole = "<?xml version='1.0'?><R><Job HEARTBEAT_TIMEOUT_SECS='3'/>"
                              "<!-- c --><Capture EXE=\"/c\">text</Capture></R>";
    for (std::size_t length = 0; length < whole.size(); ++length) {
        writeProfile(whole.substr(0, length));
        EXPECT_NE(readFile(), 0) << whole.substr(0, length);
        expectDefaults();
    }
    writeProfile(whole);
    EXPECT_EQ(readFile(), 0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
}

TEST_F(SettingsTest, AProfileWithoutARootElementIsNotValidXml) {
    writeProfile("<!-- nothing but a comment -->");
    EXPECT_EQ(readFile(), 10041);
    writeProfile("<?xml version='1.0'?>");
    EXPECT_EQ(readFile(), 10041);
    writeProfile("<");
    EXPECT_EQ(readFile(), 10041) << "the parser takes it for an unknown node";
    expectDefaults();
}

TEST_F(SettingsTest, WhatIsNoRegularFileIsNotWaitedFor) {
    std::filesystem::create_directory(profilePath());
    EXPECT_EQ(readFile(), 10040) << "a directory";
    std::filesystem::remove(profilePath());
    ASSERT_EQ(mkfifo(profilePath().c_str(), 0600), 0);
    EXPECT_EQ(readFile(), 10040) << "a FIFO without a writer";
    std::filesystem::remove(profilePath());
    std::filesystem::create_symlink(profilePath(), profilePath());
    EXPECT_EQ(readFile(), 10040) << "a link to itself";
    std::filesystem::remove(profilePath());
    std::filesystem::create_symlink("/dev/zero", profilePath());
    EXPECT_EQ(readFile(), 10040) << "a device without an end";
}

TEST_F(SettingsTest, AProfileOfUnreasonableSizeIsNotRead) {
    writeProfile("<R><Job HEARTBEAT_TIMEOUT_SECS='3'/>" + std::string(1U << 20, ' ') + "</R>");
    EXPECT_EQ(readFile(), 0) << "a megabyte of blanks is odd, and read";
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
    std::filesystem::resize_file(profilePath(), std::uintmax_t{1} << 40);
    EXPECT_EQ(readFile(), 10040);
    expectDefaults();
}

TEST_F(SettingsTest, DeepNestingDoesNotExhaustTheStack) {
    const auto nested = [](int depth) {
        std::string text;
        for (int i = 0; i < depth; ++i)
            text += "<a>";
        for (int i = 0; i < depth; ++i)
            text += "</a>";
        return text;
    };
    EXPECT_EQ(read(nested(500) + "<Job HEARTBEAT_TIMEOUT_SECS='3'/>"), 0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
    EXPECT_EQ(read(nested(100'000)), 10040);
    expectDefaults();
}

TEST_F(SettingsTest, ATextOfTwoHundredAndFiftyNineBytesFits) {
    for (const TextKey& key : TEXT_KEYS) {
        const std::string value = "/" + std::string(257, 'p') + "/";
        EXPECT_THAT(logOf(section(key.section, key.key, value)), Not(HasSubstr("Warning"))) << key.key;
        EXPECT_EQ(settings.*key.field, value) << key.section << " " << key.key;
    }
}

TEST_F(SettingsTest, ALongerTextIsCutWithAWarningThatNamesSectionKeyAndValue) {
    for (const TextKey& key : TEXT_KEYS) {
        const std::string value = "/" + std::string(259, 'p');
        EXPECT_THAT(logOf(section(key.section, key.key, value)),
                    HasSubstr("[Manager:Warning] Profile section " + std::string(key.section) + ", key " +
                              key.key + ": \"" + value + "\" is too long and was cut"));
        EXPECT_EQ(settings.*key.field, value.substr(0, 259)) << key.section << " " << key.key;
    }
}

TEST_F(SettingsTest, TheSlashThatALogDirectoryGetsMayBeTheByteTooMany) {
    EXPECT_THAT(logOf(section("Capture", "LOG_DIR", std::string(258, 'p'))), Not(HasSubstr("Warning")));
    EXPECT_EQ(settings.captureLogDir, std::string(258, 'p') + "/");
    EXPECT_THAT(logOf(section("Capture", "LOG_DIR", std::string(259, 'p'))), HasSubstr("key LOG_DIR"));
    EXPECT_EQ(settings.captureLogDir, std::string(259, 'p'));
}

TEST_F(SettingsTest, ABadIntegerKeepsTheDefaultAndIsLoggedWithSectionKeyAndValue) {
    for (const IntegerKey& key : INTEGER_KEYS) {
        for (const char* value : {"", "many", "12x", "1.5", "0x10", "99999999999", "- 1"}) {
            EXPECT_THAT(logOf(section(key.section, key.key, value)),
                        HasSubstr("[Manager:Warning] Profile section " + std::string(key.section) + ", key " +
                                  key.key + ": \"" + value + "\" is not an integer"));
            EXPECT_EQ(settings.*key.field, key.byDefault) << key.key << " " << value;
        }
    }
}

TEST_F(SettingsTest, TheWarningOfABadIntegerSaysWhatHoldsInstead) {
    for (const IntegerKey& key : INTEGER_KEYS)
        EXPECT_THAT(logOf(section(key.section, key.key, "many")),
                    HasSubstr(std::string(key.key) + ": \"many\" is not an integer, " +
                              std::to_string(key.byDefault) + " holds\r\n"));
    EXPECT_THAT(logOf("<Job HEARTBEAT_TIMEOUT_SECS='-1'/>"),
                HasSubstr("key HEARTBEAT_TIMEOUT_SECS: \"-1\" is less than 0, 120 holds\r\n"));
    const std::string text =
        logOf("<WebServicesComm PORT_NUMBER='0' NUMBER_OF_SIMULTANEOUS_HANDLES='-4' LISTEN_BACKLOG='0'/>");
    EXPECT_THAT(text, HasSubstr("key PORT_NUMBER: \"0\" is less than 1, 5112 holds\r\n"));
    EXPECT_THAT(text, HasSubstr("key NUMBER_OF_SIMULTANEOUS_HANDLES: \"-4\" is less than 1, 5 holds\r\n"));
    EXPECT_THAT(text, HasSubstr("key LISTEN_BACKLOG: \"0\" is less than 1, 1 holds\r\n"));
}

TEST_F(SettingsTest, WhatIsNotKnownIsNamedWithWhatIs) {
    const std::string text =
        logOf("<Recorder EXE='/c'/><Job HEARTBEAT='3' heartbeat_timeout_secs='4'/>"
              "<Capture EXE='/c' LOG_DIR='/l'/><DeckCtrl EXE='' LOG_FILE='' LOG_LEVEL='1'/>");
    EXPECT_THAT(text, HasSubstr("[Manager:Warning] Profile section Recorder is not known and is ignored; the "
                                "sections are Logging, WebServicesComm, Capture, Verifier, MPEGProperties, "
                                "DeckCtrl, Job\r\n"));
    for (const char* key : {"HEARTBEAT", "heartbeat_timeout_secs"})
        EXPECT_THAT(text, HasSubstr(std::string("[Manager:Warning] Profile section Job, key ") + key +
                                    " is not known and is ignored; the keys are HEARTBEAT_TIMEOUT_SECS\r\n"));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3) << text;
    for (const IntegerKey& key : INTEGER_KEYS)
        EXPECT_THAT(logOf(section(key.section, key.key, "1")), Not(HasSubstr("not known"))) << key.key;
    for (const TextKey& key : TEXT_KEYS)
        EXPECT_THAT(logOf(section(key.section, key.key, "/")), Not(HasSubstr("not known"))) << key.key;
}

TEST_F(SettingsTest, AReportDirectoryWithoutItsClosingSlashIsWarnedOf) {
    EXPECT_THAT(
        logOf(section("Verifier", "REPORT_DIR", "/tmp/rep")),
        HasSubstr("[Manager:Warning] Profile section Verifier, key REPORT_DIR: \"/tmp/rep\" has no closing "
                  "slash, and names of reports are put right behind it: reports will not be found. "
                  "Expected is \"/tmp/rep/\"\r\n"));
    EXPECT_STREQ(settings.reportDir, "/tmp/rep") << "taken as it stands";
    EXPECT_EQ(logOf(section("Verifier", "REPORT_DIR", "/tmp/rep/")), "");
}

TEST_F(SettingsTest, NumbersOfTheLoggingSectionAreCheckedToo) {
    writeProfile("<R><Logging LOG_LEVEL='loud' LOG_IP='127.0.0.1' LOG_PORT='here'/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "d.log").c_str(), BaseLogger::Warning), 0);
    EXPECT_THAT(log(), HasSubstr("Profile section Logging, key LOG_LEVEL: \"loud\" is not an integer"));
    EXPECT_THAT(log(), HasSubstr("Profile section Logging, key LOG_PORT: \"here\" is not an integer"));
}

TEST_F(SettingsTest, APortOrANumberOfHandlesThatCannotBeIsLogged) {
    const std::string text =
        logOf("<WebServicesComm PORT_NUMBER='65536' NUMBER_OF_SIMULTANEOUS_HANDLES='2000000000'/>");
    EXPECT_THAT(text, HasSubstr("key PORT_NUMBER: \"65536\" is too large"));
    EXPECT_THAT(text, HasSubstr("key NUMBER_OF_SIMULTANEOUS_HANDLES: \"2000000000\" is too large"));
    EXPECT_EQ(settings.portNumber, 5112);
    EXPECT_EQ(settings.numSimultaneousHandles, 5);
}

TEST_F(SettingsTest, WithoutTheLoggersNothingIsLoggedAndNoFileMade) {
    const LogLines lines;
    writeProfile("<R><Logging LOG_FILENAME='" + root +
                 "m.log' LOG_LEVEL='4'/><Job HEARTBEAT_TIMEOUT_SECS='x'/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, false, (root + "d.log").c_str(), BaseLogger::Fatal), 0);
    LogUtil::Debug("Manager", "still at the level from before");
    EXPECT_EQ(lines.text(), "[Manager:Debug] still at the level from before\r\n");
    EXPECT_EQ(log(), "");
}

TEST_F(SettingsTest, TheLoggerFallsBackToTheDefaultFileAndLevel) {
    writeProfile("<R><Logging/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "d.log").c_str(), BaseLogger::Warning), 0);
    LogUtil::Info("Manager", "hidden");
    LogUtil::Warning("Manager", "shown");
    EXPECT_THAT(log(), Not(HasSubstr("hidden")));
    EXPECT_THAT(log(), HasSubstr("[Manager:Warning] shown"));
}

TEST_F(SettingsTest, ALogReceiverNeedsAddressAndPort) {
    unsigned short port = 0;
    const kestrel::UniqueFd receiver = boundSocket(SOCK_DGRAM, port);
    const std::string number = std::to_string(port);
    const auto load = [&](const std::string& attributes) {
        LogUtil::Cleanup();
        writeProfile("<R><Logging LOG_LEVEL='1' " + attributes + "/><WebServicesComm/></R>");
        EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "d.log").c_str(), BaseLogger::Info), 0);
        LogUtil::Info("Manager", "%s", attributes.c_str());
    };
    load("LOG_IP='' LOG_PORT='" + number + "'");
    EXPECT_EQ(settings.portNumber, 1) << "the port is not read for an empty address";
    load("LOG_PORT='" + number + "'");
    load("LOG_IP='127.0.0.1'");
    const std::string both = "LOG_IP='127.0.0.1' LOG_PORT='" + number + "'";
    load(both);
    EXPECT_EQ(settings.portNumber, port) << "the last integer that was read";
    ASSERT_TRUE(readable(receiver, ANSWER_TIMEOUT_MS));
    char datagram[500] = {};
    ASSERT_GT(recv(receiver.get(), datagram, sizeof datagram - 1, 0), 0);
    EXPECT_THAT(datagram,
                HasSubstr("[Manager:Warning] Profile section WebServicesComm, key PORT_NUMBER: absent, "
                          "the integer read before it is taken: " +
                          number))
        << "the first that arrives";
}

TEST_F(SettingsTest, WithoutAManagerTheProfileIsFoundByItsDirectory) {
    EXPECT_STREQ(CManagerLib::m_kestrelMgrSettingsFname, "");
    EXPECT_EQ(read("<Job HEARTBEAT_TIMEOUT_SECS='3'/>"), 0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
}

TEST_F(SettingsTest, AManagerFixesThePathOfTheProfile) {
    writeProfile("<R><Job HEARTBEAT_TIMEOUT_SECS='3'/></R>");
    CManagerLib::GetInstance();
    EXPECT_STREQ(CManagerLib::m_kestrelMgrSettingsFname, profilePath().c_str());
    kestrel::copyText(KESTREL_CONFIG_PARENT_DIR, "/nowhere/");
    EXPECT_EQ(readFile(), 0);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
}

TEST_F(SettingsTest, TheStopClientReadsThePortWithoutAManager) {
    unsigned short port = 0;
    const kestrel::UniqueFd listener = boundSocket(SOCK_STREAM, port);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    writeProfile("<R>" + section("WebServicesComm", "PORT_NUMBER", std::to_string(port)) + "</R>");
    std::string request;
    std::thread server([&] {
        const kestrel::UniqueFd peer(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        char buffer[100];
        const ssize_t count = recv(peer.get(), buffer, sizeof buffer, 0);
        request.assign(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
        sendText(peer, "TRUE - a good long answer\n");
    });
    testing::internal::CaptureStdout();
    EXPECT_EQ(kestrel::stopService(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "TRUE - a good long answer\n\n");
    server.join();
    EXPECT_EQ(request, "STOP_SERVICE\r\n");
    EXPECT_EQ(CManagerLib::m_instance, nullptr);
    EXPECT_EQ(log(), "") << "the client sets up no logging";
}

TEST_F(SettingsTest, AManagerWithoutAProfileLogsSoIntoTheDefaultFileAtLevelOne) {
    CManagerLib::GetInstance();
    LogUtil::Debug("Manager", "hidden");
    LogUtil::Info("Manager", "shown");
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Could not load KestrelManager settings file " +
                                 profilePath() + "."));
    EXPECT_THAT(log(), HasSubstr("[Manager:Warning] " + profilePath() +
                                 ": No such file or directory (errno 2). No setting of it is taken, the "
                                 "defaults hold: port 5112, no deck control.\r\n"));
    EXPECT_THAT(log(), HasSubstr("[Manager:Info] shown"));
    EXPECT_THAT(log(), Not(HasSubstr("hidden")));
    EXPECT_TRUE(std::filesystem::is_regular_file([&] {
        for (const auto& entry : std::filesystem::directory_iterator(root))
            if (entry.path().filename().string().starts_with("KestrelManager-"))
                return entry.path();
        return std::filesystem::path();
    }()));
    settings = CManagerLib::GetInstance()->settings();
    expectDefaults();
}

TEST_F(SettingsTest, AManagerNamesAProfileThatHasNoElement) {
    writeProfile("<!-- empty -->");
    CManagerLib::GetInstance();
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] KestrelManager settings file " + profilePath() +
                                 " does not appear to be a valid xml file."));
}

TEST_F(SettingsTest, AManagerNamesTheLineWhereAProfileIsNoXml) {
    writeProfile("<R>\n<Job HEARTBEAT_TIMEOUT_SECS='3'/>\n<Capture EXE='/c'</R>\n");
    CManagerLib::GetInstance();
    EXPECT_THAT(log(), HasSubstr("[Manager:Warning] " + profilePath() + ": line 3: "));
    EXPECT_EQ(CManagerLib::GetInstance()->settings().heartbeatTimeoutSecs, 120);
}

TEST_F(SettingsTest, AManagersLogLevelAndFileComeFromTheProfile) {
    writeProfile("<R><Logging LOG_FILENAME='" + root + "other.log' LOG_LEVEL='3'/></R>");
    CManagerLib::GetInstance();
    LogUtil::Info("Manager", "hidden");
    LogUtil::Error("Manager", "shown");
    EXPECT_THAT(log(), Not(HasSubstr("hidden")));
    EXPECT_THAT(log(), HasSubstr("shown"));
}

TEST_F(SettingsTest, AProfileWithoutALoggingElementLeavesNoLogger) {
    writeProfile("<R><Job HEARTBEAT_TIMEOUT_SECS='3'/></R>");
    CManagerLib::GetInstance();
    LogUtil::Error("Manager", "nowhere");
    EXPECT_EQ(log(), "");
}

TEST_F(SettingsTest, EachManagerReadsTheProfileAnew) {
    for (int timeout = 1; timeout < 4; ++timeout) {
        writeProfile("<R>" + section("Job", "HEARTBEAT_TIMEOUT_SECS", std::to_string(timeout)) + "</R>");
        CManagerLib* const manager = CManagerLib::GetInstance();
        EXPECT_EQ(CManagerLib::GetInstance(), manager);
        EXPECT_EQ(manager->settings().heartbeatTimeoutSecs, timeout);
        CManagerLib::Cleanup();
        EXPECT_EQ(CManagerLib::m_instance, nullptr);
    }
}

} // namespace
