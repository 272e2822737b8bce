// Captures from a tape deck: what their workers are told when the request names a deck, and when it does not.
#include "system/service_under_test.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string deckJob(const std::string& guid, const std::string& deckFields) {
    return "CAPTURE,JOB_BEGIN," + guid +
           ",CAPTURE_VTR_JOB,Filename=/media/tape.ts,EncoderIp=127.0.0.1,MarkInTime=01:00:00:00,"
           "MarkOutTime=01:00:10:00" +
           deckFields;
}

// The attributes of that element in a worker's settings file.
std::string element(const std::string& path, const std::string& name) {
    const std::string text = contentOf(path);
    const std::size_t begin = text.find("<" + name);
    return begin == std::string::npos ? "" : text.substr(begin, text.find('>', begin) - begin);
}

TEST(DeckJobs, AJobWithoutAPortRunsAndItsWorkerIsToldOfNoDeck) {
    ServiceUnderTest service;
    const std::string go = service.root() / "go";
    service.setWorker("--wait-file " + go + " --say 7:done");
    service.start();
    ASSERT_EQ(service.ask(deckJob("1", "")), "TRUE");
    EXPECT_EQ(service.ask("JOB_STATUS,1"), "TRUE - QUEUED");

    const std::string job = element("/tmp/capture_0.xml", "CMD_PARAMS");
    EXPECT_THAT(job, HasSubstr("JOB_TYPE=\"VTR\""));
    EXPECT_THAT(job, HasSubstr("MARK_IN_TIME=\"01:00:00:00\""));
    EXPECT_THAT(job, HasSubstr("MARK_OUT_TIME=\"01:00:10:00\""));
    EXPECT_THAT(job, HasSubstr("OUTPUT_FILE=\"/media/tape.ts\""));
    const std::string deck = element("/tmp/capture_0.xml", "VTR_OPTIONS");
    EXPECT_THAT(deck, HasSubstr(" PORT=\"\""));
    EXPECT_THAT(deck, HasSubstr("USE_INTERNAL_CUE=\"FALSE\""));

    std::ofstream(go) << "go";
    EXPECT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(service.ask("JOB_RESULTS,1"), "TRUE - done");
}

TEST(DeckJobs, AnEmptyPortAndACueWithoutADeckAreLoggedAndIgnored) {
    ServiceUnderTest service;
    service.setWorker("--exit 0");
    service.start();
    ASSERT_EQ(service.ask(deckJob("1", ",VTR_Com_Port=,VTR_UseInternalCue=TRUE")), "TRUE");
    EXPECT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_TRUE(service.waitForLog("VTR_Com_Port names no port: the job has no deck."));
    EXPECT_TRUE(service.waitForLog("VTR_UseInternalCue=TRUE stands before the port of the deck"));
    const std::string deck = element("/tmp/capture_0.xml", "VTR_OPTIONS");
    EXPECT_THAT(deck, HasSubstr(" PORT=\"\""));
    EXPECT_THAT(deck, HasSubstr("USE_INTERNAL_CUE=\"FALSE\""));
}

TEST(DeckJobs, TheWorkerIsToldThePortAndTheCueOfItsDeck) {
    ServiceUnderTest service;
    service.setWorker("--exit 0");
    service.start();
    ASSERT_EQ(service.ask(deckJob("1", ",VTR_Com_Port=COM7,VTR_UseInternalCue=TRUE")), "TRUE");
    const std::string deck = element("/tmp/capture_0.xml", "VTR_OPTIONS");
    EXPECT_THAT(deck, HasSubstr(" PORT=\"COM7\""));
    EXPECT_THAT(deck, HasSubstr("USE_INTERNAL_CUE=\"TRUE\""));
    EXPECT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");

    // The next job without a port knows nothing of that deck.
    ASSERT_EQ(service.ask(deckJob("2", "")), "TRUE");
    EXPECT_THAT(element("/tmp/capture_1.xml", "VTR_OPTIONS"), Not(HasSubstr("COM7")));
    EXPECT_EQ(service.waitForState("2", "COMPLETE"), "TRUE - COMPLETE");
}

} // namespace
