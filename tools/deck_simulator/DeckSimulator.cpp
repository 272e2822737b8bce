#include "DeckSimulator.h"

#include <algorithm>
#include <array>
#include <poll.h>

namespace kestrel::deck_simulator {
namespace {

// Bytes of one block follow each other faster than this.
constexpr milliseconds longestGap{10};
// A pseudo-terminal does not tell when its other end is opened again.
constexpr milliseconds reopenCheck{10};

Tape tapeOf(const SimulatorOptions& options) {
    return Tape(options.rate, options.start, options.seconds);
}

// The state without the time, which changes all the while.
std::string stateOnly(const std::string& description) {
    const std::size_t blank = description.rfind(' ');
    return description.substr(0, blank);
}

} // namespace

DeckSimulator::DeckSimulator(SimulatorOptions options, Report report)
    : m_options(std::move(options)), m_report(std::move(report)),
      m_responder(Transport(tapeOf(m_options), m_options.mechanics)), m_unplugAfter(m_options.unplugAfter) {}

DeckSimulator::~DeckSimulator() {
    if (!m_thread.joinable())
        return;
    {
        MutexLock lock(m_mutex);
        m_end = true;
    }
    m_wake.signal();
    m_thread.join();
}

std::string DeckSimulator::start() {
    if (!m_options.tapeFile.empty())
        if (std::string problem = m_sender.open(m_options.tapeFile, m_options.target, tapeOf(m_options));
            !problem.empty())
            return problem;
    {
        MutexLock lock(m_mutex);
        if (std::string problem = m_line.open(m_options.link); !problem.empty())
            return problem;
        tell("line " + m_line.path());
        for (const Order& order : m_options.orders)
            obey(order);
        noteState();
    }
    m_thread = std::thread([this] { run(); });
    return {};
}

bool DeckSimulator::order(std::string_view line) {
    const auto order = parseOrder(line);
    if (!order)
        return false;
    {
        MutexLock lock(m_mutex);
        obey(*order);
        noteState();
    }
    m_wake.signal();
    return true;
}

std::string DeckSimulator::device() const {
    MutexLock lock(m_mutex);
    return m_options.link.empty() ? m_line.path() : m_options.link;
}

TapeTime DeckSimulator::time() const {
    MutexLock lock(m_mutex);
    return m_responder.transport().time(Clock::now());
}

Transport::State DeckSimulator::state() const {
    MutexLock lock(m_mutex);
    return m_responder.transport().state();
}

deck::Status DeckSimulator::status() const {
    MutexLock lock(m_mutex);
    return m_responder.transport().status(Clock::now());
}

std::vector<deck::Block> DeckSimulator::received() const {
    MutexLock lock(m_mutex);
    return m_received;
}

termios DeckSimulator::lineSettings() const {
    MutexLock lock(m_mutex);
    return m_line.settings();
}

void DeckSimulator::tell(const std::string& line) {
    if (m_report)
        m_report(line);
}

void DeckSimulator::noteState() {
    const Clock::time_point now = Clock::now();
    m_responder.transport().advance(now);
    const Transport& transport = m_responder.transport();
    const std::string description = transport.describe(now);
    // A deck that jogs in steps stands elsewhere each time.
    const std::string key =
        transport.moving(now) || transport.nextChange() ? stateOnly(description) : description;
    if (key != m_told) {
        m_told = key;
        tell(description);
    }
    m_sender.follow(transport.playing());
}

void DeckSimulator::obey(const Order& order) {
    const Clock::time_point now = Clock::now();
    switch (order.kind) {
    case Order::Kind::fault:
        m_responder.setFault(order.fault);
        break;
    case Order::Kind::line:
        if (order.on)
            plug();
        else
            unplug();
        break;
    case Order::Kind::local:
        m_responder.setLocal(order.on);
        break;
    case Order::Kind::cassette:
        if (order.on)
            m_responder.transport().insert(now);
        else
            m_responder.transport().eject(now);
        break;
    case Order::Kind::vitc:
        m_responder.setVitc(order.on);
        break;
    case Order::Kind::timecode:
        m_responder.setTimecode(order.on);
        break;
    case Order::Kind::old:
        m_responder.setOld(order.on);
        break;
    case Order::Kind::lag:
        m_responder.transport().setLag(order.lag);
        break;
    case Order::Kind::where:
        m_told.clear();
        break;
    }
}

void DeckSimulator::plug() {
    if (m_line.fd() >= 0)
        return;
    const std::string problem = m_line.open(m_options.link);
    m_hungUp = false;
    tell(problem.empty() ? "line " + m_line.path() : problem);
}

void DeckSimulator::unplug() {
    if (m_line.fd() < 0)
        return;
    m_line.close();
    m_parser.reset();
    m_due.clear();
    tell("line unplugged");
}

int DeckSimulator::timeout() {
    const Clock::time_point now = Clock::now();
    std::erase_if(m_due, [&](const Due& due) REQUIRES(m_mutex) {
        if (due.when > now)
            return false;
        m_line.write(due.bytes);
        return true;
    });
    noteState();
    std::optional<Clock::time_point> next = m_responder.transport().nextChange();
    const auto earlier = [&](Clock::time_point when) { next = next ? std::min(*next, when) : when; };
    for (const Due& due : m_due)
        earlier(due.when);
    if (m_hungUp)
        earlier(now + reopenCheck);
    if (!next)
        return -1;
    const auto left = std::chrono::ceil<milliseconds>(*next - now).count();
    return static_cast<int>(std::clamp<long>(left, 0, 60'000));
}

void DeckSimulator::run() {
    for (;;) {
        int line = -1;
        int wait = -1;
        {
            MutexLock lock(m_mutex);
            if (m_end)
                return;
            wait = timeout();
            line = m_hungUp ? -1 : m_line.fd();
        }
        pollfd entries[] = {{m_wake.fd(), POLLIN, 0}, {line, POLLIN, 0}};
        ::poll(entries, std::size(entries), wait);
        m_wake.clear();
        readLine();
    }
}

void DeckSimulator::readLine() {
    MutexLock lock(m_mutex);
    std::array<std::uint8_t, 256> bytes{};
    if (m_line.fd() < 0)
        return;
    const ssize_t count = m_line.read(bytes);
    m_hungUp = count < 0;
    for (ssize_t i = 0; i < count && m_line.fd() >= 0; ++i)
        takeByte(bytes[static_cast<std::size_t>(i)]);
}

void DeckSimulator::takeByte(std::uint8_t byte) {
    const Clock::time_point now = Clock::now();
    if (now - m_lastByte > longestGap)
        m_parser.reset();
    m_lastByte = now;
    switch (m_parser.feed(byte)) {
    case deck::BlockParser::State::incomplete:
        break;
    case deck::BlockParser::State::badChecksum:
        m_line.write(Responder::checksumError().bytes);
        break;
    case deck::BlockParser::State::complete:
        takeBlock();
        break;
    }
}

void DeckSimulator::takeBlock() {
    if (m_unplugAfter == 0) {
        m_unplugAfter = -1;
        unplug();
        return;
    }
    if (m_unplugAfter > 0)
        --m_unplugAfter;
    const Clock::time_point now = Clock::now();
    m_received.push_back(m_parser.block());
    const Response response = m_responder.respond(m_parser.block(), now);
    if (response.delay.count() > 0)
        m_due.push_back({now + response.delay, response.bytes});
    else
        m_line.write(response.bytes);
    noteState();
}

} // namespace kestrel::deck_simulator
