#include "service/CMessageProcessor.h"

#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/StringUtil.h"
#include "service/Messages.h"

#include <cstring>
#include <memory>
#include <span>

namespace {

constexpr const char* MODULE = "CMessageProcessor";
constexpr const char* SEPARATORS = ",";

std::unique_ptr<Message> refuseOutOfBounds(const kestrel::ArgumentSplit& split) {
    char text[300];
    if (split.tooMany())
        kestrel::formatText(text, "Too many arguments: %zu given, at most %zu are taken.",
                            split.arguments.size(), kestrel::maxArguments);
    else {
        const std::size_t position = *split.firstTooLong();
        kestrel::formatText(
            text, "Argument %zu is too long: %zu bytes given, it must be shorter than %zu: %.40s...",
            position, split.arguments[position].size(), kestrel::argumentCapacity,
            split.arguments[position].c_str());
    }
    return std::unique_ptr<Message>(Message::invalidMessage(text));
}

std::unique_ptr<Message> createRequest(const char* line) {
    const kestrel::ArgumentSplit split = kestrel::splitArguments(line, SEPARATORS);
    if (!split.withinBounds())
        return refuseOutOfBounds(split);
    // Not on the stack: each connection's thread is new, and so would be the pages.
    const auto arguments = std::make_unique<char[][kestrel::argumentCapacity]>(kestrel::maxArguments);
    const int count = CMessageProcessor::getArgumentList(line, arguments.get());
    return std::unique_ptr<Message>(Message::createRequestMessage(arguments.get(), count));
}

// One request gets one line: what it is answered with may come from the request itself, or from a worker.
void keepToOneLine(std::span<char> response) {
    for (char& c : response.first(kestrel::fieldText(response).size()))
        if ((static_cast<unsigned char>(c) < ' ' && c != '\t') || c == 0x7f)
            c = ' ';
}

void answer(std::span<char> response, Message* message) {
    if (message == nullptr) {
        kestrel::copyText(response, "FALSE - Request could not be created.");
        LogUtil::Debug(MODULE, "Error parsing request message.");
    } else if (message->isValid() && message->process()) {
        if (message->responseText[0] == '\0')
            kestrel::copyText(response, "TRUE");
        else
            kestrel::formatText(response, "TRUE - %s", message->responseText);
    } else {
        kestrel::formatText(response, "FALSE - %s", message->errorText);
        LogUtil::Debug(MODULE, "Error processing request: %s", message->errorText);
    }
}

} // namespace

int CMessageProcessor::getArgumentList(const char* line, char (*args)[300]) {
    return cStringUtil::getArgumentList(line, args, SEPARATORS);
}

bool CMessageProcessor::process(char* request, char* response, int responseSize) {
    const std::span<char> out(response, responseSize > 0 ? static_cast<std::size_t>(responseSize) : 0);
    try {
        kestrel::copyText(out, "");
        LogUtil::Debug(MODULE, "CMessageProcessor::process - Entered");
        {
            const std::unique_ptr<Message> message = createRequest(request == nullptr ? "" : request);
            answer(out, message.get());
            keepToOneLine(out);
        }
        LogUtil::Info(MODULE, "CMessageProcessor::process done with response: %s",
                      out.empty() ? "" : response);
    } catch (...) {
        LogUtil::Error(MODULE, "CMessageProcessor::process error");
        kestrel::copyText(out, "FALSE - exception");
    }
    return true;
}
