// Re-encodes end to end: a client's line in, a source played to a decoder, and what the encoder behind it
// returns in a file. Real service, real worker; only the equipment is a loop.
#include "capture/loopback_equipment.h"
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"
#include "system/service_under_test.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <unistd.h>

using namespace kestrel::test;
using capture_test::Equipment;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

// The service names no port for a decoder, so that it is the usual one; this process has an address of its
// own.
constexpr int decoderPort = 5000;

std::string ownAddress() {
    const int number = static_cast<int>(getpid());
    return "127." + std::to_string(1 + (number >> 16 & 0x7F)) + '.' + std::to_string(number >> 8 & 0xFF) +
           '.' + std::to_string(number & 0xFF);
}

class RealReencode : public testing::Test {
protected:
    void SetUp() override {
        { // the port of the encoder's stream
            const kestrel::UniqueFd free = capture_test::boundSocket("127.0.0.1", m_encoderPort);
        }
        const std::string map = service.root() / "encoders.xml";
        std::ofstream(map) << "<Encoders><Encoder CONTROL_ADDRESS=\"127.0.0.1\" STREAM_ADDRESS=\"127.0.0.1\" "
                              "PORT=\""
                           << m_encoderPort << "\"/></Encoders>";
        service.set("Capture", "EXE", std::string(KESTREL_CAPTURE_PROGRAM) + " -encoders " + map);
        service.start();
    }
    void connectEquipment() {
        equipment.emplace(m_encoderPort, Equipment::Behaviour{.address = ownAddress(), .port = decoderPort});
    }
    std::string begin(const std::string& type, const std::string& more = "") const {
        return service.ask("CAPTURE,JOB_BEGIN,cafe," + type + ",Filename=" + output + ",SrcFilename=" +
                           source + ",EncoderIp=127.0.0.1,DecoderIp=" + ownAddress() + more);
    }

    ServiceUnderTest service;
    std::optional<Equipment> equipment;
    const std::string source = streamFile("m2_sd_25");
    const std::string output = service.root() / "again.ts";

private:
    int m_encoderPort = 0;
};

TEST_F(RealReencode, RecordsTheWholeSource) {
    connectEquipment();
    ASSERT_EQ(begin("CAPTURE_REENCODE_JOB"), "TRUE");
    EXPECT_EQ(service.waitForState("cafe", "COMPLETE", 60s), "TRUE - COMPLETE");
    EXPECT_THAT(
        service.ask("JOB_RESULTS,cafe"),
        MatchesRegex("TRUE - Recorded 00:00:03:00 \\(75 frames, [0-9.]+ MB\\), 0 continuity errors.*"));
    const std::string entries = "-select_streams v:0 -show_entries packet=pts,dts,size,flags -of csv=p=0";
    EXPECT_EQ(Ffprobe(output).run(entries), Ffprobe(source).run(entries));
    EXPECT_EQ(readGops(output, 0x100).front().text(), "10:00:00:00");
}

TEST_F(RealReencode, OfAMezzanineRecordsThePartBetweenItsMarks) {
    connectEquipment();
    ASSERT_EQ(begin("CAPTURE_MEZZANINE_JOB", ",MarkInTime=10:00:01:00,MarkOutTime=10:00:01:24"), "TRUE");
    EXPECT_EQ(service.waitForState("cafe", "COMPLETE", 60s), "TRUE - COMPLETE")
        << service.ask("JOB_RESULTS,cafe");
    EXPECT_THAT(service.ask("JOB_RESULTS,cafe"),
                HasSubstr(", from 10:00:00:22 to 10:00:02:01, 3 frames before mark-in, "));
    const auto gops = readGops(output, 0x100);
    ASSERT_FALSE(gops.empty());
    EXPECT_EQ(gops.front().text(), "10:00:00:22");
    const std::size_t frames = Ffprobe(output).packets("v:0").size();
    EXPECT_GE(frames, 25U);
    EXPECT_LT(frames, 25U + 12 + 3);
}

TEST_F(RealReencode, SaysThatTheDecoderIsNotThere) {
    ASSERT_EQ(begin("CAPTURE_REENCODE_JOB"), "TRUE");
    EXPECT_EQ(service.waitForState("cafe", "ERROR", 60s), "TRUE - ERROR");
    EXPECT_THAT(service.ask("JOB_RESULTS,cafe"),
                StartsWith("TRUE - Error: Start re-encode returned 111 Exiting. (decoder " + ownAddress() +
                           ":5000: "));
    EXPECT_FALSE(std::filesystem::exists(output));
}

} // namespace
