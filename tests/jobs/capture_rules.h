// Jobs that are checked by their rules, and sources for those that need one.
#pragma once

#include "capture_requests.h"
#include "foundation/CapturedLog.h"
#include "foundation/ScratchDir.h"
#include "mpeg/ts_maker.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

inline constexpr const char* enc1 = "EncoderIp0=10.1.2.3";

inline std::unique_ptr<CaptureJob> makeJob(Job::JobType type) {
    switch (type) {
    case Job::CAPTURE_VTR_JOB:
        return std::make_unique<CaptureVTRJob>(1);
    case Job::CAPTURE_MANUAL_JOB:
        return std::make_unique<CaptureManualJob>(1);
    case Job::CAPTURE_TIMED_JOB:
        return std::make_unique<CaptureTimedJob>(1);
    case Job::CAPTURE_SCHEDULED_JOB:
        return std::make_unique<CaptureScheduledJob>(1);
    case Job::CAPTURE_ROLLING_JOB:
        return std::make_unique<CaptureRollingJob>(1);
    case Job::CAPTURE_MPEG_NORMALIZE_JOB:
        return std::make_unique<MpegNormalizeJob>(1);
    default:
        return std::make_unique<CaptureReencodeJob>(1, type);
    }
}

class CaptureRulesTest : public ::testing::Test {
protected:
    ~CaptureRulesTest() override { ResourceMgr::Cleanup(); }

    // A source file of that frame_rate_code; its path.
    std::string source(const char* name, int rateCode) {
        TsMaker stream;
        stream.tables({{0x02, 0x100}});
        for (int i = 0; i < 3; ++i)
            stream.pes(0x100, pesHeader(1),
                       sequenceHeader(720, 576, rateCode) + sequenceExtension(0x48) + gopHeader(0, 0, i, 0) +
                           filler(500));
        return stream.write(directory, name);
    }

    ScratchDir directory;
    CapturedLog log;
};
