// What the service must not take over from the process that started it, and what it must not hand on.
#include "streams/stream_fixtures.h"
#include "system/verifier_requests.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::Not;

namespace {

// Blocked for the processes that this thread starts while it lives.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t blocked;
        sigemptyset(&blocked);
        for (const int number : {SIGCHLD, SIGTERM, SIGINT, SIGHUP})
            sigaddset(&blocked, number);
        pthread_sigmask(SIG_BLOCK, &blocked, &m_before);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t m_before{};
};

// Whoever is started while this lives ignores the ends of its children, until it asks for them itself.
class IgnoredEndsOfChildren {
public:
    IgnoredEndsOfChildren() {
        struct sigaction ignored {};
        ignored.sa_handler = SIG_IGN;
        sigaction(SIGCHLD, &ignored, &m_before);
    }
    ~IgnoredEndsOfChildren() { sigaction(SIGCHLD, &m_before, nullptr); }
    IgnoredEndsOfChildren(const IgnoredEndsOfChildren&) = delete;
    IgnoredEndsOfChildren& operator=(const IgnoredEndsOfChildren&) = delete;

private:
    struct sigaction m_before {};
};

unsigned modeOf(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 0777U;
}

TEST_F(VerifierRequests, AParentThatIgnoresItsChildrensEndsDoesNotHideTheWorkers) {
    service.setVerifier("--verify " + prepared);
    {
        const IgnoredEndsOfChildren ignored;
        service.start();
    }
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,CAPTURE_MANUAL_JOB,Filename=/tmp/o.ts,EncoderIp=127.0.0.1"),
              "TRUE");
    EXPECT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(verify(",VIDEO_PID"), "TRUE - 481");
    EXPECT_THAT(service.log(), Not(HasSubstr("could not retrieve exit code")));
}

TEST(InheritedState, AParentThatBlocksTheSignalsDoesNotKeepThemFromTheService) {
    for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
        ServiceUnderTest service;
        {
            const BlockedSignals blocked;
            service.start();
        }
        service.process().signal(number);
        const auto ended = service.process().wait(20s);
        ASSERT_TRUE(ended.has_value()) << "signal " << number << " was not taken";
        EXPECT_EQ(ended->code, 0);
    }
}

TEST(InheritedState, StandardStreamsThatAreClosedAreOpenedOnNothing) {
    ServiceUnderTest service;
    const std::string report = service.root() / "report";
    service.setWorker("--report " + report);
    service.start("exec 0<&- 1>&- 2>&-");
    const std::string own = "/proc/" + std::to_string(service.process().pid()) + "/fd/";
    for (const char* stream : {"0", "1", "2"})
        EXPECT_EQ(std::filesystem::read_symlink(own + stream), "/dev/null");
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,1,CAPTURE_MANUAL_JOB,Filename=/tmp/o.ts,EncoderIp=127.0.0.1"),
              "TRUE");
    ASSERT_EQ(service.waitForState("1", "COMPLETE"), "TRUE - COMPLETE");
    for (const char* stream : {"fd 0 ", "fd 1 ", "fd 2 "})
        EXPECT_THAT(contentOf(report), HasSubstr(std::string(stream) + "/dev/null\n"));
}

TEST(InheritedState, WithoutAUmaskWhatIsWrittenIsForOthersToReadOnly) {
    ServiceUnderTest service;
    service.set("Capture", "EXE", KESTREL_CAPTURE_PROGRAM);
    service.set("Verifier", "EXE", KESTREL_FLOW_SCOPE);
    service.set("Verifier", "REPORT_DIR", service.root().string() + "/");
    service.start("umask 0");
    const std::filesystem::path output = service.root() / "made" / "clean.ts";
    const std::string source = streamFile("m2_delivery_pids");
    ASSERT_EQ(service.ask("CAPTURE,JOB_BEGIN,cafe,CAPTURE_MPEG_NORMALIZE_JOB,Filename=" + output.string() +
                          ",SrcFilename=" + source),
              "TRUE");
    ASSERT_EQ(service.waitForState("cafe", "COMPLETE", 40s), "TRUE - COMPLETE");
    EXPECT_EQ(modeOf(output), 0644U);
    EXPECT_EQ(modeOf(output.parent_path()), 0755U);
    EXPECT_EQ(modeOf(service.root() / "logs" / "capture_0.log"), 0644U);
    const std::string report = service.root().string() + "/beef-" +
                               std::filesystem::path(source).filename().string() + ".report.xml";
    ASSERT_EQ(service.ask("GET_MPEG_PROPERTIES,JOB_BEGIN,beef," + source + ",ALL,XML"), "TRUE - " + report);
    EXPECT_EQ(modeOf(report), 0644U);
    int logs = 0;
    for (const auto& entry : std::filesystem::directory_iterator(service.root() / "logs"))
        if (entry.path().filename().string().starts_with("KestrelManager-")) {
            EXPECT_EQ(modeOf(entry.path()), 0644U) << entry.path();
            ++logs;
        }
    EXPECT_GE(logs, 1);
}

} // namespace
