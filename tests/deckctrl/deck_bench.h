// What the tests of the deck process stand on: simulated decks, requests, and the real program with its
// queues.
#pragma once

#include "deck_simulator/DeckSimulator.h"
#include "deckctrl/Deck.h"
#include "foundation/Eventually.h"
#include "foundation/QueueMessages.h"
#include "foundation/ScratchDir.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace deck_test {

using namespace std::chrono_literals;
using kestrel::deck::Block;
using kestrel::deck::Clock;
using kestrel::deck::Code;
using kestrel::deck::TapeTime;
using kestrel::deck::Timing;
using kestrel::deck_simulator::DeckSimulator;
using kestrel::deck_simulator::SimulatorOptions;
using kestrel::deck_simulator::Transport;
using kestrel::test::eventually;

// Lines that a simulator reports, or anything else that threads collect.
class Lines {
public:
    void add(const std::string& line);
    [[nodiscard]] std::vector<std::string> all() const;
    [[nodiscard]] bool has(std::string_view part) const;

private:
    mutable Mutex m_mutex;
    std::vector<std::string> m_lines GUARDED_BY(m_mutex);
};

// A simulated deck with a link of its own, quick in its movements.
struct SimulatedDeck {
    explicit SimulatedDeck(SimulatorOptions options = {});

    // The codes of the blocks that came, those of the connection and of the readiness check left out.
    [[nodiscard]] std::vector<Code> commands() const;
    // The bytes of the last block.
    [[nodiscard]] std::vector<std::uint8_t> lastBytes() const;

    ScratchDir directory;
    Lines lines;
    std::optional<DeckSimulator> simulator;
};

[[nodiscard]] _VTRCmdData request(int kind, const std::string& port, int transportCode = 0);
[[nodiscard]] _VTRCmdData shuttle(const std::string& port, int speed);
[[nodiscard]] _VTRCmdData goTo(const std::string& port, const std::string& timecode);
[[nodiscard]] std::string textOf(const _VTRCmdData& answer); // the error text

// The real program with queues of this process's own, and a map that gives simulated decks names.
class DeckProcess {
public:
    DeckProcess();
    ~DeckProcess();
    DeckProcess(const DeckProcess&) = delete;
    DeckProcess& operator=(const DeckProcess&) = delete;

    void name(const std::string& port, const std::string& device);
    void start();

    void send(const _VTRCmdData& request);
    void sendRaw(int type, const std::vector<unsigned char>& payload);
    // Nothing when none comes in time.
    [[nodiscard]] std::optional<_VTRCmdData> receive(std::chrono::milliseconds most = 20s);
    // Sends and takes the next answer.
    [[nodiscard]] _VTRCmdData ask(const _VTRCmdData& request);
    void removeQueues();

    void signal(int number) const;
    // Exit code, 128 + signal, or -1 when it does not end.
    [[nodiscard]] int wait(std::chrono::milliseconds most = 10s);
    [[nodiscard]] std::string log() const;
    [[nodiscard]] pid_t pid() const noexcept { return m_process; }

    std::vector<std::string> options;
    std::optional<unsigned> mostFiles; // descriptors that it may have, those of a terminal among them

private:
    ScratchDir m_directory;
    std::string m_map;
    std::string m_inName;
    std::string m_outName;
    int m_in = -1;
    int m_out = -1;
    pid_t m_process = -1;
};

} // namespace deck_test
