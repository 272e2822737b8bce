#include "SessionControl.h"

#include "WaitTime.h"

#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <exception>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <utility>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

UniqueFd makeTimer(milliseconds period) {
    UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    const timespec time{period.count() / 1000, period.count() % 1000 * 1'000'000};
    const itimerspec spec{time, time};
    ::timerfd_settime(timer.get(), 0, &spec, nullptr);
    return timer;
}

void drainFd(int fd) {
    signalfd_siginfo bytes{};
    while (::read(fd, &bytes, sizeof bytes) > 0) {
    }
}

// Before any thread, so that all inherit the mask and the signals arrive here only.
UniqueFd takeSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    // A terminal that is closed ends a recording in order, too, unless it is to outlive it.
    struct sigaction hangup {};
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN)
        sigaddset(&set, SIGHUP);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A file at its size limit is a write error, not the end of the process.
    std::signal(SIGXFSZ, SIG_IGN);
    return UniqueFd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

Outcome broken(const std::exception& problem) {
    return {false, detailed(failure(error::startCaptureFailed), problem.what()).text};
}

// As a recording tells it that has not begun.
Outcome cancelledBefore(const CSettings& settings) {
    return {settings.cmd.jobType == CSettings::JOB_TIMED,
            "Cancelled before the recording began: nothing recorded"};
}

std::string wrongCommandLine(const std::string& mistake) {
    return detailed(failure(error::startCaptureFailed), "wrong command line: " + mistake).text;
}

} // namespace

SessionControl::SessionControl(Options options, Maker maker)
    : m_options(std::move(options)), m_maker(std::move(maker)) {}

SessionControl::~SessionControl() = default;

int SessionControl::run() noexcept {
    Outcome outcome;
    const int failed = m_options.error.empty() ? exitFailure : exitUsage;
    try {
        m_signals = takeSignals();
        LogUtil::Info(module,
                      "Capture worker starts: settings %s, write queue %s, read queue %s, encoder map %s",
                      m_options.settingsFile.c_str(), m_options.writeQueue.c_str(),
                      m_options.readQueue.c_str(), m_options.encoderMap.c_str());
        m_link.connect(m_options.writeQueue, m_options.readQueue);
        m_link.sendHeartbeat();
        // Whoever started it may see nothing but these messages.
        outcome = m_options.error.empty() ? work() : Outcome{false, wrongCommandLine(m_options.error)};
        finish(outcome, failed);
    } catch (const std::exception& problem) {
        LogUtil::Fatal(module, "Ends: %s", problem.what());
        outcome.succeeded = false;
    }
    return outcome.succeeded ? exitSuccess : failed;
}

Outcome SessionControl::work() {
    Outcome outcome;
    m_heartbeat = makeTimer(heartbeatPeriod);
    try {
        if (const MaybeFailure failed = prepare()) {
            m_session.reset();
            return m_endAsked ? cancelledBefore(m_settings) : Outcome{false, failed->text};
        }
    } catch (const std::exception& problem) {
        m_session.reset();
        return broken(problem);
    }
    std::string trouble;
    try {
        loop();
    } catch (const std::exception& problem) {
        trouble = broken(problem).text;
    }
    try {
        outcome = m_session->end();
        m_session->sendStatus();
    } catch (const std::exception& problem) {
        outcome = broken(problem);
    }
    if (!trouble.empty())
        outcome = {false, trouble + " " + outcome.text};
    return outcome;
}

MaybeFailure SessionControl::prepare() {
    if (!m_settings.LoadProfile(m_options.settingsFile.c_str()))
        return detailed(failure(error::invalidConfigurationFile), m_options.settingsFile);
    if (!m_options.encoderMap.empty())
        if (auto failed = m_map.load(m_options.encoderMap))
            return failed;
    m_map.setOverwriteAll(m_options.overwrite);
    MaybeFailure failed;
    m_session = m_maker(
        {m_options, m_settings, m_map, m_link, m_wake, [this](milliseconds time) { return pause(time); }},
        failed);
    return m_session ? m_session->start() : failed;
}

void SessionControl::loop() {
    const UniqueFd status = makeTimer(statusPeriod);
    bool cancelled = false;
    while (!m_session->over()) {
        pollfd waits[] = {{m_signals.get(), POLLIN, 0},
                          {m_link.readFd(), POLLIN, 0},
                          {m_wake.fd(), POLLIN, 0},
                          {m_heartbeat.get(), POLLIN, 0},
                          {status.get(), POLLIN, 0}};
        if (::poll(waits, std::size(waits), pollTime(m_session->deadline(), Clock::now())) < 0)
            continue;
        if (waits[2].revents) {
            m_wake.clear();
            m_session->woken();
        }
        if (waits[3].revents) {
            drainFd(m_heartbeat.get());
            m_link.sendHeartbeat();
        }
        if (waits[4].revents) {
            drainFd(status.get());
            m_session->sendStatus();
        }
        heed(waits[0].revents != 0, waits[1].revents != 0);
        for (const _VTRCmdData& answer : std::exchange(m_answers, {}))
            m_session->deckAnswer(answer);
        if (m_endAsked && !std::exchange(cancelled, true))
            m_session->cancel();
        if (const Clock::time_point now = Clock::now(); now >= m_session->deadline())
            m_session->tick(now);
    }
}

// What a session waits for in start() is bounded; what the service says meanwhile is not left lying.
bool SessionControl::pause(milliseconds time) {
    const Clock::time_point until = Clock::now() + time;
    while (!m_endAsked) {
        pollfd waits[] = {
            {m_signals.get(), POLLIN, 0}, {m_link.readFd(), POLLIN, 0}, {m_heartbeat.get(), POLLIN, 0}};
        const Clock::time_point now = Clock::now();
        if (now >= until)
            return true;
        if (::poll(waits, std::size(waits), pollTime(until, now)) < 0)
            continue;
        if (waits[2].revents) {
            drainFd(m_heartbeat.get());
            m_link.sendHeartbeat();
        }
        heed(waits[0].revents != 0, waits[1].revents != 0);
    }
    return false;
}

// Takes what asks for the end.
void SessionControl::heed(bool signalled, bool told) {
    if (signalled)
        drainFd(m_signals.get());
    const bool asked = told && handleMessages();
    if ((signalled || asked) && !std::exchange(m_endAsked, true))
        LogUtil::Info(module, "Cancelled by %s", asked ? "the service" : "a signal");
}

// Whether the cancel message was among them.
bool SessionControl::handleMessages() {
    const ServiceLink::Received received = m_link.receive();
    m_answers.insert(m_answers.end(), received.deckAnswers.begin(), received.deckAnswers.end());
    return received.cancel;
}

void SessionControl::finish(const Outcome& outcome, int failed) {
    if (outcome.succeeded)
        LogUtil::Info(module, "%s", outcome.text.c_str());
    else
        LogUtil::Error(module, "%s", outcome.text.c_str());
    m_link.sendResults(outcome.text);
    m_link.sendExit();
    LogUtil::Info(module, "Capture worker ends, exit code %d", outcome.succeeded ? exitSuccess : failed);
}

} // namespace kestrel::capture
