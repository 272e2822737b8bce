// Whole-program benchmarks of the service, each paired in the same run with what it is judged by.
//   kestrel_service_bench [idle] [watch] [requests] [lookup] [jobs]      (default: all)
#include "figures.h"
#include "job_bench.h"
#include "system/isolation.h"
#include "system/service_under_test.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <thread>

using namespace kestrel::bench;
using namespace kestrel::test;

namespace {

constexpr int ROUNDS = 7;

void sleepFor(double seconds) {
    timespec pause{static_cast<time_t>(seconds),
                   static_cast<long>((seconds - static_cast<double>(static_cast<time_t>(seconds))) * 1e9)};
    nanosleep(&pause, nullptr);
}

std::string manual(int number) {
    char line[200];
    std::snprintf(line, sizeof line,
                  "CAPTURE,JOB_BEGIN,%032d,CAPTURE_MANUAL_JOB,Filename=/tmp/o.ts,EncoderIp=127.0.0.1",
                  number);
    return line;
}

std::string statusLine(int number) {
    char line[100];
    std::snprintf(line, sizeof line, "JOB_STATUS,%032d", number);
    return line;
}

void observe(const char* name, const ServiceUnderTest& service, pid_t pid, double seconds, const char* bar) {
    static_cast<void>(service);
    const Usage before = usageOf(pid);
    sleepFor(seconds);
    const Usage after = usageOf(pid);
    std::printf("%-28s %8.4f %% of a core, %6.2f voluntary switches a second over %.0f s   (bar: %s)\n", name,
                100 * (after.cpuSeconds - before.cpuSeconds) / seconds,
                static_cast<double>(after.voluntarySwitches - before.voluntarySwitches) / seconds, seconds,
                bar);
}

void idle() {
    ServiceUnderTest service;
    service.set("Logging", "LOG_LEVEL", "1");
    service.start();
    sleepFor(1);
    observe("idle service", service, service.process().pid(), 20, "0.02 %, 2 a second");
}

void watch() {
    ServiceUnderTest service;
    service.set("Logging", "LOG_LEVEL", "1");
    const std::string go = service.root() / "go";
    service.setWorker("--wait-cancel");
    service.start();
    for (int i = 0; i < 30; ++i)
        if (service.ask(manual(i)) != "TRUE")
            std::printf("job %d was refused\n", i);
    sleepFor(1);
    observe("30 quiet jobs", service, service.process().pid(), 20, "0.5 %");
}

// Requests a second on a new connection each.
double requestsPerSecond(int port, int clients, int requestsEach) {
    std::atomic<int> failures{0};
    const double seconds = timed([&] {
        std::vector<std::jthread> threads;
        for (int c = 0; c < clients; ++c)
            threads.emplace_back([&] {
                for (int i = 0; i < requestsEach; ++i) {
                    const Connection connection(port);
                    if (!connection.connected() || !connection.send("PING_SERVICE") ||
                        connection.receiveAll(10s) != "TRUE - ALIVE\n")
                        ++failures;
                }
            });
    });
    if (failures > 0)
        std::printf("%d requests failed\n", failures.load());
    return clients * requestsEach / seconds;
}

void requests() {
    for (const int clients : {1, 5}) {
        ServiceUnderTest service;
        service.set("Logging", "LOG_LEVEL", "1");
        service.start();
        const int barePort = freePort();
        Child bare({KESTREL_BARE_SERVER, std::to_string(barePort), service.root() / "bare.log"});
        eventually([&] { return Connection(barePort).connected(); });
        const int each = 2000 / clients;
        requestsPerSecond(service.port(), clients, each / 4);
        requestsPerSecond(barePort, clients, each / 4);
        std::vector<double> ours;
        std::vector<double> theirs;
        std::vector<double> ratios;
        for (int round = 0; round < ROUNDS; ++round) {
            ours.push_back(requestsPerSecond(service.port(), clients, each));
            theirs.push_back(requestsPerSecond(barePort, clients, each));
            ratios.push_back(ours.back() / theirs.back());
        }
        std::printf(
            "%d client(s)                  %8.0f requests/s, bare server %8.0f, ratio %.3f   (bar: 0.9)\n",
            clients, median(ours), median(theirs), median(ratios));
    }
}

double secondsOf(const ServiceUnderTest& service, const std::string& line, int count) {
    return timed([&] {
        for (int i = 0; i < count; ++i)
            service.ask(line);
    });
}

void lookup() {
    constexpr int JOBS = 5000;
    ServiceUnderTest service;
    service.set("Logging", "LOG_LEVEL", "1");
    service.start();
    for (int i = 0; i < JOBS; ++i)
        // A worker's queues must be gone before the limit on them is met.
        while (service.ask(manual(i)) != "TRUE")
            sleepFor(0.01);
    service.waitForState(statusLine(JOBS - 1).substr(11), "COMPLETE");
    std::vector<double> ratios;
    for (int round = 0; round < 3 * ROUNDS; ++round) {
        const double ping = secondsOf(service, "PING_SERVICE", 300);
        const double status = secondsOf(service, statusLine(JOBS - 1), 300);
        ratios.push_back(status / ping);
    }
    std::printf("JOB_STATUS behind %d jobs   %8.3f of PING_SERVICE   (bar: 1.25)\n", JOBS, median(ratios));
}

} // namespace

int main(int argc, char** argv) {
    isolateHostNames();
    const std::vector<std::pair<std::string, std::function<void()>>> all = {
        {"idle", idle},     {"watch", watch}, {"requests", requests},
        {"lookup", lookup}, {"jobs", jobs},   {"ends", ends},
    };
    for (const auto& [name, run] : all) {
        bool wanted = argc < 2;
        for (int i = 1; i < argc; ++i)
            wanted = wanted || name == argv[i];
        if (wanted)
            run();
        std::fflush(stdout);
    }
    return 0;
}
