#include "TapeSender.h"

#include "deckctrl/Failure.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

namespace kestrel::deck_simulator {
namespace {

constexpr std::size_t packetsInDatagram = 7;

std::optional<sockaddr_in> parseTarget(const std::string& target) {
    const std::size_t colon = target.rfind(':');
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (colon == std::string::npos ||
        ::inet_pton(AF_INET, target.substr(0, colon).c_str(), &address.sin_addr) != 1)
        return std::nullopt;
    std::uint16_t port = 0;
    const char* const end = target.data() + target.size();
    const auto [rest, problem] = std::from_chars(target.data() + colon + 1, end, port);
    if (problem != std::errc() || rest != end || port == 0)
        return std::nullopt;
    address.sin_port = htons(port);
    return address;
}

} // namespace

TapeSender::~TapeSender() {
    if (!m_thread.joinable())
        return;
    {
        MutexLock lock(m_mutex);
        m_end = true;
    }
    m_wake.signal();
    m_thread.join();
}

std::string TapeSender::open(const std::string& file, const std::string& target, const Tape& tape) {
    const auto address = parseTarget(target);
    if (!address)
        return "\"" + target + "\" is no ADDRESS:PORT";
    if (std::string problem = m_stream.load(file, tape); !problem.empty())
        return problem;
    m_labelsPerSecond = tape.rate().labelsPerSecond;
    m_socket.reset(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!m_socket.valid() ||
        ::connect(m_socket.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof *address) != 0)
        return target + ": " + kestrel::errnoText(errno);
    m_thread = std::thread([this] { run(); });
    return {};
}

void TapeSender::follow(const std::optional<Transport::Play>& play) {
    {
        MutexLock lock(m_mutex);
        if (m_play == play)
            return;
        m_play = play;
    }
    m_wake.signal();
}

void TapeSender::run() {
    for (;;) {
        pollfd wake{m_wake.fd(), POLLIN, 0};
        ::poll(&wake, 1, -1);
        m_wake.clear();
        std::optional<Transport::Play> play;
        {
            MutexLock lock(m_mutex);
            if (m_end)
                return;
            play = m_play;
        }
        if (play)
            send(*play);
    }
}

bool TapeSender::waitUntil(Clock::time_point when) {
    for (;;) {
        const auto left = std::max(when - Clock::now(), Clock::duration::zero());
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec time{seconds.count(), (left - seconds).count()};
        pollfd wake{m_wake.fd(), POLLIN, 0};
        const int ready = ::ppoll(&wake, 1, &time, nullptr);
        if (ready > 0)
            return false;
        if (ready == 0 && Clock::now() >= when)
            return true;
    }
}

void TapeSender::send(const Transport::Play& play) {
    const auto entry = m_stream.entryFrom(play.position);
    if (!entry)
        return;
    const auto asDuration = [](double seconds) {
        return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    };
    const Clock::time_point begin =
        play.begin + asDuration((entry->position - play.position) / m_labelsPerSecond);
    const double first = m_stream.seconds(entry->packet);
    for (std::size_t at = entry->packet; at < m_stream.packets(); at += packetsInDatagram) {
        if (!waitUntil(begin + asDuration(m_stream.seconds(at) - first)))
            return;
        const auto bytes = m_stream.bytes(at, packetsInDatagram);
        // Nobody need listen.
        [[maybe_unused]] const ssize_t sent = ::send(m_socket.get(), bytes.data(), bytes.size(), 0);
    }
}

} // namespace kestrel::deck_simulator
