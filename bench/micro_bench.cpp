// What is done often, by itself.
#include "foundation/Logger.h"
#include "foundation/StringUtil.h"
#include "jobs/CaptureJob.h"
#include "jobs/JobQueue.h"
#include "mpeg/mpeg.h"

#include <benchmark/benchmark.h>
#include <cstdio>

namespace {

// A message below the configured level: no lock, no formatting.
void filteredLogCall(benchmark::State& state) {
    LogUtil::GetInstance()->setDefaultLogLevel(3);
    for ([[maybe_unused]] auto _ : state)
        LogUtil::Debug("Manager", "a text with a number %d", 42);
}
BENCHMARK(filteredLogCall)->ThreadRange(1, 2);

void splitRequestLine(benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(kestrel::splitArguments(
            "CAPTURE,JOB_BEGIN,0123456789abcdef0123456789abcdef,CAPTURE_TIMED_JOB,Filename=/media/a.ts,"
            "EncoderIp=10.1.2.3,Duration=00:10:00:00",
            ","));
}
BENCHMARK(splitRequestLine);

void findJobByGuid(benchmark::State& state) {
    JobQueue queue;
    char guid[33] = "";
    for (int i = 0; i < state.range(0); ++i) {
        std::snprintf(guid, sizeof guid, "%032d", i);
        CaptureManualJob job;
        queue.AddCaptureManualJob(job)->setGuid(guid);
    }
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(queue.getJob(guid));
}
BENCHMARK(findJobByGuid)->Arg(1)->Arg(5'000);

void checkContinuity(benchmark::State& state) {
    continuity_nazi checker;
    unsigned char packet[188] = {0x47, 0x01, 0x00, 0x10};
    for ([[maybe_unused]] auto _ : state) {
        packet[3] = static_cast<unsigned char>(0x10 | ((packet[3] + 1) & 0x0F));
        benchmark::DoNotOptimize(checker.packetIsCool(packet, false));
    }
}
BENCHMARK(checkContinuity);

} // namespace
