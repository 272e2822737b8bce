// What is read of the manager profile, and what holds without it.
#include "settings_fixture.h"

#include <cstddef>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

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

} // namespace
