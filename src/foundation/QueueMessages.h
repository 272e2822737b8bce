// The record that travels on the message queues, and the binary records it carries. On a queue a message is a
// 4-byte type in host byte order followed by the payload, at most 1000 bytes in all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// What a message is.
enum AppMsgType : std::int32_t {
    EXIT_MSG = 0,             // the sending worker is about to end, or the deck process is to end
    STATUS_MSG = 3,           // heartbeat or status text from a job
    CANCEL_MSG = 5,           // manager to worker
    CAPTURE_STATUS_MSG = 6,   // payload: _CaptureJobStatusData
    RESULTS_MSG = 7,          // payload: results text
    VTR_CMD_REQUEST_MSG = 8,  // payload: _VTRCmdData
    VTR_CMD_RESPONSE_MSG = 9, // payload: _VTRCmdData
};

namespace kestrel {

// Sizes in bytes.
inline constexpr int maxQueueMessage = 1000;
inline constexpr int queueMessageHeader = 4;
inline constexpr int maxQueuePayload = maxQueueMessage - queueMessageHeader;

// The type of a message too short to hold one; no sender uses it.
inline constexpr AppMsgType malformedMessage = static_cast<AppMsgType>(-1);

// Values of _VTRCmdData::commandKind.
enum VtrCommandKind : std::int32_t {
    vtrTransport = 0,
    vtrGoTo = 3,
    vtrCurrentTime = 6,
    vtrIsSeeking = 7,
    vtrShuttle = 10,
};

// Values of _VTRCmdData::transportCode.
enum VtrTransportCode : std::int32_t {
    vtrPlayCode = 1,
    vtrRewindCode = 3,
    vtrFastForwardCode = 4,
    vtrStepForwardCode = 5,
    vtrStepReverseCode = 6,
    vtrShuttleCode = 7,
    vtrPauseCode = 10,
};

} // namespace kestrel

// A message to send: buffer holds length bytes exactly as they go on the queue.
class GenericMsg {
public:
    // Copies size bytes of data behind the type. A payload over 996 bytes is cut; a null payload is empty.
    GenericMsg(AppMsgType type, void* data, int size);
    ~GenericMsg();
    GenericMsg(const GenericMsg&) = delete;
    GenericMsg& operator=(const GenericMsg&) = delete;

    std::int32_t length = 0;         // payload size + 4; 0 when there was no memory
    unsigned char* buffer = nullptr; // owned, malloc
};

// A message received, taken apart.
class GenericFlatMsg {
public:
    // Copies what it needs from length bytes. Fewer than 4 bytes make a kestrel::malformedMessage.
    GenericFlatMsg(unsigned char* bytes, int length);
    ~GenericFlatMsg();
    GenericFlatMsg(const GenericFlatMsg&) = delete;
    GenericFlatMsg& operator=(const GenericFlatMsg&) = delete;

    AppMsgType type = kestrel::malformedMessage;
    unsigned char* payload = nullptr; // owned, malloc; null when empty
    std::int32_t payloadSize = 0;     // received length - 4
};

// One command to a tape deck, and its answer. The offsets are part of the format; host byte order.
struct _VTRCmdData {
    std::int32_t commandKind; // kestrel::VtrCommandKind
    char serialPort[12];
    std::int32_t transportCode; // kestrel::VtrTransportCode
    std::uint8_t reserved[76];  // for the deck process
    std::uint8_t queryFlag;     // 0 current time, 1 seeking
    std::uint8_t seeking;       // answer: 0 or 1; a byte, since it comes from another process
    char timecode[38];          // GoTo target in a request, current time in an answer
    std::int32_t shuttleSpeed;
    std::uint8_t padding1[4];
    char replyQueueName[32]; // empty for the manager's own requests
    std::int32_t errorCode;  // 0 = success, set by the deck process
    std::uint8_t padding2[4];
    char errorText[304];
};

static_assert(offsetof(_VTRCmdData, commandKind) == 0);
static_assert(offsetof(_VTRCmdData, serialPort) == 4);
static_assert(offsetof(_VTRCmdData, transportCode) == 16);
static_assert(offsetof(_VTRCmdData, reserved) == 20);
static_assert(offsetof(_VTRCmdData, queryFlag) == 96);
static_assert(offsetof(_VTRCmdData, seeking) == 97);
static_assert(offsetof(_VTRCmdData, timecode) == 98);
static_assert(offsetof(_VTRCmdData, shuttleSpeed) == 136);
static_assert(offsetof(_VTRCmdData, padding1) == 140);
static_assert(offsetof(_VTRCmdData, replyQueueName) == 144);
static_assert(offsetof(_VTRCmdData, errorCode) == 176);
static_assert(offsetof(_VTRCmdData, padding2) == 180);
static_assert(offsetof(_VTRCmdData, errorText) == 184);
static_assert(sizeof(_VTRCmdData) == 488);
static_assert(std::is_trivial_v<_VTRCmdData> && std::is_standard_layout_v<_VTRCmdData>);

namespace kestrel {

// Whether a record that came from the deck process answers that request: of its port and command and, of a
// transport command, with its code or none. Only these are told apart by their code, and a deck process need
// not give it back.
[[nodiscard]] bool answersRequest(const _VTRCmdData& answer, const _VTRCmdData& request) noexcept;

} // namespace kestrel

// Progress of one encoder of a capture job, sent by the capture worker.
struct _CaptureJobStatusData {
    std::int32_t encoderIndex;
    std::uint32_t frames;   // recorded so far
    std::uint8_t dropFrame; // 0 or 1; a byte, since it comes from another process
    std::uint32_t frameRateCode;
    std::uint32_t statusNumber1;
    std::uint64_t statusNumber2;
    std::uint64_t statusNumber3;
};

static_assert(offsetof(_CaptureJobStatusData, encoderIndex) == 0);
static_assert(offsetof(_CaptureJobStatusData, frames) == 4);
static_assert(offsetof(_CaptureJobStatusData, dropFrame) == 8);
static_assert(offsetof(_CaptureJobStatusData, frameRateCode) == 12);
static_assert(offsetof(_CaptureJobStatusData, statusNumber1) == 16);
static_assert(offsetof(_CaptureJobStatusData, statusNumber2) == 24);
static_assert(offsetof(_CaptureJobStatusData, statusNumber3) == 32);
static_assert(sizeof(_CaptureJobStatusData) == 40);
static_assert(std::is_trivial_v<_CaptureJobStatusData> && std::is_standard_layout_v<_CaptureJobStatusData>);
