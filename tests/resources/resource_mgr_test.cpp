// The registry, and a job's set of devices as a whole.
#include "resources/ResourceMgr.h"

#include "foundation/Logger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

CTimeUtil fromNow(int minutes, int seconds = 0) {
    return CTimeUtil::CurrentTime() + CTimeSpanUtil(0, 0, 0, 0, minutes, seconds);
}

class ResourceMgrTest : public testing::Test {
protected:
    void TearDown() override { LogUtil::Cleanup(); }

    ResourceMgr registry;
    Vtr* const deck = registry.GetVTR("COM1");
    Encoder* const encoder = registry.GetEncoder(1);
    Decoder* const decoder = registry.GetDecoder(1);
    std::vector<Equipment*> set{deck, encoder, decoder};
    unsigned long holder = 0;
    Job::JobType holderType = Job::NONE;
    CTimeUtil next;
};

TEST_F(ResourceMgrTest, OneInstanceIsMadeOnFirstUse) {
    ResourceMgr* const first = ResourceMgr::GetResourceMgrInst();
    EXPECT_EQ(ResourceMgr::GetResourceMgrInst(), first);
    first->GetEncoder(77)->setProfile("x");
    ResourceMgr::Cleanup();
    EXPECT_EQ(ResourceMgr::GetResourceMgrInst()->GetEncoder(77)->profile, nullptr) << "records went with it";
    ResourceMgr::Cleanup();
}

TEST_F(ResourceMgrTest, LookupsFindOrMakeARecord) {
    EXPECT_EQ(registry.GetVTR("com1"), deck) << "ports are compared without regard to case";
    EXPECT_NE(registry.GetVTR("COM2"), deck);
    EXPECT_EQ(registry.GetEncoder(1), encoder);
    EXPECT_NE(registry.GetEncoder(2), encoder);
    EXPECT_EQ(encoder->snmpPort, 161U);
    EXPECT_EQ(registry.GetDecoder(1), decoder) << "an encoder of that address is another device";
    EXPECT_NE(registry.GetVTR(nullptr), nullptr);
    EXPECT_NE(registry.GetVTR(""), nullptr);
}

TEST_F(ResourceMgrTest, AnAddedRecordIsOwnedAndFound) {
    auto* const added = new Encoder(9, 1161);
    registry.AddEquipment(added);
    EXPECT_EQ(registry.GetEncoder(9), added);
    registry.AddEquipment(nullptr);
}

TEST_F(ResourceMgrTest, TheRecordThatWasMadeFirstIsFound) {
    registry.AddEquipment(new Encoder(1, 1161));
    registry.AddEquipment(new Vtr("COM1"));
    registry.AddEquipment(new Decoder(1));
    EXPECT_EQ(registry.GetEncoder(1), encoder);
    EXPECT_EQ(registry.GetVTR("COM1"), deck);
    EXPECT_EQ(registry.GetDecoder(1), decoder);
}

TEST_F(ResourceMgrTest, ARecordThatIsNotWhatItSaysIsPassedOver) {
    for (const auto type : {Equipment::VTR, Equipment::ENCODER, Equipment::DECODER})
        registry.AddEquipment(new Equipment(type));
    EXPECT_NE(registry.GetVTR("COM9"), nullptr);
    EXPECT_NE(registry.GetEncoder(9), nullptr);
    EXPECT_NE(registry.GetDecoder(9), nullptr);
}

TEST_F(ResourceMgrTest, AWholeSetIsBookedAndUnbooked) {
    registry.AddScheduleTime(set, 4, Job::CAPTURE_SCHEDULED_JOB, fromNow(10), fromNow(20));
    for (const Equipment* device : set)
        EXPECT_EQ(device->schedule.size(), 1U);
    registry.RemoveScheduleTime(set, 4);
    for (const Equipment* device : set)
        EXPECT_TRUE(device->schedule.empty());
}

TEST_F(ResourceMgrTest, ASetIsFreeForAWindowWhenEveryMemberIs) {
    std::vector<Equipment*> nothing;
    EXPECT_TRUE(registry.IsAvailable(nothing, holder, holderType, fromNow(0), fromNow(5)));
    EXPECT_TRUE(registry.IsAvailable(set, holder, holderType, fromNow(0), fromNow(5)));
    std::vector<Equipment*> one{encoder};
    registry.AddScheduleTime(one, 4, Job::CAPTURE_SCHEDULED_JOB, fromNow(1), fromNow(2));
    EXPECT_FALSE(registry.IsAvailable(set, holder, holderType, fromNow(0), fromNow(5)));
    EXPECT_EQ(holder, 4U);
    EXPECT_EQ(holderType, Job::CAPTURE_SCHEDULED_JOB);
}

TEST_F(ResourceMgrTest, ThePresentTestStopsAtTheFirstMemberInUse) {
    encoder->CheckoutEquipment(6, Job::CAPTURE_MANUAL_JOB, Job::UNSPECIFIED_DURATION);
    EXPECT_FALSE(registry.IsAvailable(set, holder, holderType, next));
    EXPECT_EQ(holder, 6U);
    EXPECT_EQ(holderType, Job::CAPTURE_MANUAL_JOB);
}

TEST_F(ResourceMgrTest, TheNextBookingOfASetIsTheEarliest) {
    const CTimeUtil early = fromNow(10);
    const CTimeUtil late = fromNow(20);
    std::vector<Equipment*> pair{encoder, decoder};
    encoder->AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, late, fromNow(30));
    decoder->AddScheduleTime(2, Job::CAPTURE_SCHEDULED_JOB, early, fromNow(30));
    EXPECT_TRUE(registry.IsAvailable(pair, holder, holderType, next));
    EXPECT_TRUE(next == early);
    std::vector<Equipment*> turned{decoder, encoder};
    EXPECT_TRUE(registry.IsAvailable(turned, holder, holderType, next));
    EXPECT_TRUE(next == early);
}

TEST_F(ResourceMgrTest, WhatWasAnsweredBeforeIsForgotten) {
    const CTimeUtil start = fromNow(10);
    next = fromNow(5);
    std::vector<Equipment*> nothing;
    EXPECT_TRUE(registry.IsAvailable(nothing, holder, holderType, next));
    EXPECT_TRUE(next == Equipment::NOT_SCHEDULED);
    next = fromNow(5);
    encoder->AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, start, fromNow(30));
    std::vector<Equipment*> one{encoder};
    EXPECT_TRUE(registry.IsAvailable(one, holder, holderType, next));
    EXPECT_TRUE(next == start);
}

TEST_F(ResourceMgrTest, AMemberWithoutBookingsAfterOneWithResetsTheNext) {
    const CTimeUtil start = fromNow(10);
    encoder->AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, start, fromNow(30));
    std::vector<Equipment*> bookedFirst{encoder, decoder};
    EXPECT_TRUE(registry.IsAvailable(bookedFirst, holder, holderType, next));
    EXPECT_TRUE(next == Equipment::NOT_SCHEDULED);
    std::vector<Equipment*> bookedLast{decoder, encoder};
    EXPECT_TRUE(registry.IsAvailable(bookedLast, holder, holderType, next));
    EXPECT_TRUE(next == start);
}

TEST_F(ResourceMgrTest, TheLowerCaseTestsAreForCallersThatHoldTheLock) {
    const CTimeUtil start = fromNow(10);
    const CTimeUtil end = fromNow(20);
    encoder->AddScheduleTime(4, Job::CAPTURE_SCHEDULED_JOB, start, end);
    std::vector<Equipment*> one{encoder};
    const MutexLock lock(registry.m_mutex);
    EXPECT_TRUE(registry.isAvailable(one, holder, holderType, fromNow(30), fromNow(40)));
    EXPECT_FALSE(registry.isAvailable(one, holder, holderType, start, end));
    EXPECT_EQ(holder, 4U);
    EXPECT_EQ(holderType, Job::CAPTURE_SCHEDULED_JOB);
    EXPECT_TRUE(registry.isAvailable(one, holder, holderType, next));
    EXPECT_TRUE(next == start);
    encoder->CheckoutEquipment(6, Job::CAPTURE_MANUAL_JOB, Job::UNSPECIFIED_DURATION);
    EXPECT_FALSE(registry.isAvailable(one, holder, holderType, next));
    EXPECT_EQ(holder, 6U);
    EXPECT_EQ(holderType, Job::CAPTURE_MANUAL_JOB);
}

TEST_F(ResourceMgrTest, ASpanMustEndBeforeTheNextBooking) {
    std::vector<Equipment*> one{encoder};
    const CTimeSpanUtil tenMinutes(0, 0, 0, 0, 10, 0);
    EXPECT_TRUE(registry.IsAvailableFor(one, holder, holderType, tenMinutes)) << "nothing is booked";
    encoder->AddScheduleTime(1, Job::CAPTURE_SCHEDULED_JOB, fromNow(10), fromNow(30));
    EXPECT_FALSE(registry.IsAvailableFor(one, holder, holderType, tenMinutes))
        << "ends exactly at the booking";
    EXPECT_EQ(holder, 1U);
    EXPECT_EQ(holderType, Job::CAPTURE_SCHEDULED_JOB);
    EXPECT_TRUE(registry.IsAvailableFor(one, holder, holderType, CTimeSpanUtil(0, 0, 0, 0, 9, 0)));
    EXPECT_FALSE(registry.IsAvailableFor(one, holder, holderType, CTimeSpanUtil(0, 0, 0, 0, 11, 0)));
    encoder->CheckoutEquipment(6, Job::CAPTURE_MANUAL_JOB, Job::UNSPECIFIED_DURATION);
    EXPECT_FALSE(registry.IsAvailableFor(one, holder, holderType, CTimeSpanUtil()));
}

TEST_F(ResourceMgrTest, ASetIsCheckedOutAsAWhole) {
    EXPECT_TRUE(registry.CheckoutEquipment(set, 3, Job::CAPTURE_VTR_JOB, Job::UNSPECIFIED_DURATION));
    for (const Equipment* device : set)
        EXPECT_EQ(device->checkoutJobId, 3U);
    EXPECT_FALSE(registry.CheckoutEquipment(set, 4, Job::CAPTURE_VTR_JOB, Job::UNSPECIFIED_DURATION));
    EXPECT_TRUE(registry.CheckinEquipment(set, 3));
    for (const Equipment* device : set)
        EXPECT_EQ(device->checkoutJobId, Equipment::FREE);
}

TEST_F(ResourceMgrTest, ACheckoutThatFailsOnTheSecondLeavesTheFirstFree) {
    encoder->CheckoutEquipment(9, Job::CAPTURE_MANUAL_JOB, Job::UNSPECIFIED_DURATION);
    EXPECT_FALSE(registry.CheckoutEquipment(set, 3, Job::CAPTURE_VTR_JOB, Job::UNSPECIFIED_DURATION));
    EXPECT_EQ(deck->checkoutJobId, Equipment::FREE);
    EXPECT_EQ(encoder->checkoutJobId, 9U);
    EXPECT_EQ(decoder->checkoutJobId, Equipment::FREE);
}

TEST_F(ResourceMgrTest, ASetThatNamesADeviceTwiceIsRefusedWithTheDevicesText) {
    std::vector<Equipment*> twice{deck, encoder, deck};
    EXPECT_FALSE(registry.CheckoutEquipment(twice, 3, Job::CAPTURE_VTR_JOB, Job::UNSPECIFIED_DURATION));
    EXPECT_EQ(deck->checkoutJobId, Equipment::FREE);
    EXPECT_EQ(encoder->checkoutJobId, Equipment::FREE);
    EXPECT_STREQ(registry.errorText, "Error: Job 3 Cannot checkout equipment VTR:COM1, in use by Job 3.");
}

TEST_F(ResourceMgrTest, ACheckinTriesEveryMember) {
    deck->CheckoutEquipment(3, Job::CAPTURE_VTR_JOB, Job::UNSPECIFIED_DURATION);
    encoder->CheckoutEquipment(9, Job::CAPTURE_MANUAL_JOB, Job::UNSPECIFIED_DURATION);
    decoder->CheckoutEquipment(3, Job::CAPTURE_VTR_JOB, Job::UNSPECIFIED_DURATION);
    EXPECT_FALSE(registry.CheckinEquipment(set, 3));
    EXPECT_EQ(deck->checkoutJobId, Equipment::FREE);
    EXPECT_EQ(encoder->checkoutJobId, 9U);
    EXPECT_EQ(decoder->checkoutJobId, Equipment::FREE);
}

TEST_F(ResourceMgrTest, SeveralThreadsMayUseTheRegistry) {
    std::vector<std::jthread> threads;
    for (unsigned long job = 1; job <= 4; ++job)
        threads.emplace_back([this, job] {
            for (int i = 0; i < 200; ++i) {
                std::vector<Equipment*> mine{registry.GetEncoder(1), registry.GetVTR("COM1")};
                if (registry.CheckoutEquipment(mine, job, Job::CAPTURE_VTR_JOB, Job::UNSPECIFIED_DURATION)) {
                    EXPECT_TRUE(registry.CheckinEquipment(mine, job));
                }
                registry.GetDecoder(job + static_cast<unsigned long>(i));
            }
        });
}

} // namespace
