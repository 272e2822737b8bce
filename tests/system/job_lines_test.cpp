// A job in the service's log: the lines that an operator finds by the manual's recipe.
#include "system/service_under_test.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <regex>

using namespace kestrel::test;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

namespace {

std::string manual(const std::string& guid) {
    return "CAPTURE,JOB_BEGIN," + guid + ",CAPTURE_MANUAL_JOB,Filename=/tmp/o.ts,EncoderIp=127.0.0.1";
}

// The manual's line that looks for job 7, as it stands there.
std::string recipe() {
    std::ifstream in(KESTREL_OPERATING_MANUAL);
    for (std::string line; std::getline(in, line);)
        if (const std::size_t start = line.find("grep -E 'Job 7"); start != std::string::npos)
            return line.substr(start);
    return {};
}

struct ClosePipe {
    void operator()(std::FILE* pipe) const { pclose(pipe); }
};

std::string outputOf(const std::string& command) {
    const std::unique_ptr<std::FILE, ClosePipe> pipe(popen(command.c_str(), "re"));
    std::string text;
    char part[4096];
    while (pipe && std::fgets(part, sizeof part, pipe.get()) != nullptr)
        text += part;
    return text;
}

TEST(JobLines, TheEndOfEachJobNamesIt) {
    ServiceUnderTest service;
    service.setWorker("--exit 3");
    service.start();
    ASSERT_EQ(service.ask(manual("cafe")), "TRUE");
    ASSERT_EQ(service.waitForState("cafe", "ERROR"), "TRUE - ERROR");
    EXPECT_THAT(service.log(),
                ContainsRegex("\\[JobLauncher:Info\\] Job 0 cafe: process [0-9]+ ended with exit code 3\\."));
}

TEST(JobLines, TheManualsRecipeFindsAJobFromItsStartToItsEndAndNoOther) {
    ServiceUnderTest service;
    service.set("WebServicesComm", "NUMBER_OF_SIMULTANEOUS_HANDLES", "10");
    service.start();
    for (int number = 0; number < 18; ++number) {
        const std::string guid =
            number == 7 ? "01234567-89AB-CDEF-0123-456789ABCDEF" : "A" + std::to_string(100 + number);
        ASSERT_EQ(service.ask(manual(guid)), "TRUE");
        ASSERT_EQ(service.waitForState(guid, "COMPLETE"), "TRUE - COMPLETE");
    }
    std::string log;
    for (const auto& entry : std::filesystem::directory_iterator(service.root() / "logs"))
        if (entry.path().filename().string().starts_with("KestrelManager-"))
            log = entry.path();
    std::string command = recipe();
    ASSERT_THAT(command, HasSubstr("KestrelManager-20261121.log"));
    command = std::regex_replace(command, std::regex("KestrelManager-20261121.log"), log);
    const std::string found = outputOf(command);
    EXPECT_THAT(found, HasSubstr("Received from socket: CAPTURE,JOB_BEGIN,01234567-89AB"));
    EXPECT_THAT(found, HasSubstr("Launching Job command"));
    EXPECT_THAT(found, HasSubstr("its worker is process"));
    EXPECT_THAT(found, HasSubstr("ended with exit code 0."));
    for (const char* other : {"Job 17 ", "_q_17", "capture_17.", ",A107", " A1"})
        EXPECT_THAT(found, Not(HasSubstr(other)));
    EXPECT_EQ(outputOf("printf 'a queue /mgr_msg_q_7\\r\\n/mgr_msg_q_7.\\r\\n/mgr_msg_q_70\\r\\n' > " +
                       (service.root() / "lines").string() + " && " +
                       std::regex_replace(recipe(), std::regex("KestrelManager-20261121.log"),
                                          (service.root() / "lines").string())),
              "a queue /mgr_msg_q_7\r\n/mgr_msg_q_7.\r\n")
        << "lines end in CR LF";
}

TEST(JobLines, ALogDirectoryWithABlankReachesTheWorker) {
    ServiceUnderTest service;
    const std::filesystem::path directory = service.root() / "my logs";
    std::filesystem::create_directory(directory);
    service.set("Capture", "LOG_DIR", directory);
    service.setWorker("--log first");
    service.start();
    ASSERT_EQ(service.ask(manual("cafe")), "TRUE");
    ASSERT_EQ(service.waitForState("cafe", "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(service.ask("CAPTURE,JOB_LOGFILENAME,cafe"),
              "TRUE - " + (directory / "capture_0.log").string());
    EXPECT_EQ(service.ask("CAPTURE,JOB_LAST_LOG_ENTRIES,cafe"), "TRUE - first\t\t");
}

TEST(JobLines, ASecondAbortDoesNotSayThatTheWorkerHasNotBeenTold) {
    ServiceUnderTest service;
    const std::string go = service.root() / "go";
    service.setWorker("--wait-cancel --wait-file " + go);
    service.start();
    ASSERT_EQ(service.ask(manual("cafe")), "TRUE");
    ASSERT_TRUE(service.waitForLog("its worker is process"));
    EXPECT_EQ(service.ask("CAPTURE,JOB_ABORT,cafe"), "TRUE");
    EXPECT_EQ(service.ask("CAPTURE,JOB_ABORT,cafe"), "TRUE");
    EXPECT_THAT(service.log(), Not(HasSubstr("is not told of the abort")));
    EXPECT_THAT(service.log(),
                ContainsRegex("\\[ResourceMgmt:Info\\] Job 0 cafe was CANCELLED: its worker has "
                              "been told of an abort before, process [0-9]+ has not ended yet"));
    std::ofstream(go) << "go";
    EXPECT_TRUE(service.waitForLog("ended with exit code 0."));
}

} // namespace
