// Signals, brought out of signal context.
#pragma once

#include <csignal>
#include <functional>
#include <initializer_list>
#include <thread>
#include <utility>
#include <vector>

namespace kestrel {

// While it lives, each of the signals is handed to a function on a thread of its own, one after another. The
// handler itself only writes to a descriptor, so the function may take locks. Destroying it waits for a
// function that runs and restores the former dispositions. One at a time in a process.
class SignalWatch {
public:
    // Throws std::system_error when there is no descriptor or no thread for it.
    SignalWatch(std::initializer_list<int> signals, std::function<void(int)> function);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

private:
    void watch(int readEnd) const;

    std::function<void(int)> m_function;
    std::vector<std::pair<int, struct sigaction>> m_former;
    std::thread m_thread;
};

} // namespace kestrel
