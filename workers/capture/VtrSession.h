// A capture from tape: the deck is cued and played, and what the encoders send is recorded from mark-in to
// mark-out.
#pragma once

#include "DeckCue.h"
#include "DeckLink.h"
#include "EncoderGroup.h"
#include "Session.h"

namespace kestrel::capture {

class VtrSession : public Session {
public:
    explicit VtrSession(const SessionContext& context);

    [[nodiscard]] MaybeFailure start() override;
    [[nodiscard]] bool over() const override { return m_cue.finished() && m_encoders.over(); }
    void cancel() override;
    void sendStatus() override;
    [[nodiscard]] Outcome end() override;
    void woken() override;
    void deckAnswer(const _VTRCmdData& answer) override;
    [[nodiscard]] Clock::time_point deadline() const override;
    void tick(Clock::time_point now) override;

private:
    void advance(Clock::time_point now);
    void followEncoders(Clock::time_point now);
    void followDeck(Clock::time_point now);

    const SessionContext m_context;
    EncoderGroup m_encoders;
    DeckLink m_link;
    DeckCue m_cue;
    bool m_armed = false;
    bool m_stopped = false; // the recordings were told to end
    bool m_ended = false;
};

} // namespace kestrel::capture
