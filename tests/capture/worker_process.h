// The real worker with real queues and a real sender.
#pragma once

#include "capture/stream_builder.h"
#include "capture_profile/CSettings.h"
#include "foundation/QueueMessages.h"
#include "foundation/UniqueFd.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace capture_test {

int freePort(); // UDP, on 127.0.0.1

// Sends packets, seven to a datagram, at a steady rate.
class Sender {
public:
    Sender(const std::string& address, int port, const std::string& from = "127.0.0.1");
    void send(const Packets& packets, double bitsPerSecond = 60e6);
    void sendRtp(const Packets& packets, double bitsPerSecond = 60e6);
    void sendRaw(const std::vector<unsigned char>& bytes);
    void skip(unsigned datagrams) { m_sequence += datagrams; } // RTP datagrams that are lost on the way

private:
    void paced(const Packets& packets, double bitsPerSecond, bool rtp);
    kestrel::UniqueFd m_socket;
    unsigned m_sequence = 65530;
};

struct Message {
    AppMsgType type;
    std::string text; // payload up to its first zero
    std::vector<unsigned char> payload;
};

// The two queues as the launcher makes them, with names of this process.
class ServiceQueues {
public:
    ServiceQueues();
    ~ServiceQueues();
    ServiceQueues(const ServiceQueues&) = delete;
    ServiceQueues& operator=(const ServiceQueues&) = delete;
    const std::string& updateName() const { return m_updateName; }
    const std::string& managerName() const { return m_managerName; }
    void send(AppMsgType type) { send(type, nullptr, 0); }
    void send(AppMsgType type, const void* payload, int size);
    bool receive(std::chrono::milliseconds most); // the next message of the worker, into received()
    const std::vector<Message>& received() const { return m_received; }
    // Called with each message of the worker, as the service would act on it.
    std::function<void(const Message&)> act;

private:
    std::string m_updateName, m_managerName;
    int m_update = -1, m_manager = -1;
    std::vector<Message> m_received;
};

// One run of the worker; killed at the end of the test if it still runs.
class Worker {
public:
    Worker();
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    CSettings settings;
    std::vector<std::string> extraOptions;
    bool useQueues = true;
    std::size_t memoryLimit = 0; // bytes of address space; 0: none
    // Makes another text of the settings file before the worker reads it.
    std::function<std::string(const std::string&)> rewriteSettings;

    std::string path(const std::string& name) const { return m_directory.path(name); }
    // One encoder on a free port of 127.0.0.1; returns the port.
    int addEncoder();
    void start();
    void waitForLog(const std::string& text);
    std::string log() const { return readText(path("log/capture.log")); }
    void signal(int number) const;
    pid_t process() const { return m_process; }
    // The next message of that type, however many others come before it; nothing within the time fails the
    // test.
    Message next(AppMsgType type, std::chrono::seconds most = std::chrono::seconds(20));
    // Waits for the end, reading the queue meanwhile; the exit code, 128 + signal, or -1 after the time.
    int wait(std::chrono::seconds most = std::chrono::seconds(30));
    std::string results() const; // text of the last results message
    ServiceQueues queues;

private:
    TemporaryDirectory m_directory;
    pid_t m_process = -1;
};

} // namespace capture_test
