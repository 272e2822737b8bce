// A worker that does what its arguments say, in their order:
//
//   -wq QUEUE         the queue to report on; -rq QUEUE the one to read; -ini, -log FILE are skipped
//   say:TYPE:TEXT     send a message of that type; TEXT goes without a terminator
//   fill:TYPE:N       send a message of that type with N bytes of 'x'
//   status:I:FRAMES   send a capture status for encoder I at 25 frames per second
//   deck:PORT         send a deck command for that port
//   every:MS:N        send N heartbeats, MS milliseconds apart
//   sleep:MS          wait
//   cancel            wait for the cancel message
//   hold:FILE         make FILE.there, then wait until FILE exists
//   signal:N          send that signal to itself
//   exit:N            end with that code
#include "foundation/QueueMessages.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mqueue.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

std::string updateQueue;
std::string managerQueue;

void send(int type, const void* data, std::size_t size) {
    static const mqd_t queue = mq_open(updateQueue.c_str(), O_WRONLY);
    std::vector<char> bytes(4 + size);
    std::memcpy(bytes.data(), &type, 4);
    if (size > 0)
        std::memcpy(bytes.data() + 4, data, size);
    if (mq_send(queue, bytes.data(), bytes.size(), 0) != 0)
        std::_Exit(71);
}

void waitMs(long ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void waitForCancel() {
    const mqd_t queue = mq_open(managerQueue.c_str(), O_RDONLY);
    char buffer[1000];
    int type = -1;
    while (type != CANCEL_MSG) {
        if (mq_receive(queue, buffer, sizeof buffer, nullptr) < 4)
            std::_Exit(72);
        std::memcpy(&type, buffer, 4);
    }
}

void hold(const std::string& file) {
    std::ofstream(file + ".there").flush();
    for (int i = 0; i < 12000 && !std::filesystem::exists(file); ++i)
        waitMs(5);
}

void act(const std::string& word) {
    const std::size_t first = word.find(':');
    const std::string verb = word.substr(0, first);
    const std::string rest = first == std::string::npos ? "" : word.substr(first + 1);
    const std::size_t second = rest.find(':');
    const std::string tail = second == std::string::npos ? "" : rest.substr(second + 1);
    const int number = std::atoi(rest.c_str());
    if (verb == "say") {
        send(number, tail.data(), tail.size());
    } else if (verb == "fill") {
        const std::string bytes(static_cast<std::size_t>(std::atoi(tail.c_str())), 'x');
        send(number, bytes.data(), bytes.size());
    } else if (verb == "status") {
        _CaptureJobStatusData status{};
        status.encoderIndex = number;
        status.frames = static_cast<std::uint32_t>(std::atoi(tail.c_str()));
        status.frameRateCode = 3;
        status.statusNumber1 = 11;
        status.statusNumber2 = 22;
        status.statusNumber3 = 33;
        send(CAPTURE_STATUS_MSG, &status, sizeof status);
    } else if (verb == "deck") {
        _VTRCmdData command{};
        command.commandKind = kestrel::vtrCurrentTime;
        std::snprintf(command.serialPort, sizeof command.serialPort, "%s", rest.c_str());
        std::memset(command.replyQueueName, 'z', sizeof command.replyQueueName);
        send(VTR_CMD_REQUEST_MSG, &command, sizeof command);
    } else if (verb == "every") {
        for (int i = std::atoi(tail.c_str()); i > 0; --i) {
            waitMs(number);
            send(STATUS_MSG, nullptr, 0);
        }
    } else if (verb == "sleep") {
        waitMs(number);
    } else if (verb == "cancel") {
        waitForCancel();
    } else if (verb == "hold") {
        hold(rest);
    } else if (verb == "signal") {
        raise(number);
    } else if (verb == "exit") {
        std::_Exit(number);
    } else {
        std::_Exit(73);
    }
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.starts_with('-') && i + 1 < argc) {
            const std::string value = argv[++i];
            if (word == "-wq")
                updateQueue = value;
            else if (word == "-rq")
                managerQueue = value;
        } else {
            words.push_back(word);
        }
    }
    for (const std::string& word : words)
        act(word);
    return 0;
}
