// kestrelSelfTest: every self-test by its name, with its arguments, its log and its result.
#include "foundation/ScratchDir.h"
#include "mpeg/ts_maker.h"

#include <array>
#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

struct Outcome {
    int code;
    std::string output; // both streams
};

Outcome run(const std::string& arguments) {
    FILE* const pipe = popen((std::string(KESTREL_SELF_TEST) + " " + arguments + " 2>&1").c_str(), "r");
    std::string output;
    std::array<char, 4096> buffer{};
    for (std::size_t count = 0; (count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        output.append(buffer.data(), count);
    const int status = pclose(pipe);
    return {WEXITSTATUS(status), output};
}

class SelfTest : public testing::Test {
protected:
    // Three GOPs of a picture each on PID 481, decoded at 3600, 7200 and 10800.
    std::string stream(int gops = 3) {
        TsMaker maker;
        maker.tables({{0x02, 481}});
        for (int i = 0; i < gops; ++i)
            maker.pes(481, pesHeader(7200 + 3600 * i, 3600 + 3600 * i),
                      sequenceHeader(720, 480, 5) + sequenceExtension(0x48) + gopHeader(1, 0, i % 60, 0) +
                          pictureHeader() + filler(500));
        return maker.write(directory);
    }

    ScratchDir directory;
};

TEST_F(SelfTest, WithoutANameListsThem) {
    const Outcome outcome = run("");
    EXPECT_EQ(outcome.code, 0);
    for (const char* name :
         {"byte_sequence", "mpeg_timecode", "gop_rebase in.mpeg out.mpeg [mode] [timecode]",
          "GetDTSBounds in.mpeg firstDTS lastDTS", "MpegWrapper filename.mpg", "all"})
        EXPECT_THAT(outcome.output, HasSubstr(name));
}

TEST_F(SelfTest, TheListSaysThatTheRebaseLeavesOutTheTail) {
    EXPECT_THAT(run("").output, HasSubstr("the tail\n      of the file that fills no block of 65,536 bytes"));
    // A short file.
    const std::string out = directory.path("out.ts");
    EXPECT_EQ(run("gop_rebase " + stream() + " " + out).code, 0);
    EXPECT_EQ(std::filesystem::file_size(out), 0U);
}

TEST_F(SelfTest, AnUnknownNameIsNamed) {
    const Outcome outcome = run("nothing");
    EXPECT_EQ(outcome.code, 2);
    EXPECT_THAT(outcome.output, StartsWith("There is no self-test \"nothing\".\n"));
}

TEST_F(SelfTest, AllRunsThoseThatNeedNoFile) {
    const Outcome outcome = run("all");
    EXPECT_EQ(outcome.code, 0);
    EXPECT_THAT(outcome.output, HasSubstr("[CaptureTests:Info]  Running testHarness"));
    EXPECT_THAT(outcome.output, HasSubstr("byte_sequence: passed"));
    EXPECT_THAT(outcome.output, HasSubstr("mpeg_timecode: passed"));
    EXPECT_EQ(run("byte_sequence").code, 0);
    EXPECT_EQ(run("mpeg_timecode").code, 0);
}

TEST_F(SelfTest, TheRebaseTakesFilesModeAndTimecode) {
    const std::string in = stream(400);
    const std::string out = directory.path("out.ts");
    EXPECT_EQ(run("gop_rebase " + in + " " + out).code, 0);
    EXPECT_GT(std::filesystem::file_size(out), 0U);
    EXPECT_EQ(run("gop_rebase " + in + " " + out + " 1 00:10:00:00").code, 0);
    const Outcome outcome = run("gop_rebase " + in);
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.output,
                HasSubstr("[captureEngLib:Error] Function testHarness requires args in.mpeg out.mpeg "
                          "[mode] [timecode]"));
}

TEST_F(SelfTest, AFileThatIsNotThereIsNamedBesideWhatTheSelfTestSays) {
    const std::string missing = directory.path("missing.ts");
    const std::string named = missing + " cannot be read: No such file or directory\n";
    const Outcome bounds = run("GetDTSBounds " + missing + " 1 2");
    EXPECT_EQ(bounds.code, 1);
    EXPECT_THAT(bounds.output, AllOf(HasSubstr(named), HasSubstr("Unable to open input file " + missing)));
    const Outcome wrapper = run("MpegWrapper " + missing);
    EXPECT_EQ(wrapper.code, 1);
    EXPECT_THAT(wrapper.output, AllOf(HasSubstr(named), HasSubstr("Is this a valid MPEG2 file?")));
    // Which takes it for a file without packets.
    const Outcome rebase = run("gop_rebase " + missing + " " + directory.path("out.ts"));
    EXPECT_EQ(rebase.code, 0);
    EXPECT_EQ(rebase.output, named);
    EXPECT_EQ(std::filesystem::file_size(directory.path("out.ts")), 0U);
}

TEST_F(SelfTest, DebugLinesMayBeLeftOut) {
    const std::string arguments = "gop_rebase " + stream(400) + " " + directory.path("out.ts");
    EXPECT_THAT(run(arguments).output, HasSubstr(":Debug] "));
    const Outcome outcome = run("-quiet " + arguments);
    EXPECT_EQ(outcome.code, 0);
    EXPECT_THAT(outcome.output, Not(HasSubstr(":Debug] ")));
    EXPECT_EQ(run("-quiet").code, 0) << "a list of the names";
    EXPECT_THAT(run("-quiet").output, HasSubstr("usage: kestrelSelfTest [-quiet] NAME [ARGS]"));
    EXPECT_EQ(run("-quiet nothing").code, 2);
    EXPECT_EQ(run("--help").code, 0);
    EXPECT_THAT(run("--help").output, StartsWith("usage: kestrelSelfTest"));
}

TEST_F(SelfTest, ANegativeResultIsAStatusFromTheTop) {
    TsMaker maker;
    maker.tables({{0x02, 481}});
    for (int i = 0; i < 400; ++i) {
        if (i == 200)
            maker.skipCounter(481); // a lost packet
        maker.pes(481, pesHeader(7200 + 3600 * i, 3600 + 3600 * i), gopHeader(1, 0, i % 60, 0) + filler(500));
    }
    const std::string lost = maker.write(directory, "lost.ts");
    const std::string out = directory.path("out.ts");
    const Outcome outcome = run("gop_rebase " + lost + " " + out);
    EXPECT_EQ(outcome.code, 253) << "-3 in the eight bits of a status";
    // 200 PES packets of three packets each came before.
    EXPECT_THAT(outcome.output,
                HasSubstr("[captureEngLib:Debug] Continuity error: expected 8 not 9 : PID 481"));
    EXPECT_EQ(run("-quiet gop_rebase " + lost + " " + out).code, 253) << "told or not";
    const Outcome onto = run("gop_rebase " + lost + " " + lost);
    EXPECT_EQ(onto.code, 255) << "-1";
    EXPECT_THAT(onto.output, HasSubstr("Cannot rebase " + lost + " onto itself"));
}

TEST_F(SelfTest, TheBoundsAreComparedWithThoseExpected) {
    const std::string in = stream();
    EXPECT_EQ(run("GetDTSBounds " + in + " 3600 10800").code, 0);
    const Outcome outcome = run("GetDTSBounds " + in + " 3600 7200");
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.output, HasSubstr("Last DTS = 10800, expected = 7200"));
    EXPECT_EQ(run("GetDTSBounds " + in).code, 1);
}

TEST_F(SelfTest, ProfileAndLevelArePrinted) {
    const Outcome outcome = run("MpegWrapper " + stream());
    EXPECT_EQ(outcome.code, 0);
    EXPECT_THAT(outcome.output, HasSubstr("Video Profile 4:\tMain\nVideo Level 8:\tMain\n"));
    EXPECT_THAT(outcome.output, HasSubstr("This is an SD file"));
    EXPECT_EQ(run("MpegWrapper " + directory.path("missing")).code, 1);
}

} // namespace
