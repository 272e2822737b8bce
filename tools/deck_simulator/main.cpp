// deckSimulator: a tape deck to try things with where there is none.

#include "DeckSimulator.h"

#include <csignal>
#include <iostream>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

using namespace kestrel;
using namespace kestrel::deck_simulator;

namespace {

int endSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&set, number);
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return ::signalfd(-1, &set, SFD_CLOEXEC);
}

// Whole lines of standard input.
class Orders {
public:
    // False at its end.
    bool take(DeckSimulator& deck) {
        char bytes[512];
        const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (count <= 0)
            return false;
        m_text.append(bytes, static_cast<std::size_t>(count));
        for (std::size_t end = 0; (end = m_text.find('\n')) != std::string::npos; m_text.erase(0, end + 1)) {
            const std::string line = m_text.substr(0, end);
            if (!line.empty() && !deck.order(line))
                std::cerr << "deckSimulator: \"" << line << "\" is no order:\n" << orderHelp();
        }
        return true;
    }

private:
    std::string m_text;
};

} // namespace

int main(int argc, char** argv) {
    const SimulatorOptions options = parseOptions(argc, argv);
    if (options.help) {
        std::cout << usage(argv[0]);
        return 0;
    }
    if (!options.error.empty()) {
        std::cerr << "deckSimulator: " << options.error << '\n';
        return 2;
    }
    const UniqueFd signals(endSignals());
    DeckSimulator deck(options, [](const std::string& line) { std::cout << line + "\n" << std::flush; });
    if (const std::string problem = deck.start(); !problem.empty()) {
        std::cerr << "deckSimulator: " << problem << '\n';
        return 1;
    }
    Orders orders;
    // The end of standard input ends the orders, not the deck.
    for (bool open = true;;) {
        pollfd entries[] = {{signals.get(), POLLIN, 0}, {open ? STDIN_FILENO : -1, POLLIN, 0}};
        if (::poll(entries, std::size(entries), -1) < 0)
            continue;
        if (entries[0].revents != 0)
            return 0;
        if (entries[1].revents != 0)
            open = orders.take(deck);
    }
}
