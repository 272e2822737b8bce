// A capture of what the encoders send: by hand, for a duration, or rolling.
#pragma once

#include "EncoderGroup.h"
#include "Session.h"

namespace kestrel::capture {

class CaptureSession : public Session {
public:
    explicit CaptureSession(const SessionContext& context)
        : m_context(context), m_encoders(context.wake, context.pause) {}

    [[nodiscard]] MaybeFailure start() override;
    [[nodiscard]] bool over() const override { return m_encoders.over(); }
    void cancel() override { m_encoders.cancel(); }
    void woken() override { m_encoders.joinEnded(); }
    void sendStatus() override { m_encoders.sendStatus(m_context.link, Clock::now()); }
    [[nodiscard]] Outcome end() override;

private:
    const SessionContext m_context;
    EncoderGroup m_encoders;
};

} // namespace kestrel::capture
