// Saving: the document, the round trip, and how the file takes its name.
#include "profile_files.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class Save : public ProfileFiles {
protected:
    std::string saved(const CSettings& settings) const {
        EXPECT_TRUE(settings.SaveProfile(path("saved.xml").c_str())) << std::strerror(errno);
        return path("saved.xml");
    }

    static std::vector<std::string> elementNames(const std::string& file) {
        TiXmlDocument document;
        EXPECT_TRUE(document.LoadFile(file.c_str()));
        std::vector<std::string> names;
        for (const TiXmlElement* e = document.RootElement()->FirstChildElement(); e != nullptr;
             e = e->NextSiblingElement())
            names.emplace_back(e->Value());
        return names;
    }
};

TEST_F(Save, WritesDeclarationAndRoot) {
    const std::string file = saved(CSettings());
    EXPECT_THAT(contentOf(file),
                StartsWith("<?xml version=\"1.0\" encoding=\"UTF-8\" ?>\n<CaptureSettings>\n"));
    TiXmlDocument document;
    ASSERT_TRUE(document.LoadFile(file.c_str()));
    const TiXmlDeclaration* declaration = document.FirstChild()->ToDeclaration();
    ASSERT_NE(declaration, nullptr);
    EXPECT_STREQ(declaration->Version(), "1.0");
    EXPECT_STREQ(declaration->Encoding(), "UTF-8");
    EXPECT_STREQ(declaration->Standalone(), "");
    EXPECT_STREQ(document.RootElement()->Value(), "CaptureSettings");
    EXPECT_EQ(document.RootElement()->FirstAttribute(), nullptr);
}

TEST_F(Save, WritesTheElementsInTheirOrder) {
    CSettings settings;
    EXPECT_THAT(elementNames(saved(settings)),
                ElementsAre("DECODER_OPTIONS", "MPEG_ENGINE", "ENCODER_INTERFACE", "AUDIO_ENGINE",
                            "VTR_OPTIONS", "MEZZANINE_OPTIONS", "CMD_PARAMS"));
    settings.numEncoders = 2;
    EXPECT_THAT(elementNames(saved(settings)),
                ElementsAre("ENCODER_RECEPTION_0", "ENCODER_RECEPTION_1", "DECODER_OPTIONS", "MPEG_ENGINE",
                            "ENCODER_INTERFACE", "AUDIO_ENGINE", "VTR_OPTIONS", "MEZZANINE_OPTIONS",
                            "CMD_PARAMS"));
}

TEST_F(Save, AnEncoderCountOutOfRangeIsHeldInIt) {
    CSettings settings;
    settings.numEncoders = 1000;
    EXPECT_EQ(elementNames(saved(settings)).size(), 9U);
    settings.numEncoders = -1;
    EXPECT_EQ(elementNames(saved(settings)).size(), 7U);
}

TEST_F(Save, WritesEveryDefault) {
    CSettings settings;
    settings.numEncoders = 1;
    const std::string file = saved(settings);
    EXPECT_EQ(savedAttributes(file, "ENCODER_RECEPTION_0"),
              (Attributes{{"IP_ADDRESS", "0.0.0.0"},
                          {"PORT", "0"},
                          {"SNMP_IP_ADDRESS", "0.0.0.0"},
                          {"SNMP_PORT", "0"},
                          {"GOP_FRAME_COUNT", "15"},
                          {"MOTOROLA_QUAD_BYTE_ALIGNMENT", "FALSE"},
                          {"FRAME_OFFSET", "0"},
                          {"FRAME_OFFSET_NO_VITC", "0"},
                          {"VTR_ENC_INIT_DELAY", "2"},
                          {"VTR_ENC_FRAME_DELTA_SECONDS_V_3_1", "30"},
                          {"VTR_ENC_SAMPLE_NUMBER", "2"},
                          {"VTR_ENC_SAMPLE_PERIOD", "100"},
                          {"ENCODER_TYPE", "ORMOND"},
                          {"RAW_FILES", "FALSE"},
                          {"CONVERT_MPEG2_AUDIO", "FALSE"},
                          {"FILE_PREFIX", ""},
                          {"MAIN_CAPTURE_DIRECTORY", ""},
                          {"SCHEDULE_CAPTURE_DIRECTORY", ""},
                          {"BATCH_CAPTURE_DIRECTORY", ""},
                          {"ROLLING_CAPTURE_DIRECTORY", ""},
                          {"MEZZANINE_CAPTURE_DIRECTORY", ""},
                          {"LOCK_MAIN_CAPTURE_DIRECTORY", "FALSE"},
                          {"LOCK_SCHEDULE_CAPTURE_DIRECTORY", "FALSE"},
                          {"LOCK_BATCH_CAPTURE_DIRECTORY", "FALSE"},
                          {"LOCK_ROLLING_CAPTURE_DIRECTORY", "FALSE"},
                          {"LOCK_MEZZANINE_CAPTURE_DIRECTORY", "FALSE"},
                          {"PROFILE", ""}}));
    EXPECT_EQ(savedAttributes(file, "DECODER_OPTIONS"), (Attributes{{"DECODER_IP_ADDRESS", "0.0.0.0"},
                                                                    {"DECODER_PORT", "0"},
                                                                    {"DECODER_START_APPEND_v3.1.0.4", "20"},
                                                                    {"DECODER_END_APPEND_v3.1.0.4", "20"},
                                                                    {"DECODER_INTERFACE", "0.0.0.0"},
                                                                    {"DECODEROPTION", "0"},
                                                                    {"DEV_SAVE_LOG_FILE", "FALSE"},
                                                                    {"FORCE_DECODER_MONITOR", "TRUE"},
                                                                    {"EDITCL_TIMEOUT_SEC", "420"},
                                                                    {"DECODER_CONTROL_ADDRESS", "0.0.0.0"},
                                                                    {"DECODER_OUTPUT_0", "0.0.0.0"},
                                                                    {"DECODER_OUTPUT_1", "0.0.0.0"},
                                                                    {"DECODER_OUTPUT_2", "0.0.0.0"}}));
    EXPECT_EQ(savedAttributes(file, "MPEG_ENGINE"), (Attributes{{"MPEG2_USE_BEGINNING_SPLICE_POINT", "TRUE"},
                                                                {"MPEG2_USE_END_SPLICE_POINT", "FALSE"},
                                                                {"MPEG4_USE_BEGINNING_SPLICE_POINT", "TRUE"},
                                                                {"MPEG4_USE_END_SPLICE_POINT", "FALSE"}}));
    EXPECT_EQ(savedAttributes(file, "ENCODER_INTERFACE"),
              (Attributes{{"SPLICEPOINT_LEAD_TIME_MS", "10000"},
                          {"MAX_FRAMES_OFF", "3"},
                          {"TIMED_AND_MANUAL_ENC_FRAME_DELTA_SECONDS", "20"},
                          {"TIMED_AND_MANUAL_ENC_SAMPLE_NUMBER", "2"},
                          {"TIMED_AND_MANUAL_ENC_SAMPLE_PERIOD", "100"},
                          {"TIMED_AND_MANUAL_ENC_INIT_DELAY", "2"},
                          {"ENCODER_LEAD_TIME_SECS", "20"},
                          {"ENCODER_614x_LEAD_TIME_SECS", "52"}}));
    EXPECT_EQ(savedAttributes(file, "AUDIO_ENGINE"), (Attributes{{"AC3_PASS_THROUGH", "TRUE"}}));
    EXPECT_EQ(savedAttributes(file, "VTR_OPTIONS"), (Attributes{{"PREROLL_TIME_SECS", "8"},
                                                                {"FIND_START_TIMECODE_RETRIES", "5"},
                                                                {"NON_VITC_PREROLL_MAX_FRAME_DIFF", "1"},
                                                                {"VITC_SUPPORT", "TRUE"},
                                                                {"PORT", ""},
                                                                {"USE_INTERNAL_CUE", "FALSE"}}));
    EXPECT_EQ(savedAttributes(file, "MEZZANINE_OPTIONS"), (Attributes{{"SPLICE_POINT_RETRIES", "3"}}));
    EXPECT_EQ(
        savedAttributes(file, "CMD_PARAMS"),
        (Attributes{{"OUTPUT_FILE", ""}, {"RUN_TYPE", "SERVICE_MGR_INVOKED"}, {"BLACK_FILE_SUFFIX", ""}}));
}

TEST_F(Save, WritesEveryKeyThatWasLoaded) {
    const CSettings settings = loaded(fullProfile({}));
    const std::string file = saved(settings);
    EXPECT_EQ(savedAttributes(file, "ENCODER_RECEPTION_0"), fullEncoder());
    EXPECT_EQ(savedAttributes(file, "ENCODER_RECEPTION_1"), fullEncoder());
    EXPECT_EQ(savedAttributes(file, "DECODER_OPTIONS"), fullDecoder());
    EXPECT_EQ(savedAttributes(file, "MPEG_ENGINE"), fullMpegEngine());
    EXPECT_EQ(savedAttributes(file, "ENCODER_INTERFACE"), fullEncoderInterface());
    EXPECT_EQ(savedAttributes(file, "AUDIO_ENGINE"), (Attributes{{"AC3_PASS_THROUGH", "FALSE"}}));
    EXPECT_EQ(savedAttributes(file, "VTR_OPTIONS"), fullVtrOptions());
    EXPECT_EQ(savedAttributes(file, "MEZZANINE_OPTIONS"), (Attributes{{"SPLICE_POINT_RETRIES", "4"}}));
}

TEST_F(Save, EachJobTypeWritesItsOwnAttributes) {
    const Attributes common{
        {"OUTPUT_FILE", "/o.mpg"}, {"RUN_TYPE", "CMDLINE_STANDALONE"}, {"BLACK_FILE_SUFFIX", "_b"}};
    const std::pair<int, Attributes> cases[] = {
        {0, {{"JOB_TYPE", "VTR"}, {"MARK_IN_TIME", "01:00:00:00"}, {"MARK_OUT_TIME", "02:00:00:00"}}},
        {1, {{"JOB_TYPE", "MANUAL"}}},
        {2, {{"JOB_TYPE", "TIMED"}, {"DURATION", "00:30:00:00"}}},
        {3, {{"JOB_TYPE", "TIMED_REENCODE"}, {"SOURCE_FILE", "/s.mpg"}}},
        {4, {}},
        {5,
         {{"JOB_TYPE", "MEZZANINE"},
          {"MARK_IN_TIME", "01:00:00:00"},
          {"MARK_OUT_TIME", "02:00:00:00"},
          {"SOURCE_FILE", "/s.mpg"}}},
        {6, {{"JOB_TYPE", "ROLLING"}, {"ROLLING_DURATION_MIN", "15"}, {"ROLLING_START_NOW", "TRUE"}}},
        {7, {{"JOB_TYPE", "MPEG_NORMALIZE"}, {"SOURCE_FILE", "/s.mpg"}}},
        {8, {}},
        {-1, {}},
        {9, {}},
    };
    CSettings settings;
    settings.cmd = {.outputFile = "/o.mpg",
                    .serviceMgrInvoked = false,
                    .blackFileSuffix = "_b",
                    .jobType = CSettings::JOB_NONE,
                    .markInTime = "01:00:00:00",
                    .markOutTime = "02:00:00:00",
                    .duration = "00:30:00:00",
                    .sourceFile = "/s.mpg",
                    .rollingDurationMin = 15,
                    .rollingStartNow = true};
    for (const auto& [type, extra] : cases) {
        settings.cmd.jobType = type;
        Attributes expected = common;
        expected.insert(expected.end(), extra.begin(), extra.end());
        EXPECT_EQ(savedAttributes(saved(settings), "CMD_PARAMS"), expected) << type;
    }
}

TEST_F(Save, RoundTripKeepsTheRecord) {
    for (const char* type :
         {"VTR", "MANUAL", "TIMED", "TIMED_REENCODE", "MEZZANINE", "ROLLING", "MPEG_NORMALIZE"}) {
        const CSettings settings = loaded(fullProfile({{"OUTPUT_FILE", "/o.mpg"},
                                                       {"RUN_TYPE", "CMDLINE_STANDALONE"},
                                                       {"BLACK_FILE_SUFFIX", "_b"},
                                                       {"JOB_TYPE", type},
                                                       {"MARK_IN_TIME", "01:00:00:00"},
                                                       {"MARK_OUT_TIME", "02:00:00:00"},
                                                       {"DURATION", "00:30:00:00"},
                                                       {"SOURCE_FILE", "/s.mpg"},
                                                       {"ROLLING_DURATION_MIN", "15"},
                                                       {"ROLLING_START_NOW", "TRUE"}}));
        CSettings again;
        EXPECT_TRUE(again.LoadProfile(saved(settings).c_str()));
        EXPECT_EQ(describe(again), describe(settings)) << type;
    }
}

// The two keys that a load does not parse come back as the integer before them.
TEST_F(Save, RoundTripOfTheDefaultsChangesTheUnparsedKeys) {
    CSettings again;
    EXPECT_TRUE(again.LoadProfile(saved(CSettings()).c_str()));
    CSettings expected;
    expected.decoder.editclTimeoutSec = 20;
    expected.encoderInterface.maxFramesOff = 10000;
    EXPECT_EQ(describe(again), describe(expected));
}

TEST_F(Save, AProfileWithTheSecondReceptionOnlySavesTheFirst) {
    const std::string file = saved(loaded("<ENCODER_RECEPTION_1 PORT=\"7\"/>"));
    const Attributes first = savedAttributes(file, "ENCODER_RECEPTION_0");
    ASSERT_EQ(first.size(), fullEncoder().size());
    EXPECT_EQ(first[1], (std::pair<std::string, std::string>("PORT", "0")));
    EXPECT_THAT(savedAttributes(file, "ENCODER_RECEPTION_1"), testing::IsEmpty());
}

TEST_F(Save, AnEncoderTypeOfAnyCaseIsSavedInCapitals) {
    const std::string file = saved(loaded("<ENCODER_RECEPTION_0 ENCODER_TYPE=\"harmonic\"/>"));
    EXPECT_THAT(savedAttributes(file, "ENCODER_RECEPTION_0"),
                testing::Contains(std::pair<std::string, std::string>("ENCODER_TYPE", "HARMONIC")));
}

TEST_F(Save, TextsAreEscaped) {
    CSettings settings;
    std::strcpy(settings.cmd.outputFile, "/a&b <\"'>\n\xc3\xa9.mpg");
    CSettings again;
    EXPECT_TRUE(again.LoadProfile(saved(settings).c_str()));
    EXPECT_STREQ(again.cmd.outputFile, settings.cmd.outputFile);
    EXPECT_THAT(contentOf(path("saved.xml")), HasSubstr("/a&amp;b &lt;"));
}

// A file name is made of bytes, and a long one is cut wherever the field ends.
TEST_F(Save, NamesThatAreNoUtf8ComeBackAsTheyAre) {
    for (int last = 0x80; last <= 0xFF; ++last) {
        CSettings settings;
        const std::string name = std::string("/caf") + static_cast<char>(last);
        std::strcpy(settings.cmd.outputFile, name.c_str());
        CSettings again;
        ASSERT_TRUE(again.LoadProfile(saved(settings).c_str())) << last;
        EXPECT_STREQ(again.cmd.outputFile, name.c_str()) << last;
    }
}

TEST_F(Save, AFieldWithoutTerminatorEndsWithItsField) {
    CSettings settings;
    settings.cmd.jobType = CSettings::JOB_VTR;
    std::memset(settings.cmd.markInTime, 'x', sizeof settings.cmd.markInTime);
    EXPECT_THAT(savedAttributes(saved(settings), "CMD_PARAMS"),
                testing::Contains(std::pair<std::string, std::string>("MARK_IN_TIME", "xxxxxxxxxxxx")));
}

TEST_F(Save, ReplacesAnEarlierFileAndLeavesNothingElse) {
    write(std::string(100000, 'x'), "saved.xml");
    EXPECT_THAT(savedAttributes(saved(CSettings()), "AUDIO_ENGINE"),
                (Attributes{{"AC3_PASS_THROUGH", "TRUE"}}));
    EXPECT_EQ(filesInDirectory(), 1U);
}

TEST_F(Save, DoesNotFollowALinkPlantedAtThePath) {
    const std::string victim = write("untouched", "victim");
    ASSERT_EQ(::symlink(victim.c_str(), path("saved.xml").c_str()), 0);
    const std::string file = saved(CSettings());
    EXPECT_EQ(contentOf(victim), "untouched");
    struct stat info {};
    ASSERT_EQ(::lstat(file.c_str(), &info), 0);
    EXPECT_TRUE(S_ISREG(info.st_mode));
}

TEST_F(Save, DoesNotWriteIntoAHardLinkedOrOpenEarlierFile) {
    const std::string earlier = write("untouched", "saved.xml");
    ASSERT_EQ(::link(earlier.c_str(), path("other").c_str()), 0);
    saved(CSettings());
    EXPECT_EQ(contentOf(path("other")), "untouched");
}

TEST_F(Save, TheFileIsReadableByAllAsFarAsTheUmaskAllows) {
    const mode_t before = ::umask(027);
    const std::string file = saved(CSettings());
    ::umask(before);
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640U);
}

TEST_F(Save, FailuresAreReportedWithErrno) {
    const CSettings settings;
    errno = 0;
    EXPECT_FALSE(settings.SaveProfile(path("no/such/folder.xml").c_str()));
    EXPECT_EQ(errno, ENOENT);
    errno = 0;
    EXPECT_FALSE(settings.SaveProfile(nullptr));
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_FALSE(settings.SaveProfile(""));
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_FALSE(settings.SaveProfile(path(std::string(255, 'n')).c_str()));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(filesInDirectory(), 0U);
}

TEST_F(Save, ADirectoryAtThePathStaysAndTheNewFileGoes) {
    ASSERT_TRUE(std::filesystem::create_directory(path("saved.xml")));
    errno = 0;
    EXPECT_FALSE(CSettings().SaveProfile(path("saved.xml").c_str()));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(filesInDirectory(), 1U);
    EXPECT_TRUE(std::filesystem::is_directory(path("saved.xml")));
}

// A file-size limit stands in for a full disk: the write breaks off half-way.
TEST_F(Save, AWriteThatBreaksOffKeepsTheEarlierFile) {
    const std::string file = write("earlier", "saved.xml");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    rlimit small = before;
    small.rlim_cur = 100;
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    errno = 0;
    const bool result = CSettings().SaveProfile(file.c_str());
    const int error = errno;
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, oldHandler);
    EXPECT_FALSE(result);
    EXPECT_EQ(error, EFBIG);
    EXPECT_EQ(contentOf(file), "earlier");
    EXPECT_EQ(filesInDirectory(), 1U);
}

TEST_F(Save, LeaksNoDescriptor) {
    const auto openDescriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = openDescriptors();
    saved(CSettings());
    CSettings().SaveProfile(path("no/such/folder.xml").c_str());
    CSettings().LoadProfile(path("saved.xml").c_str());
    CSettings().LoadProfile(directory().c_str());
    EXPECT_EQ(openDescriptors(), before);
}
