// The control thread of the worker, the same for every kind of job: signals, heartbeats, status, cancel, and
// the results text, exit message and exit code at the end.
#pragma once

#include "Session.h"

#include <functional>
#include <memory>
#include <vector>

namespace kestrel::capture {

inline constexpr int exitSuccess = 0;
inline constexpr int exitFailure = 1;
inline constexpr int exitUsage = 2;

class SessionControl {
public:
    // Makes the session of a job; null with a failure when there is none.
    using Maker = std::function<std::unique_ptr<Session>(const SessionContext&, MaybeFailure&)>;

    explicit SessionControl(Options options, Maker maker = &makeSession);
    ~SessionControl();

    // Runs the job to its end and keeps the service informed. Blocks SIGTERM, SIGINT and, unless it is
    // ignored, SIGHUP, which then act as the cancel message. Whatever happens on the way, be it that the
    // command line is wrong, the service gets a results text and the exit message. Returns the exit code.
    int run() noexcept;

private:
    [[nodiscard]] Outcome work();
    [[nodiscard]] MaybeFailure prepare();
    void loop();
    [[nodiscard]] bool pause(milliseconds time);
    void heed(bool signalled, bool told);
    [[nodiscard]] bool handleMessages();
    void finish(const Outcome& outcome, int failed);

    const Options m_options;
    const Maker m_maker;
    CSettings m_settings;
    EncoderMap m_map;
    ServiceLink m_link;
    WakeEvent m_wake;
    UniqueFd m_signals;
    UniqueFd m_heartbeat;
    bool m_endAsked = false;
    std::vector<_VTRCmdData> m_answers; // of the deck, that the session has not been given
    std::unique_ptr<Session> m_session;
};

} // namespace kestrel::capture
