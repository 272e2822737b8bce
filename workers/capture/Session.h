// What a job of one kind does, as the control loop sees it.
#pragma once

#include "EncoderMap.h"
#include "Failure.h"
#include "Limits.h"
#include "Options.h"
#include "ServiceLink.h"
#include "WakeEvent.h"
#include "capture_profile/CSettings.h"

#include <functional>
#include <memory>
#include <string>

namespace kestrel::capture {

// How a job ended: the results text, and whether the exit code is 0.
struct Outcome {
    bool succeeded = false;
    std::string text;
};

// What every session has to do with. All of it outlives the session.
struct SessionContext {
    const Options& options;
    const CSettings& settings;
    const EncoderMap& map;
    ServiceLink& link;
    WakeEvent& wake; // signalled by any thread of the session to have woken() called
    // For start(): waits so long while the service is told that the job lives. False once the end has been
    // asked for; start() then fails, whatever it says.
    std::function<bool(milliseconds)> pause = {};
};

// One job from its settings to its outcome. All calls come from the control thread; work that blocks has
// threads of its own. Nothing that ends the process lies here: heartbeats, signals and the last messages are
// the control loop's.
class Session {
public:
    Session() = default;
    virtual ~Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Checks and begins the work; a failure ends the job with its text.
    [[nodiscard]] virtual MaybeFailure start() = 0;
    // Whether all is done.
    [[nodiscard]] virtual bool over() const = 0;
    // The service or the operator asks for the end. Called once.
    virtual void cancel() = 0;
    // Sends the status records; once a second, and once more after end().
    virtual void sendStatus() = 0;
    // Stops what still runs, waits for it, and tells how the job went.
    [[nodiscard]] virtual Outcome end() = 0;

    // The context's wake event was signalled.
    virtual void woken() {}
    // An answer of the deck-control process.
    virtual void deckAnswer(const _VTRCmdData&) {}
    // When tick() is to be called next.
    [[nodiscard]] virtual Clock::time_point deadline() const { return Clock::time_point::max(); }
    virtual void tick(Clock::time_point) {}
};

// The session for the settings' job type. The one place where job types meet what they run.
[[nodiscard]] std::unique_ptr<Session> makeSession(const SessionContext& context, MaybeFailure& failed);

} // namespace kestrel::capture
