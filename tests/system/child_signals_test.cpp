// The service learns of its children's stops and ends by a signal: it is told at once, and nothing else of it
// is disturbed.
#include "foundation/ProcessTree.h"
#include "system/verifier_requests.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <gmock/gmock.h>
#include <iterator>
#include <optional>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace kestrel::test;
using testing::HasSubstr;

namespace {

std::string manual(const std::string& guid) {
    return "CAPTURE,JOB_BEGIN," + guid + ",CAPTURE_MANUAL_JOB,Filename=/tmp/o.ts,EncoderIp=127.0.0.1";
}

// Signals of a process or thread as bits from 0 on, those that it blocks unless another field is asked for.
// Nothing when it has ended meanwhile.
std::optional<std::uint64_t> signalsIn(const std::filesystem::path& status,
                                       const std::string& field = "SigBlk") {
    std::ifstream in(status);
    for (std::string line; std::getline(in, line);)
        if (line.starts_with(field + ":"))
            return std::stoull(line.substr(field.size() + 1), nullptr, 16);
    return std::nullopt;
}

// Sends a process one signal after the other while it lives; to nobody else, should the process end.
class Flood {
public:
    Flood(pid_t process, int signal)
        : m_process(static_cast<int>(syscall(SYS_pidfd_open, process, 0))), m_thread([this, signal] {
              while (!m_end && syscall(SYS_pidfd_send_signal, m_process.get(), signal, nullptr, 0) == 0)
                  ++m_sent;
          }) {}
    ~Flood() {
        m_end = true;
        m_thread.join();
    }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    [[nodiscard]] long sent() const { return m_sent; }

private:
    kestrel::UniqueFd m_process;
    std::atomic<bool> m_end{false};
    std::atomic<long> m_sent{0};
    std::thread m_thread;
};

TEST(ChildSignals, AWorkerThatIsStoppedWhileItIsQuietIsAnError) {
    ServiceUnderTest service;
    service.setWorker("--say 7:going --wait-file " + (service.root() / "go").string());
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    ASSERT_EQ(service.ask(manual("2")), "TRUE");
    for (const char* guid : {"1", "2"})
        ASSERT_TRUE(
            eventually([&] { return service.ask(std::string("JOB_RESULTS,") + guid) == "TRUE - going"; }));
    const std::vector<pid_t> workers = service.children();
    ASSERT_EQ(workers.size(), 2U);
    for (const pid_t worker : workers)
        signalTo(worker, SIGSTOP);
    EXPECT_EQ(service.waitForState("1", "ERROR"), "TRUE - ERROR");
    EXPECT_EQ(service.waitForState("2", "ERROR"), "TRUE - ERROR");
    EXPECT_TRUE(service.waitForLog("was stopped by signal 19 (SIGSTOP)"));
}

// Nothing but SIGCHLD tells the request that waits for it.
TEST_F(VerifierRequests, ARequestWhoseVerifierIsStoppedIsNotAnsweredTrue) {
    start("--wait-file " + (service.root() / "go").string());
    const Connection waiting(service.port());
    ASSERT_TRUE(
        waiting.send(std::string("GET_MPEG_PROPERTIES,JOB_BEGIN,") + GUID + "," + file + ",VIDEO_PID"));
    ASSERT_TRUE(eventually([&] { return service.children().size() == 1; }));
    const pid_t verifier = service.children().front();
    // Stopped before it runs its program it would hold the thread that makes it.
    const auto program = [](pid_t process) {
        std::error_code ignored;
        return std::filesystem::read_symlink("/proc/" + std::to_string(process) + "/exe", ignored);
    };
    ASSERT_TRUE(eventually([&] { return program(verifier) != program(service.process().pid()); }));
    signalTo(verifier, SIGSTOP);
    EXPECT_THAT(waiting.receiveAll(20s), testing::StartsWith(NO_PROPERTY));
    signalTo(verifier, SIGKILL);
}

TEST_F(VerifierRequests, OneThreadOfTheServiceIsInterruptedBySignalsAndNoChild) {
    const std::string go = (service.root() / "go").string();
    service.set("DeckCtrl", "EXE", KESTREL_TEST_DECK);
    service.setWorker("--wait-file " + go);
    service.setVerifier("--wait-file " + go);
    service.start();
    ASSERT_EQ(service.ask(manual("1")), "TRUE");
    const Connection waiting(service.port());
    ASSERT_TRUE(
        waiting.send(std::string("GET_MPEG_PROPERTIES,JOB_BEGIN,") + GUID + "," + file + ",VIDEO_PID"));
    ASSERT_TRUE(eventually([&] { return service.children().size() == 3; }));

    const std::filesystem::path own = "/proc/" + std::to_string(service.process().pid());
    for (const int number : {SIGCHLD, SIGTERM, SIGINT, SIGHUP}) {
        int threads = 0;
        int open = 0;
        for (const auto& task : std::filesystem::directory_iterator(own / "task")) {
            const auto blocked = signalsIn(task.path() / "status");
            threads += blocked ? 1 : 0;
            open += blocked && (*blocked >> (number - 1) & 1) == 0 ? 1 : 0;
        }
        // Main, signals, incoming, deck answers, one that watches, and the connection that watches, too.
        EXPECT_GE(threads, 6);
        EXPECT_EQ(open, 1) << "threads that take signal " << number;
    }
    for (const pid_t child : service.children()) {
        const std::filesystem::path status = "/proc/" + std::to_string(child) + "/status";
        EXPECT_TRUE(eventually([&] { return signalsIn(status) == 0U; })) << status;
        EXPECT_EQ(signalsIn(status, "SigIgn"), 0U) << status;
    }
}

TEST(ChildSignals, AFloodOfThemHoldsUpNeitherWorkNorSigterm) {
    ServiceUnderTest service;
    service.setWorker("--exit 3");
    service.start();
    const Flood flood(service.process().pid(), SIGCHLD);
    for (const char* guid : {"1", "2", "3"}) {
        ASSERT_EQ(service.ask(manual(guid)), "TRUE");
        EXPECT_EQ(service.waitForState(guid, "ERROR"), "TRUE - ERROR");
    }
    EXPECT_TRUE(eventually([&] { return flood.sent() > 100'000; }));
    EXPECT_EQ(service.ask("PING_SERVICE"), "TRUE - ALIVE");
    service.process().signal(SIGTERM);
    const auto ended = service.process().wait(30s);
    ASSERT_TRUE(ended.has_value()) << "SIGTERM was not taken";
    EXPECT_TRUE(ended->exited);
    EXPECT_EQ(ended->code, 0);
    EXPECT_THAT(service.log(), HasSubstr("Signal Shutdown Complete"));
}

// Whether all threads of a process wait in the kernel at this moment, one after the other.
bool allAsleep(pid_t process) {
    const auto tasks = std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task");
    return std::all_of(begin(tasks), end(tasks), [](const auto& task) {
        std::ifstream in(task.path() / "stat");
        const std::string line{std::istreambuf_iterator<char>(in), {}};
        const std::size_t nameEnd = line.rfind(") ");
        return nameEnd != std::string::npos && line[nameEnd + 2] == 'S';
    });
}

TEST(ChildSignals, QuietJobsMakeNoWakeUps) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's own thread wakes ten times a second";
#endif
    ServiceUnderTest service;
    service.setWorker("--say 7:going --wait-file " + (service.root() / "go").string());
    service.start();
    for (const char* guid : {"1", "2", "3", "4"}) {
        ASSERT_EQ(service.ask(manual(guid)), "TRUE");
        ASSERT_TRUE(
            eventually([&] { return service.ask(std::string("JOB_RESULTS,") + guid) == "TRUE - going"; }));
    }
    // The end of one is told to the others, once.
    signalTo(service.children().front(), SIGKILL);
    ASSERT_TRUE(service.waitForLog("was ended by signal 9"));
    // The connection threads of the questions must be gone first, too.
    std::size_t threads = 0;
    ASSERT_TRUE(eventually([&] { return (threads = service.threads()) == 3 + 3; })) << threads;
    const pid_t process = service.process().pid();
    ASSERT_TRUE(eventually([&] { return allAsleep(process); })) << "a watching thread does not wait";
    const long before = timesAsleep(process);
    timespec interval{3, 0};
    nanosleep(&interval, nullptr);
    EXPECT_LE(timesAsleep(process) - before, 6);
}

} // namespace
