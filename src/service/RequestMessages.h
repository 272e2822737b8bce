// The requests of the protocol. Each constructor checks its arguments (args[0] is the word) and leaves a text
// in errorText when they do not do; each process calls the manager.
#pragma once

#include "foundation/QueueMessages.h"
#include "jobs/InputField.h"
#include "service/Messages.h"

#include <cstdint>
#include <vector>

// "PING_SERVICE"
class ServicePing : public Message {
public:
    ServicePing(char args[][300], int count);
    bool process() override;
};

// "STOP_SERVICE"
class ServiceStop : public Message {
public:
    ServiceStop(char args[][300], int count);
    bool process() override;
};

// "CAPTURE": 1 command type, 2 GUID, 3 job type (to begin and to validate), 4 and on: input fields
class CaptureRequest : public Message {
public:
    CaptureRequest(char args[][300], int count);
    bool process() override;

    std::vector<InputField> inputFields; // of arguments 4 and on, in their order
    std::int32_t captureJobType;         // index into Job::JobTypeStr; 10 (NONE) when none was given

private:
    void takeJob(char args[][300], int count);
    void refuse(const char* text);
};

// "GET_MPEG_PROPERTIES": 1 command type, 2 GUID, 3 file, 4 property, 5 "BLOCK" or "XML", 6 options
class VerifierRequest : public Message {
public:
    VerifierRequest(char args[][300], int count);
    bool process() override;

    char fileName[260] = {};
    char propertyName[300] = {}; // "ALL" when none was given
    char optionText[300] = {};   // rules to switch off, separated by ";"
    bool blocking = false;       // the answer waits for the worker's end
    bool xmlOutput = false;      // the answer is the report's path; blocking too
};

// "JOB_STATUS": 1 GUID
class JobStatusRequest : public Message {
public:
    JobStatusRequest(char args[][300], int count);
    bool process() override;
};

// "JOB_RESULTS": 1 GUID
class JobResultsRequest : public Message {
public:
    JobResultsRequest(char args[][300], int count);
    bool process() override;
};

// What all deck requests share: 1 serial port. process sends the command to the deck and waits.
class VtrRequest : public Message {
public:
    VtrRequest(MessageType type, char args[][300], int count);
    bool process() override;

    std::int32_t number = 0; // argument 2 of "VTR_CMD"; stored and not used further
    _VTRCmdData command{};   // as it goes to the deck and comes back
};

// "VTR_CMD": 1 serial port, 2 number, 3 command word, 4 shuttle speed, 5 timecode
class VtrCmdRequest : public VtrRequest {
public:
    VtrCmdRequest(char args[][300], int count);
};

// "VTR_STATUS": not implemented, so always refused with an empty text
class VtrStatusRequest : public VtrRequest {
public:
    VtrStatusRequest(char args[][300], int count);
    bool process() override;
};

// "VTR_CURRENT_TIME": answers the deck's timecode
class VtrCurrentTimeRequest : public VtrRequest {
public:
    VtrCurrentTimeRequest(char args[][300], int count);
    bool process() override;
};

// "VTR_SEEKING": answers "TRUE" or "FALSE"
class VtrIsSeekingRequest : public VtrRequest {
public:
    VtrIsSeekingRequest(char args[][300], int count);
    bool process() override;
};
