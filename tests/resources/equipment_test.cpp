// Devices: who has them, who has booked them, and how requests name them.
#include "resources/Equipment.h"

#include "foundation/Logger.h"
#include "jobs/InputField.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using testing::HasSubstr;

namespace {

// A day far enough in the future that no booking is over.
CTimeUtil at(int hour, int minute = 0, int second = 0) {
    return {150, 5, 15, hour, minute, second};
}

CTimeUtil fromNow(int minutes) {
    return CTimeUtil::CurrentTime() + CTimeSpanUtil(0, 0, 0, 0, minutes, 0);
}

class EquipmentTest : public testing::Test {
protected:
    void SetUp() override { LogUtil::GetInstance()->addStreamLogger(&log); }
    void TearDown() override { LogUtil::Cleanup(); }

    bool freeFrom(const CTimeUtil& start, const CTimeUtil& end) {
        holder = 999;
        holderType = -1;
        return device.IsAvailable(holder, holderType, start, end);
    }

    std::ostringstream log;
    Encoder device{0x0A010203, 161};
    unsigned long holder = 0;
    int holderType = 0;
};

TEST_F(EquipmentTest, NewDevicesAreFreeAndNamed) {
    EXPECT_EQ(device.name, "E:10.1.2.3");
    EXPECT_EQ(device.resourceType, Equipment::ENCODER);
    EXPECT_EQ(device.snmpPort, 161U);
    EXPECT_TRUE(device.vitcInput);
    EXPECT_FALSE(device.lockMainCaptureDirectory);
    EXPECT_FALSE(device.lockScheduleCaptureDirectory);
    EXPECT_FALSE(device.lockRollingCaptureDirectory);
    EXPECT_FALSE(device.lockMezzanineCaptureDirectory);
    EXPECT_EQ(device.frameOffsetNoVitc, 0);
    for (const std::string& text :
         {device.filePrefix, device.mainCaptureDirectory, device.scheduleCaptureDirectory,
          device.rollingCaptureDirectory, device.mezzanineCaptureDirectory})
        EXPECT_EQ(text, "");
    EXPECT_TRUE(device.checkoutUntil == CTimeUtil());
    EXPECT_STREQ(device.message, "");
    EXPECT_TRUE(device.schedule.empty());
    EXPECT_EQ(device.checkoutJobId, ~0UL);
    EXPECT_EQ(device.checkoutJobType, Job::NONE);
    EXPECT_EQ(device.profile, nullptr);
    const Decoder decoder(0x0A010204);
    EXPECT_EQ(decoder.name, "D:10.1.2.4");
    EXPECT_EQ(decoder.resourceType, Equipment::DECODER);
    EXPECT_EQ(decoder.address, 0x0A010204U);
    EXPECT_EQ(decoder.interfaceAddress, 0U);
    EXPECT_EQ(decoder.streamAddress, 0U);
    EXPECT_EQ(decoder.streamNumber, 0U);
    EXPECT_EQ(decoder.streamPort, 0U);
    const Vtr vtr("COM3");
    EXPECT_EQ(vtr.name, "VTR:COM3");
    EXPECT_STREQ(vtr.comPort, "COM3");
    EXPECT_FALSE(vtr.useInternalCue);
    EXPECT_EQ(vtr.resourceType, Equipment::VTR);
    EXPECT_EQ(Equipment::ENCODER, 0);
    EXPECT_EQ(Equipment::DECODER, 1);
    EXPECT_EQ(Equipment::VTR, 2);
}

TEST_F(EquipmentTest, NotScheduledIsTheZeroTime) {
    EXPECT_TRUE(Equipment::NOT_SCHEDULED == CTimeUtil());
    EXPECT_TRUE(Equipment::NOT_SCHEDULED == Job::UNSPECIFIED_DURATION);
    EXPECT_FALSE(Equipment::NOT_SCHEDULED == CTimeUtil(0, 0, 0, 0, 0, 1));
}

TEST_F(EquipmentTest, ADeviceIsCheckedOutOnce) {
    EXPECT_TRUE(device.CheckoutEquipment(5, Job::CAPTURE_MANUAL_JOB, at(10)));
    EXPECT_EQ(device.checkoutJobId, 5U);
    EXPECT_EQ(device.checkoutJobType, Job::CAPTURE_MANUAL_JOB);
    EXPECT_TRUE(device.checkoutUntil == at(10));
    EXPECT_FALSE(device.CheckoutEquipment(6, Job::CAPTURE_TIMED_JOB, at(11)));
    EXPECT_EQ(device.checkoutJobId, 5U);
    EXPECT_STREQ(device.message, "Error: Job 6 Cannot checkout equipment E:10.1.2.3, in use by Job 5.");
    EXPECT_THAT(log.str(),
                HasSubstr("[ResourceMgmt:Error] Error: Job 6 Cannot checkout equipment E:10.1.2.3, "
                          "in use by Job 5.\r\n"));
}

TEST_F(EquipmentTest, OnlyTheHolderChecksItIn) {
    device.CheckoutEquipment(5, Job::CAPTURE_MANUAL_JOB, at(10));
    EXPECT_FALSE(device.CheckinEquipment(6));
    EXPECT_EQ(device.checkoutJobId, 5U);
    EXPECT_THAT(log.str(), HasSubstr("[ResourceMgmt:Error] Error: Job 6 Cannot checkin equipment E:10.1.2.3, "
                                     "in use by Job 5.\r\n"));
    EXPECT_TRUE(device.CheckinEquipment(5));
    EXPECT_EQ(device.checkoutJobId, ~0UL);
    EXPECT_EQ(device.checkoutJobType, Job::NONE);
    EXPECT_TRUE(device.checkoutUntil == at(10)) << "keeps its value";
    EXPECT_FALSE(device.CheckinEquipment(5));
}

TEST_F(EquipmentTest, NobodyChecksAFreeDeviceInNotEvenTheNumberThatMeansFree) {
    for (const unsigned long job : {0UL, ~0UL}) {
        log.str("");
        EXPECT_FALSE(device.CheckinEquipment(job));
        EXPECT_THAT(log.str(), HasSubstr("Cannot checkin equipment E:10.1.2.3"));
    }
}

TEST_F(EquipmentTest, AProfileReplacesTheOneBefore) {
    device.setProfile("first");
    device.setProfile("second, and longer");
    EXPECT_STREQ(device.profile, "second, and longer");
    device.setProfile(nullptr);
    EXPECT_EQ(device.profile, nullptr);
}

// Counts its validations.
class Camera : public Equipment {
public:
    Camera() : Equipment(VTR) {}
    int validate() override {
        ++validations;
        return 77;
    }
    int validations = 0;
};

TEST_F(EquipmentTest, ADeviceOfNoKnownKindTakesItsSubtypeAndIsValidated) {
    Camera camera;
    std::vector<InputField> fields;
    fields.emplace_back("Filename=x");
    fields.emplace_back("Subtype=HD");
    fields.emplace_back("EncoderProfile=y");
    EXPECT_EQ(camera.setFields(fields), 77);
    EXPECT_EQ(camera.validations, 1);
    EXPECT_EQ(camera.subtype, "HD");
    EXPECT_EQ(camera.profile, nullptr);
    EXPECT_EQ(Equipment(Equipment::VTR).validate(), 0);
}

TEST_F(EquipmentTest, BookingsAreKeptInOrderOfTheirStart) {
    EXPECT_TRUE(device.AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, at(12), at(13)));
    EXPECT_TRUE(device.AddScheduleTime(2, Job::CAPTURE_SCHEDULED_JOB, at(10), at(11)));
    EXPECT_TRUE(device.AddScheduleTime(3, Job::CAPTURE_SCHEDULED_JOB, at(11), at(12)));
    EXPECT_TRUE(device.AddScheduleTime(4, Job::CAPTURE_SCHEDULED_JOB, at(11), at(15)))
        << "overlaps are not tested";
    std::vector<unsigned long> order;
    for (const ScheduleTime& booking : device.schedule)
        order.push_back(booking.jobId);
    EXPECT_THAT(order, testing::ElementsAre(2, 4, 3, 1)) << "the later of two equal starts comes first";
}

TEST_F(EquipmentTest, AJobsFirstBookingIsRemoved) {
    device.AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, at(10), at(11));
    device.AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, at(12), at(13));
    EXPECT_TRUE(device.RemoveScheduleTime(1));
    ASSERT_EQ(device.schedule.size(), 1U);
    EXPECT_TRUE(device.schedule.front().start == at(12));
    EXPECT_FALSE(device.RemoveScheduleTime(2));
}

TEST_F(EquipmentTest, AWindowConflictsWithABookingItTouches) {
    device.AddScheduleTime(7, Job::CAPTURE_SCHEDULED_JOB, at(10), at(11));
    EXPECT_FALSE(freeFrom(at(11), at(12)));
    EXPECT_EQ(holder, 7U);
    EXPECT_EQ(holderType, Job::CAPTURE_SCHEDULED_JOB);
    EXPECT_TRUE(freeFrom(at(11, 0, 1), at(12)));
    EXPECT_FALSE(freeFrom(at(9), at(10)));
    EXPECT_TRUE(freeFrom(at(9), at(9, 59, 59)));
    EXPECT_FALSE(freeFrom(at(10, 30), at(10, 40)));
    EXPECT_FALSE(freeFrom(at(9), at(12)));
}

TEST_F(EquipmentTest, ABookingAfterTheWindowEndsTheWalkEvenWhenSomebodyHasTheDevice) {
    device.CheckoutEquipment(5, Job::CAPTURE_MANUAL_JOB, Job::UNSPECIFIED_DURATION);
    EXPECT_FALSE(freeFrom(at(8), at(9)));
    device.AddScheduleTime(7, Job::CAPTURE_SCHEDULED_JOB, at(10), at(11));
    EXPECT_TRUE(freeFrom(at(8), at(9)));
}

TEST_F(EquipmentTest, ADeviceWithoutAnEndIsBusyForEveryWindow) {
    device.CheckoutEquipment(5, Job::CAPTURE_MANUAL_JOB, Job::UNSPECIFIED_DURATION);
    EXPECT_FALSE(freeFrom(at(8), at(9)));
    EXPECT_EQ(holder, 5U);
    EXPECT_EQ(holderType, Job::CAPTURE_MANUAL_JOB);
}

TEST_F(EquipmentTest, ADeviceInUseUntilTenIsFreeFromTen) {
    device.CheckoutEquipment(5, Job::CAPTURE_TIMED_JOB, at(10));
    EXPECT_TRUE(freeFrom(at(10), at(11)));
    EXPECT_FALSE(freeFrom(at(9, 59, 59), at(11)));
    EXPECT_EQ(holder, 5U);
}

TEST_F(EquipmentTest, ThePresentTestTellsTheHolder) {
    device.CheckoutEquipment(5, Job::CAPTURE_TIMED_JOB, at(10));
    CTimeUtil next = at(1);
    EXPECT_FALSE(device.IsAvailable(holder, holderType, next));
    EXPECT_EQ(holder, 5U);
    EXPECT_EQ(holderType, Job::CAPTURE_TIMED_JOB);
}

TEST_F(EquipmentTest, ThePresentTestTellsTheNextBookingAndDropsThoseThatAreOver) {
    const CTimeUtil next5 = fromNow(5);
    device.AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, fromNow(-60), fromNow(-30));
    device.AddScheduleTime(2, Job::CAPTURE_SCHEDULED_JOB, next5, fromNow(15));
    CTimeUtil next;
    EXPECT_TRUE(device.IsAvailable(holder, holderType, next));
    EXPECT_TRUE(next == next5);
    EXPECT_EQ(holder, 2U);
    EXPECT_EQ(holderType, Job::CAPTURE_SCHEDULED_JOB);
    EXPECT_EQ(device.schedule.size(), 1U);
}

TEST_F(EquipmentTest, ABookingThatRunsNowStillCounts) {
    const CTimeUtil start = fromNow(-5);
    device.AddScheduleTime(2, Job::CAPTURE_SCHEDULED_JOB, start, fromNow(5));
    CTimeUtil next;
    EXPECT_TRUE(device.IsAvailable(holder, holderType, next));
    EXPECT_TRUE(next == start);
}

TEST_F(EquipmentTest, ABookingThatIsOverStaysBehindOneThatRuns) {
    device.AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, fromNow(-60), fromNow(60));
    device.AddScheduleTime(2, Job::CAPTURE_SCHEDULED_JOB, fromNow(-50), fromNow(-40));
    CTimeUtil next;
    EXPECT_TRUE(device.IsAvailable(holder, holderType, next));
    EXPECT_EQ(holder, 1U);
    EXPECT_EQ(device.schedule.size(), 2U) << "only what stands first is dropped";
}

TEST_F(EquipmentTest, WithoutBookingsThereIsNoNext) {
    device.AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, fromNow(-60), fromNow(-30));
    CTimeUtil next = at(1);
    EXPECT_TRUE(device.IsAvailable(holder, holderType, next));
    EXPECT_TRUE(next == Equipment::NOT_SCHEDULED);
    EXPECT_EQ(holder, ~0UL);
    EXPECT_EQ(holderType, Job::NONE);
    EXPECT_TRUE(device.schedule.empty());
}

TEST_F(EquipmentTest, AControlAddressNamesEncodersLikeDecoders) {
    device.setCtrlIp("10.9.8.7");
    EXPECT_EQ(device.address, 0x0A090807U);
    EXPECT_EQ(device.name, "D:10.9.8.7");
    device.setCtrlIp("studio");
    EXPECT_EQ(device.address, 0U);
    EXPECT_EQ(device.validate(), 10018);
}

TEST_F(EquipmentTest, FieldsOfAnEncoder) {
    std::vector<InputField> fields;
    for (const char* text :
         {"EncoderProfile=HD", "Control_Ip_Address=10.0.0.1", "Subtype=6140", "Filename=x"})
        fields.emplace_back(text);
    EXPECT_EQ(device.setFields(fields), 0);
    EXPECT_STREQ(device.profile, "HD");
    EXPECT_EQ(device.address, 0x0A000001U);
    EXPECT_EQ(device.subtype, "6140");
}

TEST_F(EquipmentTest, FieldsOfADecoder) {
    Decoder decoder(0);
    std::vector<InputField> fields;
    EXPECT_EQ(decoder.setFields(fields), 10017);
    EXPECT_THAT(log.str(),
                HasSubstr("[ResourceMgmt:Error] Error: Cannot add Decoder - Invalid Ip Address.\r\n"));
    for (const char* text :
         {"DecoderProfile=SD", "DecoderIntfIp=192.168.1.2", "Control_Ip_Address=10.0.0.2", "Subtype=a"})
        fields.emplace_back(text);
    EXPECT_EQ(decoder.setFields(fields), 0);
    EXPECT_STREQ(decoder.profile, "SD");
    EXPECT_EQ(decoder.interfaceAddress, 0xC0A80102U);
    EXPECT_EQ(decoder.address, 0x0A000002U);
    EXPECT_EQ(decoder.name, "D:10.0.0.2");
    EXPECT_EQ(decoder.subtype, "a");
}

TEST_F(EquipmentTest, FieldsOfADeck) {
    Vtr vtr("");
    std::vector<InputField> fields;
    EXPECT_EQ(vtr.setFields(fields), 10019);
    EXPECT_THAT(log.str(), HasSubstr("Error: Cannot add VTR - No port specified.\r\n"));
    fields.emplace_back("VTR_Com_Port=COM2");
    fields.emplace_back("VTR_UseInternalCue=TRUE");
    fields.emplace_back("Subtype=BVW");
    EXPECT_EQ(vtr.setFields(fields), 0);
    EXPECT_EQ(vtr.subtype, "BVW");
    EXPECT_STREQ(vtr.comPort, "COM2");
    EXPECT_EQ(vtr.name, "VTR:COM2");
    EXPECT_TRUE(vtr.useInternalCue);
    fields = {};
    fields.emplace_back("VTR_UseInternalCue=yes");
    EXPECT_EQ(vtr.setFields(fields), 0);
    EXPECT_FALSE(vtr.useInternalCue) << "any other text is false";
}

TEST_F(EquipmentTest, AnEncoderWithoutAnAddressIsRefused) {
    EXPECT_EQ(Encoder(0, 161).validate(), 10018);
    EXPECT_THAT(log.str(), HasSubstr("Error: Cannot add Encoder - Invalid Ip Address,\r\n"));
}

} // namespace
