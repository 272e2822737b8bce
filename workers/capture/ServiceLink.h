// The two message queues that connect the worker with the service. Nothing here waits for the service, except
// results and the last message, for a bounded time.
#pragma once

#include "foundation/QueueMessages.h"

#include <string>
#include <string_view>
#include <vector>

namespace kestrel::capture {

class ServiceLink {
public:
    // module names the log lines.
    explicit ServiceLink(const char* module = "Capture") : m_module(module) {}
    ~ServiceLink();
    ServiceLink(const ServiceLink&) = delete;
    ServiceLink& operator=(const ServiceLink&) = delete;

    // Connects to the queues; an empty name means none. A queue that cannot be reached is logged and does
    // without.
    void connect(const std::string& writeQueue, const std::string& readQueue);
    // Descriptor to poll for messages of the service; -1 when there is none.
    [[nodiscard]] int readFd() const noexcept { return m_read; }
    // What the service sent since the last call.
    struct Received {
        bool cancel = false;
        std::vector<_VTRCmdData> deckAnswers; // in their order; texts terminated
    };
    // Takes all messages that wait. Other messages, and deck answers of a wrong size, are dropped.
    [[nodiscard]] Received receive();
    // The same of one that only wants to know whether the cancel message came.
    [[nodiscard]] bool cancelReceived() { return receive().cancel; }

    void sendHeartbeat();
    void sendStatus(_CaptureJobStatusData status);
    // Asks the service to pass a command on to the deck; its answer comes with receive(). Does not wait:
    // false with errno EAGAIN when the queue is full at the moment, and with another when it cannot be sent
    // at all.
    [[nodiscard]] bool sendDeckCommand(const _VTRCmdData& command);
    // Whether there are queues in both directions.
    [[nodiscard]] bool connected() const noexcept { return m_write >= 0 && m_read >= 0; }
    // The results text, cut at what the service keeps; waits for room within a deadline.
    void sendResults(std::string_view text);
    // The last message; likewise.
    void sendExit();

private:
    bool trySend(AppMsgType type, const void* payload, int size);
    void sendSurely(AppMsgType type, const void* payload, int size);
    void noticeRemoval();
    // Once: results of one of two encoders are sent while the other goes on.
    void tellOfRemoval(const std::string& consequence);
    void take(const GenericFlatMsg& message, Received& received) const;

    int connectOne(const std::string& name, int access) const;

    const char* m_module;
    std::string m_writeName;
    int m_write = -1;
    int m_read = -1;
    bool m_fullLogged = false;
    bool m_removalUntold = false;
};

} // namespace kestrel::capture
