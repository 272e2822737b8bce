// Verifications of real files by the real verifier, through the service, and what becomes of one that is
// killed.
#include "foundation/Bytes.h"
#include "streams/ffprobe.h"
#include "streams/stream_fixtures.h"
#include "system/verifier_requests.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

using namespace kestrel::test;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class Verification : public testing::Test {
protected:
    Verification() {
        service.set("Verifier", "EXE", KESTREL_FLOW_SCOPE);
        service.set("Verifier", "REPORT_DIR", service.root().string() + "/");
        service.set("MPEGProperties", "NUM_AUDIOS", "2");
        service.set("MPEGProperties", "AUDIO_PLACEHOLDER_VALUE", "none");
        service.start();
    }
    std::string verify(const std::string& file, const std::string& rest) const {
        return service.ask(std::string("GET_MPEG_PROPERTIES,JOB_BEGIN,") + GUID + "," + file + rest);
    }

    ServiceUnderTest service;
    std::string delivery = streamFile("m2_delivery_pids");
};

TEST_F(Verification, EverySinglePropertyOfARealFile) {
    const std::pair<const char*, const char*> rows[] = {
        {"VIDEO_ENCODING", "MPEG2"},  {"VIDEO_RESOLUTION", "528x480"},
        {"DROP_FRAME", "TRUE"},       {"VIDEO_PID", "481"},
        {"PCR_PID", "481"},           {"PMT_PID", "480"},
        {"IS_HD", "FALSE"},           {"VIDEO_FRAME_RATE", "29.97"},
        {"IS_CC", "FALSE"},           {"GOP_STRUCTURE", "IBBP"},
        {"VARIABLE_GOPS", "FALSE"},   {"GOP_LENGTH", "15"},
        {"QUADBYTEALIGNED", "FALSE"}, {"IS_MPEG2", "TRUE"},
        {"IS_MPEG4", "FALSE"}};
    for (const auto& [property, expected] : rows)
        EXPECT_EQ(verify(delivery, std::string(",") + property), std::string("TRUE - ") + expected)
            << property;
    // The rates are measured: within a hundredth of the whole file's bits over its time.
    const Ffprobe probe(delivery);
    EXPECT_EQ(verify(delivery, ",VIDEO_ASPECT_RATIO"),
              "TRUE - " + probe.stream("v:0", "display_aspect_ratio"));
    const auto rate = [&](const char* property) {
        const std::string answer = verify(delivery, property);
        EXPECT_THAT(answer, StartsWith("TRUE - "));
        return std::atof(answer.substr(std::string("TRUE - ").size()).c_str());
    };
    EXPECT_NEAR(rate(",TRANSPORT_RATE") /
                    std::stod(probe.run("-show_entries format=bit_rate -of default=nw=1:nk=1").at(0)),
                1, 0.01);
    double videoBytes = 0;
    for (const ProbedPacket& packet : probe.packets("v:0"))
        videoBytes += packet.size;
    EXPECT_NEAR(rate(",VIDEO_RATE") / (videoBytes * 8 / probe.duration("v:0")), 1, 0.01);
    EXPECT_EQ(verify(delivery, ",RUNTIME,BLOCK"), "TRUE - 00:00:03;00");
    EXPECT_EQ(verify(delivery, ",VIDEO_CBR,BLOCK"), "TRUE - FALSE");
    EXPECT_EQ(verify(delivery, ",NEEDS_REENCODING,BLOCK"), "TRUE - TRUE");
    EXPECT_EQ(verify(streamFile("h264_high_2997"), ",VIDEO_ENCODING"), "TRUE - H264");
    EXPECT_EQ(verify(streamFile("m2_hd_25_fields"), ",IS_HD"), "TRUE - TRUE");
}

TEST_F(Verification, QuickAndAudioModesAreLists) {
    const std::string quick = verify(delivery, ",QUICK");
    EXPECT_THAT(quick, StartsWith("TRUE - ENCODING=MPEG2\tRESOLUTION=528x480\t"));
    EXPECT_THAT(quick, HasSubstr("AUDIOPID1=483\tAUDIOTYPE1=AC3 Audio (ATSC A/52)\tAUDIORATE1=192000\t"
                                 "AUDIOSAMPLINGRATE1=48000\tAUDIOSURROUNDMODE1=2/0\t"));
    EXPECT_THAT(verify(streamFile("m2_surround"), ",AUDIO_MODES"),
                HasSubstr("AUDIOSURROUNDMODE0=3/2 LFE\tAUDIOPID1=none\t"));
}

TEST_F(Verification, AllIsQueuedOrBlocks) {
    EXPECT_EQ(verify(delivery, ""), "TRUE");
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    const std::string results = service.ask(std::string("JOB_RESULTS,") + GUID);
    EXPECT_THAT(results, HasSubstr("RUNTIME=00:00:03;00\t"));
    EXPECT_EQ(verify(delivery, ",ALL,BLOCK"), results);
    const std::string path = service.root().string() + "/" + GUID + "-" +
                             std::filesystem::path(delivery).filename().string() + ".report.xml";
    EXPECT_EQ(verify(delivery, ",ALL,XML"), "TRUE - " + path);
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(Verification, AFileOfTheLongestNameThatAReportCanHaveIsVerified) {
    constexpr std::size_t longest = 255 - 32 - 1 - 11; // less GUID, "-" and ".report.xml"
    const std::string file = service.root().string() + "/" + std::string(longest - 3, 'n') + ".ts";
    std::filesystem::copy_file(delivery, file);
    EXPECT_EQ(verify(file, ",VIDEO_PID"), "TRUE - 481");
    const std::string longer = service.root().string() + "/" + std::string(longest - 2, 'n') + ".ts";
    std::filesystem::copy_file(delivery, longer);
    EXPECT_THAT(verify(longer, ",VIDEO_PID"),
                StartsWith("FALSE - Error: Failed to get requested Mpeg Property."));
    EXPECT_THAT(service.log(), HasSubstr("the name of the report has 256 bytes, a file's has at most 255"));
}

TEST_F(Verification, RulesAreJudgedOnRealFiles) {
    const std::string errors = verify(delivery, ",VALIDATION_ERRORS,BLOCK");
    EXPECT_EQ(errors,
              "TRUE - The file " + delivery + " does not satisfy the Quad Byte Alignment requirement.\t");
    EXPECT_EQ(verify(delivery, ",VALIDATION_ERRORS,BLOCK,Mpeg2SD_QuadByteAligned"), "TRUE") << "it passed";
    const std::string other = verify(streamFile("m2_sd_25"), ",VALIDATION_ERRORS,BLOCK");
    EXPECT_THAT(other, HasSubstr("The PMT PID 4096 must be 480 decimal/0x1E0 Hex.\t"));
    EXPECT_THAT(other, HasSubstr("The GOP length must be 15.\t"));
    EXPECT_THAT(other, HasSubstr("is not 1/2 D1 or 3/4 D1.\t"));
    EXPECT_THAT(other, HasSubstr("The first audio PID in the file "));
    const std::string h264 = verify(streamFile("h264_main"), ",VALIDATION_ERRORS,BLOCK");
    EXPECT_THAT(h264, HasSubstr(" is not MPEG2.\t"));
    EXPECT_THAT(h264, Not(HasSubstr("Quad Byte")));
    EXPECT_THAT(verify(streamFile("m2_aac"), ",VALIDATION_ERRORS,BLOCK"), HasSubstr(" is not AC3.\t"));
}

// The sixth packet of the video is not there.
TEST_F(Verification, TheFindingsOfADamagedFileAreInTheServicesLogAndInTheReport) {
    std::vector<unsigned char> bytes = bytesOfFile(delivery);
    int packets = 0;
    for (std::size_t at = 0; at < bytes.size(); at += 188)
        if ((bytes[at + 1] & 0x1f) * 256 + bytes[at + 2] == 481 && (bytes[at + 3] & 0x10) != 0 &&
            ++packets == 6) {
            bytes.erase(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                        bytes.begin() + static_cast<std::ptrdiff_t>(at) + 188);
            break;
        }
    const std::string file = service.root() / "damaged.ts";
    std::ofstream(file).write(reinterpret_cast<const char*>(bytes.data()),
                              static_cast<std::streamsize>(bytes.size()));
    EXPECT_EQ(verify(file, ",VALIDATION_ERRORS,NONE,Mpeg2SD_QuadByteAligned"), "TRUE");
    EXPECT_EQ(service.waitForState(GUID, "COMPLETE"), "TRUE - COMPLETE");
    EXPECT_EQ(service.ask(std::string("JOB_RESULTS,") + GUID), "TRUE") << "no rule of delivery is broken";
    EXPECT_THAT(service.log(),
                ContainsRegex("\\[JobLauncher:Info\\] Job 0 " + std::string(GUID) + ": results: " + file +
                              ": 90 frames, 00:00:03;00, .*, 1 finding\r\n"));
    const std::string name = service.root() / (std::string(GUID) + "-damaged.ts.report.xml");
    const auto report = bytesOfFile(name);
    EXPECT_THAT(std::string(report.begin(), report.end()),
                HasSubstr("<Kind name=\"continuity\" count=\"1\" />"));
    EXPECT_EQ(verify(delivery, ",VIDEO_PID"), "TRUE - 481");
    EXPECT_THAT(service.log(), ContainsRegex(": results: " + delivery + ": .*, no findings\r\n"));
}

TEST_F(Verification, LaterPropertiesAreQueued) {
    // The same GUID may be used again once its job has ended, but its first job is the one that is found.
    const auto queued = [&](const char* guid, const std::string& file, const char* property) {
        EXPECT_EQ(
            service.ask(std::string("GET_MPEG_PROPERTIES,JOB_BEGIN,") + guid + "," + file + "," + property),
            "TRUE");
        EXPECT_EQ(service.waitForState(guid, "COMPLETE"), "TRUE - COMPLETE");
        return service.ask(std::string("JOB_RESULTS,") + guid);
    };
    EXPECT_EQ(queued("00000000000000000000000000000001", delivery, "RUNTIME"), "TRUE - 00:00:03;00");
    EXPECT_EQ(queued("00000000000000000000000000000002", delivery, "VIDEO_CBR"), "TRUE - FALSE");
    EXPECT_EQ(queued("00000000000000000000000000000003", delivery, "NEEDS_REENCODING"), "TRUE - TRUE");
    EXPECT_EQ(queued("00000000000000000000000000000004", delivery, "VALIDATION_ERRORS"),
              "TRUE - The file " + delivery + " does not satisfy the Quad Byte Alignment requirement.\t");
    EXPECT_EQ(queued("00000000000000000000000000000005", delivery,
                     "VALIDATION_ERRORS,NONE,Mpeg2SD_QuadByteAligned"),
              "TRUE")
        << "it passed";
}

// Here the verifier does what the test says.
using VerificationByATestWorker = VerifierRequests;

TEST_F(VerificationByATestWorker, WhoseWorkerWasKilledHasNotPassedEvenOnceItIsAborted) {
    start("--say 7:worn --verify " + prepared + " --signal 9");
    EXPECT_EQ(verify(",VALIDATION_ERRORS,NONE,GOPLength_FPS24_12;GOPStructure_IBBP"), "TRUE") << "begun";
    EXPECT_EQ(service.waitForState(GUID, "ERROR"), "TRUE - ERROR");
    const std::string worn = std::string(NO_PROPERTY) + " worn";
    EXPECT_EQ(results(), worn) << "there are no errors in its report";
    EXPECT_EQ(service.ask(std::string("CAPTURE,JOB_ABORT,") + GUID), "TRUE");
    EXPECT_EQ(service.ask(std::string("JOB_STATUS,") + GUID), "TRUE - CANCELLED");
    EXPECT_EQ(results(), worn);
}

TEST(VerificationProfile, AQuickDurationOfNoSecondIsHandedOnAndRefusedByTheVerifier) {
    for (const char* seconds : {"0", "-5"}) {
        ServiceUnderTest service;
        service.set("Verifier", "EXE", KESTREL_FLOW_SCOPE);
        service.set("Verifier", "REPORT_DIR", service.root().string() + "/");
        service.set("Verifier", "QUICK_PROPERTIES_DURATION_SECS", seconds);
        service.start();
        EXPECT_EQ(
            service.ask(std::string("GET_MPEG_PROPERTIES,JOB_BEGIN,") + GUID + "," +
                        streamFile("m2_delivery_pids") + ",VIDEO_PID"),
            std::string(
                "FALSE - Error: Failed to get requested Mpeg Property. wrong command line: -duration ") +
                seconds + ": expected a number of seconds from 1 on");
        EXPECT_THAT(service.log(), HasSubstr(std::string(" -duration ") + seconds + " "));
        EXPECT_THAT(service.log(), HasSubstr(std::string("Profile section Verifier, key "
                                                         "QUICK_PROPERTIES_DURATION_SECS: \"") +
                                             seconds + "\" is less than 1; a verifier may refuse it"));
    }
}

TEST_F(Verification, AFileThatIsNoStreamSaysSo) {
    const std::string file = service.root() / "text.ts";
    std::filesystem::copy_file("/proc/self/exe", file);
    EXPECT_EQ(verify(file, ",VIDEO_PID"),
              "FALSE - Error: Failed to get requested Mpeg Property. " + file +
                  ": is not an MPEG transport stream: no sync bytes 188 bytes apart");
}

} // namespace
