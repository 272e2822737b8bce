#include "CaptureSession.h"

#include "Ipv4.h"
#include "OutputNames.h"
#include "capture_profile/CSettings.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"
#include "timecode/mpeg_timecode.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

MaybeFailure readMode(const CSettings& settings, CaptureMode& mode) {
    switch (settings.cmd.jobType) {
    case CSettings::JOB_MANUAL:
        mode = CaptureMode::manual;
        return std::nullopt;
    case CSettings::JOB_TIMED:
        mode = CaptureMode::timed;
        return std::nullopt;
    case CSettings::JOB_ROLLING:
        mode = CaptureMode::rolling;
        return std::nullopt;
    default:
        return detailed(failure(error::unknownCaptureMode, settings.cmd.jobType),
                        "this worker records MANUAL, TIMED and ROLLING captures");
    }
}

// A rolling capture that does not start now starts at the next whole multiple of its segments' length since
// local midnight, so that segments begin on the hour, the quarter and so on.
Clock::time_point rollingBegin(int minutes) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    const int length = std::max(minutes, 1) * 60;
    const int sinceMidnight = local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
    const int wait = std::min(length - sinceMidnight % length, 86400 - sinceMidnight);
    return Clock::now() + std::chrono::seconds(wait);
}

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

} // namespace

CaptureSession::CaptureSession(Options options) : m_options(std::move(options)) {}

int CaptureSession::run() {
    // Before any thread, so that all inherit the mask and the signals arrive here only.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A file at its size limit is a write error, not the end of the process.
    std::signal(SIGXFSZ, SIG_IGN);
    const UniqueFd signals(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));

    LogUtil::Info(module, "Capture worker starts: settings %s, write queue %s, read queue %s, encoder map %s",
                  m_options.settingsFile.c_str(), m_options.writeQueue.c_str(), m_options.readQueue.c_str(),
                  m_options.encoderMap.c_str());
    m_link.connect(m_options.writeQueue, m_options.readQueue);
    m_link.sendHeartbeat();
    const MaybeFailure failed = prepare();
    if (!failed)
        controlLoop(signals.get());
    return finish(failed);
}

MaybeFailure CaptureSession::prepare() {
    CSettings settings;
    if (!settings.LoadProfile(m_options.settingsFile.c_str()))
        return detailed(failure(error::invalidConfigurationFile), m_options.settingsFile);
    EncoderMap map;
    if (!m_options.encoderMap.empty())
        if (auto failed = map.load(m_options.encoderMap))
            return failed;
    return addChannels(settings, map);
}

MaybeFailure CaptureSession::addChannels(const CSettings& settings, const EncoderMap& map) {
    RecordingPlan plan;
    if (auto failed = readMode(settings, plan.mode))
        return failed;
    if (settings.numEncoders < 1)
        return failure(error::noEncoder);
    // A profile with only the second reception counts one encoder, which is then that one.
    const auto& first = settings.encoders[0];
    const bool secondOnly =
        settings.numEncoders == 1 && first.ipAddress == 0 && first.port == 0 && first.snmpIpAddress == 0;
    const int begin = secondOnly ? 1 : 0;
    plan.duration = settings.cmd.duration;
    plan.rollingMinutes = settings.cmd.rollingDurationMin;
    if (plan.mode == CaptureMode::rolling && !settings.cmd.rollingStartNow) {
        plan.begin = rollingBegin(plan.rollingMinutes);
        LogUtil::Info(module, "Recording starts in %.0f s",
                      std::chrono::duration<double>(plan.begin - Clock::now()).count());
    }
    const std::string output = outputPath(
        settings.cmd.outputFile, settings.encoders[static_cast<std::size_t>(begin)].mainCaptureDirectory);
    for (int i = 0; i < settings.numEncoders && begin + i < CSettings::MAX_ENCODERS; ++i) {
        const auto& reception = settings.encoders[static_cast<std::size_t>(begin + i)];
        const StreamSource source = decideStreamSource(reception, map);
        plan.name = "Encoder " + std::to_string(i + 1);
        plan.output = output.empty() ? output : encoderPath(output, i);
        plan.overwrite = source.overwrite;
        plan.shownAddress = addressText(source.shownAddress());
        plan.shownPort = source.port;
        LogUtil::Info(module, "%s (%s): stream looked for at %s:%d, interface %s, sender %s, by %s",
                      plan.name.c_str(), addressText(reception.snmpIpAddress).c_str(),
                      addressText(source.address).c_str(), source.port,
                      addressText(source.interfaceAddress).c_str(), addressText(source.sender).c_str(),
                      source.origin.c_str());
        auto channel = std::make_unique<EncoderChannel>(source, plan, m_ended);
        if (auto failed = channel->open())
            return failed;
        m_channels.push_back(std::move(channel));
        m_lastBytes.push_back(0);
        m_reported.push_back(false);
    }
    // All or none: nothing is recorded of a job that cannot record all it was asked for.
    for (auto& channel : m_channels)
        if (auto failed = channel->start())
            return failed;
    return std::nullopt;
}

void CaptureSession::controlLoop(int signals) {
    const UniqueFd heartbeat = makeTimer(heartbeatPeriod);
    const UniqueFd status = makeTimer(statusPeriod);
    m_lastStatus = Clock::now();
    bool cancelled = false;
    for (;;) {
        const bool over = std::all_of(m_channels.begin(), m_channels.end(), [](const auto& channel) {
            return channel->status().state == RecordingState::ended;
        });
        if (over)
            return;
        pollfd waits[] = {{signals, POLLIN, 0},
                          {m_link.readFd(), POLLIN, 0},
                          {m_ended.fd(), POLLIN, 0},
                          {heartbeat.get(), POLLIN, 0},
                          {status.get(), POLLIN, 0}};
        if (::poll(waits, std::size(waits), -1) < 0)
            continue;
        if (waits[2].revents) {
            m_ended.clear();
            // A recording that has ended takes no more datagrams while the other goes on.
            for (auto& channel : m_channels)
                if (channel->status().state == RecordingState::ended)
                    channel->join();
        }
        if (waits[3].revents) {
            drainFd(heartbeat.get());
            m_link.sendHeartbeat();
        }
        if (waits[4].revents) {
            drainFd(status.get());
            sendStatus();
        }
        const bool signalled = waits[0].revents != 0;
        if (signalled)
            drainFd(signals);
        const bool asked = waits[1].revents && m_link.cancelReceived();
        if ((signalled || asked) && !cancelled) {
            cancelled = true;
            LogUtil::Info(module, "Cancelled by %s", asked ? "the service" : "a signal");
            for (auto& channel : m_channels)
                channel->cancel();
        }
    }
}

void CaptureSession::sendStatus() {
    const Clock::time_point now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - m_lastStatus).count();
    m_lastStatus = now;
    for (std::size_t i = 0; i < m_channels.size(); ++i) {
        m_channels[i]->logLosses();
        const RecordingStatus status = m_channels[i]->status();
        _CaptureJobStatusData record{};
        record.encoderIndex = static_cast<std::int32_t>(i);
        record.frames = static_cast<std::uint32_t>(status.frames);
        // Before the rate is known there is nothing to count; 25 is a code the service can print 0 with.
        record.frameRateCode =
            static_cast<std::uint32_t>(status.frameRateCode != 0 ? status.frameRateCode : 3);
        record.dropFrame = mpeg_timecode::frameRateCodeToDropFrame(static_cast<int>(record.frameRateCode));
        record.statusNumber1 =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(status.continuityErrors, UINT32_MAX));
        record.statusNumber2 = status.bytes;
        if (seconds > 0)
            record.statusNumber3 =
                static_cast<std::uint64_t>(static_cast<double>(status.bytes - m_lastBytes[i]) * 8 / seconds);
        m_lastBytes[i] = status.bytes;
        m_link.sendStatus(record);
        // While the other encoder goes on, the operator learns at once that this one does not.
        if (status.state == RecordingState::ended && !status.succeeded && !m_reported[i] &&
            m_channels.size() > 1) {
            m_reported[i] = true;
            m_link.sendResults("Encoder " + std::to_string(i + 1) + ": " + status.text);
        }
    }
}

int CaptureSession::finish(const MaybeFailure& failed) {
    bool succeeded = !failed;
    std::string text;
    if (failed) {
        text = failed->text;
        for (auto& channel : m_channels)
            channel->cancel();
    }
    for (auto& channel : m_channels)
        channel->join();
    if (!failed) {
        sendStatus();
        for (std::size_t i = 0; i < m_channels.size(); ++i) {
            const RecordingStatus status = m_channels[i]->status();
            succeeded = succeeded && status.succeeded;
            if (m_channels.size() > 1)
                text += (i ? "; Encoder " : "Encoder ") + std::to_string(i + 1) + ": ";
            text += status.text + m_channels[i]->losses();
        }
    }
    if (succeeded)
        LogUtil::Info(module, "%s", text.c_str());
    else
        LogUtil::Error(module, "%s", text.c_str());
    m_link.sendResults(text);
    m_link.sendExit();
    LogUtil::Info(module, "Capture worker ends, exit code %d", succeeded ? exitSuccess : exitFailure);
    return succeeded ? exitSuccess : exitFailure;
}

} // namespace kestrel::capture
