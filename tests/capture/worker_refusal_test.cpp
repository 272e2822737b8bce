// Jobs that cannot be done, as the service sees them: results text and exit code.
#include "capture/worker_process.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace capture_test;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

// The worker ends as failed; results and exit message are the last two of its messages, and there is no file.
void expectRefused(Worker& worker) {
    worker.start();
    EXPECT_EQ(worker.wait(std::chrono::seconds(10)), 1) << worker.log();
    const auto& messages = worker.queues.received();
    ASSERT_GE(messages.size(), 3u);
    EXPECT_EQ(messages.front().type, STATUS_MSG);
    EXPECT_EQ(messages[messages.size() - 2].type, RESULTS_MSG);
    EXPECT_EQ(messages.back().type, EXIT_MSG);
    EXPECT_THAT(worker.log(), HasSubstr(worker.results()));
    EXPECT_THAT(worker.log(), HasSubstr("exit code 1"));
    EXPECT_FALSE(std::filesystem::exists(worker.path("out/news.ts")));
}

TEST(CaptureRefusal, SettingsThatAreNoXml) {
    Worker worker;
    worker.rewriteSettings = [](const std::string&) { return std::string("CaptureSettings"); };
    expectRefused(worker);
    EXPECT_EQ(worker.results(), "Error: Invalid configuration file. (" + worker.path("settings.xml") + ")");
}

TEST(CaptureRefusal, SettingsThatAreCutOff) {
    Worker worker;
    worker.addEncoder();
    worker.rewriteSettings = [](const std::string& text) { return text.substr(0, text.size() / 2); };
    expectRefused(worker);
    EXPECT_EQ(worker.results(), "Error: Invalid configuration file. (" + worker.path("settings.xml") + ")");
}

TEST(CaptureRefusal, AnEncoderMapThatIsNotThere) {
    Worker worker;
    worker.addEncoder();
    worker.extraOptions = {"-encoders", worker.path("none.xml")};
    expectRefused(worker);
    EXPECT_THAT(worker.results(), StartsWith("Error: Invalid configuration file. (encoder map " +
                                             worker.path("none.xml") + ": "));
}

TEST(CaptureRefusal, AnEncoderMapWithAMistakeIsNamedWithItsLineAndWhatIsExpected) {
    Worker worker;
    worker.addEncoder();
    std::ofstream(worker.path("map.xml")) << "<Encoders>\n<Encoder CONTROL_ADDRESS=\"10.1.2.3\"/></Encoders>";
    worker.extraOptions = {"-encoders", worker.path("map.xml")};
    expectRefused(worker);
    EXPECT_EQ(worker.results(),
              "Error: Invalid configuration file. (encoder map " + worker.path("map.xml") +
                  ", line 2: Encoder, PORT is missing: expected is a number from 1 to 65535)");
}

// Whoever sends to that port would be recorded.
TEST(CaptureRefusal, AnEncoderMapWhoseStreamAddressIsMisspelt) {
    Worker worker;
    worker.addEncoder();
    std::ofstream(worker.path("map.xml"))
        << R"(<Encoders><Encoder CONTROL_ADDRESS="127.0.0.1" STREAM_ADRESS="239.1.1.1" PORT="5"/></Encoders>)";
    worker.extraOptions = {"-encoders", worker.path("map.xml")};
    expectRefused(worker);
    EXPECT_THAT(worker.results(), HasSubstr("line 1: Encoder, STREAM_ADDRESS is missing: "));
    EXPECT_THAT(worker.log(), HasSubstr("attribute STREAM_ADRESS of Encoder is not known and is ignored; the "
                                        "attributes are CONTROL_ADDRESS, STREAM_ADDRESS, PORT"));
}

TEST(CaptureRefusal, AJobWithoutAnOutputFile) {
    Worker worker;
    worker.addEncoder();
    worker.settings.cmd.outputFile[0] = '\0';
    expectRefused(worker);
    EXPECT_EQ(worker.results(), "Error: Output file not specified.");
}

TEST(CaptureRefusal, AJobWithoutAnEncoder) {
    Worker worker;
    expectRefused(worker);
    EXPECT_EQ(worker.results(), "Error: Cannot add job - No encoder specified.");
}

TEST(CaptureRefusal, APortThatSomebodyElseHas) {
    Worker worker;
    const int port = worker.addEncoder();
    const kestrel::UniqueFd taken(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(taken.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    expectRefused(worker);
    EXPECT_EQ(worker.results(),
              "Error: Start Capture failed. (UDP port " + std::to_string(port) +
                  " of 127.0.0.1: Address already in use (errno 98); end the recording or "
                  "program that receives there, or let the encoder send to a multicast group)");
}

TEST(CaptureRefusal, ASecondEncoderThatCannotBeReceivedStopsTheFirst) {
    Worker worker;
    worker.addEncoder();
    worker.addEncoder();
    worker.settings.encoders[1].ipAddress = 0xE0000001; // of a group that nobody joins on such an interface
    worker.settings.encoders[1].snmpIpAddress = 0x0A010203;
    std::ofstream(worker.path("map.xml"))
        << R"(<Encoders><Encoder CONTROL_ADDRESS="10.1.2.3" PORT="1" INTERFACE="192.0.2.1"/></Encoders>)";
    worker.extraOptions = {"-encoders", worker.path("map.xml")};
    expectRefused(worker);
    EXPECT_THAT(worker.results(), HasSubstr("(join 224.0.0.1 on interface 192.0.2.1: "));
    EXPECT_THAT(worker.log(), HasSubstr("Encoder 1: receive buffer"));
}

TEST(CaptureRefusal, ARollingCaptureWithoutALength) {
    for (const int minutes : {0, -5}) {
        Worker worker;
        worker.addEncoder();
        worker.settings.cmd.jobType = CSettings::JOB_ROLLING;
        worker.settings.cmd.rollingDurationMin = minutes;
        expectRefused(worker);
        EXPECT_EQ(worker.results(),
                  "Error: Invalid Rolling Capture duration " + std::to_string(minutes) + ".");
    }
}

TEST(CaptureRefusal, AnOutputThatIsADirectory) {
    Worker worker;
    worker.addEncoder();
    std::filesystem::create_directories(worker.path("out/day"));
    std::snprintf(worker.settings.cmd.outputFile, sizeof worker.settings.cmd.outputFile, "%s",
                  worker.path("out/day").c_str());
    expectRefused(worker);
    EXPECT_EQ(worker.results(), "Error: Invalid filename. (" + worker.path("out/day") + ")");
}

// The profile's options stand before those of the service, which tell where the mistake can be reported.
TEST(CaptureRefusal, ACommandLineThatIsWrongIsToldAndExitsWithTwo) {
    for (const auto& [options, mistake] :
         std::initializer_list<std::pair<std::vector<std::string>, std::string>>{
             {{"-overwirte"}, "unknown option -overwirte"},
             {{"-nulls", "none", "-overwirte"}, "-nulls is keep or drop, not none"},
             {{"map.xml"}, "unexpected argument map.xml"}}) {
        Worker worker;
        worker.addEncoder();
        worker.extraOptions = options;
        worker.start();
        EXPECT_EQ(worker.wait(), 2) << worker.log();
        const std::string text = "Error: Start Capture failed. (wrong command line: " + mistake + ")";
        const auto& messages = worker.queues.received();
        ASSERT_GE(messages.size(), 2u) << mistake;
        EXPECT_EQ(messages[messages.size() - 2].type, RESULTS_MSG);
        EXPECT_EQ(messages.back().type, EXIT_MSG);
        EXPECT_EQ(worker.results(), text);
        EXPECT_THAT(worker.log(), HasSubstr(text));
        EXPECT_THAT(worker.log(), HasSubstr("exit code 2"));
        EXPECT_FALSE(std::filesystem::exists(worker.path("out/news.ts")));
    }
}

// A client that ends a timed capture early wants no more of it; one that ends any other never got what it
// wanted.
TEST(CaptureCancel, BeforeTheStreamEndsAtOnceAndIsAFailureButForATimedCapture) {
    for (const auto& [type, code] :
         {std::pair{CSettings::JOB_MANUAL, 1}, {CSettings::JOB_TIMED, 0}, {CSettings::JOB_ROLLING, 1}}) {
        Worker worker;
        worker.settings.cmd.jobType = type;
        worker.settings.cmd.rollingDurationMin = 1;
        std::snprintf(worker.settings.cmd.duration, sizeof worker.settings.cmd.duration, "00:00:10:00");
        worker.addEncoder();
        worker.start();
        worker.waitForLog("receive buffer");
        worker.queues.send(CANCEL_MSG);
        EXPECT_EQ(worker.wait(std::chrono::seconds(9)), code) << type;
        EXPECT_THAT(worker.results(), HasSubstr("nothing recorded")) << type;
        EXPECT_TRUE(filesIn(worker.path("out")).empty()) << type;
    }
}

TEST(CaptureCancel, ASignalBeforeTheStreamIsTheSame) {
    Worker worker;
    worker.settings.cmd.jobType = CSettings::JOB_TIMED;
    std::snprintf(worker.settings.cmd.duration, sizeof worker.settings.cmd.duration, "00:00:10:00");
    worker.addEncoder();
    worker.start();
    worker.waitForLog("receive buffer");
    worker.signal(SIGINT);
    EXPECT_EQ(worker.wait(std::chrono::seconds(9)), 0);
    EXPECT_THAT(worker.results(), HasSubstr("nothing recorded"));
}

} // namespace
