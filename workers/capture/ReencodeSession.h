// A re-encode: a file is played to a decoder, and what the encoders behind it return is recorded: all of it,
// or, of a mezzanine, from mark-in to mark-out.
#pragma once

#include "EncoderGroup.h"
#include "MarkedPart.h"
#include "PlayOut.h"
#include "Session.h"
#include "SourceIndex.h"

#include <atomic>
#include <optional>
#include <thread>

namespace kestrel::capture {

class ReencodeSession : public Session {
public:
    explicit ReencodeSession(const SessionContext& context);
    ~ReencodeSession() override;

    [[nodiscard]] MaybeFailure start() override;
    [[nodiscard]] bool over() const override;
    void cancel() override;
    void woken() override;
    void sendStatus() override;
    [[nodiscard]] Outcome end() override;
    [[nodiscard]] Clock::time_point deadline() const override { return m_goAt; }
    void tick(Clock::time_point now) override { goWhenReady(now); }

private:
    void index() noexcept;
    [[nodiscard]] MaybeFailure begin();
    [[nodiscard]] MaybeFailure planPlayOut(PlayOutPlan& plan) const;
    [[nodiscard]] MaybeFailure planRecording(RecordingPlan& plan, PlayOutPlan& play);
    void planWhole(RecordingPlan& plan) const;
    void followPlayOut();
    [[nodiscard]] bool anyRecorded() const;
    void arm();
    void goWhenReady(Clock::time_point now);
    void giveUp(const Failure& why);
    [[nodiscard]] bool mezzanine() const noexcept;

    const SessionContext m_context;

    // Of the thread that reads the source, until m_indexed.
    std::thread m_indexing;
    std::atomic<bool> m_indexed{false};
    std::atomic<bool> m_cancelled{false};
    SourceIndex m_index;
    MaybeFailure m_indexFailure;

    MarkedPart m_part;
    EncoderGroup m_encoders;
    std::optional<PlayOut> m_play;
    bool m_begun = false; // the encoders are taken in and the play-out has been started
    bool m_armed = false;
    Clock::time_point m_listened{};                      // the encoders have been listened to until then
    Clock::time_point m_goAt = Clock::time_point::max(); // when the play-out is to be told its time
    bool m_told = false;                                 // the recordings know that the play-out is over
    MaybeFailure m_failure;
};

} // namespace kestrel::capture
