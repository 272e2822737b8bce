// The job that makes a clean transport stream of a file.
#pragma once

#include "FileNormalizer.h"
#include "Session.h"
#include "StatusMeter.h"

#include <optional>

namespace kestrel::capture {

class NormalizeSession : public Session {
public:
    explicit NormalizeSession(const SessionContext& context) : m_context(context) {}

    [[nodiscard]] MaybeFailure start() override;
    [[nodiscard]] bool over() const override { return m_work->status().over; }
    void cancel() override { m_work->cancel(); }
    void sendStatus() override;
    [[nodiscard]] Outcome end() override;

private:
    const SessionContext m_context;
    std::optional<FileNormalizer> m_work; // from start() on
    StatusMeter m_meter;
};

} // namespace kestrel::capture
