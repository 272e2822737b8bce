// The queue: ids, order, lookups, cancel, delete.
#include "jobs/job_queue_fixture.h"

#include "foundation/PosixWrappers.h"
#include "foundation/QueueMessages.h"
#include "verifier/VerifierJob.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

using testing::HasSubstr;

namespace {

class JobQueueTest : public JobQueueFixture {
protected:
    // An id whose queue names no other test on this host has.
    static unsigned long ownId() { return 1'000'000'000UL + static_cast<unsigned long>(getpid()); }
};

TEST_F(JobQueueTest, IdsCountFromZeroAndWrapToOne) {
    EXPECT_EQ(queue.getNextId(), 0U);
    EXPECT_EQ(queue.incNextId(), 1U);
    queue.nextId = 2'147'483'645;
    EXPECT_EQ(queue.incNextId(), 2'147'483'645U);
    EXPECT_EQ(queue.incNextId(), 2'147'483'646U);
    EXPECT_EQ(queue.incNextId(), 1U);
    EXPECT_EQ(queue.incNextId(), 2U);
}

TEST_F(JobQueueTest, TheFirstJobHasIdZeroAndItsQueueNames) {
    const CaptureManualJob* const job = queue.AddCaptureManualJob(CaptureManualJob());
    EXPECT_EQ(job->id, 0U);
    EXPECT_STREQ(job->mgrQueueName, "/mgr_msg_q_0");
    EXPECT_STREQ(job->jobUpdateQueueName, "/job_update_q_0");
}

TEST_F(JobQueueTest, EveryKindIsStoredAsACloneInItsFirstState) {
    const CaptureManualJob manual;
    EXPECT_NE(queue.AddCaptureManualJob(manual), &manual);
    queue.AddCaptureTimedJob(CaptureTimedJob());
    queue.AddCaptureRollingJob(CaptureRollingJob());
    queue.AddCaptureVTRJob(CaptureVTRJob());
    queue.AddCaptureScheduledJob(CaptureScheduledJob());
    queue.AddCaptureReencodeJob(CaptureReencodeJob(0, Job::CAPTURE_REENCODE_JOB));
    queue.AddCaptureMezzanineJob(CaptureReencodeJob(0, Job::CAPTURE_MEZZANINE_JOB));
    queue.AddMpegNormalizeJob(MpegNormalizeJob());
    const struct {
        Job::JobType type;
        Job::JobState state;
    } expected[] = {
        {Job::CAPTURE_MANUAL_JOB, Job::IN_PROGRESS},  {Job::CAPTURE_TIMED_JOB, Job::IN_PROGRESS},
        {Job::CAPTURE_ROLLING_JOB, Job::IN_PROGRESS}, {Job::CAPTURE_VTR_JOB, Job::QUEUED},
        {Job::CAPTURE_SCHEDULED_JOB, Job::QUEUED},    {Job::CAPTURE_REENCODE_JOB, Job::QUEUED},
        {Job::CAPTURE_MEZZANINE_JOB, Job::QUEUED},    {Job::CAPTURE_MPEG_NORMALIZE_JOB, Job::QUEUED},
    };
    ASSERT_EQ(queue.jobs.size(), std::size(expected));
    for (std::size_t i = 0; i < queue.jobs.size(); ++i) {
        EXPECT_EQ(queue.jobs[i]->id, i);
        EXPECT_EQ(queue.jobs[i]->jobType, expected[i].type);
        EXPECT_EQ(queue.jobs[i]->jobState, expected[i].state);
    }
}

TEST_F(JobQueueTest, AddingNothingAddsNothing) {
    EXPECT_EQ(queue.addJob(nullptr, Job::QUEUED), nullptr);
    EXPECT_EQ(queue.addOfflineJob(nullptr), nullptr);
    EXPECT_EQ(queue.addImmediateJob(nullptr), nullptr);
    EXPECT_EQ(queue.addScheduledJob(nullptr, CTimeUtil(), CTimeUtil()), nullptr);
    EXPECT_TRUE(queue.jobs.empty());
}

TEST_F(JobQueueTest, AScheduledJobBooksItsEquipment) {
    Encoder* const encoder = ResourceMgr::GetResourceMgrInst()->GetEncoder(0x7F000001);
    CaptureScheduledJob job;
    job.AddEncoder(encoder);
    job.startTime = CTimeUtil(126, 10, 21, 10, 0, 0);
    job.endTime = CTimeUtil(126, 10, 21, 11, 0, 0);
    queue.incNextId();
    const CaptureScheduledJob* const queued = queue.AddCaptureScheduledJob(job);
    ASSERT_EQ(encoder->schedule.size(), 1U);
    const ScheduleTime& booking = encoder->schedule.front();
    EXPECT_EQ(booking.jobId, queued->id);
    EXPECT_EQ(booking.jobType, Job::CAPTURE_SCHEDULED_JOB);
    EXPECT_TRUE(booking.start == job.startTime);
    EXPECT_TRUE(booking.end == job.endTime);
}

TEST_F(JobQueueTest, EitherFormOfAGuidFindsTheJob) {
    CaptureManualJob* const job = add("{01234567-89AB-CDEF-0123-456789ABCDEF}");
    EXPECT_EQ(queue.getJob("0123456789abcdef0123456789ABCDEF"), job);
    EXPECT_EQ(queue.getJob("{01234567-89AB-CDEF-0123-456789ABCDEF}"), job);
    EXPECT_EQ(queue.getJob("01234567-89AB-CDEF-0123-456789ABCDE0"), nullptr);
    EXPECT_EQ(log.str(), "") << "a lookup that fails logs nothing";
}

TEST_F(JobQueueTest, TheFirstOfSeveralWithOneGuidIsFoundInTheOrderOfTheList) {
    CaptureManualJob* const first = add("aa");
    CaptureManualJob* const second = add("bb");
    CaptureManualJob* const third = add("bb");
    EXPECT_EQ(queue.getJob("bb"), second);
    first->setGuid("bb");
    EXPECT_EQ(queue.getJob("bb"), first) << "whenever it was given the GUID";
    EXPECT_EQ(queue.getJob("aa"), nullptr);
    first->setGuid("cc");
    second->setGuid("cc");
    EXPECT_EQ(queue.getJob("bb"), third);
}

TEST_F(JobQueueTest, ATextWithoutDigitsFindsTheFirstJobWithoutAGuid) {
    EXPECT_EQ(queue.getJob("zz"), nullptr);
    add("aa");
    CaptureManualJob* const nameless = queue.AddCaptureManualJob(CaptureManualJob());
    queue.AddCaptureManualJob(CaptureManualJob());
    EXPECT_EQ(queue.getJob("zz"), nameless);
}

TEST_F(JobQueueTest, AGivenGuidIsFoundWithoutAWalkThroughTheJobs) {
    EXPECT_EQ(queue.getJobByGivenGuid("aa"), nullptr);
    CaptureManualJob* const first = add("aa");
    CaptureManualJob* const second = add("aa");
    EXPECT_EQ(queue.getJobByGivenGuid("{AA}"), first) << "in either form, and the first of several";
    EXPECT_EQ(queue.getJobByGivenGuid("bb"), nullptr);
    CaptureManualJob* const nameless = queue.AddCaptureManualJob(CaptureManualJob());
    EXPECT_EQ(queue.getJobByGivenGuid("zz"), nameless) << "queued with a GUID of zeros";
    nameless->guid[0] = 0xcc;
    EXPECT_EQ(queue.getJob("cc"), nameless);
    EXPECT_EQ(queue.getJobByGivenGuid("cc"), nullptr) << "only a walk sees what was written past the queue";
    first->setGuid("bb");
    EXPECT_EQ(queue.getJobByGivenGuid("aa"), second);
    EXPECT_EQ(queue.getJobByGivenGuid("bb"), first);
    EXPECT_EQ(queue.DeleteJob(second), 10009) << "in progress";
    second->setState(Job::COMPLETE);
    EXPECT_EQ(queue.DeleteJob(second), 10003);
    EXPECT_EQ(queue.getJobByGivenGuid("aa"), nullptr);
    delete second;
}

TEST_F(JobQueueTest, TheStatusOfAGuidIsItsStatesName) {
    add("aa")->setState(Job::COMPLETE);
    EXPECT_STREQ(queue.GetJobStatus("aa"), "COMPLETE");
    EXPECT_STREQ(queue.GetJobStatus("bb"), "");
}

TEST_F(JobQueueTest, AnUnknownIdIsLogged) {
    CaptureManualJob* const job = add("aa");
    EXPECT_EQ(queue.GetJobById(0), job);
    EXPECT_EQ(queue.GetJobById(17), nullptr);
    EXPECT_THAT(log.str(), HasSubstr("[ResourceMgmt:Error] Error: Invalid Job Id 17 in GetJobById.\r\n"));
}

TEST_F(JobQueueTest, TheIndexIsThePositionOfTheFirstJobWithThatId) {
    add("aa");
    CaptureManualJob* const second = add("bb");
    EXPECT_EQ(queue.getIndex(second, "test"), 1);
    CaptureManualJob stranger(55);
    EXPECT_EQ(queue.getIndex(&stranger, "test"), -1);
    EXPECT_THAT(log.str(), HasSubstr("Error: Invalid Job Id 55 in test."));
}

TEST_F(JobQueueTest, CancellingAJobThatIsNotInProgressOnlyChangesItsState) {
    for (const Job::JobState state : {Job::CREATED, Job::QUEUED, Job::COMPLETE, Job::CANCELLED, Job::ERROR}) {
        CaptureManualJob job(ownId());
        job.setState(state);
        EXPECT_EQ(queue.CancelJob(&job, Job::CANCELLED), 0);
        EXPECT_EQ(job.state(), Job::CANCELLED);
    }
    EXPECT_EQ(log.str(), "") << "no queue was touched";
}

TEST_F(JobQueueTest, ACancelThatARunningWorkerIsNotToldOfNamesItsProcess) {
    CaptureManualJob job(ownId());
    job.setGuid("cafe");
    job.setState(Job::QUEUED);
    job.setWorkerPid(4711);
    EXPECT_EQ(queue.CancelJob(&job, Job::CANCELLED), 0);
    EXPECT_THAT(log.str(),
                HasSubstr("[ResourceMgmt:Warning] Job " + std::to_string(job.id) +
                          " cafe was QUEUED: its worker is not told of the abort, process 4711 runs "
                          "on. To end it: kill -TERM 4711"));
}

class WorkerSide {
public:
    explicit WorkerSide(const Job& job) : m_name(job.mgrQueueName) {
        long attributes[4] = {0, 10, 1000, 0};
        unlinkMsgQueue(m_name.c_str());
        m_queue = createMsgQueue(m_name.c_str(), 0666, attributes);
    }
    ~WorkerSide() {
        closeMsgQueue(m_queue);
        unlinkMsgQueue(m_name.c_str());
    }
    WorkerSide(const WorkerSide&) = delete;
    WorkerSide& operator=(const WorkerSide&) = delete;

    [[nodiscard]] mqd_t queue() const { return m_queue; }

private:
    std::string m_name;
    mqd_t m_queue;
};

std::ptrdiff_t openDescriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST_F(JobQueueTest, CancellingAJobInProgressSendsTheWorkerMessageFive) {
    CaptureManualJob job(ownId());
    const WorkerSide worker(job);
    const std::ptrdiff_t before = openDescriptors();
    EXPECT_EQ(queue.CancelJob(&job, Job::CANCELLED), 0);
    EXPECT_EQ(job.state(), Job::CANCELLED);
    EXPECT_EQ(openDescriptors(), before) << "the descriptor is closed again";
    char buffer[1000];
    int length = 0;
    unsigned priority = 9;
    ASSERT_EQ(receivePriorityMsg(worker.queue(), buffer, sizeof buffer, &length, &priority), 0);
    EXPECT_EQ(length, 4);
    EXPECT_EQ(priority, 0U);
    int type = 0;
    std::memcpy(&type, buffer, 4);
    EXPECT_EQ(type, 5);
}

TEST_F(JobQueueTest, ACancelAfterOneThatReachedTheWorkerDoesNotSayThatItWasNotTold) {
    CaptureManualJob job(ownId());
    job.setGuid("cafe");
    const WorkerSide worker(job);
    job.setWorkerPid(4711);
    EXPECT_EQ(queue.CancelJob(&job, Job::CANCELLED), 0);
    EXPECT_EQ(log.str(), "");
    EXPECT_EQ(queue.CancelJob(&job, Job::CANCELLED), 0);
    EXPECT_THAT(log.str(),
                HasSubstr("[ResourceMgmt:Info] Job " + std::to_string(job.id) +
                          " cafe was CANCELLED: its worker has been told of an abort before, process "
                          "4711 has not ended yet.\r\n"));
    EXPECT_THAT(log.str(), testing::Not(HasSubstr("is not told")));
}

TEST_F(JobQueueTest, TheVerificationOfAReportIsTheOneThatMayStillWriteIt) {
    const VerifierJob verification("/in/a.ts", "/r/", "cafe", "ALL", 20, false, false, "", 0, "");
    const char* const report = verification.reportFilename;
    EXPECT_EQ(queue.getVerification(report), nullptr);
    add("cafe");
    VerifierJob* const first = queue.AddVerifierJob(verification);
    EXPECT_EQ(queue.getVerification(report), first);
    EXPECT_EQ(queue.getVerification("/r/other"), nullptr);
    VerifierJob* const second = queue.AddVerifierJob(verification);
    EXPECT_EQ(queue.getVerification(report), first);
    first->setState(Job::COMPLETE);
    EXPECT_EQ(queue.getVerification(report), second);
    second->setState(Job::ERROR);
    EXPECT_EQ(queue.getVerification(report), second) << "the latest, where none is under way";
    first->setState(Job::CANCELLED);
    first->setWorkerPid(4711);
    EXPECT_EQ(queue.getVerification(report), first) << "its worker runs on";
}

TEST_F(JobQueueTest, ACancelWithoutAQueueSaysSoAndKeepsTheState) {
    CaptureManualJob job(ownId());
    unlinkMsgQueue(job.mgrQueueName);
    EXPECT_EQ(queue.CancelJob(&job, Job::CANCELLED), 10029);
    EXPECT_EQ(job.state(), Job::IN_PROGRESS);
    const std::string text = std::string("Error: Could not connect to queue ") + job.mgrQueueName + ".";
    EXPECT_EQ(job.resultsText(), text + " Error cancelling job");
    EXPECT_THAT(log.str(), HasSubstr(text));
    EXPECT_THAT(log.str(), HasSubstr("Error: Could not cancel job " + std::to_string(job.id) + "."));
}

TEST_F(JobQueueTest, ACancelIntoAFullQueueDoesNotWaitForTheWorker) {
    CaptureManualJob job(ownId());
    const WorkerSide worker(job);
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(sendPriorityMsg(worker.queue(), "full", 4, 0), 0);
    EXPECT_EQ(queue.CancelJob(&job, Job::CANCELLED), 10033);
    EXPECT_EQ(job.state(), Job::IN_PROGRESS);
    EXPECT_EQ(job.resultsText(), "Error: Failed to send job cancel message.");
    EXPECT_THAT(log.str(), HasSubstr("Error: Could not cancel job "));
}

TEST_F(JobQueueTest, AJobInProgressIsNotDeleted) {
    CaptureManualJob* const job = add("aa");
    EXPECT_EQ(queue.DeleteJob(job), 10009);
    EXPECT_EQ(queue.jobs.size(), 1U);
    EXPECT_THAT(log.str(),
                HasSubstr("Error: Job 0 is in-progress.  Cancel job before attempting to delete.\r\n"));
}

TEST_F(JobQueueTest, DeletingDropsThePointerAndAnswers10003AsAlways) {
    CaptureManualJob* const job = add("aa");
    job->setState(Job::COMPLETE);
    EXPECT_EQ(queue.DeleteJob(job), 10003);
    EXPECT_TRUE(queue.jobs.empty());
    EXPECT_EQ(log.str(), "");
    EXPECT_EQ(queue.getJob("aa"), nullptr);
    EXPECT_EQ(queue.GetJobById(job->id), nullptr);
    job->setGuid("bb"); // no longer the queue's business
    EXPECT_EQ(queue.getJob("bb"), nullptr);
    delete job;
}

TEST_F(JobQueueTest, DeletingAnUnknownJobIsLoggedWithTheSameAnswer) {
    CaptureManualJob stranger(55);
    stranger.setState(Job::QUEUED);
    EXPECT_EQ(queue.DeleteJob(&stranger), 10003);
    EXPECT_THAT(log.str(), HasSubstr("Error: Invalid Job Id 55 in DeleteJob."));
}

TEST_F(JobQueueTest, ACopiedListHoldsClonesAndDropsWhatItHeld) {
    add("aa");
    add("bb");
    Job former(nullptr);
    std::vector<Job*> copies{&former};
    queue.AllocCopyJobList(copies);
    ASSERT_EQ(copies.size(), 2U);
    EXPECT_STREQ(copies[1]->guidStr, "bb");
    EXPECT_NE(copies[0], queue.jobs[0]);
    copies.push_back(nullptr);
    JobQueue::DeleteJobList(copies);
    EXPECT_TRUE(copies.empty());
    EXPECT_EQ(queue.jobs.size(), 2U);
}

TEST_F(JobQueueTest, TheStartMarginIsThreeMinutes) {
    EXPECT_EQ(JobQueue::JOB_START_BUFFER.minutes, 3);
    EXPECT_EQ(JobQueue::JOB_START_BUFFER.frameRateCode, 3);
    EXPECT_FALSE(JobQueue::JOB_START_BUFFER.dropFrame);
    EXPECT_TRUE(JobQueue::CTS_JOB_START_BUFFER == CTimeSpanUtil(0, 0, 0, 0, 3, 0));
}

TEST_F(JobQueueTest, RequestThreadsMayAddNameAndLookUpAtOnce) {
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([this, t] {
                for (int i = 0; i < 100; ++i) {
                    const std::string guid = std::to_string(1000 + t) + std::to_string(1000 + i);
                    Job* const job = add(guid.c_str());
                    EXPECT_EQ(queue.getJob(guid.c_str()), job);
                    queue.GetJobStatus("10001000");
                    queue.GetJobById(job->id);
                }
            });
    }
    EXPECT_EQ(queue.jobs.size(), 400U);
}

} // namespace
