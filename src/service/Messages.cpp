#include "service/Messages.h"

#include "foundation/FixedText.h"
#include "foundation/OwnedText.h"
#include "service/RequestMessages.h"

#include <cstring>
#include <iterator>
#include <memory>

const char* const Message::RequestTypeStr[7] = {
    "JOB_BEGIN",       "JOB_VALIDATE",         "JOB_ABORT", "JOB_STATUS", "JOB_RESULTS",
    "JOB_LOGFILENAME", "JOB_LAST_LOG_ENTRIES",
};
static_assert(std::size(Message::RequestTypeStr) == Message::JOB_LAST_LOG_ENTRIES + 1);

namespace {

using Factory = Message* (*)(char args[][300], int count);

template <typename Request>
Message* make(char args[][300], int count) {
    return new Request(args, count);
}

struct RequestWord {
    const char* word;
    Factory factory;
};

// The whole protocol: first argument and what it makes. Each class checks its own arguments.
constexpr RequestWord REQUEST_WORDS[] = {
    {"PING_SERVICE", make<ServicePing>},
    {"STOP_SERVICE", make<ServiceStop>},
    {"VTR_CMD", make<VtrCmdRequest>},
    {"VTR_SEEKING", make<VtrIsSeekingRequest>},
    {"VTR_CURRENT_TIME", make<VtrCurrentTimeRequest>},
    {"VTR_STATUS", make<VtrStatusRequest>},
    {"GET_MPEG_PROPERTIES", make<VerifierRequest>},
    {"CAPTURE", make<CaptureRequest>},
    {"JOB_STATUS", make<JobStatusRequest>},
    {"JOB_RESULTS", make<JobResultsRequest>},
};
static_assert(std::size(REQUEST_WORDS) == Message::INVALID_MESSAGE);

} // namespace

Message::Message(MessageType type) : messageType(type) {}

Message::~Message() {
    kestrel::dropOwned(guid);
}

bool Message::isValid() {
    return errorText[0] == '\0';
}

bool Message::process() {
    return false;
}

Message* Message::createRequestMessage(char args[][300], int count) {
    if (count < 1)
        return invalidMessage("No type or arguments specified");
    for (const RequestWord& entry : REQUEST_WORDS)
        if (std::strcmp(args[0], entry.word) == 0)
            return entry.factory(args, count);
    char text[300];
    kestrel::formatText(text, "Unknown message type %s", args[0]);
    return invalidMessage(text);
}

Message* Message::invalidMessage(const char* text) {
    auto message = std::make_unique<Message>(INVALID_MESSAGE);
    kestrel::copyText(message->errorText, text);
    return message.release();
}

int Message::getRequestType(const char* word) {
    for (int type = 0; type < static_cast<int>(std::size(RequestTypeStr)); ++type)
        if (std::strcmp(word, RequestTypeStr[type]) == 0)
            return type;
    return -1;
}

void Message::setGuidStr(const char* text) {
    kestrel::replaceOwned(guid, text);
}
