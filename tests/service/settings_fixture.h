// Profiles that are written, read, and asked about: for the tests of the manager's settings.
#pragma once

#include "service_directories.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

using Settings = CManagerLib::KestrelManagerSettings;

inline constexpr auto NO_LEVEL = static_cast<BaseLogger::_LogLevel>(-1);

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
inline constexpr TextKey TEXT_KEYS[] = {
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
inline constexpr IntegerKey INTEGER_KEYS[] = {
    {"WebServicesComm", "PORT_NUMBER", &Settings::portNumber, 5112},
    {"WebServicesComm", "NUMBER_OF_SIMULTANEOUS_HANDLES", &Settings::numSimultaneousHandles, 5},
    {"WebServicesComm", "LISTEN_BACKLOG", &Settings::listenBacklog, 1},
    {"Verifier", "QUICK_PROPERTIES_DURATION_SECS", &Settings::quickPropertiesDurationSecs, 20},
    {"MPEGProperties", "NUM_AUDIOS", &Settings::numAudios, 8},
    {"DeckCtrl", "LOG_LEVEL", &Settings::deckCtrlLogLevel, 1},
    {"Job", "HEARTBEAT_TIMEOUT_SECS", &Settings::heartbeatTimeoutSecs, 120},
};

inline std::string section(const char* name, const char* key, const std::string& value) {
    return std::string("<") + name + " " + key + "='" + value + "'/>";
}
