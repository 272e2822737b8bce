// A fresh record, Init and copies.
#include "profile_files.h"

#include <gmock/gmock.h>
#include <type_traits>

using testing::ElementsAre;

namespace {

// Members in the order of describe.
constexpr const char* defaultEncoder = "0 0 0 0 15 0 0 0 2 30 2 100 0 0 0 [] [] [] [] [] [] 0 0 0 0 0 []";

} // namespace

TEST(Defaults, OfBothEncoderReceptions) {
    const CSettings settings;
    for (const CSettings::EncoderReception& encoder : settings.encoders) {
        EXPECT_EQ(describe(encoder), defaultEncoder);
        EXPECT_EQ(encoder.sdTransportRateCeiling, 3750000);
        EXPECT_EQ(encoder.sdVideoRateCeiling, 3180000);
        EXPECT_EQ(encoder.engineNumber, 4);
        EXPECT_TRUE(encoder.engineFlag);
    }
    EXPECT_EQ(settings.numEncoders, 0);
}

TEST(Defaults, OfTheGlobalSettings) {
    const CSettings settings;
    EXPECT_EQ(describe(settings.decoder), "0 0 20 20 0 0 0 1 420 0 0 0 0");
    EXPECT_EQ(describe(settings.mpegEngine), "1 0 1 0");
    EXPECT_EQ(describe(settings.encoderInterface), "10000 3 20 2 100 2 20 52");
    EXPECT_TRUE(settings.audioEngine.ac3PassThrough);
    EXPECT_EQ(describe(settings.vtr), "8 5 1 1 [] 0");
    EXPECT_EQ(settings.mezzanine.splicePointRetries, 3);
    EXPECT_EQ(describe(settings.cmd), "[] 1 [] 8 [] [] [] [] -1 0");
}

TEST(Defaults, OfWhatTheProfileDoesNotCarry) {
    const CSettings settings;
    EXPECT_STREQ(settings.logPath, "c:\\Logs\\mpegcap.log");
    EXPECT_EQ(settings.decoderStreamNumber, 0);
    EXPECT_THAT(settings.engineNumbers, ElementsAre(2, 60000, 0, 600000, 50, 1, 5111, 1));
}

TEST(Defaults, JobTypesAreNumberedLikeTheCaptureJobs) {
    EXPECT_EQ(CSettings::JOB_VTR, 0);
    EXPECT_EQ(CSettings::JOB_MANUAL, 1);
    EXPECT_EQ(CSettings::JOB_TIMED, 2);
    EXPECT_EQ(CSettings::JOB_TIMED_REENCODE, 3);
    EXPECT_EQ(CSettings::JOB_SCHEDULED, 4);
    EXPECT_EQ(CSettings::JOB_MEZZANINE, 5);
    EXPECT_EQ(CSettings::JOB_ROLLING, 6);
    EXPECT_EQ(CSettings::JOB_MPEG_NORMALIZE, 7);
    EXPECT_EQ(CSettings::JOB_NONE, 8);
}

TEST(Init, SetsTheNumberOfEncodersOnly) {
    CSettings settings;
    settings.numEncoders = 2;
    settings.encoders[0].port = 5;
    settings.vtr.prerollTimeSecs = 9;
    settings.Init();
    EXPECT_EQ(settings.numEncoders, 0);
    EXPECT_EQ(settings.encoders[0].port, 5);
    EXPECT_EQ(settings.vtr.prerollTimeSecs, 9);
}

class Copy : public ProfileFiles {};

TEST_F(Copy, TakesEveryField) {
    CSettings original = loaded(fullProfile({{"OUTPUT_FILE", "/out.mpg"},
                                             {"JOB_TYPE", "MEZZANINE"},
                                             {"MARK_IN_TIME", "01:00:00:00"},
                                             {"MARK_OUT_TIME", "02:00:00:00"},
                                             {"SOURCE_FILE", "/source.mpg"}}));
    original.decoderStreamNumber = 3;
    original.engineNumbers[0] = 77;
    original.logPath[0] = 'd';
    original.encoders[1].sdVideoRateCeiling = 1;
    CSettings assigned;
    assigned = original;
    const CSettings copied(original);
    for (const CSettings* copy : {static_cast<const CSettings*>(&assigned), &copied}) {
        EXPECT_EQ(describe(*copy), describe(original));
        EXPECT_EQ(copy->decoderStreamNumber, 3);
        EXPECT_EQ(copy->engineNumbers[0], 77);
        EXPECT_STREQ(copy->logPath, "d:\\Logs\\mpegcap.log");
        EXPECT_EQ(copy->encoders[1].sdVideoRateCeiling, 1);
    }
}

static_assert(std::has_virtual_destructor_v<CSettings>);
