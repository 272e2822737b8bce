// Brings a tape to its mark-in and plays it: what to ask the deck next, and what to make of its answers. No
// thread, no clock and no queue of its own.
#pragma once

#include "DeckLink.h"
#include "DeckTime.h"
#include "Failure.h"
#include "Limits.h"

#include <optional>
#include <string>

namespace kestrel::capture {

// What is asked of the deck.
struct CuePlan {
    std::string port; // for messages
    std::string markIn;
    std::string markOut;
    int prerollSeconds = 8;
    int retries = 5;          // further attempts after the first
    bool internalCue = false; // the deck cues up by itself; else it is shuttled and watched
};

// How often the deck is asked, and how long it may take.
struct CueTiming {
    milliseconds seekPoll{250};
    milliseconds shuttlePoll{100};
    milliseconds stillPoll{120}; // two equal times so far apart: the tape stands
    milliseconds stepPoll{40};
    milliseconds rollPoll{200}; // while it plays
    // Longest way over a tape. The deck process gives a cue-up ten minutes, and what it says is more than
    // that it took too long.
    milliseconds cue{610000};
    milliseconds spinUp{10000};    // until a deck that was started moves
    milliseconds standStill{3000}; // of a tape that should be playing
    milliseconds stopping{5000};   // until a paused deck stands
    milliseconds settle{3000};     // after a cue, until the deck shows the place
    milliseconds arming{2000};  // after play: pictures from before are still on their way through the encoder
    milliseconds lag{10000};    // longest way of a picture through the encoder
    milliseconds retry{1000};   // before another attempt
    milliseconds restart{3000}; // until a deck process that has ended runs again
    milliseconds lastPause{3000}; // for the answer to the pause at the end
};

// A label that the deck showed at a time.
struct Sighting {
    std::string text;
    Clock::time_point at{};
};

// clang-format off
//  phase      event                                      next
//  locating   time                                       seeking (internal cue), stopping when near, else shuttling
//  seeking    seeking no more                            verifying
//  verifying  at the preroll point                       starting; else, after a while, trouble
//  shuttling  near the preroll point, or past it         stopping
//  stopping   two equal times                            starting when there, stepping when near, else shuttling
//  stepping   time                                       likewise
//  starting   play answered                              rolling
//  rolling    recordingBegan()                           recording
//  rolling    tape stands, runs backwards, missed()      trouble
//  recording  tape stands                                pausing, failed
//  any        trouble: an answer that is an error, ...   recueing while attempts are left, else pausing, failed
//  recueing   pause answered                             locating
//  recueing   the deck process has ended                 trouble
//  between trouble and rolling: recordingBegan()         pausing, failed
//  any        finish()                                   pausing
//  pausing    answered, or not in time                   finished
// clang-format on
class DeckCue {
public:
    enum class Phase {
        locating,
        seeking,
        verifying,
        shuttling,
        stopping,
        stepping,
        starting,
        rolling,
        recording,
        recueing,
        pausing,
        finished
    };

    explicit DeckCue(CuePlan plan, const CueTiming& timing = {});

    // Checks the marks.
    [[nodiscard]] MaybeFailure prepare();
    // Begins the first attempt.
    void begin(Clock::time_point now);
    // The request to send now, if one is due. Not to be asked while another waits for its answer.
    [[nodiscard]] std::optional<DeckRequest> next(Clock::time_point now);
    // What next() gives is not to wait for the answer to what was asked before.
    [[nodiscard]] bool urgent() const noexcept {
        return m_phase == Phase::recueing || m_phase == Phase::pausing;
    }
    // The answer to the request that next() gave last. It counts for nothing where another one is due by now.
    void answered(const DeckAnswer& answer, Clock::time_point now);
    // To be called at deadline().
    void tick(Clock::time_point now);
    // When next() or tick() has something to do.
    [[nodiscard]] Clock::time_point deadline() const noexcept;

    // Frames are being recorded: the tape must not be cued again. Where that is about to happen, for a
    // trouble that came first, what is recorded is not what was asked for: failed.
    void recordingBegan(Clock::time_point now);
    // The stream's labels are beyond mark-in, and nothing was recorded.
    void missed(Clock::time_point now);
    // The recording is over, or was cancelled: the deck is paused, and that is all.
    void finish(Clock::time_point now);

    [[nodiscard]] Phase phase() const noexcept { return m_phase; }
    [[nodiscard]] bool finished() const noexcept { return m_phase == Phase::finished; }
    // Whether what comes from the encoders now is what the deck plays towards mark-in.
    [[nodiscard]] bool armed(Clock::time_point now) const noexcept;
    // Why it failed for good.
    [[nodiscard]] const MaybeFailure& failed() const noexcept { return m_failed; }
    // Why the deck may still be running; empty when it was paused, or never told to do anything.
    [[nodiscard]] const std::string& leftRunning() const noexcept { return m_leftRunning; }
    // The last label that the deck showed while it played; each is given once.
    [[nodiscard]] std::optional<Sighting> takeSighting();
    // The stream's frame rate tells how many labels the deck has a second.
    void setRateCode(int frameRateCode) noexcept;
    // Whether the stream itself shows where the tape is. Then the deck need not, from play to mark-in.
    void setStreamLabelled(bool labelled) noexcept { m_streamLabelled = labelled; }
    [[nodiscard]] int attempts() const noexcept { return m_attempts; }

private:
    // Seconds against the direction that was asked for which are more than a deck's rolling out.
    static constexpr double wrongWay = 3.0;

    void ask(DeckRequest request, Clock::time_point due);
    void enter(Phase phase, Clock::time_point limit = Clock::time_point::max());
    void sought(const DeckAnswer& answer, Clock::time_point now);
    void approach(Clock::time_point now);
    void shuttle(double distance, Clock::time_point now);
    void steer(Clock::time_point now);
    void stilled(Clock::time_point now);
    void play(Clock::time_point now);
    void watch(bool moved, Clock::time_point now);
    void refused(const Failure& why, bool answered, Clock::time_point now);
    void notPaused(const std::string& why);
    [[nodiscard]] bool deafFor(Clock::time_point now, bool unreachable) const noexcept;
    void trouble(Failure what, Clock::time_point now, milliseconds wait = milliseconds{0});
    void fail(Failure what, Clock::time_point now);
    [[nodiscard]] bool readTime(const DeckAnswer& answer, Clock::time_point now);
    void aim();

    [[nodiscard]] Failure prerollFailure(const std::string& detail) const;
    [[nodiscard]] Failure playFailure(const std::string& detail) const;
    [[nodiscard]] std::string place() const;
    [[nodiscard]] double distanceTo(const DeckTime& place) const;

    const CuePlan m_plan;
    const CueTiming m_timing;
    DeckTime m_markIn, m_markOut, m_target;
    int m_labels = 25; // a second

    Phase m_phase = Phase::finished;
    Clock::time_point m_limit = Clock::time_point::max(); // of the phase
    Clock::time_point m_cueEnd{};                         // of the deck's own cue
    std::optional<DeckRequest> m_next;
    Clock::time_point m_due{};
    DeckRequest m_sent;
    bool m_started = false; // the deck was told to move its tape
    int m_attempts = 0;
    int m_corrections = 0;  // shuttles and steps of this attempt
    int m_speed = 0;        // of the shuttle, with its sign
    double m_best = 0;      // shortest way to the target so far
    MaybeFailure m_trouble; // the last that was not for good
    MaybeFailure m_failed;
    std::string m_leftRunning;
    bool m_streamLabelled = false;

    std::optional<DeckTime> m_position;
    Clock::time_point m_moved{}; // when the position last changed
    bool m_hasMoved = false;     // since play
    DeckTime m_playedFrom;
    Clock::time_point m_played{};
    Clock::time_point m_answered{}; // when a time query last succeeded
    bool m_deaf = false;            // time queries fail at present
    std::optional<Sighting> m_sighting;
};

} // namespace kestrel::capture
