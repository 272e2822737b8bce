#include "deckctrl/scripted_deck.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

namespace deck_test {

Block wellReply(const Block& asked) {
    switch (asked.code()) {
    case Code::deviceType:
        return Block(Code::deviceTypeIs, {0x20, 0x25});
    case Code::timeSense:
        return Block(Code::ltc, {0x12, 0x30, 0x20, 0x10});
    case Code::statusSense:
        return Block(Code::status, {0x00, 0x20, 0, 0, 0, 0, 0, 0, 0, 0});
    default:
        return Block(Code::ack);
    }
}

ScriptedDeck::ScriptedDeck(Script script) : m_script(std::move(script)) {
    EXPECT_EQ(m_terminal.open(m_directory.path("deck")), "");
    m_held.reset(::open(device().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_TRUE(m_held.valid());
    m_thread = std::thread([this] { run(); });
}

ScriptedDeck::~ScriptedDeck() {
    m_end.signal();
    m_thread.join();
}

std::vector<Code> ScriptedDeck::received() const {
    MutexLock lock(m_mutex);
    return m_received;
}

void ScriptedDeck::run() {
    kestrel::deck::BlockParser parser;
    for (;;) {
        pollfd entries[] = {{m_end.fd(), POLLIN, 0}, {m_terminal.fd(), POLLIN, 0}};
        ::poll(entries, std::size(entries), -1);
        if (entries[0].revents != 0)
            return;
        std::uint8_t byte = 0;
        if (m_terminal.read({&byte, 1}) != 1 ||
            parser.feed(byte) != kestrel::deck::BlockParser::State::complete)
            continue;
        {
            MutexLock lock(m_mutex);
            m_received.push_back(parser.block().code());
        }
        const ScriptedAnswer answer = m_script(parser.block());
        if (answer.pace.count() == 0) {
            m_terminal.write(answer.bytes);
            continue;
        }
        for (const std::uint8_t& one : answer.bytes) {
            m_terminal.write({&one, 1});
            std::this_thread::sleep_for(answer.pace);
        }
    }
}

} // namespace deck_test
