// A tape deck, the encoder behind it and the service before it, for the real worker: the deck answers the
// worker's commands, and while it plays, the encoder sends the tape's pictures with its timecodes.
#pragma once

#include "capture/simulated_deck.h"
#include "capture/worker_process.h"
#include "foundation/Mutex.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace capture_test {

// A transport stream whose GOP timecodes are those of a tape.
struct Tape {
    std::string begin; // label of its first frame
    int rateCode = 3;

    // Of the deck that plays it, and how many of its frames one of the deck's labels stands for.
    [[nodiscard]] int deckRateCode() const { return rateCode == 7 ? 4 : rateCode; }
    [[nodiscard]] int framesPerLabel() const { return rateCode == 7 ? 2 : 1; }

    Packets packets;
    struct Group {
        double frame; // of the day
        std::size_t packet;
    };
    std::vector<Group> groups;
    double endFrame = 0;
};

// Makes one with ffmpeg, of MPEG-2 video with the encoder options given, and audio. At the double rates the
// deck counts pairs of its frames.
std::shared_ptr<const Tape> makeTape(const std::string& begin, int rateCode, int seconds,
                                     const std::string& options);

class TapeStudio {
public:
    // The deck stands at a label; the encoder sends to 127.0.0.1 and these ports.
    TapeStudio(std::shared_ptr<const Tape> tape, const std::string& standsAt, std::vector<int> ports);
    ~TapeStudio();
    TapeStudio(const TapeStudio&) = delete;
    TapeStudio& operator=(const TapeStudio&) = delete;

    // Has the service of a worker pass its commands on to this deck.
    void serve(ServiceQueues& queues);
    // Runs fn with the deck.
    template <typename Fn>
    auto withDeck(Fn fn) EXCLUDES(m_mutex) {
        const MutexLock lock(m_mutex);
        return fn(m_deck);
    }
    // The encoder sends no pictures; to the second port, only that does not; the deck gives no answers.
    std::atomic<bool> dark{false};
    std::atomic<bool> secondDark{false};
    std::atomic<bool> silent{false};
    // Seconds by which the encoder lags behind the deck.
    std::atomic<double> lag{0.3};

private:
    void send();
    [[nodiscard]] std::size_t packetAt(double frame) const;

    const std::shared_ptr<const Tape> m_tape;
    Mutex m_mutex;
    SimulatedDeck m_deck GUARDED_BY(m_mutex);
    std::vector<std::unique_ptr<Sender>> m_senders;
    std::atomic<bool> m_end{false};
    std::thread m_thread;
};

} // namespace capture_test
