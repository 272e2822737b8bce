// The bookable devices of the installation: decks, encoders and decoders, and the bookings on them.
#pragma once

#include "foundation/TimeUtil.h"
#include "jobs/Job.h"

#include <list>
#include <string>
#include <vector>

class InputField;

// One booking of a device by a scheduled job; both ends are inclusive.
struct ScheduleTime {
    unsigned long jobId = 0;
    Job::JobType jobType = Job::NONE;
    CTimeUtil start;
    CTimeUtil end;
};

// A device: who has it now, until when, and who has booked it. Records are owned by ResourceMgr, whose
// mutex guards them; a record has no lock of its own.
class Equipment {
public:
    enum ResourceType { ENCODER = 0, DECODER = 1, VTR = 2 };

    // All fields zero: there is no booking.
    static const CTimeUtil NOT_SCHEDULED;
    // checkoutJobId of a device that nobody has.
    static constexpr unsigned long FREE = ~0UL;

    // Free and without bookings.
    explicit Equipment(ResourceType type);
    virtual ~Equipment();
    Equipment(const Equipment&) = delete;
    Equipment& operator=(const Equipment&) = delete;

    // Takes the device for the job until then; false with 10007's text in message when another has it.
    bool CheckoutEquipment(unsigned long jobId, int jobType, CTimeUtil until);
    // Gives the device back; false (10006 logged) when the job does not have it.
    bool CheckinEquipment(unsigned long jobId);
    // Books the device, in order of start and before a booking with the same start. Overlaps are not
    // tested. Always true.
    bool AddScheduleTime(unsigned long jobId, int jobType, CTimeUtil start, CTimeUtil end);
    // Removes the job's first booking; false when it has none.
    bool RemoveScheduleTime(unsigned long jobId);
    // Window test: is the device free from start to end? On a conflict the job in the way is reported.
    bool IsAvailable(unsigned long& jobId, int& jobType, CTimeUtil start, CTimeUtil end);
    // Present test: is the device free now, and when does its next booking start? Drops bookings that are
    // over.
    bool IsAvailable(unsigned long& jobId, int& jobType, CTimeUtil& next);

    // Keeps a copy of the text; null clears it.
    void setProfile(const char* text);
    // Takes one field of a request: the base knows "Subtype" only.
    virtual void setField(InputField& field);
    // Takes the request's fields, then validates. 0 or an error code.
    virtual int setFields(std::vector<InputField>& fields);
    // 0, or the code of what is missing (logged).
    virtual int validate();

    unsigned long checkoutJobId = FREE;
    Job::JobType checkoutJobType = Job::NONE;
    CTimeUtil checkoutUntil;          // zero: open-ended
    std::list<ScheduleTime> schedule; // by start
    std::string name;                 // as shown in messages: "VTR:%s", "D:%s", "E:%s"
    char message[300] = {};           // last error text
    ResourceType resourceType;
    char* profile = nullptr; // owned
    std::string subtype;
};

// A tape deck on a serial port.
class Vtr : public Equipment {
public:
    // On the serial port of that name; null is an empty name.
    explicit Vtr(const char* port);
    ~Vtr() override;
    // Keeps a copy of the port's name, by which the deck is also shown ("VTR:%s").
    void setComPort(const char* port);
    int setFields(std::vector<InputField>& fields) override;
    int validate() override;

    char* comPort = nullptr; // owned
    bool useInternalCue = false;
};

// An encoder on the network, controlled at its address over SNMP.
class Encoder : public Equipment {
public:
    // address: IPv4 in host order; port: that of SNMP.
    Encoder(unsigned long address, unsigned long port);
    // Takes a dotted address; the name becomes "D:%s", for encoders too (kept: messages are matched on it).
    void setCtrlIp(const char* dotted);
    int setFields(std::vector<InputField>& fields) override;
    int validate() override;

    unsigned long address = 0; // IPv4, host order
    unsigned long snmpPort = 0;
    bool lockMainCaptureDirectory = false;
    bool lockScheduleCaptureDirectory = false;
    bool lockRollingCaptureDirectory = false;
    bool lockMezzanineCaptureDirectory = false;
    bool vitcInput = true;
    int frameOffsetNoVitc = 0; // frames
    std::string filePrefix;
    std::string mainCaptureDirectory;
    std::string scheduleCaptureDirectory;
    std::string rollingCaptureDirectory;
    std::string mezzanineCaptureDirectory;
};

// A decoder on the network, to play a source file out through.
class Decoder : public Equipment {
public:
    // address: IPv4 in host order.
    explicit Decoder(unsigned long address);
    // Takes the control address, and the shown name, from its dotted form.
    void setCtrlIp(const char* dotted);
    int setFields(std::vector<InputField>& fields) override;
    int validate() override;

    unsigned long address = 0;          // IPv4, host order
    unsigned long interfaceAddress = 0; // IPv4, host order
    unsigned long streamAddress = 0;    // IPv4, host order
    unsigned long streamNumber = 0;
    unsigned long streamPort = 0;
};
