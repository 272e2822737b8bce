// The system's limits on what many jobs at once need.
#include "service/ServiceLimits.h"
#include "service_directories.h"

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <optional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using testing::HasSubstr;
using testing::Not;

namespace {

constexpr rlim_t DESCRIPTORS = 20'000;
constexpr rlim_t QUEUE_BYTES = 32'768'000;

struct Outcome {
    rlimit before;
    rlimit after;
    std::string log;
};

// Raises the limits in a process of its own, so that this one keeps its limits.
class ServiceLimits : public testing::Test {
protected:
    using Resource = __rlimit_resource_t;

    // prepare runs first; false from it ends the process without an outcome.
    static std::optional<Outcome> raiseInChild(Resource resource, const std::function<bool()>& prepare) {
        int pipeEnds[2];
        EXPECT_EQ(pipe(pipeEnds), 0);
        const pid_t child = fork();
        if (child == 0) {
            Outcome outcome{};
            bool good = prepare() && getrlimit(resource, &outcome.before) == 0;
            if (good) {
                const CapturedLog lines;
                kestrel::raiseServiceLimits();
                getrlimit(resource, &outcome.after);
                const std::string text = lines.text();
                good = write(pipeEnds[1], &outcome.before, sizeof(rlimit)) > 0 &&
                       write(pipeEnds[1], &outcome.after, sizeof(rlimit)) > 0 &&
                       write(pipeEnds[1], text.data(), text.size()) > 0;
            }
            _exit(good ? 0 : 1);
        }
        close(pipeEnds[1]);
        Outcome outcome{};
        bool good = read(pipeEnds[0], &outcome.before, sizeof(rlimit)) == sizeof(rlimit) &&
                    read(pipeEnds[0], &outcome.after, sizeof(rlimit)) == sizeof(rlimit);
        char buffer[1000];
        for (ssize_t count = 0; good && (count = read(pipeEnds[0], buffer, sizeof buffer)) > 0;)
            outcome.log.append(buffer, static_cast<std::size_t>(count));
        close(pipeEnds[0]);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        good = good && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        return good ? std::optional(outcome) : std::nullopt;
    }

    static bool setLimits(Resource resource, rlim_t soft, rlim_t hard) {
        const rlimit limit{soft, hard};
        return setrlimit(resource, &limit) == 0;
    }

    // Gives up the right to raise a hard limit.
    static bool becomeNobody() {
        return geteuid() != 0 || (setresgid(65534, 65534, 65534) == 0 && setresuid(65534, 65534, 65534) == 0);
    }

    static bool mayRaiseHardLimits() {
        const auto probe = raiseInChild(RLIMIT_NOFILE, [] {
            rlimit limit{};
            getrlimit(RLIMIT_NOFILE, &limit);
            return setLimits(RLIMIT_NOFILE, 300, 300) && setLimits(RLIMIT_NOFILE, 301, 301);
        });
        return probe.has_value();
    }
};

TEST_F(ServiceLimits, ASoftLimitIsRaisedAsFarAsTheHardOneAllows) {
    const auto outcome = raiseInChild(RLIMIT_NOFILE, [] {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        return setLimits(RLIMIT_NOFILE, 300, limit.rlim_max) && becomeNobody();
    });
    ASSERT_TRUE(outcome);
    EXPECT_EQ(outcome->before.rlim_cur, 300U);
    EXPECT_EQ(outcome->after.rlim_cur, std::min(outcome->before.rlim_max, DESCRIPTORS));
    EXPECT_EQ(outcome->after.rlim_max, outcome->before.rlim_max);
    const std::string got = std::to_string(outcome->after.rlim_cur);
    EXPECT_THAT(
        outcome->log,
        HasSubstr(outcome->after.rlim_cur < DESCRIPTORS
                      ? "[Manager:Warning] Limit RLIMIT_NOFILE (descriptors): wanted 20000, got " + got
                      : "[Manager:Info] Limit RLIMIT_NOFILE (descriptors): " + got + ", wanted 20000\r\n"));
}

TEST_F(ServiceLimits, AHardLimitThatMayNotBeRaisedIsKeptAndLogged) {
    const std::pair<Resource, std::string> limits[] = {
        {RLIMIT_NOFILE, "RLIMIT_NOFILE (descriptors): wanted 20000"},
        {RLIMIT_MSGQUEUE, "RLIMIT_MSGQUEUE (bytes): wanted 32768000"}};
    for (const auto& [resource, wanted] : limits) {
        const auto outcome =
            raiseInChild(resource, [r = resource] { return setLimits(r, 100, 300) && becomeNobody(); });
        ASSERT_TRUE(outcome);
        EXPECT_EQ(outcome->after.rlim_cur, 300U);
        EXPECT_EQ(outcome->after.rlim_max, 300U);
        EXPECT_THAT(outcome->log, HasSubstr("[Manager:Warning] Limit " + wanted +
                                            ", got 300: fewer jobs can run at once\r\n"));
        EXPECT_THAT(outcome->log, Not(HasSubstr("cannot be raised"))) << "one line a limit";
    }
}

TEST_F(ServiceLimits, WhoMayRaisesTheHardLimitToo) {
    if (!mayRaiseHardLimits())
        GTEST_SKIP() << "this user may not raise a hard limit";
    for (const auto& [resource, wanted] :
         {std::pair(RLIMIT_NOFILE, DESCRIPTORS), {RLIMIT_MSGQUEUE, QUEUE_BYTES}}) {
        const auto outcome = raiseInChild(resource, [r = resource] { return setLimits(r, 300, 300); });
        ASSERT_TRUE(outcome);
        EXPECT_EQ(outcome->after.rlim_cur, wanted);
        EXPECT_EQ(outcome->after.rlim_max, wanted);
    }
}

TEST_F(ServiceLimits, BothLimitsAreLoggedWithWhatIsWanted) {
    const auto outcome = raiseInChild(RLIMIT_NOFILE, [] { return true; });
    ASSERT_TRUE(outcome);
    EXPECT_THAT(outcome->log, HasSubstr("Limit RLIMIT_MSGQUEUE (bytes): "));
    EXPECT_THAT(outcome->log, HasSubstr("wanted 32768000"));
    EXPECT_THAT(outcome->log, HasSubstr("Limit RLIMIT_NOFILE (descriptors): "));
    EXPECT_THAT(outcome->log, HasSubstr("wanted 20000"));
}

TEST_F(ServiceLimits, ALimitThatIsHighEnoughIsLeftAlone) {
    const auto outcome = raiseInChild(RLIMIT_NOFILE, [] {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        const rlim_t most = std::max(limit.rlim_max, DESCRIPTORS + 1);
        return setLimits(RLIMIT_NOFILE, DESCRIPTORS + 1, most);
    });
    if (!outcome)
        GTEST_SKIP() << "this user may not have more than the service wants";
    EXPECT_EQ(outcome->after.rlim_cur, DESCRIPTORS + 1);
    EXPECT_EQ(outcome->after.rlim_max, outcome->before.rlim_max);
}

} // namespace
