// How queued jobs are found after their GUID or id has changed, and while others change the queue.
#include "jobs/job_queue_fixture.h"

#include <algorithm>
#include <barrier>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testing::HasSubstr;

namespace {

class JobIndexTest : public JobQueueFixture {
protected:
    // As a walk through the list in its order finds it, which is what the index answers for.
    Job* walkedTo(const char* guid) {
        unsigned char bytes[16];
        Job::getGuid(guid, bytes);
        const auto found = std::find_if(queue.jobs.begin(), queue.jobs.end(),
                                        [&](const Job* job) { return job->equals(bytes); });
        return found == queue.jobs.end() ? nullptr : *found;
    }
};

TEST_F(JobIndexTest, AStoredJobIsFoundByItsNewIdOnly) {
    CaptureManualJob* const job = add("aa");
    CaptureManualJob* const other = add("bb");
    job->setId(7);
    EXPECT_EQ(queue.GetJobById(7), job);
    EXPECT_EQ(log.str(), "");
    EXPECT_EQ(queue.GetJobById(0), nullptr);
    EXPECT_THAT(log.str(), HasSubstr("[ResourceMgmt:Error] Error: Invalid Job Id 0 in GetJobById.\r\n"));
    EXPECT_EQ(queue.GetJobById(1), other);
    EXPECT_STREQ(job->mgrQueueName, "/mgr_msg_q_7");
    EXPECT_STREQ(job->jobUpdateQueueName, "/job_update_q_7");
}

TEST_F(JobIndexTest, TheFirstOfSeveralWithOneIdIsFoundInTheOrderOfTheList) {
    CaptureManualJob* const first = add("aa");
    CaptureManualJob* const second = add("bb");
    EXPECT_EQ(queue.GetJobById(1), second);
    first->setId(1);
    EXPECT_EQ(queue.GetJobById(1), first) << "whenever it was given the id";
    first->setId(2);
    EXPECT_EQ(queue.GetJobById(1), second);
}

TEST_F(JobIndexTest, TheFirstOfEqualGuidsIsFoundAlsoAfterTheFirstOnesHasChanged) {
    CaptureManualJob* const jobs[] = {add("dd"), add("dd"), add("dd")};
    EXPECT_EQ(queue.getJob("dd"), jobs[0]);
    jobs[0]->setGuid("ee");
    EXPECT_EQ(queue.getJob("dd"), jobs[1]);
    EXPECT_EQ(queue.getJob("ee"), jobs[0]);
    jobs[1]->setGuid("ee");
    EXPECT_EQ(queue.getJob("dd"), jobs[2]);
    jobs[0]->setGuid("dd");
    EXPECT_EQ(queue.getJob("dd"), jobs[0]);
    EXPECT_EQ(queue.getJob("ee"), jobs[1]);
}

TEST_F(JobIndexTest, AnAssignmentOntoAStoredJobIsFollowed) {
    CaptureManualJob* const stored = add("aa");
    CaptureManualJob* const last = add("cc");
    CaptureManualJob source(40);
    source.setGuid("bb");
    *stored = source;
    EXPECT_EQ(queue.getJob("aa"), nullptr);
    EXPECT_EQ(queue.getJob("bb"), stored);
    EXPECT_EQ(queue.GetJobById(40), stored);
    EXPECT_EQ(queue.GetJobById(0), nullptr);
    // The source is still nobody's.
    source.setGuid("dd");
    source.setId(41);
    EXPECT_EQ(queue.getJob("dd"), nullptr);
    EXPECT_EQ(queue.GetJobById(41), nullptr);
    // From one stored job to another: the first of the two is found.
    *last = *stored;
    EXPECT_EQ(queue.getJob("bb"), stored);
    EXPECT_EQ(queue.GetJobById(40), stored);
    EXPECT_EQ(queue.getJob("cc"), nullptr);
}

TEST_F(JobIndexTest, AnAssignedGuidOrIdThatALaterJobHasIsFoundAtTheFirst) {
    CaptureManualJob* const first = add("aa");
    const CaptureManualJob* const last = add("bb");
    CaptureManualJob source(last->id);
    source.setGuid("bb");
    *first = source;
    EXPECT_EQ(queue.getJob("bb"), first);
    EXPECT_EQ(queue.GetJobById(last->id), first);
}

TEST_F(JobIndexTest, ACopyOfAStoredJobIsNotInTheQueue) {
    const std::unique_ptr<CaptureManualJob> copy(add("aa")->clone());
    copy->setGuid("bb");
    copy->setId(9);
    EXPECT_EQ(queue.getJob("bb"), nullptr);
    EXPECT_EQ(queue.GetJobById(9), nullptr);
    EXPECT_EQ(queue.getJob("aa"), queue.jobs.front());
}

TEST_F(JobIndexTest, WhatIsWrittenIntoThePublicFieldsIsFoundAllTheSame) {
    CaptureManualJob* const first = add("aa");
    CaptureManualJob* const second = add("bb");
    Job::getGuid("cc", second->guid);
    second->id = 30;
    EXPECT_EQ(queue.getJob("cc"), second);
    EXPECT_EQ(queue.GetJobById(30), second);
    EXPECT_EQ(queue.getJob("bb"), nullptr);
    EXPECT_EQ(queue.GetJobById(1), nullptr);
    EXPECT_EQ(queue.getJob("aa"), first);
    second->setGuid("dd");
    EXPECT_EQ(queue.getJob("dd"), second);
    EXPECT_EQ(queue.getJob("cc"), nullptr);
}

TEST_F(JobIndexTest, LookupsAndGuidsDoNotNeedTheLockOfTheList) {
    CaptureManualJob* const job = add("aa");
    const MutexLock lock(queue.m_mutex);
    EXPECT_EQ(queue.getJob("aa"), job);
    EXPECT_EQ(queue.GetJobById(0), job);
    EXPECT_STREQ(queue.GetJobStatus("aa"), "IN_PROGRESS");
    job->setGuid("bb");
    EXPECT_EQ(queue.getJob("bb"), job);
    job->setId(5);
    EXPECT_EQ(queue.GetJobById(5), job);
}

TEST_F(JobIndexTest, ARemovedJobIsFoundNoMoreAndTheNextOfItsKindIs) {
    CaptureManualJob* const first = add("aa");
    CaptureManualJob* const second = add("aa");
    first->setState(Job::COMPLETE);
    EXPECT_EQ(queue.DeleteJob(first), 10003);
    EXPECT_EQ(queue.getJob("aa"), second);
    EXPECT_EQ(queue.GetJobById(0), nullptr);
    first->setGuid("bb"); // the queue no longer hears of it
    first->setId(8);
    EXPECT_EQ(queue.getJob("bb"), nullptr);
    EXPECT_EQ(queue.GetJobById(8), nullptr);
    delete first;
    EXPECT_EQ(queue.getJob("aa"), second);
    EXPECT_EQ(queue.getJob("cc"), nullptr);
}

TEST_F(JobIndexTest, ManyChangesEndWhereAWalkWould) {
    for (int i = 0; i < 20; ++i)
        add(std::to_string(10 + i % 5).c_str());
    for (std::size_t step = 0; step < 400; ++step) {
        const std::string guid = std::to_string(10 + step * 7 % 11);
        queue.jobs[step * 13 % queue.jobs.size()]->setGuid(guid.c_str());
        for (int known = 10; known < 22; ++known) {
            const std::string asked = std::to_string(known);
            ASSERT_EQ(queue.getJob(asked.c_str()), walkedTo(asked.c_str())) << asked << " in step " << step;
        }
    }
}

TEST_F(JobIndexTest, ARemovedJobIsNotFoundByAnythingItOnceHad) {
    CaptureManualJob* const job = add("aa");
    job->setGuid("bb");
    job->setId(50);
    job->setState(Job::COMPLETE);
    queue.DeleteJob(job);
    job->setGuid("aa");
    job->setId(0);
    EXPECT_EQ(queue.getJob("aa"), nullptr);
    EXPECT_EQ(queue.GetJobById(0), nullptr);
    delete job;
    EXPECT_EQ(queue.getJob("aa"), nullptr);
    EXPECT_EQ(queue.getJob("bb"), nullptr);
    EXPECT_EQ(queue.GetJobById(50), nullptr);
}

// Counts its instances' ends.
class CountedJob : public Job {
public:
    explicit CountedJob(int& ended) : Job(nullptr), m_ended(ended) {}
    ~CountedJob() override { ++m_ended; }

private:
    int& m_ended;
};

TEST(JobQueueEnd, DeletesEveryJobAndSkipsEmptyEntries) {
    int ended = 0;
    {
        JobQueue queue;
        queue.jobs.push_back(nullptr);
        queue.addOfflineJob(new CountedJob(ended));
        queue.jobs.push_back(nullptr);
        queue.addImmediateJob(new CountedJob(ended));
        queue.jobs.push_back(nullptr);
    }
    EXPECT_EQ(ended, 2);
}

// Each thread has jobs of its own, and looks into the others'.
class BusyClient {
public:
    BusyClient(JobQueue& queue, int number) : m_queue(queue), m_number(number) {}

    void work() {
        for (int round = 0; round < 60; ++round) {
            CaptureManualJob* const job = m_queue.AddCaptureManualJob(CaptureManualJob());
            const std::string first = guid(m_number, round);
            job->setGuid(first.c_str());
            EXPECT_EQ(m_queue.getJob(first.c_str()), job);
            EXPECT_EQ(m_queue.GetJobById(job->id), job);
            // Somebody else's may be there or not.
            m_queue.getJob(guid(m_number + 1, round).c_str());
            const std::string second = first + "ff";
            job->setGuid(second.c_str());
            EXPECT_EQ(m_queue.getJob(first.c_str()), nullptr);
            EXPECT_EQ(m_queue.getJob(second.c_str()), job);
            copyAll();
            job->setState(Job::COMPLETE);
            if (round % 2 != 0)
                continue;
            m_queue.DeleteJob(job);
            delete job;
            EXPECT_EQ(m_queue.getJob(second.c_str()), nullptr);
        }
    }

private:
    static std::string guid(int number, int round) {
        return std::to_string(1000 + number) + std::to_string(1000 + round);
    }

    void copyAll() {
        std::vector<Job*> copies;
        m_queue.AllocCopyJobList(copies);
        for (const Job* copy : copies)
            EXPECT_TRUE(copy->equals(bytesOf(copy->guidStr).data())) << "text and bytes are of one GUID";
        JobQueue::DeleteJobList(copies);
    }

    static std::vector<unsigned char> bytesOf(const char* text) {
        std::vector<unsigned char> bytes(16);
        Job::getGuid(text, bytes.data());
        return bytes;
    }

    JobQueue& m_queue;
    int m_number;
};

TEST_F(JobIndexTest, ThreadsMayAddNameLookUpCopyAndDeleteAtOnce) {
    constexpr int clients = 4;
    {
        std::barrier together(clients);
        std::vector<std::jthread> threads;
        for (int number = 0; number < clients; ++number)
            threads.emplace_back([&, number] {
                together.arrive_and_wait();
                BusyClient(queue, number).work();
            });
        for (std::jthread& thread : threads)
            thread.join();
    }
    EXPECT_EQ(queue.jobs.size(), clients * 30U);
    for (Job* const job : queue.jobs)
        EXPECT_EQ(queue.getJob(job->guidStr), job);
}

} // namespace
