// One deck as the worker reaches it: commands go to the service as messages, which passes them on to the
// deck-control process and brings the answers back.
#pragma once

#include "Failure.h"
#include "Limits.h"
#include "ServiceLink.h"

#include <optional>
#include <string>

namespace kestrel::capture {

// A command or query to the deck.
struct DeckRequest {
    VtrCommandKind kind = vtrTransport;
    std::int32_t code = 0;     // VtrTransportCode of a transport command or shuttle
    std::string timecode = {}; // of a go to
    int speed = 0;             // of a shuttle: times play speed, negative in reverse

    // "go to 09:59:52:00", for people.
    [[nodiscard]] std::string text() const;
    bool operator==(const DeckRequest&) const = default;
};

[[nodiscard]] DeckRequest playRequest();
[[nodiscard]] DeckRequest pauseRequest();
[[nodiscard]] DeckRequest stepRequest(bool forward);
[[nodiscard]] DeckRequest shuttleRequest(int speed);
[[nodiscard]] DeckRequest goToRequest(const std::string& timecode);
[[nodiscard]] DeckRequest timeRequest();
[[nodiscard]] DeckRequest seekingRequest();

// What came of a request.
struct DeckAnswer {
    MaybeFailure failed = {};  // the deck's own code and text, or why there is no answer
    bool seeking = false;      // of a seeking query
    std::string timecode = {}; // of a current time query
    Clock::time_point sent{};  // between these two the deck looked at its tape
    Clock::time_point received{};
    bool answered = false; // else nobody did, and failed says why
};

// How long a request may take.
struct DeckLinkTiming {
    milliseconds answer{30000}; // as the service waits for its own
    milliseconds room{4000};    // in the service's queue
    milliseconds roomCheck{20};
};

// One request at a time. Answers to earlier requests are told apart (see answersRequest) and dropped.
class DeckLink {
public:
    DeckLink(ServiceLink& link, std::string port, const DeckLinkTiming& timing = {})
        : m_link(link), m_port(std::move(port)), m_timing(timing) {}

    // The port fits into a record, and there are queues to send and receive on.
    [[nodiscard]] MaybeFailure prepare() const;
    // Sends a request; one that still waits for its answer is given up.
    void send(const DeckRequest& request, Clock::time_point now);
    // Whether a request waits for its answer.
    [[nodiscard]] bool busy() const noexcept { return m_busy; }
    // The answer in a record, if it is that of the request that waits.
    [[nodiscard]] std::optional<DeckAnswer> take(const _VTRCmdData& record, Clock::time_point now);
    // To be called at deadline(): sends what found no room, and gives up on what is not answered in time.
    [[nodiscard]] std::optional<DeckAnswer> tick(Clock::time_point now);
    [[nodiscard]] Clock::time_point deadline() const noexcept;

    [[nodiscard]] const std::string& port() const noexcept { return m_port; }

private:
    void trySend();
    [[nodiscard]] DeckAnswer ended(MaybeFailure failed, Clock::time_point now);

    ServiceLink& m_link;
    const std::string m_port;
    const DeckLinkTiming m_timing;
    bool m_busy = false;
    bool m_unsent = false;
    MaybeFailure m_notSent;
    DeckRequest m_request;
    _VTRCmdData m_record{};
    Clock::time_point m_asked{}; // when send() was called
    Clock::time_point m_now{};
};

} // namespace kestrel::capture
