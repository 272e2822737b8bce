// The simulated deck as a program, and its orders.
#include "deck_simulator/Orders.h"
#include "deck_simulator/PseudoTerminal.h"
#include "deckctrl/deck_bench.h"
#include "foundation/ProcessTree.h"

#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace deck_test;
using kestrel::deck_simulator::Fault;
using kestrel::deck_simulator::Order;
using kestrel::deck_simulator::parseOrder;
using testing::HasSubstr;

namespace {

SimulatorOptions parse(std::vector<std::string> words) {
    words.insert(words.begin(), "deckSimulator");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return kestrel::deck_simulator::parseOptions(static_cast<int>(words.size()), argv.data());
}

// The program, with pipes to and from it.
class Program {
public:
    explicit Program(std::vector<std::string> words) {
        int in[2];
        int out[2];
        EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        words.insert(words.begin(), KESTREL_DECK_SIMULATOR);
        std::vector<char*> argv;
        for (std::string& word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);
        m_process = fork();
        if (m_process == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        m_in.reset(in[1]);
        m_out.reset(out[0]);
    }
    ~Program() {
        if (m_process > 0) {
            kestrel::test::signalTo(m_process, SIGKILL);
            waitpid(m_process, nullptr, 0);
        }
    }
    void type(const std::string& line) const {
        EXPECT_EQ(write(m_in.get(), line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    // Reads until a line with this text comes.
    bool prints(const std::string& text) {
        for (;;) {
            for (std::size_t end = 0; (end = m_text.find('\n')) != std::string::npos;) {
                const std::string line = m_text.substr(0, end);
                m_text.erase(0, end + 1);
                if (line.find(text) != std::string::npos)
                    return true;
            }
            pollfd entry{m_out.get(), POLLIN, 0};
            std::array<char, 512> bytes{};
            if (poll(&entry, 1, 10'000) != 1)
                return false;
            const ssize_t count = read(m_out.get(), bytes.data(), bytes.size());
            if (count <= 0)
                return false;
            m_text.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }
    int end() {
        kestrel::test::signalTo(m_process, SIGTERM);
        int status = 0;
        waitpid(m_process, &status, 0);
        m_process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t m_process = -1;
    kestrel::UniqueFd m_in;
    kestrel::UniqueFd m_out;
    std::string m_text;
};

TEST(Simulator, PrintsALineForEachChangeOfState) {
    const ScratchDir directory;
    const std::string link = directory.path("deck");
    Program program(
        {"--link", link, "--rate", "29.97df", "--start", "01:00:00;00", "--length", "60", "--spin-up", "0"});
    EXPECT_TRUE(program.prints("line " + link));
    EXPECT_TRUE(program.prints("stop 01:00:00;00"));
    kestrel::deck::Timing timing;
    timing.reply = 2s;
    kestrel::deck::Deck deck(link, timing, -1);
    _VTRCmdData play = request(kestrel::vtrTransport, "COM1", kestrel::vtrPlayCode);
    deck.carryOut(play);
    EXPECT_EQ(play.errorCode, 0) << textOf(play);
    EXPECT_TRUE(program.prints("play 01:00:00;00"));
    program.type("eject\nunplug\n");
    EXPECT_TRUE(program.prints("no cassette"));
    EXPECT_TRUE(program.prints("line unplugged"));
    EXPECT_FALSE(std::filesystem::is_symlink(link));
    program.type("plug\ninsert\n");
    EXPECT_TRUE(program.prints("line " + link));
    EXPECT_TRUE(program.prints("stop 01:00:00;00"));
    EXPECT_EQ(program.end(), 0);
    EXPECT_FALSE(std::filesystem::is_symlink(link)) << "nothing is left behind";
}

TEST(Simulator, ReplacesALinkButNoFile) {
    const ScratchDir directory;
    const std::string tape = directory.path("tape.ts");
    const std::string link = directory.path("deck");
    std::ofstream(tape) << "precious";
    std::ofstream(link + ".new") << "precious";
    kestrel::deck_simulator::PseudoTerminal line;
    EXPECT_EQ(line.open(tape), tape + ": is there and no symbolic link");
    EXPECT_EQ(line.open(link), link + ".new: is there and no symbolic link");
    line.close();
    for (const std::string& file : {tape, link + ".new"})
        EXPECT_EQ(std::filesystem::file_size(file), 8U) << file;
    std::filesystem::remove(link + ".new");
    std::filesystem::create_symlink("/nowhere", link);
    EXPECT_EQ(line.open(link), "") << "one that was left behind";
    EXPECT_TRUE(std::filesystem::exists(link));
}

TEST(Simulator, TakesFaultsFromItsCommandLine) {
    const SimulatorOptions options =
        parse({"--nak", "14", "--unplug-after", "7", "--no-vitc", "--seek", "250", "--order", "silent 3"});
    EXPECT_EQ(options.error, "");
    ASSERT_EQ(options.orders.size(), 3u);
    EXPECT_EQ(options.orders[0].fault.bits, 0x14);
    EXPECT_EQ(options.orders[1].kind, Order::Kind::vitc);
    EXPECT_EQ(options.orders[2].fault.blocks, 3);
    EXPECT_EQ(options.unplugAfter, 7);
    EXPECT_EQ(options.mechanics.seek, 250ms);
}

TEST(Simulator, SaysWhatIsWrongWithItsCommandLine) {
    EXPECT_THAT(parse({"--rate", "26"}).error, HasSubstr("none of 23.976, 24, 25"));
    EXPECT_THAT(parse({"--start", "10:00:00:25"}).error, HasSubstr("no timecode at this rate"));
    EXPECT_THAT(parse({"--rate", "29.97df", "--start", "10:01:00:00"}).error,
                HasSubstr("no timecode at this rate"));
    EXPECT_EQ(parse({"--rate", "29.97df", "--start", "10:00:00:00"}).start.text(), "10:00:00;00");
    EXPECT_THAT(parse({"--length", "-1"}).error, HasSubstr("no number in range"));
    EXPECT_THAT(parse({"--order", "dance"}).error, HasSubstr("is no order"));
    EXPECT_THAT(parse({"--tape", "x.ts"}).error, HasSubstr("go together"));
    EXPECT_THAT(parse({"--link"}).error, HasSubstr("needs a value"));
    EXPECT_THAT(parse({"--dance"}).error, HasSubstr("unknown option"));
    EXPECT_THAT(parse({"dance"}).error, HasSubstr("unexpected argument"));
    EXPECT_TRUE(parse({"--help"}).help);
    EXPECT_THAT(kestrel::deck_simulator::usage("x"), HasSubstr("nak BITS"));
}

TEST(Simulator, UnderstandsEveryOrderOfItsHelp) {
    for (const char* line : {"well",        "nak 01",     "nak ff 3", "nak 0 3 2",  "garbage", "checksum 1",
                             "partial 1 1", "silent",     "late 100", "late 100 1", "unplug",  "plug",
                             "local",       "remote",     "eject",    "insert",     "vitc",    "novitc",
                             "timecode",    "notimecode", "old",      "where",      "lag 500"})
        EXPECT_TRUE(parseOrder(line)) << line;
    for (const char* line : {"", " ", "nak", "nak 100", "nak xyz", "late", "silent x", "silent 1 2 3", "lag",
                             "lag x", "lag 1 2", "plug in", "dance"})
        EXPECT_FALSE(parseOrder(line)) << line;
    EXPECT_EQ(parseOrder("late 120 2 1")->fault.delay, 120ms);
}

TEST(Simulator, AnswersABlockWithAWrongChecksumWithThatBit) {
    SimulatedDeck deck;
    const kestrel::UniqueFd line(open(deck.simulator->device().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const std::uint8_t wrong[] = {0x20, 0x01, 0x22};
    ASSERT_EQ(write(line.get(), wrong, sizeof wrong), 3);
    std::vector<std::uint8_t> reply;
    while (reply.size() < 4) {
        pollfd entry{line.get(), POLLIN, 0};
        ASSERT_EQ(poll(&entry, 1, 10'000), 1);
        std::uint8_t bytes[4];
        const ssize_t count = read(line.get(), bytes, sizeof bytes);
        ASSERT_GT(count, 0);
        reply.insert(reply.end(), bytes, bytes + count);
    }
    EXPECT_EQ(reply, (std::vector<std::uint8_t>{0x11, 0x12, 0x04, 0x27}));
    EXPECT_TRUE(deck.simulator->received().empty());
}

} // namespace
