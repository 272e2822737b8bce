#include "EncoderChannel.h"

#include "CountedNoun.h"
#include "Ipv4.h"
#include "WaitTime.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <exception>
#include <poll.h>
#include <system_error>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";
// For the receiver to look; it takes some milliseconds unless it has ended meanwhile.
constexpr int lookTimeMs = 100;

} // namespace

EncoderChannel::EncoderChannel(const StreamSource& source, RecordingPlan plan, WakeEvent& turned,
                               const Timing& timing, std::size_t ring)
    : m_name(plan.name), m_sender(source.sender), m_ring(ring), m_turned(turned),
      m_receiver(source, m_ring, m_arrived), m_recording(std::move(plan), timing, Clock::now()) {
    // While the file is closed the port is free already for the recorder that comes next.
    m_recording.whenOver([this] { m_receiver.stop(); });
}

EncoderChannel::~EncoderChannel() {
    cancel();
    join();
}

MaybeFailure EncoderChannel::open(bool again) {
    if (auto failed = m_recording.prepare())
        return failed;
    if (auto failed = m_receiver.open(again))
        return failed;
    LogUtil::Info(module, "%s: receive buffer %d of %d bytes asked for, ring %zu packets", m_name.c_str(),
                  m_receiver.bufferBytes(), socketBufferBytes, m_ring.capacity());
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
    endNow(End::cancelled);
}

void EncoderChannel::stop() {
    endNow(End::stopped);
}

void EncoderChannel::endNow(End how) {
    m_receiver.stop();
    End none = End::none;
    m_end.compare_exchange_strong(none, how, std::memory_order_acq_rel);
    m_arrived.signal();
}

void EncoderChannel::arm() {
    order([](Recording& recording) { recording.arm(Clock::now()); });
}

void EncoderChannel::disarm() {
    order([](Recording& recording) { recording.disarm(); });
}

void EncoderChannel::refer(LabelReference reference) {
    order([told = std::move(reference)](Recording& recording) { recording.refer(told); });
}

void EncoderChannel::sourceBegins(LabelReference begin) {
    order([told = std::move(begin)](Recording& recording) { recording.sourceBegins(told); });
}

void EncoderChannel::sourceEnded() {
    order([](Recording& recording) { recording.sourceEnded(Clock::now()); });
}

void EncoderChannel::order(std::function<void(Recording&)> what) {
    {
        const MutexLock lock(m_mutex);
        m_orders.push_back(std::move(what));
    }
    m_arrived.signal();
}

void EncoderChannel::carryOut() {
    std::vector<std::function<void(Recording&)>> orders;
    {
        const MutexLock lock(m_mutex);
        orders.swap(m_orders);
    }
    for (const auto& what : orders)
        what(m_recording);
}

void EncoderChannel::join() {
    m_receiver.stop();
    if (m_writer.joinable())
        m_writer.join();
}

void EncoderChannel::write() noexcept {
    try {
        while (m_recording.state() != RecordingState::ended) {
            // First of all: what is signalled from here on ends the wait below.
            m_arrived.clear();
            // Read before the ring is emptied: what came before the end is written.
            const End end = m_end.load(std::memory_order_acquire);
            // Likewise: what had been lost by then lies before all packets that come after those in the ring.
            const Losses losses = currentLosses();
            carryOut();
            // Likewise: what came before is in the ring.
            // Once it is to end nobody listens any more, which is no silence of the stream.
            const Clock::time_point seen =
                end == End::none ? m_receiver.seenUntil() : m_receiver.lookedUntil();
            while (m_recording.state() != RecordingState::ended && takePortion())
                attend();
            // Nor is what was lost on this side, behind which nothing may have come yet.
            if (const Clock::time_point lost = m_receiver.lastLoss(); lost > m_lastArrival)
                m_recording.heard(std::min(lost, seen));
            tickAt(seen);
            attend();
            if (end == End::cancelled)
                m_recording.cancel(Clock::now());
            else if (end == End::stopped)
                m_recording.stop(Clock::now());
            if (end != End::none)
                publish();
            if (m_recording.state() == RecordingState::ended)
                break;
            if (m_recording.state() == RecordingState::waiting && !m_recording.holds())
                noteLossesBefore(losses);
            const Clock::time_point now = Clock::now();
            const Clock::time_point due = m_recording.deadline();
            // That nothing came until then is only known once the receiver has looked, which it tells; one
            // that has ended has seen all there is.
            if (due <= now)
                m_receiver.look();
            pollfd wait{m_arrived.fd(), POLLIN, 0};
            ::poll(&wait, 1, due <= now ? lookTimeMs : pollTime(due, now));
        }
    } catch (const std::exception& problem) {
        LogUtil::Fatal(module, "%s: %s", m_name.c_str(), problem.what());
        m_recording.fail(Failure{error::startCaptureFailed, std::string("Error: ") + problem.what()});
        publish();
    }
    m_turned.signal();
}

// Gives the recording the oldest packets of the ring, in portions, so that the ring is given back while it is
// worked on. Its time is theirs: how long a write to the disk took, or how long this process did not run, is
// no silence of the stream. False when there are none.
bool EncoderChannel::takePortion() {
    const PacketRing::Portion portion = m_ring.portion(portionPackets);
    if (portion.packets.empty())
        return false;
    if (!m_received) {
        m_received = true;
        LogUtil::Info(module, "%s: first packet, from %s%s", m_name.c_str(),
                      addressText(m_receiver.counts().firstSender).c_str(),
                      m_receiver.counts().rtp ? ", in RTP" : "");
    }
    noteDelay(portion.first);
    // What was lost on this side came all the same.
    if (portion.afterLoss)
        m_recording.heard(portion.first);
    m_lastArrival = portion.last;
    tickAt(portion.first);
    m_recording.take(portion.packets, portion.last);
    m_ring.consume(portion.packets.size());
    return true;
}

void EncoderChannel::noteDelay(Clock::time_point arrived) {
    const Clock::duration delay = Clock::now() - arrived;
    if (!m_late && delay >= lateTime)
        LogUtil::Warning(module, "%s: %.1f s behind the stream: the disk or this host stalls", m_name.c_str(),
                         std::chrono::duration<double>(delay).count());
    else if (m_late && delay < gatherTime + writeDelay)
        LogUtil::Info(module, "%s: no longer behind the stream", m_name.c_str());
    else
        return;
    m_late = !m_late;
}

// What is due at a time until which all that came has been taken.
void EncoderChannel::tickAt(Clock::time_point time) {
    if (m_recording.state() != RecordingState::ended && time >= m_recording.deadline())
        m_recording.tick(time);
}

// What is due besides packets, however many of these wait: orders, and the status that others see.
void EncoderChannel::attend() {
    carryOut();
    publish();
}

void EncoderChannel::publish() {
    RecordingStatus status = m_recording.status();
    const auto turned = [&status](const RecordingStatus& before) {
        return status.state != before.state || status.passedMarkIn != before.passedMarkIn ||
               status.markOutReached != before.markOutReached || status.pointHeld != before.pointHeld ||
               status.pictures != before.pictures;
    };
    bool wake = false;
    {
        const MutexLock lock(m_mutex);
        wake = turned(m_status);
        m_status = std::move(status);
    }
    if (wake)
        m_turned.signal();
}

void EncoderChannel::noteLossesBefore(const Losses& losses) {
    const MutexLock lock(m_mutex);
    m_atStart = losses;
}

RecordingStatus EncoderChannel::status() const {
    const MutexLock lock(m_mutex);
    return m_status;
}

EncoderChannel::Losses EncoderChannel::currentLosses() const {
    const ReceiverCounts& counts = m_receiver.counts();
    return {counts.kernelDrops, counts.overflow,     counts.rtpLost,      counts.rtpLate,
            counts.rtpRestarts, counts.badDatagrams, counts.cutDatagrams, counts.badPackets};
}

std::string EncoderChannel::losses() const {
    const Losses now = currentLosses();
    Losses before;
    bool nothing = false;
    {
        const MutexLock lock(m_mutex);
        before = m_atStart;
        nothing = m_status.frames == 0 && m_status.bytes == 0;
    }
    // Then they are the reason rather than a loss.
    if (nothing)
        before.badDatagrams = before.cutDatagrams = before.badPackets = 0;
    std::string text;
    if (now.kernel > before.kernel)
        text += ", " + counted(now.kernel - before.kernel, "datagram") + " lost in the receive buffer";
    if (now.ring > before.ring)
        text += ", " + counted(now.ring - before.ring, "packet") + " lost in the ring";
    if (now.rtp > before.rtp)
        text += ", " + counted(now.rtp - before.rtp, "RTP datagram") + " missing";
    if (const std::uint64_t bad = now.badDatagrams - before.badDatagrams; bad > 0)
        text += ", " + counted(bad, "datagram") + (bad == 1 ? " was" : " were") + " no transport stream";
    if (now.cutDatagrams > before.cutDatagrams)
        text += ", " + counted(now.cutDatagrams - before.cutDatagrams, "datagram") +
                " held more than whole packets";
    if (now.badPackets > before.badPackets)
        text += ", " + counted(now.badPackets - before.badPackets, "packet") + " without a sync byte";
    return nothing ? text + others() : text;
}

// Who sent, where the encoder that was listened to did not.
std::string EncoderChannel::others() const {
    const std::uint32_t sender = m_receiver.counts().otherSender;
    if (sender == 0 || m_receiver.counts().datagrams != 0)
        return "";
    std::string text = ", datagrams came from " + addressText(sender);
    return text.append(sender == m_sender ? " to another address of this host" : " instead");
}

// "1472 bytes", or "20 to 1472 bytes".
std::string EncoderChannel::badSizes() const {
    const std::size_t least = m_receiver.counts().smallestBad;
    const std::size_t most = m_receiver.counts().largestBad;
    return (least < most ? std::to_string(least) + " to " : std::string()) + counted(most, "byte");
}

// What came that is no transport stream, and where its size tells, why.
void EncoderChannel::logBad(const Losses& now) const {
    const std::string sizes = badSizes();
    const bool odd = m_receiver.counts().largestBad % packetSize != 0;
    if (const std::uint64_t bad = now.badDatagrams - m_logged.badDatagrams; bad > 0)
        LogUtil::Error(module, "%s: %s of %s%s %s no transport stream", m_name.c_str(),
                       counted(bad, "datagram").c_str(), sizes.c_str(), odd ? ", not a multiple of 188," : "",
                       bad == 1 ? "is" : "are");
    if (const std::uint64_t cut = now.cutDatagrams - m_logged.cutDatagrams; cut > 0)
        LogUtil::Error(module, "%s: %s of %s%s %s with less than a packet, which is left out", m_name.c_str(),
                       counted(cut, "datagram").c_str(), sizes.c_str(), odd ? ", not a multiple of 188," : "",
                       cut == 1 ? "ends" : "end");
    if (const std::uint64_t bad = now.badPackets - m_logged.badPackets; bad > 0)
        LogUtil::Error(module, "%s: %s without a sync byte %s left out", m_name.c_str(),
                       counted(bad, "packet").c_str(), bad == 1 ? "is" : "are");
}

void EncoderChannel::logLosses() {
    const Losses now = currentLosses();
    const auto report = [this](std::uint64_t count, std::uint64_t before, const char* noun,
                               const char* what) {
        if (count > before)
            LogUtil::Error(module, "%s: %s %s", m_name.c_str(), counted(count - before, noun).c_str(), what);
    };
    report(now.kernel, m_logged.kernel, "datagram", "lost in the receive buffer");
    report(now.ring, m_logged.ring, "packet", "lost: the ring was full");
    report(now.rtp, m_logged.rtp, "RTP datagram", "missing by their sequence numbers");
    report(now.late, m_logged.late, "RTP datagram", "late by their sequence numbers");
    logBad(now);
    if (now.restarts > m_logged.restarts)
        LogUtil::Warning(module, "%s: the RTP sequence began anew, %s", m_name.c_str(),
                         counted(now.restarts - m_logged.restarts, "time").c_str());
    m_logged = now;
}

} // namespace kestrel::capture
