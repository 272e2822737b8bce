// A tape's cue beside the deck that it moves; the time is the test's own.
#pragma once

#include "capture/DeckCue.h"
#include "capture/simulated_deck.h"

#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>

namespace capture_test {

using namespace std::chrono_literals;
using kestrel::capture::Clock;
using kestrel::capture::CuePlan;
using kestrel::capture::DeckAnswer;
using kestrel::capture::DeckCue;
using kestrel::capture::Failure;
using Phase = DeckCue::Phase;

inline CuePlan plan(const std::string& in = "10:00:00:00", const std::string& out = "10:00:10:00") {
    return {"COM1", in, out, 8, 2, false};
}

inline CuePlan internal(CuePlan with = plan()) {
    with.internalCue = true;
    return with;
}

// A cue and its deck, which answers after 20 ms.
struct Bench {
    explicit Bench(CuePlan with = plan(), const std::string& label = "10:20:00:00", int rateCode = 3)
        : now(Clock::time_point(1h)), deck(label, rateCode, now), cue(std::move(with)) {
        EXPECT_FALSE(cue.prepare());
        cue.begin(now);
    }
    void step() {
        if (const auto request = cue.next(now)) {
            now += 20ms;
            const DeckAnswer answer = deck.answer(*request, now);
            cue.answered(answer, now);
            return;
        }
        ASSERT_NE(cue.deadline(), Clock::time_point::max());
        now = std::max(now, cue.deadline());
        cue.tick(now);
    }
    void until(const std::function<bool()>& reached, std::chrono::seconds most = 3600s) {
        const auto end = now + most;
        while (!reached() && now < end)
            ASSERT_NO_FATAL_FAILURE(step());
        EXPECT_TRUE(reached()) << "in phase " << static_cast<int>(cue.phase()) << " at " << deck.label(now);
    }
    void until(Phase phase, std::chrono::seconds most = 3600s) {
        until([&] { return cue.phase() == phase; }, most);
    }
    std::string failure() {
        until(Phase::finished);
        EXPECT_TRUE(cue.failed());
        return cue.failed() ? cue.failed()->text : "";
    }
    long code() const { return cue.failed() ? cue.failed()->code : 0; }
    // The deck has been let go, not left running.
    bool paused() const { return !deck.heard().empty() && deck.heard().back() == "pause"; }

    Clock::time_point now;
    SimulatedDeck deck;
    DeckCue cue;
};

inline std::optional<Failure> refusal(long code, const char* text) {
    return Failure{code, text};
}

} // namespace capture_test
