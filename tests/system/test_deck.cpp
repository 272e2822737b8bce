// A deck-control process that does what its options say, and otherwise answers every request well:
//
//   --record FILE        append a line for each request: kind, transport code, port, timecode, speed
//   --error CODE:TEXT    answer with that error
//   --ignore N           do not answer the first N requests
//   --late               answer the ignored requests, too, right before the next answer
//   --other-port         precede each answer by one of another deck
//   --other-command      precede each answer to a transport command by a success of another, of the same deck
//   --no-code            give no transport code back
//   --other-kind         precede each answer by one of the same deck to a request of another kind
//   --noise              precede each answer by messages that are none
//   --exit-on N:CODE     end with that code on the Nth request, counted over all lives in the file COUNT
//   --count FILE         where the requests are counted
//   --deaf               do not read, and do not end when asked; SIGTERM ends it
//   --stubborn           the same, and SIGTERM does not end it either
//
// and then, as the service adds them: -log FILE -loglvl N -i QUEUE -o QUEUE.
#include "foundation/QueueMessages.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mqueue.h>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

struct Options {
    std::string record, count, errorText, in, out;
    int errorCode = 0, ignore = 0, exitOn = 0, exitCode = 0;
    bool late = false, otherPort = false, otherKind = false, otherCommand = false, noCode = false,
         noise = false, deaf = false, stubborn = false;
};

std::pair<int, std::string> numberAndText(const std::string& text) {
    const std::size_t colon = text.find(':');
    return {std::atoi(text.c_str()), colon == std::string::npos ? "" : text.substr(colon + 1)};
}

Options read(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const auto value = [&] { return i + 1 < argc ? std::string(argv[++i]) : std::string(); };
        if (word == "--record")
            options.record = value();
        else if (word == "--count")
            options.count = value();
        else if (word == "--error")
            std::tie(options.errorCode, options.errorText) = numberAndText(value());
        else if (word == "--ignore")
            options.ignore = std::atoi(value().c_str());
        else if (word == "--exit-on") {
            const auto [number, code] = numberAndText(value());
            options.exitOn = number;
            options.exitCode = std::atoi(code.c_str());
        } else if (word == "-i")
            options.in = value();
        else if (word == "-o")
            options.out = value();
        else if (word == "-log" || word == "-loglvl")
            value();
        options.late |= word == "--late";
        options.otherPort |= word == "--other-port";
        options.otherKind |= word == "--other-kind";
        options.otherCommand |= word == "--other-command";
        options.noCode |= word == "--no-code";
        options.noise |= word == "--noise";
        options.deaf |= word == "--deaf";
        options.stubborn |= word == "--stubborn";
    }
    return options;
}

void send(mqd_t queue, int type, const void* data, std::size_t size) {
    std::vector<char> bytes(4 + size);
    std::memcpy(bytes.data(), &type, 4);
    if (size > 0)
        std::memcpy(bytes.data() + 4, data, size);
    if (mq_send(queue, bytes.data(), bytes.size(), 0) != 0)
        std::_Exit(70);
}

// Requests so far, this one included.
int countRequest(const Options& options) {
    static int own = 0;
    ++own;
    if (options.count.empty())
        return own;
    int count = 0;
    std::ifstream(options.count) >> count;
    std::ofstream(options.count) << ++count;
    return count;
}

void answer(const Options& options, mqd_t out, _VTRCmdData record) {
    record.errorCode = options.errorCode;
    std::strncpy(record.errorText, options.errorText.c_str(), sizeof record.errorText - 1);
    std::strncpy(record.timecode, "01:02:03:04", sizeof record.timecode - 1);
    record.seeking = 1;
    if (options.noise) {
        send(out, 3, "busy", 5);
        send(out, 9, "short", 6);
        send(out, 8, &record, sizeof record);
    }
    if (options.otherPort) {
        _VTRCmdData other = record;
        std::strcpy(other.serialPort, "COM9");
        std::strcpy(other.timecode, "09:09:09:09");
        send(out, 9, &other, sizeof other);
    }
    if (options.otherKind) {
        _VTRCmdData other = record;
        other.commandKind = record.commandKind == 6 ? 7 : 6;
        other.seeking = record.seeking == 0 ? 1 : 0;
        std::strcpy(other.timecode, "09:09:09:09");
        send(out, 9, &other, sizeof other);
    }
    if (options.otherCommand && record.commandKind == 0) {
        _VTRCmdData other = record;
        other.transportCode = record.transportCode == 1 ? 10 : 1;
        other.errorCode = 0;
        send(out, 9, &other, sizeof other);
    }
    if (options.noCode)
        record.transportCode = 0;
    send(out, 9, &record, sizeof record);
}

} // namespace

int main(int argc, char** argv) {
    const Options options = read(argc, argv);
    if (options.stubborn)
        std::signal(SIGTERM, SIG_IGN);
    while (options.deaf || options.stubborn)
        pause();
    const mqd_t in = mq_open(options.in.c_str(), O_RDONLY);
    const mqd_t out = mq_open(options.out.c_str(), O_WRONLY);
    std::vector<_VTRCmdData> ignored;
    for (int number = 1;; ++number) {
        char buffer[1000];
        const ssize_t length = mq_receive(in, buffer, sizeof buffer, nullptr);
        int type = -1;
        if (length < 4)
            return 71;
        std::memcpy(&type, buffer, 4);
        if (type == EXIT_MSG)
            return 0;
        _VTRCmdData record{};
        if (type != VTR_CMD_REQUEST_MSG || length != 4 + static_cast<ssize_t>(sizeof record))
            return 72;
        std::memcpy(&record, buffer + 4, sizeof record);
        if (!options.record.empty())
            std::ofstream(options.record, std::ios::app)
                << record.commandKind << ' ' << record.transportCode << ' ' << record.serialPort << " '"
                << record.timecode << "' " << record.shuttleSpeed << ' ' << int{record.queryFlag} << '\n';
        if (countRequest(options) == options.exitOn)
            return options.exitCode;
        if (number <= options.ignore) {
            ignored.push_back(record);
            continue;
        }
        if (options.late)
            for (const _VTRCmdData& old : ignored)
                answer(options, out, old);
        ignored.clear();
        answer(options, out, record);
    }
}
