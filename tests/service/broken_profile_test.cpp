// Profiles that cannot be read, or should not be.
#include "settings_fixture.h"

#include <cstddef>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using BrokenProfile = SettingsTest;

TEST_F(BrokenProfile, MalformedProfilesKeepTheDefaults) {
    for (const char* text :
         {"", " \n", "no xml at all", "<Root", "<Root><Job HEARTBEAT_TIMEOUT_SECS='3'",
          "<Root><Job HEARTBEAT_TIMEOUT_SECS='3'/>", "<Root><Job HEARTBEAT_TIMEOUT_SECS='3'></Root>"}) {
        writeProfile(text);
        EXPECT_EQ(readFile(), 10040) << text;
        expectDefaults();
    }
}

TEST_F(BrokenProfile, AProfileCutAnywhereIsRefusedWhole) {
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

TEST_F(BrokenProfile, AProfileWithoutARootElementIsNotValidXml) {
    writeProfile("<!-- nothing but a comment -->");
    EXPECT_EQ(readFile(), 10041);
    writeProfile("<?xml version='1.0'?>");
    EXPECT_EQ(readFile(), 10041);
    writeProfile("<");
    EXPECT_EQ(readFile(), 10041) << "the parser takes it for an unknown node";
    expectDefaults();
}

TEST_F(BrokenProfile, WhatIsNoRegularFileIsNotWaitedFor) {
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

TEST_F(BrokenProfile, AProfileOfUnreasonableSizeIsNotRead) {
    writeProfile("<R><Job HEARTBEAT_TIMEOUT_SECS='3'/>" + std::string(1U << 20, ' ') + "</R>");
    EXPECT_EQ(readFile(), 0) << "a megabyte of blanks is odd, and read";
    EXPECT_EQ(settings.heartbeatTimeoutSecs, 3);
    std::filesystem::resize_file(profilePath(), std::uintmax_t{1} << 40);
    EXPECT_EQ(readFile(), 10040);
    expectDefaults();
}

TEST_F(BrokenProfile, DeepNestingDoesNotExhaustTheStack) {
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

} // namespace
