// A normalise job end to end: a client's line in, a clean transport stream out. Real service, real worker.
#include "streams/ffprobe.h"
#include "streams/gop_reader.h"
#include "streams/stream_fixtures.h"
#include "system/service_under_test.h"

#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

class RealNormalize : public testing::Test {
protected:
    void SetUp() override {
        service.set("Capture", "EXE", KESTREL_CAPTURE_PROGRAM);
        service.start();
    }
    std::string begin(const std::string& source) const {
        return service.ask("CAPTURE,JOB_BEGIN,cafe,CAPTURE_MPEG_NORMALIZE_JOB,Filename=" + output +
                           ",SrcFilename=" + source);
    }

    ServiceUnderTest service;
    const std::string output = service.root() / "clean.ts";
};

TEST_F(RealNormalize, WritesTheSameFramesWithTimecodesFromZero) {
    const std::string source = streamFile("m2_sd_25");
    ASSERT_EQ(begin(source), "TRUE");
    ASSERT_EQ(service.waitForState("cafe", "COMPLETE", 40s), "TRUE - COMPLETE");
    EXPECT_THAT(
        service.ask("JOB_RESULTS,cafe"),
        MatchesRegex("TRUE - Normalized 00:00:03:00 \\(75 frames, [0-9.]+ MB\\), [0-9]+ continuity "
                     "counters renumbered, 0 null packets dropped, [0-9]+ packets of PAT and PMT added"));
    const std::string entries = "-show_entries packet=stream_index,pts,dts,size,flags -of csv=p=0";
    EXPECT_EQ(Ffprobe(output).run(entries), Ffprobe(source).run(entries));
    EXPECT_EQ(readGops(source, 0x100).front().text(), "10:00:00:00");
    EXPECT_EQ(readGops(output, 0x100).front().text(), "00:00:00:00");
    EXPECT_THAT(service.ask("CAPTURE,JOB_LAST_LOG_ENTRIES,cafe"), HasSubstr("Normalized 00:00:03:00"));
}

TEST_F(RealNormalize, FailsWithTheReasonAndKeepsWhatExists) {
    std::ofstream(output) << "precious";
    ASSERT_EQ(begin(streamFile("m2_sd_25")), "TRUE");
    EXPECT_EQ(service.waitForState("cafe", "ERROR", 40s), "TRUE - ERROR");
    EXPECT_THAT(service.ask("JOB_RESULTS,cafe"),
                StartsWith("TRUE - Warning: The file specified already exists.  Overwrite existing file?"));
    EXPECT_EQ(std::filesystem::file_size(output), 8U);
}

TEST_F(RealNormalize, NeedsASource) {
    EXPECT_THAT(service.ask("CAPTURE,JOB_BEGIN,cafe,CAPTURE_MPEG_NORMALIZE_JOB,Filename=" + output),
                StartsWith("FALSE - "));
}

} // namespace
