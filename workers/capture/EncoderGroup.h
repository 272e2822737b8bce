// The encoders of one job: all begin or none, and their status, losses and results are told together.
#pragma once

#include "EncoderChannel.h"
#include "EncoderMap.h"
#include "ResultsText.h"
#include "ServiceLink.h"
#include "Session.h"
#include "StatusMeter.h"
#include "capture_profile/CSettings.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestrel::capture {

class EncoderGroup {
public:
    // See SessionContext::pause.
    using Pause = std::function<bool(milliseconds)>;

    // changed is signalled when a recording has ended. With a pause, open() waits a while for a port that
    // another recorder has.
    explicit EncoderGroup(WakeEvent& changed, Pause pause = {})
        : m_changed(changed), m_pause(std::move(pause)) {}

    // Opens a channel for each reception of the settings. plan holds what all of them share: names, output,
    // sources and locks are filled in here.
    [[nodiscard]] MaybeFailure open(const CSettings& settings, const EncoderMap& map, RecordingPlan plan,
                                    const Timing& timing = {});
    // Starts them all.
    [[nodiscard]] MaybeFailure start();
    // See EncoderChannel: for all of them.
    void arm();
    void disarm();
    // A label that a deck showed at a time; each encoder's own lag (FRAME_OFFSET_NO_VITC) is added.
    void refer(const std::string& label, Clock::time_point at);
    // Ends one recording as failed, for a reason of the job's.
    void giveUp(std::size_t index, const Failure& why);
    // Ends all recordings; what has been received until now is still written. See Recording for both.
    void cancel();
    void stop();
    // Ends the receivers of recordings that have ended, so that they take no more datagrams while others go
    // on.
    void joinEnded();
    // Waits for the end of all.
    void join();

    // Whether all recordings have ended.
    [[nodiscard]] bool over() const;
    [[nodiscard]] std::size_t size() const noexcept { return m_members.size(); }
    [[nodiscard]] RecordingStatus status(std::size_t index) const {
        return m_members[index].channel->status();
    }
    [[nodiscard]] EncoderChannel& channel(std::size_t index) { return *m_members[index].channel; }
    // The settings of a channel's reception.
    [[nodiscard]] const CSettings::EncoderReception& reception(std::size_t index) const {
        return *m_members[index].reception;
    }

    // Sends a status record of each encoder, and at once the text of one that failed while another goes on.
    void sendStatus(ServiceLink& link, Clock::time_point now);
    // All results in one text, with what was lost: failures first, and none of them cut away where the text
    // is longer than the service keeps. To be asked after join().
    [[nodiscard]] Outcome outcome() const;
    // The same in parts, for a text that says more.
    [[nodiscard]] std::vector<ResultsPart> results() const;

private:
    struct Member {
        std::unique_ptr<EncoderChannel> channel;
        const CSettings::EncoderReception* reception;
        StatusMeter meter = {};
        bool reported = false; // its failure has been sent
        MaybeFailure givenUp = {};

        [[nodiscard]] bool succeeded(const RecordingStatus& status) const noexcept {
            return status.succeeded && !givenUp;
        }
        [[nodiscard]] std::string text(const RecordingStatus& status) const;
    };

    // A channel that is to be opened.
    struct Opening {
        StreamSource source;
        RecordingPlan plan;
        const CSettings::EncoderReception* reception;
    };

    [[nodiscard]] MaybeFailure openPatiently(const std::vector<Opening>& openings, const Timing& timing);
    [[nodiscard]] MaybeFailure openAll(const std::vector<Opening>& openings, const Timing& timing,
                                       std::size_t& first, bool again);

    WakeEvent& m_changed;
    const Pause m_pause;
    bool m_portTaken = false; // why openAll() failed
    std::vector<Member> m_members;
};

} // namespace kestrel::capture
