// The profile that is installed, with every section in use and other values in it: the service lives by them.
#include "system/verifier_requests.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <utility>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

void replaceAll(std::string& text, const std::string& part, const std::string& by) {
    ASSERT_THAT(text, HasSubstr(part)) << "the shipped profile has changed";
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += by.size())
        text.replace(at, part.size(), by);
}

TEST_F(VerifierRequests, TheShippedProfileWithOtherValuesInEverySectionIsObeyed) {
    const std::string root = service.root().string();
    const std::string go = root + "/go";
    fs::create_directory(root + "/bin");
    fs::create_symlink(KESTREL_TEST_WORKER, root + "/bin/kestrelCapture");
    fs::create_symlink(KESTREL_TEST_WORKER, root + "/bin/flowScope");
    fs::create_symlink(KESTREL_TEST_DECK, root + "/bin/kestrelDeckCtrl");
    for (const char* directory : {"/captures", "/reports"})
        fs::create_directory(root + directory);

    std::string profile = contentOf(KESTREL_SHIPPED_PROFILE);
    const std::pair<std::string, std::string> changes[] = {
        {"@CMAKE_INSTALL_FULL_BINDIR@", root + "/bin"},
        {"LOG_DIR=\"@KESTREL_LOG_PARENT_DIR@\"", "LOG_DIR=\"" + root + "/captures\""},
        {"@KESTREL_LOG_PARENT_DIR@", root + "/logs/"},
        // The marks of the comment around the deck's section.
        {"  <!--\n", ""},
        {"  -->\n", ""},
        {"KestrelManager.log\" LOG_LEVEL=\"1\"", "KestrelManagerOwn.log\" LOG_LEVEL=\"0\""},
        {"PORT_NUMBER=\"5112\"", "PORT_NUMBER=\"" + std::to_string(service.port()) + "\""},
        {"NUMBER_OF_SIMULTANEOUS_HANDLES=\"5\"", "NUMBER_OF_SIMULTANEOUS_HANDLES=\"3\""},
        {"/kestrelCapture&quot;", "/kestrelCapture&quot; --wait-file " + go},
        {"/flowScope&quot;", "/flowScope&quot; --verify " + prepared},
        {"REPORT_DIR=\"/tmp/\"", "REPORT_DIR=\"" + root + "/reports/\""},
        {"QUICK_PROPERTIES_DURATION_SECS=\"20\"", "QUICK_PROPERTIES_DURATION_SECS=\"7\""},
        {"NUM_AUDIOS=\"8\" AUDIO_PLACEHOLDER_VALUE=\"placeholder\"",
         "NUM_AUDIOS=\"2\" AUDIO_PLACEHOLDER_VALUE=\"none\""},
        {"deck.log\" LOG_LEVEL=\"1\"", "deck.log\" LOG_LEVEL=\"2\""},
        {"HEARTBEAT_TIMEOUT_SECS=\"120\"", "HEARTBEAT_TIMEOUT_SECS=\"3\""},
    };
    for (const auto& [shipped, own] : changes)
        ASSERT_NO_FATAL_FAILURE(replaceAll(profile, shipped, own));
    ASSERT_THAT(profile, Not(HasSubstr("@")));
    service.setProfileText(profile);

    // WebServicesComm: it answers on the port.
    service.start();
    EXPECT_THAT(service.log(), HasSubstr("Socket Manager got constructed using 3 handles..."));
    // Logging
    for (const auto& entry : fs::directory_iterator(root + "/logs"))
        EXPECT_THAT(entry.path().filename().string(), testing::StartsWith("KestrelManagerOwn-"));
    EXPECT_THAT(service.log(), HasSubstr(":Debug] "));
    EXPECT_THAT(service.log(), Not(HasSubstr("[Manager:Warning] Profile section")))
        << "nothing in it is doubtful";
    // DeckCtrl
    ASSERT_EQ(service.children().size(), 1U);
    EXPECT_EQ(service.ask("VTR_CURRENT_TIME,COM1"), "TRUE - 01:02:03:04");
    std::string deck = contentOf("/proc/" + std::to_string(service.children()[0]) + "/cmdline");
    std::replace(deck.begin(), deck.end(), '\0', ' ');
    EXPECT_THAT(deck, HasSubstr("/bin/kestrelDeckCtrl -log " + root + "/logs/deck.log -loglvl 2 "));
    // Verifier and MPEGProperties
    EXPECT_THAT(verify(",QUICK"),
                testing::AllOf(HasSubstr("\tAUDIOPID0=none\t"), HasSubstr("\tAUDIOPID1=none\t"),
                               Not(HasSubstr("AUDIOPID2"))));
    EXPECT_THAT(service.log(), HasSubstr("Launching Job command \"" + root + "/bin/flowScope\" --verify " +
                                         prepared + " -r xml -report_dst " + root + "/reports/ "));
    EXPECT_THAT(service.log(), HasSubstr(" -duration 7 "));
    // Capture and Job
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,CAPTURE_MANUAL_JOB,Filename=/tmp/out.ts,EncoderIp=127.0.0.1"),
              "TRUE");
    EXPECT_THAT(service.log(), HasSubstr("Launching Job command \"" + root +
                                         "/bin/kestrelCapture\" --wait-file " + go + " -ini "));
    EXPECT_THAT(service.log(), HasSubstr(" -log " + root + "/captures/"));
    EXPECT_TRUE(service.waitForLog("No status message in last 3 seconds, terminating job "));
    std::ofstream(go) << "go";
    EXPECT_EQ(service.stop().code, 0);
    EXPECT_THAT(service.log(), HasSubstr("Ending VTR Process"));
}

} // namespace
