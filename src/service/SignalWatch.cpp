#include "service/SignalWatch.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace kestrel {

namespace {

// A handler has no context, so the pipe is the process's own: made once and kept.
struct SignalPipe {
    int readEnd = -1;
    int writeEnd = -1;
};

SignalPipe& signalPipe() {
    static SignalPipe pipe = [] {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) == 0)
            fcntl(ends[1], F_SETFL, O_NONBLOCK);
        return SignalPipe{ends[0], ends[1]};
    }();
    return pipe;
}

std::atomic<int> handlerEnd{-1};
constexpr unsigned char END = 0;

bool writeNumber(unsigned char number) {
    return write(handlerEnd.load(), &number, 1) == 1;
}

extern "C" void passOn(int signal) {
    const int saved = errno;
    // A full pipe holds more signals than anyone needs to be told of.
    writeNumber(static_cast<unsigned char>(signal));
    errno = saved;
}

} // namespace

SignalWatch::SignalWatch(std::initializer_list<int> signals, std::function<void(int)> function)
    : m_function(std::move(function)) {
    handlerEnd = signalPipe().writeEnd;
    if (handlerEnd < 0)
        throw std::system_error(errno, std::generic_category(), "no pipe for signals");
    m_thread = std::thread([this] { watch(signalPipe().readEnd); });
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
    for (const auto& [signal, former] : m_former)
        sigaction(signal, &former, nullptr);
    // The end must not get lost behind a full pipe, which the thread empties meanwhile.
    while (!writeNumber(END) && (errno == EAGAIN || errno == EINTR)) {
        pollfd entry{handlerEnd.load(), POLLOUT, 0};
        poll(&entry, 1, -1);
    }
    m_thread.join();
}

void SignalWatch::watch(int readEnd) const {
    for (;;) {
        unsigned char number = END;
        const ssize_t got = read(readEnd, &number, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0 || number == END)
            return;
        m_function(number);
    }
}

} // namespace kestrel
