// A queue of jobs, and what is logged of it.
#pragma once

#include "foundation/Logger.h"
#include "jobs/CaptureJob.h"
#include "jobs/JobQueue.h"
#include "resources/ResourceMgr.h"

#include <gtest/gtest.h>
#include <sstream>

class JobQueueFixture : public testing::Test {
protected:
    void SetUp() override { LogUtil::GetInstance()->addStreamLogger(&log); }
    void TearDown() override {
        LogUtil::Cleanup();
        ResourceMgr::Cleanup();
    }

    CaptureManualJob* add(const char* guid) {
        CaptureManualJob* const job = queue.AddCaptureManualJob(CaptureManualJob());
        job->setGuid(guid);
        return job;
    }

    std::ostringstream log;
    JobQueue queue;
};
