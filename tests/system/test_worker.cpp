// A worker that does what its options say, in their order, so that a test can write a worker's whole life
// into the profile's EXE:
//
//   --say TYPE:TEXT        send a message of that type with that payload (zero-terminated; empty: none)
//   --status I:FRAMES      send a status record for encoder I, 25 fps
//   --log TEXT             append a line to the file named by -log
//   --write FILE:TEXT      write TEXT and a line end into FILE
//   --report FILE          write the process's descriptors, signal mask and dispositions into FILE
//   --sleep MS             wait
//   --wait-cancel          wait for the cancel message (type 5)
//   --wait-file FILE       wait until FILE exists
//   --wait-short FILE      the same, where a short analysis is asked for (-duration)
//   --wait-whole FILE      the same, where a whole one is
//   --signal N             send itself a signal
//   --verify FILE          write FILE as the verifier's report, where the service wants it
//   --exit N               end with that code (default 0)
//
// and then, as the service adds them: -ini FILE -wq QUEUE -rq QUEUE -log FILE, or for a verification
// -r xml -report_dst DIR -report_name NAME [-duration S] -out_queue_name QUEUE -in_queue_name QUEUE -f FILE.
#include "foundation/QueueMessages.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mqueue.h>
#include <signal.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

struct Queues {
    mqd_t out = -1;
    mqd_t in = -1;
    std::string log;
};

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "test worker: %s\n", what.c_str());
    std::_Exit(70);
}

void send(const Queues& queues, int type, const void* data, std::size_t size) {
    std::vector<char> bytes(4 + size);
    std::memcpy(bytes.data(), &type, 4);
    if (size > 0)
        std::memcpy(bytes.data() + 4, data, size);
    if (mq_send(queues.out, bytes.data(), bytes.size(), 0) != 0)
        die("mq_send: " + std::string(std::strerror(errno)));
}

void sleepMs(long ms) {
    timespec pause{ms / 1000, ms % 1000 * 1'000'000};
    nanosleep(&pause, nullptr);
}

void waitForCancel(const Queues& queues) {
    char buffer[1000];
    for (;;) {
        const ssize_t count = mq_receive(queues.in, buffer, sizeof buffer, nullptr);
        int type = -1;
        if (count < 4)
            die("mq_receive failed");
        std::memcpy(&type, buffer, 4);
        if (type == 5)
            return;
    }
}

// A test that has ended takes its directory along, and nobody is left to make the file.
void waitForFile(const std::filesystem::path& path) {
    while (!std::filesystem::exists(path)) {
        if (!std::filesystem::exists(path.parent_path()))
            std::_Exit(0);
        sleepMs(10);
    }
}

void report(const std::string& path) {
    std::ofstream out(path + ".part");
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        out << "fd " << entry.path().filename().string() << ' '
            << std::filesystem::read_symlink(entry.path(), error).string() << '\n';
    }
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("SigBlk") || line.starts_with("SigIgn") || line.starts_with("SigCgt"))
            out << line << '\n';
    out.close();
    std::filesystem::rename(path + ".part", path);
}

std::pair<std::string, std::string> splitAtColon(const std::string& text) {
    const std::size_t colon = text.find(':');
    return {text.substr(0, colon), colon == std::string::npos ? "" : text.substr(colon + 1)};
}

void sendStatus(const Queues& queues, const std::string& text) {
    const auto [index, frames] = splitAtColon(text);
    _CaptureJobStatusData record{};
    record.encoderIndex = std::atoi(index.c_str());
    record.frames = static_cast<std::uint32_t>(std::stoul(frames));
    record.frameRateCode = 3;
    send(queues, 6, &record, sizeof record);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::pair<std::string, std::string>> actions;
    std::string outName;
    std::string inName;
    Queues queues;
    std::string reportDirectory;
    std::string reportName;
    bool shortAnalysis = false;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const std::string value = word != "--wait-cancel" && i + 1 < argc ? argv[++i] : "";
        if (word == "-wq" || word == "-out_queue_name")
            outName = value;
        else if (word == "-rq" || word == "-in_queue_name")
            inName = value;
        else if (word == "-report_dst")
            reportDirectory = value;
        else if (word == "-report_name")
            reportName = value;
        else if (word == "-duration")
            shortAnalysis = true;
        else if (word == "-r" || word == "-f")
            continue;
        else if (word == "-log")
            queues.log = value;
        else if (word != "-ini")
            actions.emplace_back(word, value);
    }
    // Reported before the queues are open: what was inherited.
    for (const auto& [action, value] : actions)
        if (action == "--report")
            report(value);
    queues.out = mq_open(outName.c_str(), O_WRONLY);
    queues.in = mq_open(inName.c_str(), O_RDONLY);
    if (queues.out < 0 || queues.in < 0)
        die("cannot open the queues '" + outName + "' and '" + inName + "'");

    int exitCode = 0;
    for (const auto& [action, value] : actions) {
        if (action == "--say") {
            const auto [type, text] = splitAtColon(value);
            send(queues, std::atoi(type.c_str()), text.c_str(), text.empty() ? 0 : text.size() + 1);
        } else if (action == "--status") {
            sendStatus(queues, value);
        } else if (action == "--log") {
            std::ofstream(queues.log, std::ios::app) << value << "\r\n";
        } else if (action == "--write") {
            const auto [file, text] = splitAtColon(value);
            std::ofstream(file) << text << '\n';
        } else if (action == "--verify") {
            std::filesystem::copy_file(value, reportDirectory + reportName,
                                       std::filesystem::copy_options::overwrite_existing);
        } else if (action == "--sleep") {
            sleepMs(std::atol(value.c_str()));
        } else if (action == "--wait-cancel") {
            waitForCancel(queues);
        } else if (action == "--wait-file") {
            waitForFile(value);
        } else if (action == "--wait-short" || action == "--wait-whole") {
            if (shortAnalysis == (action == "--wait-short"))
                waitForFile(value);
        } else if (action == "--signal") {
            raise(std::atoi(value.c_str()));
        } else if (action == "--exit") {
            exitCode = std::atoi(value.c_str());
        } else if (action != "--report") {
            die("unknown action " + action);
        }
    }
    return exitCode;
}
