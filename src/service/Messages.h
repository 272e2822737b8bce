// The base of all requests, and the way from an argument list to a request object.
#pragma once

#include <cstdint>

// One request: checked by its constructor, carried out by process. Lives for one line.
class Message {
public:
    // What kind of request it is.
    enum MessageType : std::int32_t {
        SERVICE_PING = 0,
        SERVICE_STOP = 1,
        VTR_CMD_REQUEST = 2,
        VTR_IS_SEEKING_REQUEST = 3,
        VTR_CURRENT_TIME_REQUEST = 4,
        VTR_STATUS_REQUEST = 5,
        VERIFIER_REQUEST = 6,
        CAPTURE_REQUEST = 7,
        JOB_STATUS_REQUEST = 8,
        JOB_RESULTS_REQUEST = 9,
        INVALID_MESSAGE = 10,
    };
    // Index into RequestTypeStr.
    enum RequestType : std::int32_t {
        JOB_BEGIN = 0,
        JOB_VALIDATE = 1,
        JOB_ABORT = 2,
        JOB_STATUS = 3,
        JOB_RESULTS = 4,
        JOB_LOGFILENAME = 5,
        JOB_LAST_LOG_ENTRIES = 6,
    };
    // The words of the command types.
    static const char* const RequestTypeStr[7];

    // Size of the answers that the manager writes into responseText.
    static constexpr int ANSWER_SIZE = 2001;

    virtual ~Message();
    // True when the arguments were good.
    virtual bool isValid();
    // Carries the request out: true with responseText, or false with errorText.
    virtual bool process();

    // A request object for the arguments; args[0] is the word. Never null.
    static Message* createRequestMessage(char args[][300], int count);
    // A request that is refused with that text.
    static Message* invalidMessage(const char* text);
    // Index of the exact word in RequestTypeStr, or -1.
    static int getRequestType(const char* word);

    // Keeps a copy of text as the GUID, in place of the one before.
    void setGuidStr(const char* text);

    MessageType messageType;
    char errorText[300] = {}; // empty: valid
    char responseText[2008] = {};
    char* guid = nullptr;          // owned; null when not given
    std::int32_t requestType = -1; // RequestType; -1: none, or a word that is none

    // Valid, without texts.
    explicit Message(MessageType type);
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
};
