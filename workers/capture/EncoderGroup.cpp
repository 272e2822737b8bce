#include "EncoderGroup.h"

#include "Ipv4.h"
#include "OutputNames.h"
#include "StreamSource.h"
#include "UdpReceiver.h"
#include "foundation/ErrorCodes.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <cstdint>
#include <netinet/in.h>
#include <optional>

namespace kestrel::capture {
namespace {

constexpr const char* module = "Capture";

// A profile with only the second reception counts one encoder, which is then that one.
int firstReception(const CSettings& settings) {
    const auto& first = settings.encoders[0];
    const bool secondOnly =
        settings.numEncoders == 1 && first.ipAddress == 0 && first.port == 0 && first.snmpIpAddress == 0;
    return secondOnly ? 1 : 0;
}

// Whether one of them is refused where the other receives.
bool clash(const StreamSource& one, const StreamSource& other) noexcept {
    if (one.port != other.port)
        return false;
    if (one.sender != 0 && other.sender != 0)
        return one.sender == other.sender;
    const auto shares = [](const StreamSource& source) {
        return source.sender != 0 || isMulticast(source.address);
    };
    if (shares(one) && shares(other))
        return false;
    const std::uint32_t address = receivingAddress(one);
    const std::uint32_t another = receivingAddress(other);
    return address == another || address == INADDR_ANY || another == INADDR_ANY;
}

} // namespace

MaybeFailure EncoderGroup::open(const CSettings& settings, const EncoderMap& map, RecordingPlan plan,
                                const Timing& timing) {
    if (settings.numEncoders < 1)
        return failure(error::noEncoder);
    const int begin = firstReception(settings);
    const auto& main = settings.encoders[static_cast<std::size_t>(begin)];
    const std::string output = outputPath(settings.cmd.outputFile, main.mainCaptureDirectory);
    if (!output.empty())
        LogUtil::Info(module, "Output %s", absolutePath(output).c_str());
    plan.mainDirectory = main.mainCaptureDirectory;
    plan.lockDirectory = main.lockMainCaptureDirectory;
    std::vector<Opening> openings;
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
        if (source.address == 0 && source.sender == 0)
            LogUtil::Warning(module,
                             "%s: what anybody sends to UDP port %d of this host is recorded: %s names no "
                             "address",
                             plan.name.c_str(), source.port, source.origin.c_str());
        if (source.interfaceAddress != 0 && !isMulticast(source.address))
            LogUtil::Warning(module,
                             "%s: INTERFACE %s of the encoder map is ignored: its stream comes to no "
                             "multicast group",
                             plan.name.c_str(), addressText(source.interfaceAddress).c_str());
        // They would never come to terms.
        for (const Opening& other : openings)
            if (clash(other.source, source))
                return detailed(failure(error::startCaptureFailed),
                                format("%s at %s and %s at %s of this job cannot both receive on UDP port %d",
                                       other.plan.name.c_str(), other.plan.shownAddress.c_str(),
                                       plan.name.c_str(), plan.shownAddress.c_str(), source.port));
        openings.push_back({source, plan, &reception});
    }
    return openPatiently(openings, timing);
}

// The recording before may be about to end. Nobody reads what comes for the other encoders meanwhile, so
// theirs are not open as long as one is waited for.
MaybeFailure EncoderGroup::openPatiently(const std::vector<Opening>& openings, const Timing& timing) {
    const Clock::time_point until = Clock::now() + portWait;
    std::size_t first = 0;
    std::optional<std::size_t> announced;
    for (;;) {
        const bool again = announced == first;
        const MaybeFailure failed = openAll(openings, timing, first, again);
        if (!failed || !m_portTaken)
            return failed;
        if (again && announced != first)
            continue; // another one's, and who has that has not been asked
        if (!m_pause)
            return failed;
        if (announced != first)
            LogUtil::Info(module, "%s: waits up to %.0f s for its port: %s",
                          openings[first].plan.name.c_str(), std::chrono::duration<double>(portWait).count(),
                          failed->text.c_str());
        announced = first;
        if (Clock::now() >= until)
            break;
        if (!m_pause(portRetry))
            return failed;
    }
    // Who has it now may be another than at first.
    return openAll(openings, timing, first, false);
}

// Begins with that one, and tells which failed.
MaybeFailure EncoderGroup::openAll(const std::vector<Opening>& openings, const Timing& timing,
                                   std::size_t& first, bool again) {
    std::vector<Member> members(openings.size());
    for (std::size_t i = 0; i < openings.size(); ++i) {
        const std::size_t index = (first + i) % openings.size();
        const Opening& opening = openings[index];
        auto channel = std::make_unique<EncoderChannel>(opening.source, opening.plan, m_changed, timing);
        if (auto failed = channel->open(again)) {
            m_portTaken = channel->portTaken();
            first = index;
            return failed;
        }
        members[index] = {std::move(channel), opening.reception};
    }
    m_members = std::move(members);
    return std::nullopt;
}

// All or none: nothing is recorded of a job that cannot record all it was asked for.
MaybeFailure EncoderGroup::start() {
    const Clock::time_point now = Clock::now();
    for (Member& member : m_members) {
        member.meter.start(now);
        if (auto failed = member.channel->start())
            return failed;
    }
    return std::nullopt;
}

void EncoderGroup::arm() {
    for (Member& member : m_members)
        member.channel->arm();
}

void EncoderGroup::disarm() {
    for (Member& member : m_members)
        member.channel->disarm();
}

void EncoderGroup::refer(const std::string& label, Clock::time_point at) {
    for (Member& member : m_members)
        member.channel->refer({label, at, false, member.reception->frameOffsetNoVitc});
}

void EncoderGroup::giveUp(std::size_t index, const Failure& why) {
    Member& member = m_members[index];
    if (!member.givenUp)
        member.givenUp = why;
    member.channel->stop();
}

void EncoderGroup::cancel() {
    for (Member& member : m_members)
        member.channel->cancel();
}

void EncoderGroup::stop() {
    for (Member& member : m_members)
        member.channel->stop();
}

void EncoderGroup::joinEnded() {
    for (Member& member : m_members)
        if (member.channel->status().state == RecordingState::ended)
            member.channel->join();
}

void EncoderGroup::join() {
    for (Member& member : m_members)
        member.channel->join();
}

bool EncoderGroup::over() const {
    return std::all_of(m_members.begin(), m_members.end(), [](const Member& member) {
        return member.channel->status().state == RecordingState::ended;
    });
}

void EncoderGroup::sendStatus(ServiceLink& link, Clock::time_point now) {
    for (std::size_t i = 0; i < m_members.size(); ++i) {
        Member& member = m_members[i];
        member.channel->logLosses();
        const RecordingStatus status = member.channel->status();
        link.sendStatus(member.meter.record(
            i, {status.frames, status.frameRateCode, status.continuityErrors, status.bytes}, now));
        // While the other encoder goes on, the operator learns at once that this one does not.
        if (status.state == RecordingState::ended && !member.succeeded(status) && !member.reported &&
            !over()) {
            member.reported = true;
            link.sendResults("Encoder " + std::to_string(i + 1) + ": " + member.text(status));
        }
    }
}

// Why it was given up, if so, and what it recorded.
std::string EncoderGroup::Member::text(const RecordingStatus& status) const {
    if (!givenUp)
        return status.text;
    return status.frames > 0 ? givenUp->text + " " + status.text : givenUp->text;
}

std::vector<ResultsPart> EncoderGroup::results() const {
    std::vector<ResultsPart> parts;
    for (std::size_t i = 0; i < m_members.size(); ++i) {
        const Member& member = m_members[i];
        const RecordingStatus status = member.channel->status();
        std::string text = member.text(status);
        if (!member.givenUp || status.frames > 0)
            text += member.channel->losses();
        if (m_members.size() > 1)
            text.insert(0, "Encoder " + std::to_string(i + 1) + ": ");
        parts.push_back({std::move(text), !member.succeeded(status)});
    }
    std::stable_partition(parts.begin(), parts.end(), [](const ResultsPart& part) { return part.failure; });
    for (std::size_t i = 1; i < parts.size(); ++i)
        parts[i].text.insert(0, "; ");
    return parts;
}

Outcome EncoderGroup::outcome() const {
    const std::vector<ResultsPart> parts = results();
    const bool failed =
        std::any_of(parts.begin(), parts.end(), [](const ResultsPart& part) { return part.failure; });
    return {!failed, resultsText(parts)};
}

} // namespace kestrel::capture
