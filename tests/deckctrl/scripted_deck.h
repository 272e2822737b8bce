// A deck that answers what a test says, byte for byte and at its pace.
#pragma once

#include "deck_simulator/PseudoTerminal.h"
#include "deckctrl/deck_bench.h"
#include "foundation/UniqueFd.h"

#include <functional>
#include <thread>

namespace deck_test {

struct ScriptedAnswer {
    std::vector<std::uint8_t> bytes;
    // From one byte to the next; 0: all at once.
    std::chrono::microseconds pace{0};
};

// What a deck answers that is well: stopped at 10:20:30:12, without a name of its own for anything else.
[[nodiscard]] Block wellReply(const Block& asked);

class ScriptedDeck {
public:
    // Called by the deck's thread for each block with a correct checksum.
    using Script = std::function<ScriptedAnswer(const Block& asked)>;

    explicit ScriptedDeck(Script script);
    ~ScriptedDeck();
    ScriptedDeck(const ScriptedDeck&) = delete;
    ScriptedDeck& operator=(const ScriptedDeck&) = delete;

    [[nodiscard]] const std::string& device() const noexcept { return m_terminal.path(); }
    [[nodiscard]] std::vector<Code> received() const;

private:
    void run();

    const Script m_script;
    ScratchDir m_directory;
    kestrel::deck_simulator::PseudoTerminal m_terminal;
    kestrel::UniqueFd m_held; // so that the terminal never hangs up
    kestrel::capture::WakeEvent m_end;
    mutable Mutex m_mutex;
    std::vector<Code> m_received GUARDED_BY(m_mutex);
    std::thread m_thread;
};

} // namespace deck_test
