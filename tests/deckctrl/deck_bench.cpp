#include "deckctrl/deck_bench.h"
#include "foundation/ProcessTree.h"

#include "foundation/FixedText.h"
#include "foundation/PosixWrappers.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace deck_test {

void Lines::add(const std::string& line) {
    MutexLock lock(m_mutex);
    m_lines.push_back(line);
}

std::vector<std::string> Lines::all() const {
    MutexLock lock(m_mutex);
    return m_lines;
}

bool Lines::has(std::string_view part) const {
    for (const std::string& line : all())
        if (line.find(part) != std::string::npos)
            return true;
    return false;
}

SimulatedDeck::SimulatedDeck(SimulatorOptions options) {
    options.link = directory.path("deck");
    if (options.mechanics.spinUp == kestrel::deck_simulator::Mechanics().spinUp)
        options.mechanics.spinUp = 5ms;
    simulator.emplace(options, [this](const std::string& line) { lines.add(line); });
    EXPECT_EQ(simulator->start(), "");
}

std::vector<Code> SimulatedDeck::commands() const {
    std::vector<Code> codes;
    for (const Block& block : simulator->received())
        if (block.code() != Code::deviceType && block.code() != Code::statusSense)
            codes.push_back(block.code());
    return codes;
}

std::vector<std::uint8_t> SimulatedDeck::lastBytes() const {
    const auto blocks = simulator->received();
    return blocks.empty() ? std::vector<std::uint8_t>() : blocks.back().bytes();
}

_VTRCmdData request(int kind, const std::string& port, int transportCode) {
    _VTRCmdData record{};
    record.commandKind = kind;
    record.transportCode = transportCode;
    kestrel::copyText(record.serialPort, port);
    record.queryFlag = kind == kestrel::vtrIsSeeking ? 1 : 0;
    return record;
}

_VTRCmdData shuttle(const std::string& port, int speed) {
    _VTRCmdData record = request(kestrel::vtrShuttle, port, kestrel::vtrShuttleCode);
    record.shuttleSpeed = speed;
    return record;
}

_VTRCmdData goTo(const std::string& port, const std::string& timecode) {
    _VTRCmdData record = request(kestrel::vtrGoTo, port);
    kestrel::copyText(record.timecode, timecode);
    return record;
}

std::string textOf(const _VTRCmdData& answer) {
    return std::string(kestrel::fieldText(answer.errorText));
}

DeckProcess::DeckProcess() {
    static std::atomic<int> number{0};
    const std::string tail = std::to_string(getpid()) + "_" + std::to_string(number++);
    m_inName = "/deck_in_" + tail;
    m_outName = "/deck_out_" + tail;
    long attributes[4] = {0, 10, 1000, 0};
    m_in = createMsgQueue(m_inName.c_str(), 0666, attributes);
    m_out = createMsgQueue(m_outName.c_str(), 0666, attributes);
    EXPECT_GE(m_in, 0);
    EXPECT_GE(m_out, 0);
}

DeckProcess::~DeckProcess() {
    if (m_process > 0) {
        kestrel::test::signalTo(m_process, SIGKILL);
        ::waitpid(m_process, nullptr, 0);
    }
    removeQueues();
    closeMsgQueue(m_in);
    closeMsgQueue(m_out);
}

void DeckProcess::removeQueues() {
    unlinkMsgQueue(m_inName.c_str());
    unlinkMsgQueue(m_outName.c_str());
}

void DeckProcess::name(const std::string& port, const std::string& device) {
    m_map += "  <Port NAME=\"" + port + "\" DEVICE=\"" + device + "\"/>\n";
}

void DeckProcess::start() {
    std::ofstream(m_directory.path("ports.xml")) << "<DeckPorts>\n" << m_map << "</DeckPorts>\n";
    std::vector<std::string> words{KESTREL_DECK_PROGRAM, "-ports", m_directory.path("ports.xml")};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(),
                 {"-log", m_directory.path("deck.log"), "-loglvl", "0", "-i", m_inName, "-o", m_outName});
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    m_process = ::fork();
    if (m_process == 0) {
        if (mostFiles) {
            const rlimit limit{*mostFiles, *mostFiles};
            ::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
            ::setrlimit(RLIMIT_NOFILE, &limit);
        }
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ASSERT_GT(m_process, 0);
}

void DeckProcess::send(const _VTRCmdData& request) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(&request);
    sendRaw(VTR_CMD_REQUEST_MSG, {bytes, bytes + sizeof request});
}

void DeckProcess::sendRaw(int type, const std::vector<unsigned char>& payload) {
    std::vector<char> bytes(sizeof type + payload.size());
    std::memcpy(bytes.data(), &type, sizeof type);
    if (!payload.empty())
        std::memcpy(bytes.data() + sizeof type, payload.data(), payload.size());
    EXPECT_EQ(sendPriorityMsg(m_in, bytes.data(), static_cast<int>(bytes.size()), 0), 0);
}

std::optional<_VTRCmdData> DeckProcess::receive(std::chrono::milliseconds most) {
    pollfd entry{m_out, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(most.count())) != 1)
        return std::nullopt;
    char buffer[1000];
    int length = 0;
    EXPECT_EQ(receiveMsg(m_out, buffer, sizeof buffer, &length), 0);
    int type = -1;
    _VTRCmdData record{};
    EXPECT_EQ(length, static_cast<int>(sizeof type + sizeof record));
    std::memcpy(&type, buffer, sizeof type);
    EXPECT_EQ(type, VTR_CMD_RESPONSE_MSG);
    std::memcpy(&record, buffer + sizeof type, sizeof record);
    return record;
}

_VTRCmdData DeckProcess::ask(const _VTRCmdData& request) {
    send(request);
    const auto answer = receive();
    EXPECT_TRUE(answer) << "no answer, log:\n" << log();
    return answer.value_or(_VTRCmdData{});
}

void DeckProcess::signal(int number) const {
    kestrel::test::signalTo(m_process, number);
}

int DeckProcess::wait(std::chrono::milliseconds most) {
    const kestrel::UniqueFd process(static_cast<int>(::syscall(SYS_pidfd_open, m_process, 0)));
    pollfd entry{process.get(), POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(most.count())) != 1)
        return -1;
    int status = 0;
    ::waitpid(m_process, &status, 0);
    m_process = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string DeckProcess::log() const {
    // The log is of one day, or of two when the test runs at midnight.
    std::stringstream text;
    const std::string directory = m_directory.path();
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        if (entry.path().filename().string().starts_with("deck"))
            text << std::ifstream(entry.path()).rdbuf();
    return text.str();
}

} // namespace deck_test
