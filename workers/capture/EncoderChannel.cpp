#include "EncoderChannel.h"

#include "Ipv4.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <cinttypes>
#include <exception>
#include <poll.h>
#include <system_error>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

// Milliseconds until a time, for poll(2): rounded up, -1 for never.
int pollTime(Clock::time_point until, Clock::time_point now) {
    if (until == Clock::time_point::max())
        return -1;
    const auto left = std::chrono::ceil<milliseconds>(until - now).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000));
}

} // namespace

EncoderChannel::EncoderChannel(const StreamSource& source, RecordingPlan plan, WakeEvent& ended,
                               const Timing& timing)
    : m_name(plan.name), m_ring(ringPackets), m_ended(ended), m_receiver(source, m_ring, m_arrived),
      m_recording(std::move(plan), timing, Clock::now()) {}

EncoderChannel::~EncoderChannel() {
    cancel();
    join();
}

MaybeFailure EncoderChannel::open() {
    if (auto failed = m_recording.prepare())
        return failed;
    if (auto failed = m_receiver.open())
        return failed;
    LogUtil::Info(module, "%s: receive buffer %d bytes, ring %zu packets", m_name.c_str(),
                  m_receiver.bufferBytes(), m_ring.capacity());
    return std::nullopt;
}

MaybeFailure EncoderChannel::start() {
    if (auto failed = m_receiver.start())
        return failed;
    try {
        m_writer = std::thread([this] { write(); });
    } catch (const std::system_error&) {
        m_receiver.stop();
        return failure(error::captureThreadNotLaunched);
    }
    return std::nullopt;
}

void EncoderChannel::cancel() {
    m_receiver.stop();
    m_cancel.store(true, std::memory_order_release);
    m_arrived.signal();
}

void EncoderChannel::join() {
    m_receiver.stop();
    if (m_writer.joinable())
        m_writer.join();
}

void EncoderChannel::write() noexcept {
    try {
        bool first = true;
        while (m_recording.state() != RecordingState::ended) {
            // Read before the ring is emptied: what came before a cancel is written.
            const bool cancelled = m_cancel.load(std::memory_order_acquire);
            m_arrived.clear();
            for (auto packets = m_ring.readable();
                 !packets.empty() && m_recording.state() != RecordingState::ended;
                 packets = m_ring.readable()) {
                if (first) {
                    first = false;
                    LogUtil::Info(module, "%s: first packet, from %s%s", m_name.c_str(),
                                  addressText(m_receiver.counts().firstSender).c_str(),
                                  m_receiver.counts().rtp ? ", in RTP" : "");
                }
                // In portions, so that the ring is given back while it is worked on.
                packets = packets.first(std::min<std::size_t>(packets.size(), 1024));
                m_recording.take(packets, Clock::now());
                m_ring.consume(packets.size());
            }
            const Clock::time_point now = Clock::now();
            if (cancelled)
                m_recording.cancel(now);
            else if (now >= m_recording.deadline())
                m_recording.tick(now);
            publish();
            if (m_recording.state() == RecordingState::ended)
                break;
            pollfd wait{m_arrived.fd(), POLLIN, 0};
            ::poll(&wait, 1, pollTime(m_recording.deadline(), Clock::now()));
        }
    } catch (const std::exception& problem) {
        LogUtil::Fatal(module, "%s: %s", m_name.c_str(), problem.what());
        m_recording.fail(Failure{error::startCaptureFailed, std::string("Error: ") + problem.what()});
        publish();
    }
    m_ended.signal();
}

void EncoderChannel::publish() {
    RecordingStatus status = m_recording.status();
    const MutexLock lock(m_mutex);
    if (m_status.state == RecordingState::waiting)
        m_atStart = currentLosses();
    m_status = std::move(status);
}

RecordingStatus EncoderChannel::status() const {
    const MutexLock lock(m_mutex);
    return m_status;
}

EncoderChannel::Losses EncoderChannel::currentLosses() const {
    const ReceiverCounts& counts = m_receiver.counts();
    return {counts.kernelDrops, counts.overflow, counts.rtpLost, counts.rtpLate,
            counts.badDatagrams + counts.badPackets};
}

std::string EncoderChannel::losses() const {
    const Losses now = currentLosses();
    Losses before;
    {
        const MutexLock lock(m_mutex);
        before = m_atStart;
    }
    std::string text;
    if (now.kernel > before.kernel)
        text += format(", %" PRIu64 " datagrams lost in the receive buffer", now.kernel - before.kernel);
    if (now.ring > before.ring)
        text += format(", %" PRIu64 " packets lost in the ring", now.ring - before.ring);
    if (now.rtp > before.rtp)
        text += format(", %" PRIu64 " RTP datagrams missing", now.rtp - before.rtp);
    return text;
}

void EncoderChannel::logLosses() {
    const Losses now = currentLosses();
    const auto report = [this](std::uint64_t count, std::uint64_t before, const char* what) {
        if (count > before)
            LogUtil::Error(module, "%s: %" PRIu64 " %s", m_name.c_str(), count - before, what);
    };
    report(now.kernel, m_logged.kernel, "datagrams lost in the receive buffer");
    report(now.ring, m_logged.ring, "packets lost: the ring was full");
    report(now.rtp, m_logged.rtp, "RTP datagrams missing by their sequence numbers");
    report(now.late, m_logged.late, "RTP datagrams late by their sequence numbers");
    report(now.bad, m_logged.bad, "datagrams or packets that are no transport stream");
    m_logged = now;
}

} // namespace kestrel::capture
