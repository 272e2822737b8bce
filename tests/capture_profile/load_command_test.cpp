// Loading the parameters of one capture run.
#include "profile_files.h"

#include <gmock/gmock.h>

class LoadCommand : public ProfileFiles {};

TEST_F(LoadCommand, RunTypes) {
    const std::pair<const char*, bool> cases[] = {
        {"SERVICE_MGR_INVOKED", true}, {"CMDLINE_STANDALONE", false}, {"other", true}, {"", true}};
    for (const auto& [text, invoked] : cases)
        EXPECT_EQ(loaded(element("CMD_PARAMS", {{"RUN_TYPE", text}})).cmd.serviceMgrInvoked, invoked) << text;
}

TEST_F(LoadCommand, EachJobTypeReadsItsOwnAttributes) {
    const Attributes all{{"OUTPUT_FILE", "o"},
                         {"BLACK_FILE_SUFFIX", "b"},
                         {"MARK_IN_TIME", "i"},
                         {"MARK_OUT_TIME", "u"},
                         {"DURATION", "d"},
                         {"SOURCE_FILE", "s"},
                         {"ROLLING_DURATION_MIN", "9"},
                         {"ROLLING_START_NOW", "TRUE"}};
    const std::pair<const char*, const char*> cases[] = {
        {"VTR", "[o] 1 [b] 0 [i] [u] [] [] -1 0"},
        {"MANUAL", "[o] 1 [b] 1 [] [] [] [] -1 0"},
        {"TIMED", "[o] 1 [b] 2 [] [] [d] [] -1 0"},
        {"TIMED_REENCODE", "[o] 1 [b] 3 [] [] [] [s] -1 0"},
        {"MEZZANINE", "[o] 1 [b] 5 [i] [u] [] [s] -1 0"},
        {"ROLLING", "[o] 1 [b] 6 [] [] [] [] 9 1"},
        {"MPEG_NORMALIZE", "[o] 1 [b] 7 [] [] [] [s] -1 0"},
        {"mpeg_normalize", "[o] 1 [b] 7 [] [] [] [s] -1 0"},
        {"SCHEDULED", "[o] 1 [b] 8 [] [] [] [] -1 0"},
        {"", "[o] 1 [b] 8 [] [] [] [] -1 0"},
    };
    for (const auto& [name, expected] : cases) {
        Attributes attributes = all;
        attributes.emplace_back("JOB_TYPE", name);
        EXPECT_EQ(describe(loaded(element("CMD_PARAMS", attributes)).cmd), expected) << name;
    }
    EXPECT_EQ(describe(loaded(element("CMD_PARAMS", all)).cmd), "[o] 1 [b] 8 [] [] [] [] -1 0")
        << "no job type";
}

TEST_F(LoadCommand, AnUnknownJobTypeLeavesTheOldOne) {
    CSettings settings;
    settings.cmd.jobType = CSettings::JOB_MANUAL;
    EXPECT_TRUE(load(settings, "<CMD_PARAMS JOB_TYPE=\"UNKNOWN\"/>"));
    EXPECT_EQ(settings.cmd.jobType, CSettings::JOB_MANUAL);
}

TEST_F(LoadCommand, ARollingJobWithoutDurationHasNone) {
    CSettings settings;
    settings.cmd.rollingDurationMin = 30;
    settings.cmd.rollingStartNow = true;
    EXPECT_TRUE(load(settings, "<CMD_PARAMS JOB_TYPE=\"ROLLING\"/>"));
    EXPECT_EQ(settings.cmd.rollingDurationMin, -1);
    EXPECT_TRUE(settings.cmd.rollingStartNow);
}

TEST_F(LoadCommand, TheRunTypeIsTakenLetterForLetter) {
    for (const char* text : {"cmdline_standalone", "Cmdline_Standalone", "CMDLINE_STANDALONE ",
                             " CMDLINE_STANDALONE", "CMDLINE_STANDALON", "CMDLINE_STANDALONES"})
        EXPECT_TRUE(loaded(element("CMD_PARAMS", {{"RUN_TYPE", text}})).cmd.serviceMgrInvoked) << text;
}

TEST_F(LoadCommand, AnotherRunTypeThanStandaloneMakesTheRunTheServices) {
    for (const char* text : {"SERVICE_MGR_INVOKED", "service_mgr_invoked", "cmdline_standalone", ""}) {
        CSettings settings;
        settings.cmd.serviceMgrInvoked = false;
        EXPECT_TRUE(load(settings, element("CMD_PARAMS", {{"RUN_TYPE", text}})));
        EXPECT_TRUE(settings.cmd.serviceMgrInvoked) << text;
    }
    CSettings settings;
    settings.cmd.serviceMgrInvoked = false;
    EXPECT_TRUE(load(settings, "<CMD_PARAMS/>"));
    EXPECT_FALSE(settings.cmd.serviceMgrInvoked) << "an absent one keeps what was there";
}

TEST_F(LoadCommand, JobTypesAreMatchedInAnyCase) {
    const std::pair<const char*, int> names[] = {{"vtr", 0},
                                                 {"Manual", 1},
                                                 {"tImEd", 2},
                                                 {"timed_reencode", 3},
                                                 {"Mezzanine", 5},
                                                 {"rolling", 6},
                                                 {"Mpeg_Normalize", 7},
                                                 {"VTR ", 8},
                                                 {"TIMED_", 8},
                                                 {"BATCH", 8},
                                                 {"4", 8},
                                                 {"0", 8}};
    for (const auto& [name, type] : names)
        EXPECT_EQ(loaded(element("CMD_PARAMS", {{"JOB_TYPE", name}})).cmd.jobType, type) << name;
}

TEST_F(LoadCommand, WithoutAJobTypeTheOldOneStays) {
    CSettings settings;
    settings.cmd.jobType = CSettings::JOB_ROLLING;
    settings.cmd.rollingDurationMin = 30;
    EXPECT_TRUE(load(settings, "<CMD_PARAMS ROLLING_DURATION_MIN=\"5\" OUTPUT_FILE=\"/o\"/>"));
    EXPECT_EQ(settings.cmd.jobType, CSettings::JOB_ROLLING);
    EXPECT_EQ(settings.cmd.rollingDurationMin, 30) << "what goes with a job type is read with its name only";
    EXPECT_STREQ(settings.cmd.outputFile, "/o");
}

TEST_F(LoadCommand, WithoutItsElementNothingChanges) {
    CSettings settings;
    settings.cmd.jobType = CSettings::JOB_VTR;
    settings.cmd.serviceMgrInvoked = false;
    const std::string before = describe(settings.cmd);
    EXPECT_TRUE(load(settings, "<VTR_OPTIONS/>"));
    EXPECT_EQ(describe(settings.cmd), before);
}

TEST_F(LoadCommand, ARollingStartIsNowOnlyForTrue) {
    const std::pair<const char*, bool> cases[] = {
        {"TRUE", true}, {"true", true}, {"FALSE", false}, {"NOW", false}, {"", false}};
    for (const auto& [text, now] : cases)
        EXPECT_EQ(loaded(element("CMD_PARAMS", {{"JOB_TYPE", "ROLLING"}, {"ROLLING_START_NOW", text}}))
                      .cmd.rollingStartNow,
                  now)
            << text;
}

TEST_F(LoadCommand, ARollingDurationMayBeAnyInteger) {
    const std::pair<const char*, int> cases[] = {{"0", 0}, {"-5", -5}, {"1440", 1440}, {"x", -1}, {"", -1}};
    for (const auto& [text, minutes] : cases)
        EXPECT_EQ(loaded(element("CMD_PARAMS", {{"JOB_TYPE", "ROLLING"}, {"ROLLING_DURATION_MIN", text}}))
                      .cmd.rollingDurationMin,
                  minutes)
            << text;
}
