#include "system/service_under_test.h"

#include "foundation/ProcessTree.h"
#include "system/isolation.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel::test {

namespace fs = std::filesystem;

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

} // namespace

Child::Child(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
             const std::string& workingDirectory) {
    char output[] = "/tmp/kestrel-output-XXXXXX";
    UniqueFd out(mkostemp(output, O_CLOEXEC));
    m_outputFile = output;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out.get(), 1);
    posix_spawn_file_actions_adddup2(&actions, out.get(), 2);
    if (!workingDirectory.empty())
        posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());

    std::vector<std::string> arguments = argv;
    std::vector<std::string> variables = environment;
    for (char** entry = environ; *entry != nullptr; ++entry)
        variables.emplace_back(*entry);
    const int result = posix_spawn(&m_pid, arguments[0].c_str(), &actions, nullptr,
                                   pointers(arguments).data(), pointers(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    if (result != 0)
        throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(result));
}

Child::~Child() {
    if (!m_ended) {
        kestrel::test::signalTo(m_pid, SIGKILL);
        wait(10s);
    }
    std::error_code ignored;
    fs::remove(m_outputFile, ignored);
}

bool Child::running() {
    return !wait(0ms).has_value();
}

void Child::signal(int number) const {
    kestrel::test::signalTo(m_pid, number);
}

std::optional<Ended> Child::wait(std::chrono::milliseconds limit) {
    if (m_ended)
        return m_ended;
    const UniqueFd pidfd(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
    pollfd entry{pidfd.get(), POLLIN, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, static_cast<int>(limit.count()));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0)
        return std::nullopt;
    int status = 0;
    if (waitpid(m_pid, &status, 0) != m_pid)
        return std::nullopt;
    m_ended = Ended{WIFEXITED(status), WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status),
                    contentOf(m_outputFile)};
    return m_ended;
}

Connection::Connection(int port) {
    UniqueFd socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        m_socket = std::move(socket);
}

bool Connection::send(std::string_view bytes) const {
    return ::send(m_socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
}

void Connection::finishSending() const {
    shutdown(m_socket.get(), SHUT_WR);
}

std::string Connection::receiveAll(std::chrono::milliseconds limit) const {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::string received;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd entry{m_socket.get(), POLLIN, 0};
        if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0)
            return received;
        char buffer[4096];
        const ssize_t count = recv(m_socket.get(), buffer, sizeof buffer, 0);
        if (count <= 0)
            return received;
        received.append(buffer, static_cast<std::size_t>(count));
    }
}

namespace {

int freePortOf(int type) {
    const UniqueFd socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    socklen_t length = sizeof address;
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0)
        throw std::runtime_error("no free port");
    return ntohs(address.sin_port);
}

} // namespace

int freePort() {
    return freePortOf(SOCK_STREAM);
}

int freeUdpPort() {
    return freePortOf(SOCK_DGRAM);
}

ServiceUnderTest::ServiceUnderTest() : m_port(freePort()) {
    fs::create_directories(m_root / "conf");
    fs::create_directories(m_root / "logs");
    set("Logging", "LOG_FILENAME", m_root / "logs" / "KestrelManager.log");
    set("Logging", "LOG_LEVEL", "0");
    set("WebServicesComm", "PORT_NUMBER", std::to_string(m_port));
    set("WebServicesComm", "NUMBER_OF_SIMULTANEOUS_HANDLES", "5");
    set("Capture", "LOG_DIR", m_root / "logs");
    setWorker("");
}

ServiceUnderTest::~ServiceUnderTest() {
    if (testing::Test::HasFailure())
        std::fprintf(stderr, "--- service log\n%s---\n", log().c_str());
    if (m_process && m_process->running())
        for (const pid_t worker : children())
            kestrel::test::signalTo(worker, SIGKILL);
    m_process.reset();
    clearPrivateNames();
}

void ServiceUnderTest::set(const std::string& section, const std::string& key, const std::string& value) {
    auto entry = std::find_if(m_profile.begin(), m_profile.end(),
                              [&](const auto& candidate) { return candidate.first == section; });
    if (entry == m_profile.end())
        entry = m_profile.insert(m_profile.end(), {section, {}});
    auto& attributes = entry->second;
    std::erase_if(attributes, [&](const auto& attribute) { return attribute.first == key; });
    if (!value.empty())
        attributes.emplace_back(key, value);
}

void ServiceUnderTest::setProfileText(std::string text) {
    m_profileText = std::move(text);
}

void ServiceUnderTest::removeProfile() {
    m_profilePresent = false;
}

void ServiceUnderTest::setWorker(const std::string& options) {
    set("Capture", "EXE", options.empty() ? KESTREL_TEST_WORKER : KESTREL_TEST_WORKER " " + options);
}

void ServiceUnderTest::setVerifier(const std::string& options) {
    set("Verifier", "EXE", KESTREL_TEST_WORKER " " + options);
    set("Verifier", "REPORT_DIR", m_root.string() + "/");
}

void ServiceUnderTest::writeProfile() const {
    if (!m_profilePresent)
        return;
    std::ofstream out(m_root / "conf" / "KestrelManagerProfile.xml");
    if (m_profileText) {
        out << *m_profileText;
        return;
    }
    out << "<?xml version=\"1.0\"?>\n<KestrelManager>\n";
    for (const auto& [section, attributes] : m_profile) {
        out << "  <" << section;
        for (const auto& [key, value] : attributes)
            out << ' ' << key << "='" << value << '\'';
        out << "/>\n";
    }
    out << "</KestrelManager>\n";
}

std::unique_ptr<Child> ServiceUnderTest::run(const std::string& word, const std::string& further) const {
    std::vector<std::string> argv{KESTREL_MANAGER_UNDER_TEST};
    for (const std::string& argument : {word, further})
        if (!argument.empty())
            argv.push_back(argument);
    return run(argv);
}

std::unique_ptr<Child> ServiceUnderTest::run(const std::vector<std::string>& argv) const {
    writeProfile();
    return std::make_unique<Child>(argv, std::vector<std::string>{"KESTREL_TEST_ROOT=" + m_root.string()});
}

void ServiceUnderTest::start(const std::string& preparation) {
    if (preparation.empty())
        m_process = run("debug");
    else
        m_process = run({"/bin/sh", "-c", preparation + "; exec \"$0\" debug", KESTREL_MANAGER_UNDER_TEST});
    const bool up =
        eventually([&] { return !m_process->running() || ask("PING_SERVICE") == "TRUE - ALIVE"; }, 30s);
    if (!up || !m_process->running())
        throw std::runtime_error("the service did not come up:\n" + log());
}

std::string ServiceUnderTest::ask(std::string_view line) const {
    const Connection connection(m_port);
    if (!connection.connected() || !connection.send(line))
        return {};
    std::string answer = connection.receiveAll(60s);
    if (!answer.empty() && answer.back() == '\n')
        answer.pop_back();
    return answer;
}

std::string ServiceUnderTest::waitForState(const std::string& guid, const std::string& state,
                                           std::chrono::milliseconds limit) const {
    std::string answer;
    eventually(
        [&] {
            answer = ask("JOB_STATUS," + guid);
            return answer == "TRUE - " + state;
        },
        limit);
    return answer;
}

Ended ServiceUnderTest::stop() {
    ask("STOP_SERVICE");
    const std::optional<Ended> ended = m_process->wait(30s);
    if (!ended)
        throw std::runtime_error("the service did not end");
    return *ended;
}

std::string ServiceUnderTest::log() const {
    std::string text;
    std::vector<fs::path> files;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_root / "logs", ignored))
        if (entry.path().filename().string().starts_with("KestrelManager"))
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const fs::path& file : files)
        text += contentOf(file);
    return text;
}

bool ServiceUnderTest::waitForLog(std::string_view text, std::chrono::milliseconds limit) const {
    return eventually([&] { return log().find(text) != std::string::npos; }, limit);
}

namespace {

std::size_t countEntries(const fs::path& directory) {
    return static_cast<std::size_t>(
        std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

} // namespace

std::size_t ServiceUnderTest::descriptors() const {
    return countEntries("/proc/" + std::to_string(m_process->pid()) + "/fd");
}

std::size_t ServiceUnderTest::threads() const {
    return threadsOf(m_process->pid());
}

std::vector<pid_t> ServiceUnderTest::children() const {
    return childrenOf(m_process->pid());
}

std::vector<std::string> messageQueues() {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(queueDirectory()))
        if (const std::string name = entry.path().filename(); isServiceQueue(name))
            names.push_back(name);
    return names;
}

} // namespace kestrel::test
