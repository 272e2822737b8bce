// The system as this program sees it: each call below refuses as often as a test tells it to.
#pragma once

#include <atomic>
#include <climits>
#include <cstddef>
#include <vector>

// How one call refuses.
struct RefusedCall {
    std::atomic<int> toGrant{0};  // calls before the first that is refused
    std::atomic<int> toRefuse{0}; // calls to refuse then
    std::atomic<int> error{0};    // with this errno

    // Whether the call that is being made is to be refused; errno is set then.
    bool refuses();
};

struct SystemRefusals {
    RefusedCall accept, chdir, daemon, eventfd, fseek, listen, closeQueue, openQueue, thread, send, setsid,
        setsockopt, socket, waitpid;
    // An allocation of this many bytes throws, once; 0: none.
    std::atomic<std::size_t> refusedBytes{0};
    // What the next calls of fork return, without making a process.
    std::vector<int> forks;
    // What the next send returns, without sending; -1 is no wish.
    std::atomic<int> sent{-1};
};

// The one of this program.
SystemRefusals& systemRefusals();

// Makes a call refuse for the length of a scope.
class Refusal {
public:
    Refusal(RefusedCall& call, int error, int times = INT_MAX, int granted = 0) : m_call(call) {
        m_call.error = error;
        m_call.toGrant = granted;
        m_call.toRefuse = times;
    }
    ~Refusal() { m_call.toRefuse = m_call.toGrant = 0; }
    Refusal(const Refusal&) = delete;
    Refusal& operator=(const Refusal&) = delete;

private:
    RefusedCall& m_call;
};
