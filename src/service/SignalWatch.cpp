#include "service/SignalWatch.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace kestrel {

namespace {

// A handler has no context, so the descriptor is the process's own: made once and kept.
int wakeDescriptor() {
    static int descriptor = -1;
    if (descriptor < 0)
        descriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return descriptor;
}

std::atomic<int> handlerWake{-1};
// Which signals have come and were not handed over yet. No number of others can push one out.
std::array<std::atomic<bool>, NSIG> came{};
static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");
constexpr std::size_t END = 0; // no signal has this number

void tell(std::size_t number) {
    came[number] = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(handlerWake, &one, sizeof one);
}

extern "C" void passOn(int signal) {
    const int saved = errno;
    tell(static_cast<std::size_t>(signal));
    errno = saved;
}

} // namespace

SignalWatch::SignalWatch(std::initializer_list<int> signals, std::function<void(int)> function)
    : m_function(std::move(function)) {
    handlerWake = wakeDescriptor();
    if (handlerWake < 0)
        throw std::system_error(errno, std::generic_category(), "no descriptor for signals");
    // One that came too late for the watch before is not this one's.
    for (std::atomic<bool>& signal : came)
        signal = false;
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : signals)
        sigaddset(&blocked, signal);
    // Blocked before the thread starts, so that the handlers run on it once it is there, and nowhere else.
    pthread_sigmask(SIG_BLOCK, &blocked, &m_formerMask);
    m_whileWaiting = m_formerMask;
    for (const int signal : signals)
        sigdelset(&m_whileWaiting, signal);
    try {
        m_thread = std::thread([this] { watch(wakeDescriptor()); });
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &m_formerMask, nullptr);
        throw;
    }
    for (const int signal : signals) {
        struct sigaction action {};
        action.sa_handler = passOn;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        struct sigaction former {};
        if (sigaction(signal, &action, &former) == 0)
            m_former.emplace_back(signal, former);
    }
}

SignalWatch::~SignalWatch() {
    // With the handlers still in place: a signal that came before may not have reached the thread yet.
    tell(END);
    m_thread.join();
    for (const auto& [signal, former] : m_former)
        sigaction(signal, &former, nullptr);
    pthread_sigmask(SIG_SETMASK, &m_formerMask, nullptr);
}

void SignalWatch::watch(int wake) const {
    for (;;) {
        // Interrupted while it waits and at no other time: a flood would keep a function from its end.
        pollfd entry{wake, POLLIN, 0};
        ppoll(&entry, 1, nullptr, &m_whileWaiting);
        eventfd_t count = 0;
        eventfd_read(wake, &count);
        const bool ended = came[END].exchange(false);
        // What came before the end is handed over. A wait whose descriptor is ready lets no signal in.
        const timespec none{};
        if (ended)
            ppoll(nullptr, 0, &none, &m_whileWaiting);
        for (std::size_t number = 1; number < came.size(); ++number)
            if (came[number].exchange(false))
                m_function(static_cast<int>(number));
        if (ended)
            return;
    }
}

} // namespace kestrel
