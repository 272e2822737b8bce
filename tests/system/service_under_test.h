// Starts the real service as a process of its own, with directories and a port that no other test has, and
// speaks its protocol.
#pragma once

#include "foundation/Eventually.h"
#include "foundation/ScratchDir.h"
#include "foundation/UniqueFd.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace kestrel::test {

using namespace std::chrono_literals;

// How a child process ended.
struct Ended {
    bool exited = false; // else by signal
    int code = 0;        // exit code, or signal number
    std::string output;  // standard output and error
};

// One child process whose output is collected. Destroying it kills and reaps what still runs.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {},
          const std::string& workingDirectory = {});
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    [[nodiscard]] pid_t pid() const { return m_pid; }
    [[nodiscard]] bool running();
    void signal(int number) const;
    // Waits for the end; nullopt when the process still runs after the limit.
    std::optional<Ended> wait(std::chrono::milliseconds limit);

private:
    pid_t m_pid = -1;
    std::optional<Ended> m_ended;
    std::filesystem::path m_outputFile;
};

// A TCP connection to a port on loopback.
class Connection {
public:
    explicit Connection(int port);
    [[nodiscard]] bool connected() const { return m_socket.valid(); }
    bool send(std::string_view bytes) const;
    void finishSending() const;
    // Everything up to the peer's close, or what came within the limit.
    std::string receiveAll(std::chrono::milliseconds limit) const;

private:
    UniqueFd m_socket;
};

// A TCP port on loopback that nothing listens on at the moment.
int freePort();
// A UDP port that nothing receives on at the moment.
int freeUdpPort();

// The service with a directory of its own under /tmp. Construct, change profile attributes, start.
class ServiceUnderTest {
public:
    ServiceUnderTest();
    // Kills the service and the workers it left in its process group's sessions, by id.
    ~ServiceUnderTest();

    // One profile attribute, e.g. ("Job", "HEARTBEAT_TIMEOUT_SECS", "1"); an empty value removes it.
    void set(const std::string& section, const std::string& key, const std::string& value);
    // Writes this text as the profile instead of the attributes.
    void setProfileText(std::string text);
    void removeProfile();
    // The capture worker of the profile: the scripted test worker with these options.
    void setWorker(const std::string& options);
    // The same for the verifier, which writes its reports into the service's own directory.
    void setVerifier(const std::string& options);

    // Starts "KestrelManager debug" and waits until it answers. preparation: shell commands whose effects on
    // their process the service inherits, e.g. "umask 0".
    void start(const std::string& preparation = {});
    // Starts the program with that word, and a further one if given, and does not wait for anything.
    std::unique_ptr<Child> run(const std::string& word, const std::string& further = {}) const;

    // One request on a connection of its own; the answer without its LF.
    std::string ask(std::string_view line) const;
    // Waits until JOB_STATUS of the GUID answers that state; the last answer.
    std::string waitForState(const std::string& guid, const std::string& state,
                             std::chrono::milliseconds limit = 20s) const;
    // Ends the service by STOP_SERVICE and waits for it.
    Ended stop();

    [[nodiscard]] Child& process() { return *m_process; }
    [[nodiscard]] int port() const { return m_port; }
    [[nodiscard]] const std::filesystem::path& root() const { return m_root; }
    // The service's whole log so far (all days).
    [[nodiscard]] std::string log() const;
    bool waitForLog(std::string_view text, std::chrono::milliseconds limit = 10s) const;
    // Open descriptors, threads and children of the service process.
    [[nodiscard]] std::size_t descriptors() const;
    [[nodiscard]] std::size_t threads() const;
    [[nodiscard]] std::vector<pid_t> children() const;

private:
    void writeProfile() const;
    std::unique_ptr<Child> run(const std::vector<std::string>& argv) const;

    const ScratchDir m_directory;
    const std::filesystem::path m_root = m_directory.path();
    int m_port;
    bool m_profilePresent = true;
    std::optional<std::string> m_profileText;
    std::vector<std::pair<std::string, std::vector<std::pair<std::string, std::string>>>> m_profile;
    std::unique_ptr<Child> m_process;
};

// Names of the message queues of services that exist in this IPC namespace.
std::vector<std::string> messageQueues();

} // namespace kestrel::test
