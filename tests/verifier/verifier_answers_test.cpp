// What a verification answers from its report.
#include "foundation/CapturedLog.h"
#include "foundation/Logger.h"
#include "reports.h"
#include "verifier/VerifierJob.h"
#include "verifier/VerifierXml.h"

#include <gmock/gmock.h>

#include <ctime>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <vector>

namespace {

class VerifierAnswers : public testing::Test {
protected:
    VerifierJob job(const char* property, int numAudios = 1, bool xml = false) const {
        return VerifierJob("/in/a.ts", directory.path("").c_str(), "G", property, 20, false, xml, "",
                           numAudios, "none");
    }
    void write(const std::string& text) const {
        static_cast<void>(directory.file("G-a.ts.report.xml", text));
    }
    std::string answer(const char* property, int numAudios = 1, int capacity = 2001) {
        VerifierJob made = job(property, numAudios);
        return answerOf(made, capacity);
    }
    std::string answerOf(VerifierJob& made, int capacity = 2001) {
        std::vector<char> out(static_cast<std::size_t>(capacity) + 1, 'x');
        code = made.getJobResults(out.data(), capacity);
        EXPECT_EQ(out.back(), 'x') << "nothing is written behind the buffer";
        return capacity > 0 ? out.data() : "";
    }

    ScratchDir directory;
    int code = -1;
};

constexpr const char* FAILED = "Error: Failed to get requested Mpeg Property.";

TEST_F(VerifierAnswers, ASinglePropertyIsItsBareValue) {
    write(Report{.gopStructures = {"IBBP", "Adaptive Gop"}}.xml());
    const std::pair<const char*, const char*> rows[] = {{"VIDEO_ENCODING", "MPEG2"},
                                                        {"VIDEO_RESOLUTION", "528x480"},
                                                        {"VIDEO_ASPECT_RATIO", "4:3"},
                                                        {"TRANSPORT_RATE", "3750000"},
                                                        {"DROP_FRAME", "TRUE"},
                                                        {"VIDEO_PID", "481"},
                                                        {"PCR_PID", "481"},
                                                        {"PMT_PID", "480"},
                                                        {"IS_HD", "FALSE"},
                                                        {"VIDEO_FRAME_RATE", "29.97"},
                                                        {"IS_CC", "TRUE"},
                                                        {"GOP_STRUCTURE", "IBBP"},
                                                        {"VARIABLE_GOPS", "TRUE"},
                                                        {"VIDEO_RATE", "3000000"},
                                                        {"GOP_LENGTH", "15"},
                                                        {"QUADBYTEALIGNED", "TRUE"},
                                                        {"IS_MPEG2", "TRUE"},
                                                        {"IS_MPEG4", "FALSE"},
                                                        {"RUNTIME", "00:30:00:00"},
                                                        {"VIDEO_CBR", "TRUE"},
                                                        {"NEEDS_REENCODING", "TRUE"}};
    EXPECT_EQ(std::size(rows), 21U);
    for (const auto& [property, expected] : rows) {
        EXPECT_EQ(answer(property), expected) << property;
        EXPECT_EQ(code, 0);
    }
}

TEST_F(VerifierAnswers, TheLogNamesTheReportThatWasSought) {
    const CapturedLog log;
    // A directory without its closing slash.
    VerifierJob open("/in/a.ts", directory.path("reports").c_str(), "G", "VIDEO_PID", 20, false, false, "", 1,
                     "");
    EXPECT_EQ(answerOf(open), FAILED);
    EXPECT_THAT(log.text(),
                testing::HasSubstr("the report sought is " + directory.path("reportsG-a.ts.report.xml") +
                                   ": No such file or directory (errno 2)\r\n"));
    write("<R/>");
    EXPECT_EQ(answer("VIDEO_PID"), FAILED);
    EXPECT_THAT(log.text(),
                testing::HasSubstr(directory.path("G-a.ts.report.xml") + ": it lacks the property\r\n"));
}

TEST_F(VerifierAnswers, AnHdFileIsHd) {
    write(Report{.resolution = "1920x1080"}.xml());
    EXPECT_EQ(answer("IS_HD"), "TRUE");
}

TEST_F(VerifierAnswers, TheQuickListHasItsOrder) {
    write(Report{}.xml());
    EXPECT_EQ(answer("QUICK"),
              "ENCODING=MPEG2\tRESOLUTION=528x480\tASPECTRATIO=4:3\tTRANSPORTRATE=3750000\tDROPFRAME=TRUE\t"
              "VIDEOPID=481\tPCRPID=481\tPMTPID=480\tISHD=FALSE\tVIDEOFRAMERATE=29.97\tISCC=TRUE\t"
              "GOPSTRUCTURE=IBBP\tVARIABLEGOPS=FALSE\tVIDEORATE=3000000\tGOPLENGTH=15\tQUADBYTEALIGNED=TRUE\t"
              "AUDIOPID0=482\tAUDIOTYPE0=AC3 audio\tAUDIORATE0=192000\tAUDIOSAMPLINGRATE0=48000\t"
              "AUDIOSURROUNDMODE0=2/0\t");
    EXPECT_EQ(code, 0);
}

TEST_F(VerifierAnswers, TheFullListAlsoHasRuntimeAndRateControl) {
    write(Report{}.xml());
    EXPECT_EQ(answer("ALL"),
              "ENCODING=MPEG2\tRESOLUTION=528x480\tASPECTRATIO=4:3\tTRANSPORTRATE=3750000\t"
              "RUNTIME=00:30:00:00\tDROPFRAME=TRUE\tVIDEOPID=481\tPCRPID=481\tPMTPID=480\tISHD=FALSE\t"
              "VIDEOFRAMERATE=29.97\tISCC=TRUE\tGOPSTRUCTURE=IBBP\tVARIABLEGOPS=FALSE\tVIDEORATE=3000000\t"
              "GOPLENGTH=15\tVIDEOCBR=TRUE\tQUADBYTEALIGNED=TRUE\tAUDIOPID0=482\tAUDIOTYPE0=AC3 audio\t"
              "AUDIORATE0=192000\tAUDIOSAMPLINGRATE0=48000\tAUDIOSURROUNDMODE0=2/0\t");
}

TEST_F(VerifierAnswers, MissingValuesAreLeftOutOfTheLists) {
    write("<R/>");
    EXPECT_EQ(answer("QUICK", 0),
              "ENCODING=MPEG2\tDROPFRAME=FALSE\tISHD=FALSE\tISCC=FALSE\tVARIABLEGOPS=FALSE\t"
              "QUADBYTEALIGNED=FALSE\t");
}

TEST_F(VerifierAnswers, AudioGroupsThatTheFileLacksHoldThePlaceholder) {
    write(Report{.audios = {{}, {.pid = "483", .type = "", .mode = "3/2"}}}.xml());
    EXPECT_EQ(answer("AUDIO_MODES", 4),
              "AUDIOPID0=482\tAUDIOTYPE0=AC3 audio\tAUDIORATE0=192000\tAUDIOSAMPLINGRATE0=48000\t"
              "AUDIOSURROUNDMODE0=2/0\t"
              "AUDIOPID1=483\tAUDIORATE1=192000\tAUDIOSAMPLINGRATE1=48000\tAUDIOSURROUNDMODE1=3/2\t"
              "AUDIOPID2=none\tAUDIOTYPE2=none\tAUDIORATE2=none\tAUDIOSAMPLINGRATE2=none\t"
              "AUDIOSURROUNDMODE2=none\t"
              "AUDIOPID3=none\tAUDIOTYPE3=none\tAUDIORATE3=none\tAUDIOSAMPLINGRATE3=none\t"
              "AUDIOSURROUNDMODE3=none\t");
}

TEST_F(VerifierAnswers, MoreAudiosThanGroupsAreAllShown) {
    write(Report{.audios = {{}, {.pid = "483"}, {.pid = "484"}}}.xml());
    const std::string text = answer("AUDIO_MODES", 1);
    EXPECT_THAT(text, testing::HasSubstr("AUDIOPID2=484\t"));
    EXPECT_THAT(text, testing::Not(testing::HasSubstr("none")));
}

TEST_F(VerifierAnswers, AnEndlessNumberOfGroupsEndsWithTheBuffer) {
    write(Report{}.xml());
    EXPECT_LT(answer("AUDIO_MODES", 2'000'000'000).size(), 2001U);
    EXPECT_EQ(code, 0);
}

TEST_F(VerifierAnswers, APairWithoutRoomIsLeftOutAndAShorterOneMayFollow) {
    char out[20];
    int length = 0;
    VerifierJob::pushProperty("A", "1", out, sizeof out, length);
    EXPECT_STREQ(out, "A=1\t");
    EXPECT_EQ(length, 4);
    VerifierJob::pushProperty("LONGNAME", "LONGVALUE", out, sizeof out, length);
    EXPECT_EQ(length, 4);
    VerifierJob::pushProperty("B", nullptr, out, sizeof out, length);
    EXPECT_EQ(length, 4);
    VerifierJob::pushProperty("NAME", "123456789", out, sizeof out, length);
    EXPECT_STREQ(out, "A=1\tNAME=123456789\t") << "nineteen and the terminator";
    EXPECT_EQ(length, 19);
    VerifierJob::pushProperty("", "", out, sizeof out, length);
    EXPECT_EQ(length, 19);
}

TEST_F(VerifierAnswers, EveryBufferSizeIsRespected) {
    write(Report{}.xml());
    const std::string whole = answer("ALL");
    for (int capacity = 0; capacity < 400; ++capacity) {
        EXPECT_LT(static_cast<int>(answer("ALL", 1, capacity).size()), std::max(capacity, 1));
        answer("VALIDATION_ERRORS", 1, capacity);
        answer("VIDEO_RESOLUTION", 1, capacity);
    }
    EXPECT_EQ(answer("ALL", 1, static_cast<int>(whole.size()) + 1), whole);
}

TEST_F(VerifierAnswers, ForTheReportItselfThePathIsTheAnswer) {
    VerifierJob made = job("ALL", 1, true);
    EXPECT_EQ(answerOf(made), directory.path("") + "G-a.ts.report.xml") << "it need not exist";
    EXPECT_EQ(code, 0);
}

TEST_F(VerifierAnswers, WithoutAReportEveryPropertyFails) {
    for (const char* property : VerifierJob::PropertyNameStr) {
        EXPECT_EQ(answer(property), FAILED) << property;
        EXPECT_EQ(code, 10026) << property;
    }
}

TEST_F(VerifierAnswers, AnAbsentPropertyFails) {
    write("<R/>");
    for (const char* property :
         {"VIDEO_RESOLUTION", "VIDEO_ASPECT_RATIO", "TRANSPORT_RATE", "VIDEO_PID", "PCR_PID", "PMT_PID",
          "VIDEO_FRAME_RATE", "GOP_STRUCTURE", "VIDEO_RATE", "GOP_LENGTH", "RUNTIME"}) {
        EXPECT_EQ(answer(property), FAILED) << property;
        EXPECT_EQ(code, 10026);
    }
    EXPECT_EQ(answer("IS_HD"), "FALSE");
    EXPECT_EQ(code, 0) << "yes and no always have an answer";
}

TEST_F(VerifierAnswers, WhatTheWorkerSaidFollowsTheError) {
    VerifierJob made = job("ALL");
    made.setResults("/in/a.ts: no transport stream");
    EXPECT_EQ(answerOf(made), FAILED) << "not of a worker that did its work";
    made.setState(Job::ERROR);
    EXPECT_EQ(answerOf(made), std::string(FAILED) + " /in/a.ts: no transport stream");
}

TEST_F(VerifierAnswers, AnEarlierJobsReportIsNotTheAnswerAndStays) {
    const std::string old = Report{.videoPid = "99"}.xml();
    write(old);
    const CapturedLog log;
    VerifierJob made = job("VIDEO_PID");
    EXPECT_FALSE(made.reportIsOlder());
    made.disownReport();
    EXPECT_TRUE(made.reportIsOlder());
    EXPECT_EQ(answerOf(made), FAILED);
    EXPECT_EQ(code, 10026);
    EXPECT_THAT(log.text(), testing::HasSubstr("G-a.ts.report.xml: what is there is of an earlier job\r\n"));
    VerifierJob copy(made);
    EXPECT_EQ(answerOf(copy), FAILED) << "a job is copied into the queue";
    EXPECT_EQ(contentOf(made.reportFilename), old);
    EXPECT_EQ(answer("VIDEO_PID"), "99") << "it is another's";
}

TEST_F(VerifierAnswers, AReportThatReplacesAnEarlierOneIsTheAnswer) {
    write(Report{.videoPid = "99"}.xml());
    VerifierJob made = job("VIDEO_PID");
    made.disownReport();
    const std::string beside = directory.file("beside", Report{.videoPid = "98"}.xml());
    std::filesystem::rename(beside, made.reportFilename);
    EXPECT_FALSE(made.reportIsOlder());
    EXPECT_EQ(answerOf(made), "98");
}

TEST_F(VerifierAnswers, AReportThatIsWrittenOverAnEarlierOneIsTheAnswer) {
    // Of the same length, in the same file, at once: the time alone tells.
    for (int i = 0; i < 50; ++i) {
        write(Report{.videoPid = "99"}.xml());
        VerifierJob made = job("VIDEO_PID");
        made.disownReport();
        write(Report{.videoPid = "98"}.xml());
        ASSERT_EQ(answerOf(made), "98") << i;
    }
}

// Has the file the time that a file system would give it that keeps only every so many whole seconds.
void coarsen(const char* path, time_t seconds) {
    struct stat file {};
    ASSERT_EQ(stat(path, &file), 0);
    const timespec kept{file.st_mtim.tv_sec - file.st_mtim.tv_sec % seconds, 0};
    const timespec times[2] = {kept, kept};
    ASSERT_EQ(utimensat(AT_FDCWD, path, times, 0), 0);
}

TEST_F(VerifierAnswers, AReportThatIsWrittenOverAnEarlierOneIsTheAnswerAlsoWhereTimesAreCoarse) {
    for (const time_t seconds : {1, 2}) {
        write(Report{.videoPid = "99"}.xml());
        VerifierJob made = job("VIDEO_PID");
        coarsen(made.reportFilename, seconds);
        made.disownReport();
        EXPECT_TRUE(made.reportIsOlder());
        write(Report{.videoPid = "98"}.xml());
        coarsen(made.reportFilename, seconds);
        EXPECT_EQ(answerOf(made), "98") << seconds;
    }
}

TEST_F(VerifierAnswers, AReportThatComesWhereNoneWasIsTheAnswer) {
    VerifierJob made = job("VIDEO_PID");
    made.disownReport();
    EXPECT_FALSE(made.reportIsOlder());
    EXPECT_EQ(answerOf(made), FAILED);
    write(Report{.videoPid = "98"}.xml());
    EXPECT_EQ(answerOf(made), "98");
}

TEST_F(VerifierAnswers, TheListsCanBeAskedForOneByOne) {
    write(Report{}.xml());
    VerifierJob made = job("ALL");
    char out[2001] = "";
    EXPECT_EQ(made.getMpegPropertiesQuick(out, sizeof out), 0);
    EXPECT_EQ(std::string(out), answer("QUICK"));
    EXPECT_EQ(made.getMpegProperties(out, sizeof out), 0);
    EXPECT_EQ(std::string(out), answer("ALL"));
    EXPECT_EQ(made.getAudioModes(out, sizeof out), 0);
    EXPECT_EQ(std::string(out), answer("AUDIO_MODES"));
    VerifierXml report(made.reportFilename);
    int length = 0;
    made.getAudioInfo(report, out, sizeof out, length);
    EXPECT_EQ(length, static_cast<int>(std::string(out).size()));
}

} // namespace
