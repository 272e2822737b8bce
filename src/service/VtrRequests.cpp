// The deck requests.
#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "service/ManagerLib.h"
#include "service/RequestMessages.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

namespace {

struct CommandWord {
    const char* word;
    kestrel::VtrCommandKind kind;
    std::int32_t transportCode;
};

// The words of "VTR_CMD". A GoTo leaves the transport code unset.
constexpr CommandWord COMMAND_WORDS[] = {
    {"Play", kestrel::vtrTransport, kestrel::vtrPlayCode},
    {"Rewind", kestrel::vtrTransport, kestrel::vtrRewindCode},
    {"FastForward", kestrel::vtrTransport, kestrel::vtrFastForwardCode},
    {"StepForward", kestrel::vtrTransport, kestrel::vtrStepForwardCode},
    {"StepReverse", kestrel::vtrTransport, kestrel::vtrStepReverseCode},
    {"Pause", kestrel::vtrTransport, kestrel::vtrPauseCode},
    {"Shuttle", kestrel::vtrShuttle, kestrel::vtrShuttleCode},
    {"GoTo", kestrel::vtrGoTo, 0},
};

const CommandWord* findCommand(const char* word) {
    for (const CommandWord& entry : COMMAND_WORDS)
        if (std::strcmp(word, entry.word) == 0)
            return &entry;
    return nullptr;
}

// Of a name that no deck can have, as much as is told back.
constexpr std::size_t LONGEST_PORT_SHOWN = 100;

// The decimal number at the beginning of a text, limited to 32 bits; 0 when there is none.
std::int32_t decimal(const char* text) {
    const long value = std::strtol(text, nullptr, 10);
    return value > INT32_MAX ? INT32_MAX : value < INT32_MIN ? INT32_MIN : static_cast<std::int32_t>(value);
}

// The speed of a shuttle. What is no number is taken all the same, and the tape does not do what was meant.
std::int32_t shuttleSpeed(const char* text) {
    const std::int32_t speed = decimal(text);
    std::int32_t exact = 0;
    const std::string_view digits = text[0] == '+' && text[1] != '-' ? text + 1 : text;
    const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), exact);
    if (failure != std::errc() || end != digits.data() + digits.size())
        LogUtil::Warning(
            "RequestMessages",
            "VTR_CMD Shuttle: the speed \"%s\" is not a decimal number of 32 bits, it is taken as %d.", text,
            static_cast<int>(speed));
    return speed;
}

} // namespace

VtrRequest::VtrRequest(MessageType type, char args[][300], int count) : Message(type) {
    if (count < 2) {
        kestrel::copyText(errorText, "Invalid VTR Request.  Port argument not specified");
        return;
    }
    // A cut name could be that of another deck. A status is never asked of one.
    if (!kestrel::copyText(command.serialPort, args[1]) && type != VTR_STATUS_REQUEST) {
        const std::string port = std::string(args[1]).substr(0, LONGEST_PORT_SHOWN);
        kestrel::formatText(errorText, LOG_MSG(kestrel::error::vtrNotConnected), port.c_str());
        kestrel::formatText(std::span(errorText).subspan(std::strlen(errorText)),
                            " (a port's name has at most %zu characters)", sizeof command.serialPort - 1);
    }
}

bool VtrRequest::process() {
    if (CManagerLib::sendVTRCmdRequestBlocking(&command) == 0)
        return true;
    kestrel::copyText(errorText, kestrel::fieldText(command.errorText));
    return false;
}

VtrCmdRequest::VtrCmdRequest(char args[][300], int count) : VtrRequest(VTR_CMD_REQUEST, args, count) {
    // The first failing check wins.
    if (errorText[0] != '\0')
        return;
    if (count < 4) {
        kestrel::copyText(errorText, "Invalid VTR Request.  Not enough arguments supplied");
        return;
    }
    number = decimal(args[2]);
    const CommandWord* const entry = findCommand(args[3]);
    if (entry == nullptr) {
        kestrel::formatText(errorText, "Invalid VTR Cmd %s", args[3]);
        return;
    }
    command.commandKind = entry->kind;
    command.transportCode = entry->transportCode;
    if (entry->kind == kestrel::vtrShuttle) {
        if (count == 4)
            kestrel::copyText(errorText, "Invalid VTR Shuttle Request.  Speed argument not supplied");
        else
            command.shuttleSpeed = shuttleSpeed(args[4]);
    } else if (entry->kind == kestrel::vtrGoTo) {
        if (count < 6)
            kestrel::copyText(errorText, "Invalid VTR GoTo Request.  Timecode not supplied");
        else
            kestrel::copyText(command.timecode, args[5]);
    }
}

VtrStatusRequest::VtrStatusRequest(char args[][300], int count)
    : VtrRequest(VTR_STATUS_REQUEST, args, count) {}

bool VtrStatusRequest::process() {
    return false;
}

VtrCurrentTimeRequest::VtrCurrentTimeRequest(char args[][300], int count)
    : VtrRequest(VTR_CURRENT_TIME_REQUEST, args, count) {
    command.commandKind = kestrel::vtrCurrentTime;
    command.queryFlag = 0;
}

bool VtrCurrentTimeRequest::process() {
    if (!VtrRequest::process())
        return false;
    kestrel::copyText(responseText, kestrel::fieldText(command.timecode));
    return true;
}

VtrIsSeekingRequest::VtrIsSeekingRequest(char args[][300], int count)
    : VtrRequest(VTR_IS_SEEKING_REQUEST, args, count) {
    command.commandKind = kestrel::vtrIsSeeking;
    command.queryFlag = 1;
}

bool VtrIsSeekingRequest::process() {
    if (!VtrRequest::process())
        return false;
    kestrel::copyText(responseText, command.seeking != 0 ? "TRUE" : "FALSE");
    return true;
}
