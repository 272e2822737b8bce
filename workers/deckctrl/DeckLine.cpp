#include "DeckLine.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"

#include <array>

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

std::string hexText(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        std::array<char, 4> digits{};
        formatText(digits, "%02X", byte);
        text += text.empty() ? digits.data() : std::string(" ") + digits.data();
    }
    return text;
}

std::string nakText(const Block& nak) {
    const std::uint8_t bits = nak.data().empty() ? std::uint8_t{0} : nak.data()[0];
    return "the deck answered NAK " + hexText({&bits, 1}) + ", " + nakWords(bits);
}

std::optional<Problem> DeckLine::connect() {
    if (m_line.isOpen())
        return std::nullopt;
    if (auto problem = m_line.open(m_device))
        return Problem{true, *problem};
    ++m_connections;
    bool lost = false;
    const Reply reply = askOpen(Block(Code::deviceType), lost);
    if (const auto* problem = std::get_if<Problem>(&reply)) {
        m_line.close();
        return Problem{true, m_device + ", " + problem->detail};
    }
    const Block& type = std::get<Block>(reply);
    LogUtil::Info(module, "%s: connected, %s, device type %s", m_port.c_str(), m_device.c_str(),
                  type.code() == Code::deviceTypeIs ? hexText(type.data()).c_str() : "not told");
    return std::nullopt;
}

Reply DeckLine::ask(const Block& block) {
    for (bool again = false;; again = true) {
        if (auto problem = connect())
            return *problem;
        bool lost = false;
        Reply reply = askOpen(block, lost);
        if (!lost)
            return reply;
        LogUtil::Warning(module, "%s: the line was lost (%s)", m_port.c_str(),
                         std::get<Problem>(reply).detail.c_str());
        m_line.close();
        if (again || !mayBeRepeated(block.code()))
            return Problem{true, m_device + ", " + std::get<Problem>(reply).detail};
    }
}

// NAKs of commands come back as problems; those of questions as they are, since a deck may lack a question.
Reply DeckLine::askOpen(const Block& block, bool& lost) {
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
            lost = true;
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
