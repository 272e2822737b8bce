// Waiting for what no descriptor tells: a state behind a protocol, a line in a log, a file of another
// process.
#pragma once

#include <chrono>
#include <thread>

namespace kestrel::test {

// Looks every few milliseconds until condition() holds; false when it does not within the limit.
template <typename Condition>
bool eventually(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    constexpr std::chrono::milliseconds pause{2};
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return condition();
        std::this_thread::sleep_for(pause);
    }
    return true;
}

} // namespace kestrel::test
