// What each capture job takes from the fields of a request, and what it sets on the shared equipment.
#include "capture_requests.h"
#include "foundation/CapturedLog.h"

#include "jobs/RequestValues.h"

using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class CaptureRequestTest : public ::testing::Test {
protected:
    ~CaptureRequestTest() override { ResourceMgr::Cleanup(); }

    static Encoder& encoder(unsigned long address) {
        return *ResourceMgr::GetResourceMgrInst()->GetEncoder(address);
    }
    static Decoder& decoder(unsigned long address) {
        return *ResourceMgr::GetResourceMgrInst()->GetDecoder(address);
    }

    CapturedLog log;
};

} // namespace

TEST_F(CaptureRequestTest, EncodersStandInRequestOrderAndAreEquipment) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", "EncoderIp0=10.1.2.3", "EncoderIp1=10.1.2.4"}), 0);
    ASSERT_EQ(job.encoders.size(), 2u);
    EXPECT_EQ(job.encoders[0], &encoder(0x0a010203));
    EXPECT_EQ(job.encoders[1], &encoder(0x0a010204));
    EXPECT_EQ(job.equipment, (std::vector<Equipment*>{job.encoders[0], job.encoders[1]}));
}

TEST_F(CaptureRequestTest, ATextThatIsNoAddressAddsNoDevice) {
    for (const char* text : {"EncoderIp0=studio", "EncoderIp0=", "EncoderIp0=10.1.2", "EncoderIp0=10.1.2.256",
                             "EncoderIp0=10.1.2.3 ", "EncoderIp0=0.0.0.0"}) {
        CaptureManualJob job(1);
        EXPECT_EQ(setFields(job, {"Filename=/tmp/a", text}), 10015) << text;
        EXPECT_THAT(log.text(), HasSubstr("\"" + std::string(text).substr(11) + "\" is not"));
    }
    CaptureReencodeJob reencode(1);
    EXPECT_EQ(setFields(reencode, {"SrcFilename=/tmp/i", "DecoderIp=nowhere"}), 10016);
    EXPECT_THAT(log.text(), HasSubstr("DecoderIp: \"nowhere\" is not the IPv4 address of a device."));
}

TEST_F(CaptureRequestTest, EncoderOptionsGoToTheLastEncoder) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", "EncoderIp0=10.1.2.3", "EncoderProfile0=one",
                              "EncoderIp1=10.1.2.4", "EncoderProfile1=two", "EncoderVitcInput1=false"}),
              0);
    EXPECT_STREQ(encoder(0x0a010203).profile, "one");
    EXPECT_TRUE(encoder(0x0a010203).vitcInput);
    EXPECT_STREQ(encoder(0x0a010204).profile, "two");
    EXPECT_FALSE(encoder(0x0a010204).vitcInput);
    EXPECT_THAT(log.text(), Not(HasSubstr("Warning]")));
    EXPECT_EQ(setFields(job, {"EncoderVitcInput1=perhaps"}), 0);
    EXPECT_FALSE(encoder(0x0a010204).vitcInput) << "any other text leaves the flag";
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] EncoderVitcInput1: \"perhaps\" is not TRUE or FALSE, it "
                          "is taken as FALSE.\r\n"));
}

TEST_F(CaptureRequestTest, EncoderOptionsBeforeAnyEncoderAreIgnored) {
    CaptureManualJob job(1);
    EXPECT_EQ(setFields(job, {"Filename=/tmp/a", "EncoderProfile=p", "EncoderVitcInput=FALSE"}), 10015);
    EXPECT_THAT(log.text(), HasSubstr("Warning] EncoderProfile=p stands before any encoder and is ignored."));
    EXPECT_THAT(log.text(), HasSubstr("Warning] EncoderVitcInput=FALSE stands before any encoder"));
}

TEST_F(CaptureRequestTest, UnknownFieldsAndFieldsWithoutValueAreIgnored) {
    CaptureVTRJob job(1);
    std::vector<InputField> fields = request({"Filename=/tmp/a", "Nonsense=1", "NumEncoders=7", "bare"});
    for (const char* const name : InputField::FieldName) {
        InputField field;
        field.SetName(name);
        fields.push_back(std::move(field));
    }
    job.setFields(fields);
    CaptureReencodeJob reencode(1);
    reencode.setFields(fields);
    CaptureScheduledJob scheduled(1);
    scheduled.setFields(fields);
    CaptureRollingJob rolling(1);
    rolling.setFields(fields);
    CaptureTimedJob timed(1);
    timed.setFields(fields);
    MpegNormalizeJob normalize(1);
    EXPECT_EQ(normalize.setFields(fields), 10013);
    EXPECT_TRUE(job.equipment.empty() && reencode.equipment.empty());
}

TEST_F(CaptureRequestTest, ManualAndRollingSkipTheSource) {
    CaptureManualJob manual(1);
    EXPECT_EQ(setFields(manual, {"SrcFilename=/tmp/s", "Filename=/tmp/a", "EncoderIp=10.1.2.3"}), 0);
    EXPECT_STREQ(manual.outputFile, "/tmp/a");
    CaptureRollingJob rolling(1);
    EXPECT_EQ(
        setFields(rolling, {"SrcFilename=/tmp/s", "Filename=/tmp/a", "EncoderIp=10.1.2.3", "Duration=5"}), 0);
}

TEST_F(CaptureRequestTest, TimedDurationIsCutToItsField) {
    CaptureTimedJob job(1);
    setFields(job, {"Duration=00:30:00:00"});
    EXPECT_STREQ(job.duration, "00:30:00:00");
    setFields(job, {"Duration=00:30:00:00 and more"});
    EXPECT_STREQ(job.duration, "00:30:00:00");
    EXPECT_THAT(log.text(), HasSubstr("is too long and is cut"));
}

// The worker judges a duration, with the frame rate in its words: what cannot be one at any rate is told
// before.
TEST_F(CaptureRequestTest, ATimedDurationThatNoWorkerTakesIsTold) {
    for (const char* good : {"00:00:10:00", "99:59:59:59", "00:01:00;02", "00.01.00,02", "100:00:00:00"}) {
        CaptureTimedJob job(1);
        setFields(job, {(std::string("Duration=") + good).c_str()});
        EXPECT_THAT(log.text(),
                    Not(HasSubstr("Warning] Duration: \"" + std::string(job.duration) + "\" is not")));
    }
    const auto told = [](const std::string& what) {
        return HasSubstr("[JobMgmt:Warning] Duration: " + what +
                         " hh:mm:ss:ff, two digits each (of the hours two or three), with minutes, "
                         "seconds and frames up to 59. The worker is given it as it is.\r\n");
    };
    for (const char* bad : {"10", "00:00:10", "1:00:00:00", "00:60:00:00", "00:00:60:00", "00:00:00:60",
                            "00:0:10:00", "00:00:10:5", "1000:00:00:", "abc"}) {
        CaptureTimedJob job(1);
        setFields(job, {(std::string("Duration=") + bad).c_str()});
        EXPECT_STREQ(job.duration, bad) << "taken all the same";
        EXPECT_THAT(log.text(), told('"' + std::string(bad) + "\" is not"));
    }
    EXPECT_THAT(log.text(), Not(told("none is given, expected is")));
    CaptureTimedJob job(1);
    setFields(job, {"Filename=/tmp/a"});
    EXPECT_THAT(log.text(), told("none is given, expected is"));
}

TEST_F(CaptureRequestTest, ARollingDurationIsMinutesOrATimeCutToMinutes) {
    struct Row {
        const char* text;
        int minutes;
    };
    const Row rows[] = {
        {"15", 15},
        {"0", 0},
        {"1", 1},
        {"00:05:59:24", 5},
        {"02:30:00:00", 150},
        {"00:05:00;02", 5},
        {"", 0},
        {"-5", 0},
        {"5m", 0},
        {"5 ", 0},
        {"00:05", 0},
        {"00:05:00", 0},
        {"00:60:00:00", 0},
        {"1:2:3:4:5", 0},
        {"99999999999", 0},
        {"2147483647", 2147483647},
        {"99999999:00:00:00", 0},
        {"99999999999999999999:00:00:00", 0},
        {"00;05:00:00", 0},
        {"00:-5:00:00", 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(kestrel::minutesValue(row.text), row.minutes) << row.text;
        CaptureRollingJob job(1);
        setFields(job, {(std::string("Duration=") + row.text).c_str()});
        EXPECT_EQ(job.rollingDurationMin, row.minutes) << row.text;
        EXPECT_TRUE(job.rollingStartNow);
    }
    EXPECT_EQ(kestrel::minutesValue(nullptr), 0);
    CaptureRollingJob later(1);
    setFields(later, {"Duration=5", "StartTime=11/20/2026 10:00:00"});
    EXPECT_FALSE(later.rollingStartNow);
    CaptureRollingJob set(1);
    set.rollingDurationMin = 30;
    setFields(set, {"Filename=/tmp/a"});
    EXPECT_EQ(set.rollingDurationMin, 30) << "a request without a duration leaves what its caller set";
}

TEST_F(CaptureRequestTest, TheInternalCueIsThatOfThePortsDeckAndStaysWithIt) {
    CaptureVTRJob job(1);
    setFields(job, {"VTR_Com_Port=COM3", "VTR_UseInternalCue=true"});
    ASSERT_NE(job.vtr, nullptr);
    EXPECT_EQ(job.vtr, ResourceMgr::GetResourceMgrInst()->GetVTR("com3"));
    EXPECT_EQ(job.equipment, (std::vector<Equipment*>{job.vtr}));
    EXPECT_TRUE(job.vtr->useInternalCue);
    CaptureVTRJob next(2);
    setFields(next, {"VTR_Com_Port=COM3"});
    EXPECT_TRUE(next.vtr->useInternalCue) << "a port name leaves the flag as it is";
    setFields(next, {"VTR_Com_Port=FALSE"});
    EXPECT_FALSE(next.vtr->useInternalCue);
    EXPECT_THAT(log.text(), Not(HasSubstr("Warning]")));
    setFields(next, {"VTR_UseInternalCue=1"});
    EXPECT_FALSE(next.vtr->useInternalCue);
    EXPECT_THAT(log.text(),
                HasSubstr("[JobMgmt:Warning] VTR_UseInternalCue: \"1\" is not TRUE or FALSE, it is "
                          "taken as FALSE.\r\n"));
}

TEST_F(CaptureRequestTest, InternalCueBeforeThePortIsIgnored) {
    CaptureVTRJob job(1);
    setFields(job, {"VTR_UseInternalCue=TRUE", "VTR_Com_Port=COM8"});
    EXPECT_FALSE(job.vtr->useInternalCue);
    EXPECT_THAT(log.text(), HasSubstr("VTR_UseInternalCue=TRUE stands before the port of the deck"));
    CaptureVTRJob empty(1);
    setFields(empty, {"VTR_Com_Port="});
    EXPECT_EQ(empty.vtr, nullptr);
}

TEST_F(CaptureRequestTest, LongTextsAreCutAndTerminated) {
    CaptureReencodeJob job(1);
    const std::string source = "SrcFilename=" + std::string(1000, 's');
    const std::string mark = "MarkInTime=" + std::string(1000, '1');
    setFields(job, {source.c_str(), mark.c_str()});
    EXPECT_EQ(std::string(job.sourceFile).size(), sizeof job.sourceFile - 1);
    EXPECT_EQ(std::string(job.markIn).size(), sizeof job.markIn - 1);
}

TEST_F(CaptureRequestTest, DecoderOptionsGoToTheDecoderNamedBefore) {
    CaptureReencodeJob job(1);
    setFields(job, {"SrcFilename=/tmp/s", "MarkInTime=a", "MarkOutTime=b", "DecoderIp=10.9.9.9",
                    "DecoderProfile=hd", "DecoderIntfIp=10.0.0.7"});
    EXPECT_EQ(job.decoder, &decoder(0x0a090909));
    EXPECT_EQ(job.equipment, (std::vector<Equipment*>{job.decoder}));
    EXPECT_STREQ(job.decoder->profile, "hd");
    EXPECT_EQ(job.decoder->interfaceAddress, 0x0a000007u);
    EXPECT_STREQ(job.markIn, "a");
    EXPECT_STREQ(job.markOut, "b");
}

TEST_F(CaptureRequestTest, AFoundDecoderTakesOverThePlaceholder) {
    decoder(0x0a090909).setProfile("old");
    decoder(0x0a090909).interfaceAddress = 5;
    CaptureReencodeJob interfaceOnly(1);
    setFields(interfaceOnly, {"DecoderIntfIp=10.0.0.7", "DecoderIp=10.9.9.9"});
    EXPECT_EQ(interfaceOnly.decoder, &decoder(0x0a090909));
    EXPECT_STREQ(interfaceOnly.decoder->profile, "old");
    EXPECT_EQ(interfaceOnly.decoder->interfaceAddress, 0x0a000007u);
    CaptureReencodeJob profileOnly(1);
    setFields(profileOnly, {"DecoderProfile=hd", "DecoderIp=10.9.9.9"});
    EXPECT_STREQ(profileOnly.decoder->profile, "hd");
    EXPECT_EQ(profileOnly.decoder->interfaceAddress, 0u) << "the address is taken over even when not given";
}

TEST_F(CaptureRequestTest, AnUnreadableInterfaceAddressChangesNothing) {
    decoder(0x0a090909).interfaceAddress = 5;
    CaptureReencodeJob job(1);
    setFields(job, {"DecoderIp=10.9.9.9", "DecoderIntfIp=eth0"});
    EXPECT_EQ(job.decoder->interfaceAddress, 5u);
}

TEST_F(CaptureRequestTest, AGuidThatIsNoneIsToldWithTheDigitsThatItIsTakenAs) {
    for (const char* guid :
         {"0123456789abcdef0123456789ABCDEF", "{01234567-89AB-CDEF-0123-456789ABCDEF}", "cafe", "CA FE", "1"})
        kestrel::warnUnlessGuid(guid);
    EXPECT_EQ(log.text(), "");
    const struct {
        const char* guid;
        const char* told;
    } rows[] = {
        {"news-1", "\"news-1\": what is no hex digit is left out (nws). It is taken as "
                   "0E010000000000000000000000000000,"},
        {"evening_news", "\"evening_news\": what is no hex digit is left out (vnig_ws). It is taken as "
                         "0E0E0E00000000000000000000000000,"},
        {"--", "\"--\": it has no hex digit. It is taken as 00000000000000000000000000000000,"},
        {"xyz", "\"xyz\": it has no hex digit. It is taken as 00000000000000000000000000000000,"},
        {nullptr, "\"\": it has no hex digit. "},
        {"0123456789abcdef0123456789ABCDEF0",
         "\"0123456789abcdef0123456789ABCDEF0\": it has more than 32 hex digits. It is taken as "
         "0123456789ABCDEF0123456789ABCDEF,"},
    };
    for (const auto& row : rows) {
        kestrel::warnUnlessGuid(row.guid);
        EXPECT_THAT(log.text(), HasSubstr(std::string("[JobMgmt:Warning] GUID ") + row.told));
    }
}
