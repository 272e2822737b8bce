// A directory for the profile and the logs of one test, and a log that a test can read.
#pragma once

#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "service/ManagerLib.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

// Collects what is logged while it lives, one "[module:level] text" a line. Read it only while no other
// thread logs.
class LogLines {
public:
    LogLines() { listen(); }
    ~LogLines() { LogUtil::Cleanup(); }
    LogLines(const LogLines&) = delete;
    LogLines& operator=(const LogLines&) = delete;

    [[nodiscard]] std::string text() const { return m_stream.str(); }

private:
    void listen() {
        LogUtil::Cleanup();
        LogUtil* const log = LogUtil::GetInstance();
        log->setDefaultLogLevel(BaseLogger::Debug);
        log->setShowTimestamp(false);
        log->addStreamLogger(&m_stream);
    }

    std::ostringstream m_stream;
};

// Points the two globals at a fresh directory, and takes manager and loggers away afterwards.
class ServiceDirectories : public testing::Test {
protected:
    ServiceDirectories() {
        char name[] = "/tmp/kestrel-service-XXXXXX";
        root = mkdtemp(name);
        root += "/";
        kestrel::copyText(KESTREL_CONFIG_PARENT_DIR, root);
        kestrel::copyText(KESTREL_LOG_PARENT_DIR, root);
    }
    ~ServiceDirectories() override {
        CManagerLib::Cleanup();
        LogUtil::Cleanup();
        std::filesystem::remove_all(root);
    }

    [[nodiscard]] std::string profilePath() const { return root + "KestrelManagerProfile.xml"; }
    void writeProfile(const std::string& text) const { std::ofstream(profilePath()) << text; }

    // All service logs of the directory.
    [[nodiscard]] std::string log() const {
        std::stringstream text;
        for (const auto& entry : std::filesystem::directory_iterator(root))
            if (entry.path().extension() == ".log")
                text << std::ifstream(entry.path()).rdbuf();
        return text.str();
    }

    std::string root;
};
