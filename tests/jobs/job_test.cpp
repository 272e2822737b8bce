// The job record.
#include "jobs/Job.h"

#include "jobs/InputField.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

using testing::Each;
using testing::ElementsAre;

namespace {

std::vector<int> guidBytes(const char* text) {
    unsigned char bytes[16];
    std::memset(bytes, 0xEE, sizeof bytes);
    Job::getGuid(text, bytes);
    return {bytes, bytes + 16};
}

// Equipment is only pointed at here.
Equipment* device(std::uintptr_t number) {
    return reinterpret_cast<Equipment*>(number * 16);
}

TEST(Job, TypesAndStatesHaveTheirNames) {
    const char* const types[] = {"CAPTURE_VTR_JOB",
                                 "CAPTURE_MANUAL_JOB",
                                 "CAPTURE_TIMED_JOB",
                                 "CAPTURE_SCHEDULED_JOB",
                                 "CAPTURE_ROLLING_JOB",
                                 "CAPTURE_MEZZANINE_JOB",
                                 "CAPTURE_REENCODE_JOB",
                                 "CAPTURE_MPEG_NORMALIZE_JOB",
                                 "COMBINER_JOB",
                                 "VERIFIER_JOB",
                                 "NONE"};
    for (int i = 0; i < 11; ++i) {
        EXPECT_STREQ(Job::JobTypeStr[i], types[i]);
        EXPECT_EQ(Job::getJobType(types[i]), i);
    }
    const char* const states[] = {"CREATED", "QUEUED", "IN_PROGRESS", "COMPLETE", "CANCELLED", "ERROR"};
    for (int i = 0; i < 6; ++i)
        EXPECT_STREQ(Job::JobStateStr[i], states[i]);
    EXPECT_EQ(Job::CAPTURE_MPEG_NORMALIZE_JOB, 7);
    EXPECT_EQ(Job::ERROR, 5);
}

TEST(Job, AnUnspecifiedDurationIsTheZeroTime) {
    EXPECT_TRUE(Job::UNSPECIFIED_DURATION == CTimeUtil());
    EXPECT_FALSE(Job::UNSPECIFIED_DURATION == CTimeUtil(0, 0, 0, 0, 0, 1));
}

TEST(Job, TypeNamesAreMatchedWholeAndCaseSensitively) {
    EXPECT_EQ(Job::getJobType("capture_vtr_job"), Job::NONE);
    EXPECT_EQ(Job::getJobType("CAPTURE_VTR_JOBX"), Job::NONE);
    EXPECT_EQ(Job::getJobType(""), Job::NONE);
    EXPECT_EQ(Job::getJobType(nullptr), Job::NONE);
}

TEST(Job, MadeFromAGuidIsCreatedWithoutTypeAndTexts) {
    const Job job("0123");
    EXPECT_EQ(job.jobType, Job::NONE);
    EXPECT_EQ(job.jobState, Job::CREATED);
    EXPECT_STREQ(job.results, "");
    EXPECT_STREQ(job.cmdLine, "");
    EXPECT_STREQ(job.logDir, "");
    EXPECT_STREQ(job.guidStr, "0123");
    EXPECT_TRUE(job.equipment.empty());
    EXPECT_STREQ(Job(nullptr).guidStr, "");
}

TEST(Job, MadeFromAnIdHasItsQueueNames) {
    const Job job(7, Job::CAPTURE_TIMED_JOB, Job::QUEUED);
    EXPECT_EQ(job.id, 7U);
    EXPECT_EQ(job.jobType, Job::CAPTURE_TIMED_JOB);
    EXPECT_EQ(job.jobState, Job::QUEUED);
    EXPECT_STREQ(job.mgrQueueName, "/mgr_msg_q_7");
    EXPECT_STREQ(job.jobUpdateQueueName, "/job_update_q_7");
    EXPECT_STREQ(job.guidStr, "");
}

TEST(Job, AnotherIdGivesOtherQueueNames) {
    Job job(nullptr);
    job.setId(2'147'483'646);
    EXPECT_STREQ(job.mgrQueueName, "/mgr_msg_q_2147483646");
    EXPECT_STREQ(job.jobUpdateQueueName, "/job_update_q_2147483646");
}

TEST(Job, GuidsAreReadFromHexDigitsWhateverStandsBetween) {
    const std::vector<int> whole = guidBytes("{01234567-89AB-CDEF-0123-456789ABCDEF}");
    EXPECT_THAT(whole, ElementsAre(0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0x01, 0x23, 0x45, 0x67,
                                   0x89, 0xAB, 0xCD, 0xEF));
    EXPECT_EQ(guidBytes("0123456789abcdef0123456789ABCDEF"), whole);
    EXPECT_EQ(guidBytes("0123456789abcdef0123456789ABCDEF77"), whole) << "digits beyond the 16th byte";
}

TEST(Job, ARunOfOddLengthGivesALastByteOfOneDigit) {
    EXPECT_THAT(guidBytes("abc"), ElementsAre(0xAB, 0x0C, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_THAT(guidBytes("a-bcd"), ElementsAre(0x0A, 0xBC, 0x0D, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST(Job, ATextWithoutDigitsIsSixteenZeroBytes) {
    EXPECT_THAT(guidBytes("zzz --"), Each(0));
    EXPECT_THAT(guidBytes(""), Each(0));
    EXPECT_THAT(guidBytes(nullptr), Each(0));
}

TEST(Job, TheGuidTextIsItsFirst32Characters) {
    Job job(nullptr);
    job.setGuid("01234567-89AB-CDEF-0123-456789ABCDEF");
    EXPECT_STREQ(job.guidStr, "01234567-89AB-CDEF-0123-456789AB");
    EXPECT_EQ(job.guid[15], 0xEF) << "the bytes come from the whole text";
    job.setGuid("0123456789abcdef0123456789ABCDEF");
    EXPECT_STREQ(job.guidStr, "0123456789abcdef0123456789ABCDEF");
}

TEST(Job, ACopyKnowsOnlyTheDigitsOfTheKeptText) {
    Job job(nullptr);
    job.setGuid("01234567-89AB-CDEF-0123-456789ABCDEF");
    const Job copy(job);
    EXPECT_STREQ(copy.guidStr, job.guidStr);
    EXPECT_EQ(copy.guid[13], 0xAB);
    EXPECT_EQ(copy.guid[14], 0) << "cut off with the text, which is why the manager sets the GUID again";
    EXPECT_FALSE(copy.equals(job.guid));
}

TEST(Job, EqualsComparesAllSixteenBytes) {
    const Job job("0102030405060708090a0b0c0d0e0f10");
    unsigned char guid[16];
    Job::getGuid("0102030405060708090a0b0c0d0e0f10", guid);
    EXPECT_TRUE(job.equals(guid));
    guid[15] = 0;
    EXPECT_FALSE(job.equals(guid));
}

TEST(Job, ACopyTakesEverythingButTheListener) {
    Job job(3, Job::CAPTURE_VTR_JOB, Job::IN_PROGRESS);
    job.equipment = {device(1), device(2)};
    job.setResults("fine");
    job.setLogDir("/logs/");
    std::strcpy(job.cmdLine, "run it");
    job.setGuid("ab");
    const std::unique_ptr<Job> copy(job.clone());
    EXPECT_EQ(copy->id, 3U);
    EXPECT_EQ(copy->jobType, Job::CAPTURE_VTR_JOB);
    EXPECT_EQ(copy->jobState, Job::IN_PROGRESS);
    EXPECT_EQ(copy->equipment, job.equipment);
    EXPECT_STREQ(copy->results, "fine");
    EXPECT_STREQ(copy->logDir, "/logs/");
    EXPECT_STREQ(copy->cmdLine, "run it");
    EXPECT_STREQ(copy->guidStr, "ab");
    EXPECT_STREQ(copy->mgrQueueName, "/mgr_msg_q_3");
}

TEST(Job, AssignmentAppendsTheOthersEquipment) {
    Job target(1, Job::NONE, Job::CREATED);
    target.equipment = {device(1)};
    Job source(2, Job::VERIFIER_JOB, Job::QUEUED);
    source.equipment = {device(2)};
    source.setResults("text");
    target = source;
    EXPECT_THAT(target.equipment, ElementsAre(device(1), device(2)));
    EXPECT_EQ(target.id, 2U);
    EXPECT_STREQ(target.jobUpdateQueueName, "/job_update_q_2");
    EXPECT_EQ(target.jobType, Job::VERIFIER_JOB);
    EXPECT_EQ(target.jobState, Job::QUEUED);
    EXPECT_STREQ(target.results, "text");
}

TEST(Job, AssignmentToItselfDoesNothing) {
    Job job(1, Job::NONE, Job::CREATED);
    job.equipment = {device(1)};
    Job& same = job;
    job = same;
    EXPECT_EQ(job.equipment.size(), 1U);
}

TEST(Job, TheBaseValidatesAnything) {
    Job job(nullptr);
    std::vector<InputField> fields;
    EXPECT_EQ(job.validate(), 0);
    EXPECT_EQ(job.setFields(fields), 0);
    std::strcpy(job.cmdLine, "as it stands");
    EXPECT_STREQ(job.getCmdLine("/bin/program"), "as it stands");
}

TEST(Job, ResultsAreCutAtTheReadersLength) {
    Job job(nullptr);
    job.setResults("abcdef");
    char buffer[8] = "xxxxxxx";
    EXPECT_EQ(job.getJobResults(buffer, 3), 0);
    EXPECT_STREQ(buffer, "abcxxxx") << "no terminator where the text fills the length";
    EXPECT_EQ(job.getJobResults(buffer, 8), 0);
    EXPECT_STREQ(buffer, "abcdef");
    EXPECT_EQ(job.getJobResults(buffer, 0), 0);
}

TEST(Job, ResultsAreCutAtTheirCapacity) {
    Job job(nullptr);
    job.setResults(std::string(1000, 'a'));
    EXPECT_EQ(job.resultsText(), std::string(299, 'a'));
    job.setResults("a");
    job.appendResults(" b");
    EXPECT_STREQ(job.results, "a b");
}

TEST(Job, AFinishedWorkerDoesNotUndoACancel) {
    Job job(1, Job::CAPTURE_MANUAL_JOB, Job::IN_PROGRESS);
    job.setState(Job::CANCELLED);
    EXPECT_EQ(job.finish(Job::COMPLETE), Job::CANCELLED);
    job.setState(Job::QUEUED);
    EXPECT_EQ(job.finish(Job::ERROR), Job::ERROR);
}

TEST(Job, OfACancelledJobItIsKnownWhetherItsWorkerFailed) {
    Job job(1, Job::VERIFIER_JOB, Job::CANCELLED);
    EXPECT_FALSE(job.workerFailed());
    EXPECT_EQ(job.finish(Job::COMPLETE), Job::CANCELLED);
    EXPECT_FALSE(job.workerFailed());
    EXPECT_EQ(job.finish(Job::ERROR), Job::CANCELLED);
    EXPECT_TRUE(job.workerFailed());
    EXPECT_FALSE(Job(job).workerFailed());
}

TEST(Job, AStateIsChangedOnlyFromTheOneExpected) {
    Job job(1, Job::NONE, Job::QUEUED);
    EXPECT_FALSE(job.changeState(Job::IN_PROGRESS, Job::CANCELLED));
    EXPECT_EQ(job.state(), Job::QUEUED);
    EXPECT_TRUE(job.changeState(Job::QUEUED, Job::CANCELLED));
    EXPECT_EQ(job.state(), Job::CANCELLED);
}

TEST(Job, StateAndResultsMayBeReadWhileAWorkerIsWatched) {
    Job job(1, Job::NONE, Job::QUEUED);
    std::jthread writer([&] {
        for (int i = 0; i < 2000; ++i) {
            job.setResults(i % 2 == 0 ? "aaaa" : "bbbb");
            job.setState(i % 2 == 0 ? Job::QUEUED : Job::IN_PROGRESS);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        const std::string text = job.resultsText();
        EXPECT_TRUE(text.empty() || text == "aaaa" || text == "bbbb") << text;
        const std::unique_ptr<Job> copy(job.clone());
        EXPECT_TRUE(copy->jobState == Job::QUEUED || copy->jobState == Job::IN_PROGRESS);
    }
}

} // namespace
