// The manager profile.
#include "service_directories.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

using testing::HasSubstr;
using testing::Not;

namespace {

class SettingsTest : public ServiceDirectories {
protected:
    int read(const std::string& sections) {
        writeProfile("<Root>" + sections + "</Root>");
        return CManagerLib::GetSettings(settings, false, nullptr, static_cast<BaseLogger::_LogLevel>(-1));
    }

    CManagerLib::KestrelManagerSettings settings{};
};

TEST_F(SettingsTest, WithoutAProfileEveryDefaultHolds) {
    EXPECT_EQ(CManagerLib::GetSettings(settings, false, nullptr, BaseLogger::Info), 10040);
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

TEST_F(SettingsTest, TheIntegerReadBeforeMayComeFromAnotherSection) {
    writeProfile("<R><Logging LOG_LEVEL='3'/><WebServicesComm/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, (root + "x.log").c_str(), BaseLogger::Info), 0);
    EXPECT_EQ(settings.portNumber, 3);
}

TEST_F(SettingsTest, OnlyPositiveConnectionNumbersCount) {
    EXPECT_EQ(read("<WebServicesComm PORT_NUMBER='0' NUMBER_OF_SIMULTANEOUS_HANDLES='-4'/>"), 0);
    EXPECT_EQ(settings.portNumber, 5112);
    EXPECT_EQ(settings.numSimultaneousHandles, 5);
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

TEST_F(SettingsTest, BadProfilesKeepTheDefaults) {
    const auto result = [&] { return CManagerLib::GetSettings(settings, false, nullptr, BaseLogger::Info); };
    writeProfile("<Root><Job HEARTBEAT_TIMEOUT_SECS='3'");
    EXPECT_EQ(result(), 10040);
    writeProfile("");
    EXPECT_EQ(result(), 10040);
    writeProfile("<!-- nothing but a comment -->");
    EXPECT_EQ(result(), 10041);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
    std::string deep;
    for (int i = 0; i < 100'000; ++i)
        deep += "<a>";
    writeProfile(deep);
    EXPECT_EQ(result(), 10040);
    std::filesystem::remove(profilePath());
    std::filesystem::create_directory(profilePath());
    EXPECT_EQ(result(), 10040);
    std::filesystem::remove(profilePath());
    ASSERT_EQ(mkfifo(profilePath().c_str(), 0600), 0);
    EXPECT_EQ(result(), 10040) << "a FIFO is not waited for";
}

TEST_F(SettingsTest, WrongValuesAreLoggedWithSectionKeyAndValue) {
    const std::string longPath = "/" + std::string(300, 'p');
    writeProfile("<R><Logging LOG_FILENAME='" + root +
                 "m.log'/><WebServicesComm PORT_NUMBER='70000' "
                 "NUMBER_OF_SIMULTANEOUS_HANDLES='many'/><Capture EXE='" +
                 longPath +
                 "'/>"
                 "<Job HEARTBEAT_TIMEOUT_SECS='12x'/></R>");
    EXPECT_EQ(CManagerLib::GetSettings(settings, true, nullptr, BaseLogger::Info), 0);
    EXPECT_EQ(settings.portNumber, 5112);
    EXPECT_EQ(settings.numSimultaneousHandles, 5);
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 120);
    EXPECT_EQ(settings.captureExe, longPath.substr(0, 259));
    EXPECT_THAT(log(), HasSubstr("Profile section WebServicesComm, key PORT_NUMBER: \"70000\""));
    EXPECT_THAT(log(), HasSubstr("key NUMBER_OF_SIMULTANEOUS_HANDLES: \"many\" is not an integer"));
    EXPECT_THAT(log(), HasSubstr("Profile section Capture, key EXE: \"/ppp"));
    EXPECT_THAT(log(),
                HasSubstr("Profile section Job, key HEARTBEAT_TIMEOUT_SECS: \"12x\" is not an integer"));
}

TEST_F(SettingsTest, AManagerWithoutAProfileLogsSoIntoTheDefaultFile) {
    CManagerLib::GetInstance();
    EXPECT_THAT(log(), HasSubstr("[Manager:Error] Could not load KestrelManager settings file " +
                                 profilePath() + "."));
    EXPECT_STREQ(CManagerLib::m_kestrelMgrSettingsFname, profilePath().c_str());
    EXPECT_EQ(CManagerLib::GetInstance()->settings().portNumber, 5112);
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

} // namespace
