// Many jobs, one after another and at once: right states, nothing left over.
#include "system/service_under_test.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mqueue.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace kestrel::test;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

std::string manual(int number) {
    char guid[33];
    std::snprintf(guid, sizeof guid, "%032d", number);
    return std::string("CAPTURE,JOB_BEGIN,") + guid +
           ",CAPTURE_MANUAL_JOB,Filename=/tmp/o.ts,EncoderIp=127.0.0.1";
}

std::string guidOf(int number) {
    char guid[33];
    std::snprintf(guid, sizeof guid, "%032d", number);
    return guid;
}

long residentKilobytes(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            return std::stol(line.substr(6));
    return 0;
}

// Sanitizers make processes slow and keep freed memory, so the count is smaller and memory is not judged.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int ONE_AFTER_ANOTHER = 100;
constexpr bool JUDGE_MEMORY = false;
#else
constexpr int ONE_AFTER_ANOTHER = 1'000;
constexpr bool JUDGE_MEMORY = true;
#endif

TEST(ManyJobs, AThousandOneAfterAnotherEndCompleteAndLeaveNothingOver) {
    ServiceUnderTest service;
    service.set("Logging", "LOG_LEVEL", "3");
    service.setWorker("--say 7:ok");
    service.start();
    // The first few jobs warm the allocator up.
    constexpr int WARM_UP = 20;
    std::size_t descriptors = 0;
    std::size_t threads = 0;
    long memory = 0;
    for (int i = 0; i < ONE_AFTER_ANOTHER; ++i) {
        ASSERT_EQ(service.ask(manual(i)), "TRUE") << i;
        ASSERT_EQ(service.waitForState(guidOf(i), "COMPLETE"), "TRUE - COMPLETE") << i;
        if (i + 1 == WARM_UP) {
            ASSERT_TRUE(eventually([] { return messageQueues().empty(); }));
            descriptors = service.descriptors();
            threads = service.threads();
            memory = residentKilobytes(service.process().pid());
        }
    }
    EXPECT_TRUE(eventually([] { return messageQueues().empty(); }));
    EXPECT_TRUE(
        eventually([&] { return service.descriptors() <= descriptors && service.threads() <= threads; }));
    EXPECT_THAT(service.children(), IsEmpty());
    if (JUDGE_MEMORY) {
        // A job record is about 4 kB; 8 kB a job allows for allocator overhead and finds a leaked buffer.
        const long grown = residentKilobytes(service.process().pid()) - memory;
        EXPECT_LT(grown, 8L * ONE_AFTER_ANOTHER) << "kB";
    }
}

// What the kernel counts for a queue against RLIMIT_MSGQUEUE: its messages, and 96 bytes to keep track of
// each.
rlim_t countedBytes(const std::string& queue) {
    const mqd_t descriptor = mq_open(("/" + queue).c_str(), O_RDONLY | O_CLOEXEC);
    mq_attr attributes{};
    EXPECT_EQ(mq_getattr(descriptor, &attributes), 0) << queue;
    mq_close(descriptor);
    return static_cast<rlim_t>(attributes.mq_maxmsg) * (static_cast<rlim_t>(attributes.mq_msgsize) + 96);
}

// That many jobs at once, whose queues fit into that many bytes.
void runAtOnce(int count, rlim_t queueBytes, const std::string& preparation = {}) {
    ServiceUnderTest service;
    const std::string go = service.root() / "go";
    service.setWorker("--wait-file " + go + " --say 7:ok");
    service.start(preparation);
    // The first job warms up what stays open.
    std::ofstream(go) << "go";
    ASSERT_EQ(service.ask(manual(count)), "TRUE");
    ASSERT_EQ(service.waitForState(guidOf(count), "COMPLETE"), "TRUE - COMPLETE");
    std::filesystem::remove(go);
    ASSERT_TRUE(eventually([] { return messageQueues().empty(); }));
    const std::size_t descriptors = service.descriptors();
    const std::size_t threads = service.threads();
    for (int i = 0; i < count; ++i) {
        const std::string answer = service.ask(manual(i));
        rlim_t bytes = 0;
        for (const std::string& queue : messageQueues())
            bytes += countedBytes(queue);
        ASSERT_LE(bytes, queueBytes) << i;
        // The limit is the user's, who may have more queues than those that are seen here.
        if (preparation.empty() && answer.find("RLIMIT_MSGQUEUE") != std::string::npos)
            GTEST_SKIP() << "other processes of this user hold the bytes that job " << i
                         << " needs: " << answer;
        ASSERT_EQ(answer, "TRUE") << i;
    }
    EXPECT_EQ(service.children().size(), static_cast<std::size_t>(count));
    EXPECT_EQ(messageQueues().size(), 2 * static_cast<std::size_t>(count));
    std::ofstream(go) << "go";
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(service.waitForState(guidOf(i), "COMPLETE", 60s), "TRUE - COMPLETE") << i;
        EXPECT_EQ(service.ask("JOB_RESULTS," + guidOf(i)), "TRUE - ok");
    }
    EXPECT_TRUE(eventually([] { return messageQueues().empty(); }));
    EXPECT_TRUE(eventually([&] { return service.children().empty(); }));
    EXPECT_TRUE(
        eventually([&] { return service.descriptors() <= descriptors && service.threads() <= threads; }));
}

bool mayBeOtherUsers() {
    constexpr uid_t KEPT = static_cast<uid_t>(-1);
    const uid_t user = getuid();
    // Of this thread alone, unlike the library's call.
    return syscall(SYS_setresuid, uid_t{100'000}, KEPT, KEPT) == 0 &&
           syscall(SYS_setresuid, user, KEPT, KEPT) == 0;
}

TEST(ManyJobs, ThirtyAtOnceRunWithinTheUsualLimits) {
    constexpr rlim_t USUAL_QUEUE_BYTES = 819'200;
    runAtOnce(30, USUAL_QUEUE_BYTES);
}

TEST(ManyJobs, AHundredAtOnceRunWhereTheLimitOnQueuesCanBeRaised) {
    const rlimit enough{4'000'000, 4'000'000};
    rlimit queues{};
    ASSERT_EQ(getrlimit(RLIMIT_MSGQUEUE, &queues), 0);
    if (queues.rlim_max >= enough.rlim_max || setrlimit(RLIMIT_MSGQUEUE, &enough) == 0)
        return runAtOnce(100, enough.rlim_max);
    // The limit is each user's: where it may not be raised, many users have enough.
    if (!mayBeOtherUsers())
        GTEST_SKIP() << "RLIMIT_MSGQUEUE is " << queues.rlim_max
                     << " bytes and may not be raised here, nor may queues be made as other users";
    runAtOnce(
        100, enough.rlim_max,
        "export ASAN_OPTIONS=\"$ASAN_OPTIONS:verify_asan_link_order=0\" LD_PRELOAD='" KESTREL_QUEUE_SHARES
        "'");
}

TEST(ManyJobs, WhenAQueueCannotBeMadeTheClientReadsWhichLimitWasMet) {
    ServiceUnderTest service;
    const std::string go = service.root() / "go";
    service.setWorker("--wait-file " + go);
    service.start();
    // Taken from outside while the service runs: room for one queue more, and no right to more.
    rlimit tight{12'000, 12'000};
    ASSERT_EQ(prlimit(service.process().pid(), RLIMIT_MSGQUEUE, &tight, nullptr), 0);
    const std::string answer = service.ask(manual(0));
    EXPECT_THAT(answer, testing::StartsWith("FALSE - Error: Could not create queue /"));
    EXPECT_THAT(answer, HasSubstr("limit"));
    // The launcher leaves the state of a job that it could not start; the results tell.
    EXPECT_EQ(service.ask("JOB_STATUS," + guidOf(0)), "TRUE - IN_PROGRESS");
    EXPECT_THAT(service.ask("JOB_RESULTS," + guidOf(0)), HasSubstr("Could not create queue"));
    EXPECT_THAT(service.children(), IsEmpty());
    EXPECT_TRUE(service.waitForLog("Could not create queue"));
}

} // namespace
