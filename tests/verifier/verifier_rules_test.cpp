// The delivery specification: for each rule a report that passes, one that fails, and the switch.
#include "reports.h"
#include "verifier/VerifierJob.h"

#include <gmock/gmock.h>

namespace {

// Everything but the rule under test is switched off, so that one fault is one message.
class VerifierRules : public testing::Test {
protected:
    std::string errors(const Report& report, const std::string& disabled = "", int capacity = 2001) {
        static_cast<void>(directory.file("G-a.ts.report.xml", report.xml()));
        VerifierJob job("/in/a.ts", directory.path("").c_str(), "G", "VALIDATION_ERRORS", 20, false, false,
                        disabled.c_str(), 0, "");
        std::vector<char> out(static_cast<std::size_t>(capacity) + 1, 'x');
        EXPECT_EQ(job.getJobResults(out.data(), capacity), 0);
        EXPECT_EQ(out.back(), 'x');
        return out.data();
    }
    static std::string allBut(const char* rule) {
        std::string list;
        for (const char* name : VerifierJob::ValidationErrorEnabledStr)
            if (std::string(name) != rule)
                list += std::string(name) + ";";
        return list;
    }
    // The message of that rule alone; nothing once it is switched off.
    void expect(const char* rule, const Report& report, const std::string& message) {
        EXPECT_EQ(errors(report, allBut(rule)), message) << rule;
        EXPECT_EQ(errors(report, allBut(rule) + rule), "") << rule << " switched off";
    }
    void passes(const char* rule, const Report& report) {
        EXPECT_EQ(errors(report, allBut(rule)), "") << rule;
    }

    ScratchDir directory;
};

TEST_F(VerifierRules, AFileThatMeetsTheSpecificationHasNoMessage) {
    EXPECT_EQ(errors({}), "");
    EXPECT_EQ(
        errors({.resolution = "1920x1080", .videoRate = "18100000", .aligned = "", .muxRate = "19000000"}),
        "");
}

TEST_F(VerifierRules, FileIsMpeg2) {
    expect("File_isMpeg2", {.videoType = "H.264 video"}, "The file /in/a.ts is not MPEG2.\t");
    passes("File_isMpeg2", {.videoType = ""});
}

TEST_F(VerifierRules, Pids) {
    expect("PMTPid_480", {.pmtPid = "481"}, "The PMT PID 481 must be 480 decimal/0x1E0 Hex.\t");
    expect("PMTPid_480", {.pmtPid = ""}, "The PMT PID  must be 480 decimal/0x1E0 Hex.\t");
    expect("PCRPid_481", {.pcrPid = "256"}, "The PCR PID 256 must be 481 decimal/0x1E1 Hex.\t");
    expect("PCRPid_481", {.pcrPid = ""}, "The PCR PID  must be 481 decimal/0x1E1 Hex.\t");
    expect("VideoPid_481", {.videoPid = "33"}, "The Video PID 33 must be 481 decimal/0x1E1 Hex.\t");
    expect("VideoPid_481", {.videoPid = ""}, "The Video PID  must be 481 decimal/0x1E1 Hex.\t");
    passes("PMTPid_480", {.pmtPid = "0480"});
}

TEST_F(VerifierRules, NumbersBeyond32BitsAreNotTakenForOthers) {
    expect("PMTPid_480", {.pmtPid = "4294967776"}, "The PMT PID 4294967776 must be 480 decimal/0x1E0 Hex.\t");
    expect("GOPLength_FPSnot24_15", {.gopSize = "4294967311"}, "The GOP length must be 15.\t");
    expect("GOPLength_FPSnot24_15", {.frameRate = "4294967320", .gopSize = "12"},
           "The GOP length must be 15.\t");
    // The PID behind the largest one is none.
    expect("Audio_PidsIncBy1", {.audios = {{.pid = "2147483647"}, {.pid = "-2147483648"}}},
           "The audio PIDs in the file /in/a.ts must start at 482 and increment by 1.  The last PID was "
           "2147483647 and this PID is -2147483648");
}

TEST_F(VerifierRules, GopLengthDependsOnTheFrameRate) {
    constexpr const char* FILM = "The GOP length must be 12 for 24 Frames Per Second material.\t";
    constexpr const char* OTHER = "The GOP length must be 15.\t";
    for (const char* rate : {"25", "29.97", "30.000", "59.94"}) {
        passes("GOPLength_FPSnot24_15", {.frameRate = rate, .gopSize = "15"});
        expect("GOPLength_FPSnot24_15", {.frameRate = rate, .gopSize = "12"}, OTHER);
        expect("GOPLength_FPSnot24_15", {.frameRate = rate, .gopSize = ""}, OTHER);
        passes("GOPLength_FPS24_12", {.frameRate = rate, .gopSize = "99"});
    }
    for (const char* rate : {"23.976", "24", "24.9", "", "nonsense"}) {
        passes("GOPLength_FPS24_12", {.frameRate = rate, .gopSize = "12"});
        expect("GOPLength_FPS24_12", {.frameRate = rate, .gopSize = "15"}, FILM);
        expect("GOPLength_FPS24_12", {.frameRate = rate, .gopSize = ""}, FILM);
        passes("GOPLength_FPSnot24_15", {.frameRate = rate, .gopSize = "99"});
    }
}

TEST_F(VerifierRules, GopStructureMatchesExactly) {
    constexpr const char* MESSAGE = "The GOP structure must be IBBP.\t";
    for (const char* structure : {"IBBPBBP", "IBP", "ibbp", "IBB"})
        expect("GOPStructure_IBBP", {.gopStructures = {structure}}, MESSAGE);
    expect("GOPStructure_IBBP", {.gopStructures = {}}, MESSAGE);
    passes("GOPStructure_IBBP", {.gopStructures = {"IBBP", "Adaptive Gop"}});
}

TEST_F(VerifierRules, HdRates) {
    expect("HD_TxRate_19Mbs", {.resolution = "1280x720", .muxRate = "19000001"},
           "The transport rate of the HD file /in/a.ts is greater than 19.0 Mbs.\t");
    passes("HD_TxRate_19Mbs", {.resolution = "1280x720", .muxRate = "19000000"});
    passes("HD_TxRate_19Mbs", {.resolution = "1280x720", .muxRate = ""});
    expect("HD_VidBR_18p1Mbs", {.resolution = "1280x720", .videoRate = "18100000.5"},
           "The video bit rate in HD file /in/a.ts cannot be greater than 18.1 Mbs.\t");
    passes("HD_VidBR_18p1Mbs", {.resolution = "1280x720", .videoRate = "18100000"});
    passes("HD_VidBR_18p1Mbs", {.resolution = "528x480", .videoRate = "99000000"});
}

TEST_F(VerifierRules, SdResolution) {
    constexpr const char* MESSAGE = "The file /in/a.ts is not 1/2 D1 or 3/4 D1.\t";
    passes("SD_Resolution_352x480_or_528x480", {.resolution = "352x480"});
    passes("SD_Resolution_352x480_or_528x480", {.resolution = "528x480"});
    passes("SD_Resolution_352x480_or_528x480", {.resolution = "1920x1080"});
    for (const char* resolution : {"720x480", "352x576", "480x352", ""})
        expect("SD_Resolution_352x480_or_528x480", {.resolution = resolution}, MESSAGE);
}

TEST_F(VerifierRules, SdAlignmentAndRates) {
    expect("Mpeg2SD_QuadByteAligned", {.aligned = "false"},
           "The file /in/a.ts does not satisfy the Quad Byte Alignment requirement.\t");
    expect("Mpeg2SD_QuadByteAligned", {.aligned = ""},
           "The file /in/a.ts does not satisfy the Quad Byte Alignment requirement.\t");
    passes("Mpeg2SD_QuadByteAligned", {.videoType = "H.264", .aligned = "false"});
    passes("Mpeg2SD_QuadByteAligned", {.resolution = "1280x720", .aligned = "false"});
    expect("SD_TxRate_3p75Mbs", {.muxRate = "3750001"},
           "The transport rate of the SD file /in/a.ts is greater than 3.75 Mbs.\t");
    passes("SD_TxRate_3p75Mbs", {.muxRate = ""});
    expect("SD_VidBR_3p18Mbs", {.videoRate = "3180001"},
           "The video bit rate in SD file /in/a.ts cannot be greater than 3.18 Mbs.\t");
    passes("SD_VidBR_3p18Mbs", {.videoRate = "3180000"});
}

TEST_F(VerifierRules, TheFirstAudioPid) {
    expect("Audio_FirstPid_482", {.audios = {{.pid = "500"}}},
           "The first audio PID in the file /in/a.ts must start at 482 Decimal or 0x1E2 Hex.\t");
    passes("Audio_FirstPid_482", {.audios = {{.pid = "482"}, {.pid = "700"}}});
    passes("Audio_FirstPid_482", {.audios = {}});
}

TEST_F(VerifierRules, AudioPidsIncreaseByOne) {
    expect(
        "Audio_PidsIncBy1", {.audios = {{.pid = "482"}, {.pid = "483"}, {.pid = "485"}}},
        "The audio PIDs in the file /in/a.ts must start at 482 and increment by 1.  The last PID was 483 and "
        "this PID is 485");
    passes("Audio_PidsIncBy1", {.audios = {{.pid = "600"}, {.pid = "601"}}});
    EXPECT_EQ(
        errors({.audios = {{.pid = "482"}, {.pid = "490"}, {.pid = "491"}, {.pid = "480"}}},
               allBut("Audio_PidsIncBy1")),
        "The audio PIDs in the file /in/a.ts must start at 482 and increment by 1.  The last PID was 482 and "
        "this PID is 490The audio PIDs in the file /in/a.ts must start at 482 and increment by 1.  The last "
        "PID was 491 and this PID is 480")
        << "each is compared with the one before, and no tab follows";
}

TEST_F(VerifierRules, AudioRate) {
    constexpr const char* MESSAGE =
        "The audio rate in the file /in/a.ts for PID 482 must be either 192 or 384 Kbs.\t";
    passes("AudioRate_192or384Kbps", {.audios = {{.bitrate = "192000"}, {.bitrate = "384999"}}});
    for (const char* rate : {"191999", "256000", ""})
        expect("AudioRate_192or384Kbps", {.audios = {{.bitrate = rate}}}, MESSAGE);
}

TEST_F(VerifierRules, DolbyRate) {
    expect("AudioRate_DD5p1_384Kbps", {.audios = {{.bitrate = "192000", .channels = "5"}}},
           "The AC3 audio rate in the file /in/a.ts for PID 482 for Dolby 5.1 must be 384 Kbs.\t");
    passes("AudioRate_DD5p1_384Kbps", {.audios = {{.bitrate = "384000", .channels = "5"}}});
    passes("AudioRate_DD5p1_384Kbps", {.audios = {{.bitrate = "192000", .channels = "6"}}});
    passes("AudioRate_DD5p1_384Kbps", {.audios = {{.type = "AAC", .bitrate = "192000", .channels = "5"}}});
}

TEST_F(VerifierRules, SamplingRateOfAc3) {
    constexpr const char* MESSAGE =
        "The audio sampling rate in the file /in/a.ts for PID 482 must be 48kHz.\t";
    expect("AC3_AudioSamplingRate_48kHz", {.audios = {{.rate = "44100"}}}, MESSAGE);
    expect("AC3_AudioSamplingRate_48kHz", {.audios = {{.rate = ""}}}, MESSAGE);
    passes("AC3_AudioSamplingRate_48kHz", {.audios = {{.type = "AAC", .rate = "44100"}}});
}

TEST_F(VerifierRules, AudioIsAc3) {
    expect("Audio_isAC3", {.audios = {{.type = "MPEG-1 layer II"}}},
           "The audio in the file /in/a.ts for PID 482 is not AC3.\t");
    passes("Audio_isAC3", {});
}

TEST_F(VerifierRules, MessagesComeInTheOrderOfTheChecks) {
    const Report bad{.pmtPid = "1",
                     .pcrPid = "2",
                     .videoPid = "3",
                     .videoType = "H.264",
                     .resolution = "720x480",
                     .frameRate = "25",
                     .videoRate = "4000000",
                     .gopSize = "1",
                     .gopStructures = {"I"},
                     .audios = {{.pid = "4", .type = "AAC", .bitrate = "1"}},
                     .muxRate = "5000000"};
    EXPECT_EQ(errors(bad),
              "The file /in/a.ts is not MPEG2.\t"
              "The PMT PID 1 must be 480 decimal/0x1E0 Hex.\t"
              "The PCR PID 2 must be 481 decimal/0x1E1 Hex.\t"
              "The Video PID 3 must be 481 decimal/0x1E1 Hex.\t"
              "The GOP length must be 15.\t"
              "The GOP structure must be IBBP.\t"
              "The file /in/a.ts is not 1/2 D1 or 3/4 D1.\t"
              "The transport rate of the SD file /in/a.ts is greater than 3.75 Mbs.\t"
              "The video bit rate in SD file /in/a.ts cannot be greater than 3.18 Mbs.\t"
              "The first audio PID in the file /in/a.ts must start at 482 Decimal or 0x1E2 Hex.\t"
              "The audio rate in the file /in/a.ts for PID 4 must be either 192 or 384 Kbs.\t"
              "The audio in the file /in/a.ts for PID 4 is not AC3.\t");
}

TEST_F(VerifierRules, LongListsAreCutAtTheBuffer) {
    const Report bad{.pmtPid = "1", .pcrPid = "2"};
    const std::string whole = errors(bad);
    for (int capacity = 1; capacity <= static_cast<int>(whole.size()) + 1; ++capacity)
        EXPECT_EQ(errors(bad, "", capacity), whole.substr(0, static_cast<std::size_t>(capacity) - 1));
}

} // namespace
