#include "DeckLine.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"

#include <algorithm>
#include <array>
#include <poll.h>

namespace kestrel::deck {
namespace {

constexpr const char* module = "Deck";

// A deck that steps has moved on whether or not its reply came through.
bool mayBeRepeated(Code code) noexcept {
    return code != Code::stepForward && code != Code::stepReverse;
}

bool isReplyTo(Code asked, Code reply) noexcept {
    switch (asked) {
    case Code::deviceType:
        return reply == Code::deviceTypeIs;
    case Code::timeSense:
        return !sourceName(reply).empty();
    case Code::statusSense:
        return reply == Code::status;
    default:
        return reply == Code::ack;
    }
}

} // namespace

std::string nakText(const Block& nak) {
    const std::uint8_t bits = nak.data().empty() ? std::uint8_t{0} : nak.data()[0];
    return "the deck answered NAK " + hexText({&bits, 1}) + ", " + nakWords(bits);
}

std::optional<Problem> DeckLine::connect() {
    if (m_line.isOpen())
        return std::nullopt;
    if (auto problem = openLine())
        return problem;
    ++m_connections;
    bool gone = false;
    const Reply reply = askOpen(Block(Code::deviceType), gone);
    if (const auto* problem = std::get_if<Problem>(&reply)) {
        m_line.close();
        return Problem{true, m_device + ", " + problem->detail};
    }
    const Block& type = std::get<Block>(reply);
    LogUtil::Info(module, "%s: connected, %s, device type %s", m_port.c_str(), m_device.c_str(),
                  type.code() == Code::deviceTypeIs ? hexText(type.data()).c_str() : "not told");
    return std::nullopt;
}

// A service that was killed and started again has two deck processes for a moment: the older one gives its
// ports back when it sees that its queues are gone.
std::optional<Problem> DeckLine::openLine() {
    for (;;) {
        const auto problem = m_line.open(m_device);
        if (!problem || !problem->inUse) {
            m_inUseUntil.reset();
            return problem ? std::optional(Problem{true, problem->text}) : std::nullopt;
        }
        const Clock::time_point now = Clock::now();
        if (!m_inUseUntil) {
            m_inUseUntil = now + m_timing.inUse;
            LogUtil::Info(module, "%s: %s, tried again for %d ms", m_port.c_str(), problem->text.c_str(),
                          static_cast<int>(m_timing.inUse.count()));
        }
        const auto left = std::chrono::ceil<milliseconds>(*m_inUseUntil - now);
        // Once for all requests: those that waited behind this one are answered at once.
        if (left.count() <= 0)
            return Problem{true, problem->text};
        pollfd stop{m_stopFd, POLLIN, 0};
        if (::poll(&stop, 1, static_cast<int>(std::min(left, inUsePause).count())) > 0)
            return Problem{false, "the deck process ends"};
    }
}

void DeckLine::lost(const std::string& why) {
    LogUtil::Warning(module, "%s: the line was lost (%s)", m_port.c_str(), why.c_str());
    m_line.close();
}

void DeckLine::hungUp() {
    lost("the line hung up");
}

Reply DeckLine::ask(const Block& block) {
    for (bool again = false;; again = true) {
        if (auto problem = connect())
            return *problem;
        bool gone = false;
        Reply reply = askOpen(block, gone);
        if (!gone)
            return reply;
        lost(std::get<Problem>(reply).detail);
        if (again || !mayBeRepeated(block.code()))
            return Problem{true, m_device + ", " + std::get<Problem>(reply).detail};
    }
}

// NAKs of commands come back as problems; those of questions as they are, since a deck may lack a question.
Reply DeckLine::askOpen(const Block& block, bool& gone) {
    const std::string name = codeName(block.code());
    const bool question = block.code() == Code::timeSense || block.code() == Code::statusSense ||
                          block.code() == Code::deviceType;
    for (int tries = 1;; ++tries) {
        const Exchange exchange = m_line.exchange(block, m_timing, m_stopFd);
        logExchange(block, exchange);
        bool repeat = mayBeRepeated(block.code());
        std::string problem;
        switch (exchange.result) {
        case Exchange::Result::stopped:
            return Problem{false, name + ": the deck process ends"};
        case Exchange::Result::lost:
            gone = true;
            return Problem{true, name + ": " + exchange.detail};
        case Exchange::Result::silent:
            problem = "no answer within " + std::to_string(m_timing.reply.count()) + " ms";
            break;
        case Exchange::Result::garbled:
            problem = exchange.detail;
            break;
        case Exchange::Result::answered:
            if (isReplyTo(block.code(), exchange.reply.code()))
                return exchange.reply;
            if (exchange.reply.code() != Code::nak) {
                problem = "unexpected reply: " + codeName(exchange.reply.code());
                // The right one may follow, and is not to be taken for that of the next block.
                m_line.swallow(m_timing, m_stopFd);
                break;
            }
            problem = nakText(exchange.reply);
            // The deck has not understood, and so has done nothing.
            repeat = !exchange.reply.data().empty() && isLineError(exchange.reply.data()[0]);
            if (!repeat && question)
                return exchange.reply;
            break;
        }
        if (repeat && tries < m_timing.tries)
            continue;
        // Switched off, it may come back as another one.
        if (exchange.result == Exchange::Result::silent)
            m_line.close();
        problem.insert(0, name + ": ");
        if (tries > 1)
            problem += ", " + std::to_string(tries) + " tries";
        return Problem{false, problem};
    }
}

void DeckLine::logExchange(const Block& block, const Exchange& exchange) const {
    if (LogUtil::IsFiltered(module, BaseLogger::Debug))
        return;
    const std::string reply =
        exchange.result == Exchange::Result::answered
            ? codeName(exchange.reply.code()) + " [" + hexText(exchange.reply.bytes()) + "]"
        : exchange.detail.empty() ? "nothing"
                                  : exchange.detail;
    LogUtil::Debug(module, "%s: %s [%s] -> %s", m_port.c_str(), codeName(block.code()).c_str(),
                   hexText(block.bytes()).c_str(), reply.c_str());
}

} // namespace kestrel::deck
