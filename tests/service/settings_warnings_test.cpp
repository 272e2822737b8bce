// What the log tells of a profile whose values are not what they should be.
#include "settings_fixture.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

using SettingsWarnings = SettingsTest;

TEST_F(SettingsWarnings, ATextOfTwoHundredAndFiftyNineBytesFits) {
    for (const TextKey& key : TEXT_KEYS) {
        const std::string value = "/" + std::string(257, 'p') + "/";
        EXPECT_THAT(logOf(section(key.section, key.key, value)), Not(HasSubstr("Warning"))) << key.key;
        EXPECT_EQ(settings.*key.field, value) << key.section << " " << key.key;
    }
}

TEST_F(SettingsWarnings, ALongerTextIsCutWithAWarningThatNamesSectionKeyAndValue) {
    for (const TextKey& key : TEXT_KEYS) {
        const std::string value = "/" + std::string(259, 'p');
        EXPECT_THAT(logOf(section(key.section, key.key, value)),
                    HasSubstr("[Manager:Warning] Profile section " + std::string(key.section) + ", key " +
                              key.key + ": \"" + value + "\" is too long and was cut"));
        EXPECT_EQ(settings.*key.field, value.substr(0, 259)) << key.section << " " << key.key;
    }
}

TEST_F(SettingsWarnings, TheSlashThatALogDirectoryGetsMayBeTheByteTooMany) {
    EXPECT_THAT(logOf(section("Capture", "LOG_DIR", std::string(258, 'p'))), Not(HasSubstr("Warning")));
    EXPECT_EQ(settings.captureLogDir, std::string(258, 'p') + "/");
    EXPECT_THAT(logOf(section("Capture", "LOG_DIR", std::string(259, 'p'))), HasSubstr("key LOG_DIR"));
    EXPECT_EQ(settings.captureLogDir, std::string(259, 'p'));
}

TEST_F(SettingsWarnings, ALogDirectoryWithADoubleQuoteIsWarnedOf) {
    EXPECT_THAT(
        logOf(section("Capture", "LOG_DIR", "/logs/a&quot;b")),
        HasSubstr("[Manager:Warning] Profile section Capture, key LOG_DIR: \"/logs/a\"b\" has a double "
                  "quote, which a worker's command line cannot carry: captures may fail or log "
                  "elsewhere\r\n"));
    EXPECT_EQ(settings.captureLogDir, std::string("/logs/a\"b/"));
    EXPECT_THAT(logOf(section("Capture", "LOG_DIR", "/logs/a b")), Not(HasSubstr("Warning")));
}

TEST_F(SettingsWarnings, ABadIntegerKeepsTheDefaultAndIsLoggedWithSectionKeyAndValue) {
    for (const IntegerKey& key : INTEGER_KEYS) {
        for (const char* value : {"", "many", "12x", "1.5", "0x10", "99999999999", "- 1"}) {
            EXPECT_THAT(logOf(section(key.section, key.key, value)),
                        HasSubstr("[Manager:Warning] Profile section " + std::string(key.section) + ", key " +
                                  key.key + ": \"" + value + "\" is not an integer"));
            EXPECT_EQ(settings.*key.field, key.byDefault) << key.key << " " << value;
        }
    }
}

TEST_F(SettingsWarnings, TheWarningOfABadIntegerSaysWhatHoldsInstead) {
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

TEST_F(SettingsWarnings, WhatIsNotKnownIsNamedWithWhatIs) {
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

TEST_F(SettingsWarnings, AReportDirectoryWithoutItsClosingSlashIsWarnedOf) {
    EXPECT_THAT(
        logOf(section("Verifier", "REPORT_DIR", "/tmp/rep")),
        HasSubstr("[Manager:Warning] Profile section Verifier, key REPORT_DIR: \"/tmp/rep\" has no closing "
                  "slash, and names of reports are put right behind it: reports will not be found. "
                  "Expected is \"/tmp/rep/\"\r\n"));
    EXPECT_STREQ(settings.reportDir, "/tmp/rep") << "taken as it stands";
    EXPECT_EQ(logOf(section("Verifier", "REPORT_DIR", "/tmp/rep/")), "");
}

TEST_F(SettingsWarnings, NumbersOfTheLoggingSectionAreCheckedToo) {
    writeProfile("<R><Logging LOG_LEVEL='loud' LOG_IP='127.0.0.1' LOG_PORT='here'/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "d.log").c_str(), BaseLogger::Warning), 0);
    EXPECT_THAT(log(), HasSubstr("Profile section Logging, key LOG_LEVEL: \"loud\" is not an integer"));
    EXPECT_THAT(log(), HasSubstr("Profile section Logging, key LOG_PORT: \"here\" is not an integer"));
}

TEST_F(SettingsWarnings, ALevelAboveAllEndsTheLogAndIsItsLastLine) {
    writeProfile("<R><Logging LOG_LEVEL='5'/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "d.log").c_str(), BaseLogger::Warning), 0);
    EXPECT_EQ(LogUtil::GetInstance()->getDefaultLogLevel(), 5);
    LogUtil::Fatal("Manager", "not written");
    EXPECT_THAT(
        log(), EndsWith("[Manager:Warning] Profile section Logging, key LOG_LEVEL: 5 is above 4, the highest "
                        "level of a line: nothing more is logged\r\n"));
    writeProfile("<R><Logging LOG_LEVEL='4'/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "e.log").c_str(), BaseLogger::Warning), 0);
    EXPECT_EQ(LogUtil::GetInstance()->getDefaultLogLevel(), BaseLogger::Fatal);
}

TEST_F(SettingsWarnings, AReceiverOfLogLinesThatCannotBeIsLogged) {
    const auto warningOf = [this](const std::string& attributes) {
        LogUtil::Cleanup();
        std::filesystem::remove_all(root + "logs");
        writeProfile("<R><Logging LOG_FILENAME='" + root + "logs/m.log' " + attributes + "/></R>");
        EXPECT_EQ(CManagerLib::GetSettings(settings, true, nullptr, BaseLogger::Debug), 0);
        std::stringstream text;
        for (const auto& entry : std::filesystem::directory_iterator(root + "logs"))
            text << std::ifstream(entry.path()).rdbuf();
        return text.str();
    };
    EXPECT_THAT(
        warningOf("LOG_IP='logserver.example' LOG_PORT='5140'"),
        HasSubstr("[Manager:Warning] Profile section Logging, key LOG_IP: \"logserver.example\" is not an "
                  "IPv4 address, no lines are sent\r\n"));
    for (const char* port : {"0", "-1", "65536", "70000"})
        EXPECT_THAT(warningOf(std::string("LOG_IP='127.0.0.1' LOG_PORT='") + port + "'"),
                    HasSubstr(std::string("[Manager:Warning] Profile section Logging, key LOG_PORT: \"") +
                              port + "\" is not from 1 to 65535, no lines are sent\r\n"));
    for (const char* port : {"1", "65535"})
        EXPECT_EQ(warningOf(std::string("LOG_IP='127.0.0.1' LOG_PORT='") + port + "'"), "") << port;
}

TEST_F(SettingsWarnings, APortOrANumberOfHandlesThatCannotBeIsLogged) {
    const std::string text =
        logOf("<WebServicesComm PORT_NUMBER='65536' NUMBER_OF_SIMULTANEOUS_HANDLES='2000000000'/>");
    EXPECT_THAT(text, HasSubstr("key PORT_NUMBER: \"65536\" is too large"));
    EXPECT_THAT(text, HasSubstr("key NUMBER_OF_SIMULTANEOUS_HANDLES: \"2000000000\" is too large"));
    EXPECT_EQ(settings.portNumber, 5112);
    EXPECT_EQ(settings.numSimultaneousHandles, 5);
}

} // namespace
