#include "capture/Options.h"
#include "capture/OutputNames.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <vector>

using namespace kestrel::capture;

namespace {

Options parse(std::vector<std::string> words) {
    words.insert(words.begin(), "kestrelCapture");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return parseOptions(static_cast<int>(words.size()), argv.data());
}

TEST(Options, TheCommandLineOfTheService) {
    const Options options =
        parse({"-encoders", "/etc/map.xml", "-ini", "/tmp/capture_7.xml", "-wq", "/job_update_q_7", "-rq",
               "/mgr_msg_q_7", "-log", "/var/log/capture_7.log"});
    EXPECT_EQ(options.error, "");
    EXPECT_EQ(options.settingsFile, "/tmp/capture_7.xml");
    EXPECT_EQ(options.writeQueue, "/job_update_q_7");
    EXPECT_EQ(options.readQueue, "/mgr_msg_q_7");
    EXPECT_EQ(options.logFile, "/var/log/capture_7.log");
    EXPECT_EQ(options.encoderMap, "/etc/map.xml");
    EXPECT_FALSE(options.overwrite);
}

TEST(Options, TheProfileMayAskForExistingFilesToBeReplaced) {
    for (const char* spelling : {"-overwrite", "--overwrite"}) {
        const Options options = parse({spelling, "-encoders", "/etc/map.xml", "-ini", "/tmp/capture_7.xml"});
        EXPECT_EQ(options.error, "");
        EXPECT_TRUE(options.overwrite);
        EXPECT_EQ(options.encoderMap, "/etc/map.xml");
    }
}

TEST(Options, TheUsageTellsEveryOptionAndExitCode) {
    const std::string text = usage("kestrelCapture");
    for (const char* part : {"-ini FILE", "-wq QUEUE", "-rq QUEUE", "-log FILE", "-encoders FILE",
                             "-overwrite", "--help", "\"nothing recorded\"", "Exit code 0", "1: ", "2: "})
        EXPECT_NE(text.find(part), std::string::npos) << part;
}

TEST(Options, TheUsageLineNamesEveryOption) {
    const std::string text = usage("kestrelCapture");
    const std::string line = text.substr(0, text.find('\n'));
    for (const char* option : {"-ini FILE", "[-wq QUEUE]", "[-rq QUEUE]", "[-log FILE]", "[-encoders FILE]",
                               "[-overwrite]", "[-nulls keep|drop]", "--help"})
        EXPECT_NE(line.find(option), std::string::npos) << option << " in " << line;
}

TEST(Options, MistakesAreNamed) {
    EXPECT_EQ(parse({}).error, "no settings file: -ini is required");
    EXPECT_EQ(parse({"-ini"}).error, "option -ini needs a value");
    EXPECT_EQ(parse({"-ini", "a", "-bogus"}).error, "unknown option -bogus");
    EXPECT_EQ(parse({"-ini", "a", "b"}).error, "unexpected argument b");
    EXPECT_TRUE(parse({"--help"}).help);
}

TEST(Options, WhatStandsBehindAMistakeIsReadAllTheSame) {
    const Options options = parse({"-overwirte", "-nulls", "none", "-ini", "/tmp/capture_7.xml", "-wq",
                                   "/job_update_q_7", "-rq", "/mgr_msg_q_7", "-log", "/var/log/7.log"});
    EXPECT_EQ(options.error, "unknown option -overwirte") << "the first one";
    EXPECT_EQ(options.settingsFile, "/tmp/capture_7.xml");
    EXPECT_EQ(options.writeQueue, "/job_update_q_7");
    EXPECT_EQ(options.readQueue, "/mgr_msg_q_7");
    EXPECT_EQ(options.logFile, "/var/log/7.log");
}

TEST(OutputNames, RelativeNamesStandInTheDirectory) {
    EXPECT_EQ(outputPath("a.ts", "/media"), "/media/a.ts");
    EXPECT_EQ(outputPath("x/a.ts", "/media/"), "/media/x/a.ts");
    EXPECT_EQ(outputPath("/b/a.ts", "/media"), "/b/a.ts");
    EXPECT_EQ(outputPath("a.ts", ""), "a.ts");
}

TEST(OutputNames, AreToldFromTheRootOn) {
    EXPECT_EQ(absolutePath("/b/a.ts"), "/b/a.ts");
    EXPECT_EQ(absolutePath("x/a.ts"), (std::filesystem::current_path() / "x/a.ts").string());
    EXPECT_EQ(absolutePath(""), "");
}

TEST(OutputNames, FurtherEncodersAndSegments) {
    EXPECT_EQ(encoderPath("/m.d/news.ts", 0), "/m.d/news.ts");
    EXPECT_EQ(encoderPath("/m.d/news.ts", 1), "/m.d/news_2.ts");
    EXPECT_EQ(encoderPath("/m.d/news", 1), "/m.d/news_2");
    std::tm time{};
    time.tm_year = 126;
    time.tm_mon = 10;
    time.tm_mday = 5;
    time.tm_hour = 6;
    time.tm_min = 7;
    time.tm_sec = 8;
    time.tm_isdst = -1;
    const std::time_t begin = std::mktime(&time);
    EXPECT_EQ(segmentPath("/m/news.ts", begin, 1), "/m/news_20261105_060708.ts");
    EXPECT_EQ(segmentPath("/m/news", begin, 2), "/m/news_20261105_060708-2.ts");
}

} // namespace
