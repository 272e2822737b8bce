// Signals, brought out of signal context.
#pragma once

#include <csignal>
#include <functional>
#include <initializer_list>
#include <thread>
#include <utility>
#include <vector>

namespace kestrel {

// While it lives, each of the signals is handed to a function on a thread of its own, one after another: so
// it may take locks. Of a signal that comes again before it was handed over one remains, as with the system's
// own, and none is lost behind others. The thread that makes it, and those that this one starts meanwhile,
// are not interrupted by these signals. Destroyed by the thread that made it, it hands over what came
// before, waits for the function and restores the former dispositions and mask; a signal that another thread
// takes on the way there is lost. One at a time in a process.
class SignalWatch {
public:
    // Throws std::system_error when there is no descriptor or no thread for it.
    SignalWatch(std::initializer_list<int> signals, std::function<void(int)> function);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    void watch(int wake) const;

    std::function<void(int)> m_function;
    sigset_t m_formerMask{};
    sigset_t m_whileWaiting{};
    std::vector<std::pair<int, struct sigaction>> m_former;
    std::thread m_thread;
};

} // namespace kestrel
