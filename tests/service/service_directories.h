// A directory for the profile and the logs of one test.
#pragma once

#include "foundation/CapturedLog.h"
#include "foundation/FixedText.h"
#include "foundation/ScratchDir.h"
#include "service/ManagerLib.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>

// Points the two globals at a fresh directory, and takes manager and loggers away afterwards.
class ServiceDirectories : public testing::Test {
protected:
    ServiceDirectories() {
        kestrel::copyText(KESTREL_CONFIG_PARENT_DIR, root);
        kestrel::copyText(KESTREL_LOG_PARENT_DIR, root);
    }
    ~ServiceDirectories() override {
        CManagerLib::Cleanup();
        LogUtil::Cleanup();
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

private:
    ScratchDir m_directory;

protected:
    const std::string root = m_directory.path("");
};
