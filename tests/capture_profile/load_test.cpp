// Loading: every key, every rule for what is absent or odd.
#include "profile_files.h"

#include <cstdint>
#include <gmock/gmock.h>
#include <set>

class Load : public ProfileFiles {};

TEST_F(Load, AMissingFileIsFalseAndResetsTheEncoderCountOnly) {
    CSettings settings;
    settings.numEncoders = 2;
    settings.vtr.prerollTimeSecs = 33;
    EXPECT_FALSE(settings.LoadProfile(path("missing.xml").c_str()));
    EXPECT_EQ(settings.numEncoders, 0);
    EXPECT_EQ(settings.vtr.prerollTimeSecs, 33);
    EXPECT_FALSE(settings.LoadProfile(nullptr));
    EXPECT_FALSE(settings.LoadProfile(""));
}

TEST_F(Load, AFileWithoutARootElementIsFalse) {
    CSettings settings;
    for (const char* text : {"", " \n", "<?xml version=\"1.0\"?>", "<!-- only a comment -->", "text"}) {
        EXPECT_FALSE(settings.LoadProfile(write(text).c_str())) << text;
        EXPECT_EQ(describe(settings), describe(CSettings()));
    }
}

TEST_F(Load, BrokenXmlIsFalse) {
    CSettings settings;
    EXPECT_FALSE(settings.LoadProfile(
        write("<CaptureSettings><VTR_OPTIONS PREROLL_TIME_SECS=\"12\"/></Other>").c_str()));
    EXPECT_EQ(describe(settings), describe(CSettings()));
}

TEST_F(Load, TheNameOfTheRootDoesNotMatter) {
    CSettings settings;
    EXPECT_TRUE(settings.LoadProfile(
        write("<?xml version=\"1.0\" encoding=\"UTF-8\"?><Any><VTR_OPTIONS PREROLL_TIME_SECS=\"12\"/></Any>")
            .c_str()));
    EXPECT_EQ(settings.vtr.prerollTimeSecs, 12);
}

TEST_F(Load, AnEmptyRootKeepsEveryDefault) {
    EXPECT_EQ(describe(loaded("")), describe(CSettings()));
}

TEST_F(Load, EveryKeyOfAnEncoderReception) {
    const CSettings settings = loaded(element("ENCODER_RECEPTION_0", fullEncoder()));
    EXPECT_EQ(settings.numEncoders, 1);
    EXPECT_EQ(
        describe(settings.encoders[0]),
        "167838211 1001 167838212 161 12 1 -3 -4 7 31 9 101 1 1 1 [prefix] [/main] [/schedule] [/batch] "
        "[/rolling] [/mezzanine] 1 1 1 1 1 [main profile]");
    EXPECT_EQ(describe(settings.encoders[1]), describe(CSettings().encoders[1]));
}

// Each attribute alone changes its own member: no key is read into a neighbour.
TEST_F(Load, EachEncoderKeyHasItsOwnMember) {
    const std::string before = describe(CSettings().encoders[0]);
    std::set<std::string> results;
    for (const auto& attribute : fullEncoder())
        results.insert(describe(loaded(element("ENCODER_RECEPTION_0", {attribute})).encoders[0]));
    EXPECT_EQ(results.size(), fullEncoder().size());
    EXPECT_EQ(results.count(before), 0U);
}

TEST_F(Load, TheSecondReceptionAloneCountsAsOne) {
    const CSettings settings = loaded("<ENCODER_RECEPTION_1 PORT=\"7\"/>");
    EXPECT_EQ(settings.numEncoders, 1);
    EXPECT_EQ(settings.encoders[0].port, 0);
    EXPECT_EQ(settings.encoders[1].port, 7);
}

TEST_F(Load, BothReceptionsCountAndAThirdDoesNot) {
    EXPECT_EQ(loaded("<ENCODER_RECEPTION_0/><ENCODER_RECEPTION_1/><ENCODER_RECEPTION_2/>").numEncoders, 2);
}

TEST_F(Load, AnAbsentPortRepeatsThePreviousInteger) {
    EXPECT_EQ(loaded("<ENCODER_RECEPTION_0 PORT=\"99\"/>").encoders[0].snmpPort, 99);
    EXPECT_EQ(loaded("<ENCODER_RECEPTION_0 SNMP_PORT=\"99\"/>").encoders[0].port, 0) << "nothing read yet";

    const CSettings settings = loaded(
        "<ENCODER_RECEPTION_0 PORT=\"1\" SNMP_PORT=\"2\" GOP_FRAME_COUNT=\"3\"/><ENCODER_RECEPTION_1/>");
    EXPECT_EQ(settings.encoders[1].port, 3) << "the last integer of the first reception";
    EXPECT_EQ(settings.encoders[1].snmpPort, 3);
}

TEST_F(Load, AnAbsentPortReplacesAnEarlierValue) {
    CSettings settings;
    settings.encoders[0].port = 5;
    settings.encoders[0].snmpPort = 6;
    settings.encoders[0].gopFrameCount = 7;
    EXPECT_TRUE(load(settings, "<ENCODER_RECEPTION_0/>"));
    EXPECT_EQ(settings.encoders[0].port, 0);
    EXPECT_EQ(settings.encoders[0].snmpPort, 0);
    EXPECT_EQ(settings.encoders[0].gopFrameCount, 7) << "other integers stay";
}

TEST_F(Load, EachLoadStartsWithoutAPreviousInteger) {
    CSettings settings;
    EXPECT_TRUE(load(settings, "<ENCODER_RECEPTION_0 PORT=\"99\"/>"));
    EXPECT_TRUE(load(settings, "<ENCODER_RECEPTION_0/>"));
    EXPECT_EQ(settings.encoders[0].port, 0);
}

TEST_F(Load, EncoderTypesAreHarmonicOrOrmond) {
    const std::pair<const char*, int> cases[] = {{"harmonic", 1}, {"HARMONIC", 1}, {"Harmonic", 1},
                                                 {"ORMOND", 0},   {"other", 0},    {"", 0}};
    for (const auto& [name, type] : cases)
        EXPECT_EQ(loaded(element("ENCODER_RECEPTION_0", {{"ENCODER_TYPE", name}})).encoders[0].encoderType,
                  type)
            << name;
}

TEST_F(Load, AbsentTextsAndYesNosKeepTheirValue) {
    CSettings settings = loaded(fullProfile(
        {{"OUTPUT_FILE", "/out"}, {"RUN_TYPE", "CMDLINE_STANDALONE"}, {"BLACK_FILE_SUFFIX", "_b"}}));
    const CSettings before = settings;
    EXPECT_TRUE(load(settings,
                     "<ENCODER_RECEPTION_0 PORT=\"1001\" SNMP_PORT=\"161\"/><ENCODER_RECEPTION_1 "
                     "PORT=\"1001\" SNMP_PORT=\"161\"/><MPEG_ENGINE/><AUDIO_ENGINE/><CMD_PARAMS/>"));
    EXPECT_EQ(describe(settings), describe(before));
}

TEST_F(Load, YesNosOfAnEncoderAreTrueOnlyForTrue) {
    const std::pair<const char*, bool> cases[] = {{"TRUE", true},   {"true", true}, {"True", true},
                                                  {"FALSE", false}, {"1", false},   {"YES", false},
                                                  {"", false}};
    for (const auto& [text, value] : cases) {
        CSettings settings;
        settings.encoders[0].rawFiles = true;
        EXPECT_TRUE(load(settings, element("ENCODER_RECEPTION_0", {{"RAW_FILES", text}})));
        EXPECT_EQ(settings.encoders[0].rawFiles, value) << text;
    }
}

TEST_F(Load, AddressesAreDottedQuadsInHostOrder) {
    const std::pair<const char*, std::uint32_t> cases[] = {
        {"1.2.3.4", 0x01020304},
        {"255.255.255.255", 0xffffffff},
        {"0.0.0.0", 0},
        {"", 0x7f000001},
        {"1.2.3", 0x7f000001},
        {"1.2.3.256", 0x7f000001},
        {"encoder.local", 0x7f000001},
        {"1.2.3.4.5", 0x7f000001},
    };
    for (const auto& [text, value] : cases) {
        CSettings settings;
        settings.encoders[0].ipAddress = 0x7f000001;
        EXPECT_TRUE(load(settings, element("ENCODER_RECEPTION_0", {{"IP_ADDRESS", text}})));
        EXPECT_EQ(settings.encoders[0].ipAddress, value) << text;
    }
}

TEST_F(Load, WhatIsNoIntegerCountsAsAbsent) {
    const std::pair<const char*, int> cases[] = {
        {"12", 12},
        {"-12", -12},
        {"+12", 12},
        {" 12 ", 12},
        {"2147483647", 2147483647},
        {"-2147483648", -2147483647 - 1},
        {"2147483648", 15},
        {"-2147483649", 15},
        {"99999999999999999999", 15},
        {"", 15},
        {" ", 15},
        {"+", 15},
        {"-", 15},
        {"+-1", 15},
        {"12abc", 15},
        {"abc", 15},
        {"1.5", 15},
        {"0x10", 15},
        {"1 2", 15},
    };
    for (const auto& [text, value] : cases)
        EXPECT_EQ(
            loaded(element("ENCODER_RECEPTION_0", {{"GOP_FRAME_COUNT", text}})).encoders[0].gopFrameCount,
            value)
            << text;
    EXPECT_EQ(loaded("<ENCODER_RECEPTION_0 PORT=\"4\" SNMP_PORT=\"x\"/>").encoders[0].snmpPort, 4);
}

TEST_F(Load, TextsAreCutAtTheirField) {
    const std::string fits(259, 'a');
    const std::string tooLong(1000, 'b');
    CSettings settings =
        loaded(element("ENCODER_RECEPTION_0", {{"FILE_PREFIX", fits}, {"PROFILE", tooLong}}) +
               element("CMD_PARAMS", {{"JOB_TYPE", "VTR"},
                                      {"MARK_IN_TIME", "01:02:03:04"},
                                      {"MARK_OUT_TIME", "01:02:03:04 and more"}}));
    EXPECT_EQ(settings.encoders[0].filePrefix, fits);
    EXPECT_EQ(settings.encoders[0].profile, tooLong.substr(0, 259));
    EXPECT_STREQ(settings.cmd.markInTime, "01:02:03:04");
    EXPECT_STREQ(settings.cmd.markOutTime, "01:02:03:04");
    static_assert(sizeof settings.cmd.markInTime == 12 && sizeof settings.encoders[0].filePrefix == 260);
}

TEST_F(Load, TextsAreUnescaped) {
    EXPECT_STREQ(loaded("<CMD_PARAMS OUTPUT_FILE=\"/a&amp;b &lt;&quot;&gt;.mpg\"/>").cmd.outputFile,
                 "/a&b <\">.mpg");
}

TEST_F(Load, EveryKeyOfTheDecoder) {
    EXPECT_EQ(describe(loaded(element("DECODER_OPTIONS", fullDecoder())).decoder),
              "4009820675 5000 21 22 3232235521 3 1 0 22 3232235522 4009754625 4009754626 4294967295");
}

TEST_F(Load, AbsentDecoderAppendsFallBackTo20) {
    CSettings settings;
    settings.decoder.startAppend = settings.decoder.endAppend = 5;
    settings.decoder.option = 6;
    EXPECT_TRUE(load(settings, "<DECODER_OPTIONS/>"));
    EXPECT_EQ(settings.decoder.startAppend, 20);
    EXPECT_EQ(settings.decoder.endAppend, 20);
    EXPECT_EQ(settings.decoder.option, 6) << "other integers stay";
}

TEST_F(Load, AnAbsentDecoderPortRepeatsThePreviousInteger) {
    EXPECT_EQ(loaded("<ENCODER_RECEPTION_0 VTR_ENC_SAMPLE_PERIOD=\"77\"/><DECODER_OPTIONS/>").decoder.port,
              77);
    EXPECT_EQ(loaded("<DECODER_OPTIONS DECODER_END_APPEND_v3.1.0.4=\"5\"/>").decoder.port, 0);
}

TEST_F(Load, TheEditTimeoutIsTheLastOfPortAndAppends) {
    const std::string port = "DECODER_PORT=\"1\" ";
    const std::string start = "DECODER_START_APPEND_v3.1.0.4=\"2\" ";
    const std::string end = "DECODER_END_APPEND_v3.1.0.4=\"3\" ";
    const std::string rest = "DECODEROPTION=\"4\" EDITCL_TIMEOUT_SEC=\"5\"";
    const std::pair<std::string, int> cases[] = {
        {port + start + end, 3}, {port + start, 2}, {port, 1}, {port + end, 3}, {start, 2}, {start + end, 3}};
    for (const auto& [attributes, timeout] : cases)
        EXPECT_EQ(loaded("<DECODER_OPTIONS " + attributes + rest + "/>").decoder.editclTimeoutSec, timeout)
            << attributes;
    EXPECT_EQ(loaded("<DECODER_OPTIONS " + rest + "/>").decoder.editclTimeoutSec, 0) << "nothing read at all";
    EXPECT_EQ(
        loaded("<ENCODER_RECEPTION_0 PORT=\"9\"/><DECODER_OPTIONS " + rest + "/>").decoder.editclTimeoutSec,
        9);
    EXPECT_EQ(loaded("").decoder.editclTimeoutSec, 420) << "without the element";
}

TEST_F(Load, TheDecoderMonitorIsForcedUntilFalse) {
    EXPECT_FALSE(loaded("<DECODER_OPTIONS FORCE_DECODER_MONITOR=\"false\"/>").decoder.forceMonitor);
    EXPECT_TRUE(loaded("<DECODER_OPTIONS FORCE_DECODER_MONITOR=\"no\"/>").decoder.forceMonitor);
    CSettings settings;
    settings.decoder.forceMonitor = false;
    EXPECT_TRUE(load(settings, "<DECODER_OPTIONS FORCE_DECODER_MONITOR=\"TRUE\"/>"));
    EXPECT_FALSE(settings.decoder.forceMonitor) << "it only ever becomes false";
}

TEST_F(Load, EveryKeyOfTheMpegEngine) {
    EXPECT_EQ(describe(loaded(element("MPEG_ENGINE", fullMpegEngine())).mpegEngine), "0 1 0 1");
}

TEST_F(Load, OnlyTheMpeg4BeginningIsTrueUnlessFalse) {
    const std::string odd =
        "<MPEG_ENGINE MPEG2_USE_BEGINNING_SPLICE_POINT=\"x\" MPEG2_USE_END_SPLICE_POINT=\"x\" "
        "MPEG4_USE_BEGINNING_SPLICE_POINT=\"x\" MPEG4_USE_END_SPLICE_POINT=\"x\"/>";
    EXPECT_EQ(describe(loaded(odd).mpegEngine), "0 0 1 0");
    CSettings settings;
    settings.mpegEngine.mpeg4UseBeginningSplicePoint = false;
    EXPECT_TRUE(load(settings, odd));
    EXPECT_TRUE(settings.mpegEngine.mpeg4UseBeginningSplicePoint);
}

TEST_F(Load, EveryKeyOfTheEncoderInterface) {
    EXPECT_EQ(describe(loaded(element("ENCODER_INTERFACE", fullEncoderInterface())).encoderInterface),
              "9000 9000 23 24 25 26 27 28");
}

TEST_F(Load, MaxFramesOffIsTheLeadTime) {
    const auto loadedInterface = [this](const std::string& text) { return loaded(text).encoderInterface; };
    EXPECT_EQ(loadedInterface("<ENCODER_INTERFACE SPLICEPOINT_LEAD_TIME_MS=\"8\" MAX_FRAMES_OFF=\"5\"/>")
                  .maxFramesOff,
              8);
    EXPECT_EQ(loadedInterface("<DECODER_OPTIONS DECODER_PORT=\"7\" DECODEROPTION=\"6\"/>"
                              "<ENCODER_INTERFACE MAX_FRAMES_OFF=\"5\"/>")
                  .maxFramesOff,
              7)
        << "without a lead time the integer before it";
    EXPECT_EQ(loadedInterface("").maxFramesOff, 3) << "without the element";
}

TEST_F(Load, EncoderInterfaceFallbacks) {
    CSettings settings;
    settings.encoderInterface.splicepointLeadTimeMs = 1;
    settings.encoderInterface.timedAndManualEncSampleNumber = 11;
    EXPECT_TRUE(load(settings, "<ENCODER_INTERFACE/>"));
    EXPECT_EQ(settings.encoderInterface.splicepointLeadTimeMs, 10000);
    EXPECT_EQ(settings.encoderInterface.timedAndManualEncSampleNumber, 11) << "read only when present";

    const auto leadTimes = [this](const char* seconds) {
        const CSettings::EncoderInterface i =
            loaded(element("ENCODER_INTERFACE",
                           {{"ENCODER_LEAD_TIME_SECS", seconds}, {"ENCODER_614x_LEAD_TIME_SECS", seconds}}))
                .encoderInterface;
        return std::pair(i.encoderLeadTimeSecs, i.encoder614xLeadTimeSecs);
    };
    EXPECT_EQ(leadTimes("-1"), std::pair(20, 52));
    EXPECT_EQ(leadTimes("0"), std::pair(0, 0));
    EXPECT_EQ(leadTimes("1"), std::pair(1, 1));
    EXPECT_EQ(leadTimes("x"), std::pair(20, 52));
}

TEST_F(Load, Ac3PassesThroughUnlessFalse) {
    EXPECT_FALSE(loaded("<AUDIO_ENGINE AC3_PASS_THROUGH=\"False\"/>").audioEngine.ac3PassThrough);
    EXPECT_TRUE(loaded("<AUDIO_ENGINE AC3_PASS_THROUGH=\"TRUE\"/>").audioEngine.ac3PassThrough);
    EXPECT_TRUE(loaded("<AUDIO_ENGINE AC3_PASS_THROUGH=\"x\"/>").audioEngine.ac3PassThrough);
}

TEST_F(Load, EveryKeyOfTheVtrOptions) {
    EXPECT_EQ(describe(loaded(element("VTR_OPTIONS", fullVtrOptions())).vtr), "12 6 2 0 [/dev/ttyS1] 1");
}

TEST_F(Load, VtrOptionsAreHeldAboveTheirMinimum) {
    const auto vtr = [this](const char* key, const char* value) {
        return loaded(element("VTR_OPTIONS", {{key, value}})).vtr;
    };
    const std::pair<const char*, int> prerolls[] = {{"-1", 8}, {"3", 8}, {"7", 8},
                                                    {"8", 8},  {"9", 9}, {"12", 12}};
    for (const auto& [text, value] : prerolls)
        EXPECT_EQ(vtr("PREROLL_TIME_SECS", text).prerollTimeSecs, value) << text;
    const std::pair<const char*, int> retries[] = {{"-1", 5}, {"0", 5}, {"1", 1}, {"6", 6}};
    for (const auto& [text, value] : retries)
        EXPECT_EQ(vtr("FIND_START_TIMECODE_RETRIES", text).findStartTimecodeRetries, value) << text;
    const std::pair<const char*, int> differences[] = {{"-1", 1}, {"0", 0}, {"2", 2}};
    for (const auto& [text, value] : differences)
        EXPECT_EQ(vtr("NON_VITC_PREROLL_MAX_FRAME_DIFF", text).nonVitcPrerollMaxFrameDiff, value) << text;
    EXPECT_TRUE(vtr("VITC_SUPPORT", "x").vitcSupport);
    EXPECT_FALSE(vtr("USE_INTERNAL_CUE", "x").useInternalCue);
}

TEST_F(Load, AbsentVtrOptionsFallBack) {
    CSettings settings;
    settings.vtr = {.prerollTimeSecs = 30,
                    .findStartTimecodeRetries = 31,
                    .nonVitcPrerollMaxFrameDiff = 32,
                    .vitcSupport = false,
                    .port = "COM9",
                    .useInternalCue = true};
    EXPECT_TRUE(load(settings, "<VTR_OPTIONS/>"));
    EXPECT_EQ(describe(settings.vtr), "8 5 1 0 [COM1] 1");
    EXPECT_STREQ(loaded("").vtr.port, "") << "without the element";
    EXPECT_STREQ(loaded("<VTR_OPTIONS PORT=\"\"/>").vtr.port, "") << "an empty name is a name";
}

TEST_F(Load, SplicePointRetriesMayBeZero) {
    const auto retries = [this](const std::string& text) {
        return loaded(text).mezzanine.splicePointRetries;
    };
    EXPECT_EQ(retries("<MEZZANINE_OPTIONS SPLICE_POINT_RETRIES=\"0\"/>"), 0);
    EXPECT_EQ(retries("<MEZZANINE_OPTIONS SPLICE_POINT_RETRIES=\"4\"/>"), 4);
    EXPECT_EQ(retries("<MEZZANINE_OPTIONS SPLICE_POINT_RETRIES=\"-1\"/>"), 3);
    CSettings settings;
    settings.mezzanine.splicePointRetries = 9;
    EXPECT_TRUE(load(settings, "<MEZZANINE_OPTIONS/>"));
    EXPECT_EQ(settings.mezzanine.splicePointRetries, 3);
}
