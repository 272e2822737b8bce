// Loading: the yes/no words in any case, lead times that are absent, and elements that come twice or never.
#include "profile_files.h"

#include <functional>
#include <gmock/gmock.h>

class LoadWords : public ProfileFiles {};

namespace {

struct YesNo {
    const char* element;
    const char* key;
    std::function<bool&(CSettings&)> field;
};

// Those that are true unless told "FALSE".
const std::vector<YesNo> unlessFalse{
    {"MPEG_ENGINE", "MPEG4_USE_BEGINNING_SPLICE_POINT",
     [](CSettings& s) -> bool& { return s.mpegEngine.mpeg4UseBeginningSplicePoint; }},
    {"AUDIO_ENGINE", "AC3_PASS_THROUGH", [](CSettings& s) -> bool& { return s.audioEngine.ac3PassThrough; }},
    {"VTR_OPTIONS", "VITC_SUPPORT", [](CSettings& s) -> bool& { return s.vtr.vitcSupport; }},
};

// Those that are true only for "TRUE".
const std::vector<YesNo> trueOnly{
    {"ENCODER_RECEPTION_0", "MOTOROLA_QUAD_BYTE_ALIGNMENT",
     [](CSettings& s) -> bool& { return s.encoders[0].motorolaQuadByteAlignment; }},
    {"ENCODER_RECEPTION_0", "CONVERT_MPEG2_AUDIO",
     [](CSettings& s) -> bool& { return s.encoders[0].convertMpeg2Audio; }},
    {"ENCODER_RECEPTION_1", "LOCK_MEZZANINE_CAPTURE_DIRECTORY",
     [](CSettings& s) -> bool& { return s.encoders[1].lockMezzanineCaptureDirectory; }},
    {"DECODER_OPTIONS", "DEV_SAVE_LOG_FILE", [](CSettings& s) -> bool& { return s.decoder.saveLogFile; }},
    {"MPEG_ENGINE", "MPEG2_USE_BEGINNING_SPLICE_POINT",
     [](CSettings& s) -> bool& { return s.mpegEngine.mpeg2UseBeginningSplicePoint; }},
    {"MPEG_ENGINE", "MPEG2_USE_END_SPLICE_POINT",
     [](CSettings& s) -> bool& { return s.mpegEngine.mpeg2UseEndSplicePoint; }},
    {"MPEG_ENGINE", "MPEG4_USE_END_SPLICE_POINT",
     [](CSettings& s) -> bool& { return s.mpegEngine.mpeg4UseEndSplicePoint; }},
    {"VTR_OPTIONS", "USE_INTERNAL_CUE", [](CSettings& s) -> bool& { return s.vtr.useInternalCue; }},
};

} // namespace

TEST_F(LoadWords, FalseInAnyCaseIsFalseWhereAnythingElseIsTrue) {
    const std::pair<const char*, bool> words[] = {
        {"FALSE", false}, {"false", false}, {"False", false}, {"fAlSe", false}, {"TRUE", true},
        {"true", true},   {"0", true},      {"no", true},     {"FALSE ", true}, {"", true}};
    for (const YesNo& each : unlessFalse)
        for (const bool before : {false, true})
            for (const auto& [word, value] : words) {
                CSettings settings;
                each.field(settings) = before;
                EXPECT_TRUE(load(settings, element(each.element, {{each.key, word}})));
                EXPECT_EQ(each.field(settings), value) << each.key << ' ' << word;
            }
}

TEST_F(LoadWords, TrueInAnyCaseIsTrueWhereAnythingElseIsFalse) {
    const std::pair<const char*, bool> words[] = {
        {"TRUE", true},   {"true", true}, {"True", true}, {"tRuE", true},   {"FALSE", false},
        {"false", false}, {"1", false},   {"yes", false}, {"TRUE ", false}, {"", false}};
    for (const YesNo& each : trueOnly)
        for (const bool before : {false, true})
            for (const auto& [word, value] : words) {
                CSettings settings;
                each.field(settings) = before;
                EXPECT_TRUE(load(settings, element(each.element, {{each.key, word}})));
                EXPECT_EQ(each.field(settings), value) << each.key << ' ' << word;
            }
}

TEST_F(LoadWords, TheDecoderMonitorIsSwitchedOffByFalseInAnyCaseAndByNothingElse) {
    for (const char* word : {"FALSE", "false", "False"})
        EXPECT_FALSE(
            loaded(element("DECODER_OPTIONS", {{"FORCE_DECODER_MONITOR", word}})).decoder.forceMonitor)
            << word;
    for (const char* word : {"TRUE", "0", "no", "FALSE ", ""})
        EXPECT_TRUE(
            loaded(element("DECODER_OPTIONS", {{"FORCE_DECODER_MONITOR", word}})).decoder.forceMonitor)
            << word;
}

TEST_F(LoadWords, AnAbsentWordKeepsWhatWasThere) {
    for (const std::vector<YesNo>* each : {&unlessFalse, &trueOnly})
        for (const YesNo& word : *each)
            for (const bool before : {false, true}) {
                CSettings settings;
                word.field(settings) = before;
                EXPECT_TRUE(load(settings, element(word.element, {})));
                EXPECT_EQ(word.field(settings), before) << word.key;
            }
}

// --- lead times of the encoders

class LoadLeadTimes : public ProfileFiles {
protected:
    // Both lead times, of the encoders and of the 6140 and 6142.
    using Seconds = std::pair<int, int>;
    Seconds leadTimes(CSettings settings, const std::string& elements) const {
        EXPECT_TRUE(load(settings, elements));
        return {settings.encoderInterface.encoderLeadTimeSecs,
                settings.encoderInterface.encoder614xLeadTimeSecs};
    }
    static CSettings changed() {
        CSettings settings;
        settings.encoderInterface.encoderLeadTimeSecs = 33;
        settings.encoderInterface.encoder614xLeadTimeSecs = 66;
        return settings;
    }
};

TEST_F(LoadLeadTimes, AreTwentyAndFiftyTwoWhereTheyAreAbsent) {
    EXPECT_EQ(leadTimes(CSettings(), "<ENCODER_INTERFACE/>"), Seconds(20, 52));
    EXPECT_EQ(leadTimes(CSettings(), ""), Seconds(20, 52));
    EXPECT_EQ(leadTimes(CSettings(), "<ENCODER_INTERFACE SPLICEPOINT_LEAD_TIME_MS=\"9000\" "
                                     "TIMED_AND_MANUAL_ENC_INIT_DELAY=\"7\"/>"),
              Seconds(20, 52))
        << "the integers before them do not count";
    EXPECT_EQ(leadTimes(CSettings(), "<ENCODER_INTERFACE ENCODER_LEAD_TIME_SECS=\"7\"/>"), Seconds(7, 52));
    EXPECT_EQ(leadTimes(CSettings(), "<ENCODER_INTERFACE ENCODER_614x_LEAD_TIME_SECS=\"7\"/>"),
              Seconds(20, 7));
}

TEST_F(LoadLeadTimes, KeepAnEarlierValueWhereTheyAreAbsentOrNoInteger) {
    EXPECT_EQ(leadTimes(changed(), "<ENCODER_INTERFACE/>"), Seconds(33, 66));
    EXPECT_EQ(leadTimes(changed(), ""), Seconds(33, 66));
    EXPECT_EQ(leadTimes(changed(), "<ENCODER_INTERFACE ENCODER_LEAD_TIME_SECS=\"x\" "
                                   "ENCODER_614x_LEAD_TIME_SECS=\"\"/>"),
              Seconds(33, 66));
}

TEST_F(LoadLeadTimes, AreReplacedOnlyWhereTheValueReadIsNegative) {
    for (const auto& [text, first, second] :
         {std::tuple("-1", 20, 52), {"-2147483648", 20, 52}, {"0", 0, 0}, {"1", 1, 1}, {"600", 600, 600}})
        EXPECT_EQ(leadTimes(changed(), element("ENCODER_INTERFACE", {{"ENCODER_LEAD_TIME_SECS", text},
                                                                     {"ENCODER_614x_LEAD_TIME_SECS", text}})),
                  Seconds(first, second))
            << text;
}

// --- which elements count

class LoadElements : public ProfileFiles {};

TEST_F(LoadElements, OfTwoWithOneNameTheFirstCounts) {
    EXPECT_EQ(loaded("<VTR_OPTIONS PREROLL_TIME_SECS=\"11\"/><VTR_OPTIONS PREROLL_TIME_SECS=\"12\"/>")
                  .vtr.prerollTimeSecs,
              11);
    const CSettings settings = loaded("<ENCODER_RECEPTION_0 PORT=\"5\"/><ENCODER_RECEPTION_0 PORT=\"6\"/>");
    EXPECT_EQ(settings.numEncoders, 1);
    EXPECT_EQ(settings.encoders[0].port, 5);
}

TEST_F(LoadElements, OnlyChildrenOfTheRootCountAndOnlyByTheirExactName) {
    const CSettings settings = loaded("<GROUP><VTR_OPTIONS PREROLL_TIME_SECS=\"12\"/></GROUP>"
                                      "<vtr_options PREROLL_TIME_SECS=\"13\"/>"
                                      "<ENCODER_RECEPTION PORT=\"5\"/><ENCODER_RECEPTION_00 PORT=\"5\"/>"
                                      "text<!-- <VTR_OPTIONS PREROLL_TIME_SECS=\"14\"/> -->");
    EXPECT_EQ(describe(settings), describe(CSettings()));
}

TEST_F(LoadElements, MayComeInAnyOrderButAreReadInTheirs) {
    // The port that is absent repeats the last integer of the reception, which stands behind it in the file.
    const CSettings settings = loaded("<CMD_PARAMS OUTPUT_FILE=\"/o\"/><DECODER_OPTIONS/>"
                                      "<ENCODER_RECEPTION_0 VTR_ENC_SAMPLE_PERIOD=\"77\"/>");
    EXPECT_STREQ(settings.cmd.outputFile, "/o");
    EXPECT_EQ(settings.decoder.port, 77);
}

TEST_F(LoadElements, UnknownKeysAreIgnored) {
    EXPECT_EQ(describe(loaded("<MEZZANINE_OPTIONS UNKNOWN=\"7\" splice_point_retries=\"9\"/>")),
              describe(CSettings()));
}

TEST_F(LoadElements, TheRootMayBeFollowedByAnything) {
    CSettings settings;
    EXPECT_TRUE(settings.LoadProfile(
        write("<A><VTR_OPTIONS PREROLL_TIME_SECS=\"12\"/></A><B><VTR_OPTIONS PREROLL_TIME_SECS=\"13\"/></B>")
            .c_str()));
    EXPECT_EQ(settings.vtr.prerollTimeSecs, 12) << "the first element is the root";
}
