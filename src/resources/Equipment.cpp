#include "resources/Equipment.h"

#include "foundation/ErrorCodes.h"
#include "foundation/FixedText.h"
#include "foundation/Logger.h"
#include "foundation/OwnedText.h"
#include "jobs/InputField.h"

#include <algorithm>
#include <arpa/inet.h>
#include <strings.h>

namespace {

constexpr const char* MODULE = "ResourceMgmt";

const char* valueOf(const InputField& field) {
    return field.currValue == nullptr ? "" : field.currValue;
}

// Host-order IPv4 address of a dotted text; 0 when it is none.
unsigned long hostAddress(const char* dotted) {
    in_addr address{};
    if (dotted == nullptr || inet_pton(AF_INET, dotted, &address) != 1)
        return 0;
    return ntohl(address.s_addr);
}

std::string dottedText(unsigned long address) {
    const in_addr network{htonl(static_cast<std::uint32_t>(address))};
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &network, text, sizeof text);
    return text;
}

void takeControlAddress(const char* dotted, unsigned long& address, std::string& name) {
    address = hostAddress(dotted);
    name = std::string("D:") + (dotted == nullptr ? "" : dotted);
}

int refuse(char (&message)[300], long code) {
    kestrel::copyText(message, LOG_MSG(code));
    LogUtil::Error(MODULE, "%s", message);
    return static_cast<int>(code);
}

// 10006's and 10007's text, which take the same arguments.
void formatHolder(char (&message)[300], long code, unsigned long jobId, const std::string& name,
                  unsigned long holder) {
    // The texts are this program's own formats, checked where they are listed.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    kestrel::formatText(message, LOG_MSG(code), static_cast<int>(jobId), name.c_str(),
                        static_cast<int>(holder));
#pragma GCC diagnostic pop
}

} // namespace

const CTimeUtil Equipment::NOT_SCHEDULED;

Equipment::Equipment(ResourceType type) : resourceType(type) {}

Equipment::~Equipment() {
    kestrel::dropOwned(profile);
}

bool Equipment::CheckoutEquipment(unsigned long jobId, int jobType, CTimeUtil until) {
    if (checkoutJobId != FREE) {
        formatHolder(message, kestrel::error::cannotCheckoutEquipment, jobId, name, checkoutJobId);
        LogUtil::Error(MODULE, "%s", message);
        return false;
    }
    checkoutJobId = jobId;
    checkoutJobType = static_cast<Job::JobType>(jobType);
    checkoutUntil = until;
    return true;
}

bool Equipment::CheckinEquipment(unsigned long jobId) {
    if (checkoutJobId != jobId || checkoutJobId == FREE) {
        char text[300];
        formatHolder(text, kestrel::error::cannotCheckinEquipment, jobId, name, checkoutJobId);
        LogUtil::Error(MODULE, "%s", text);
        return false;
    }
    // checkoutUntil keeps its value: what the last use was meant to end at can still be looked up.
    checkoutJobId = FREE;
    checkoutJobType = Job::NONE;
    return true;
}

bool Equipment::AddScheduleTime(unsigned long jobId, int jobType, CTimeUtil start, CTimeUtil end) {
    const auto place = std::find_if(schedule.begin(), schedule.end(),
                                    [&](const ScheduleTime& booking) { return booking.start >= start; });
    schedule.insert(place, ScheduleTime{jobId, static_cast<Job::JobType>(jobType), start, end});
    return true;
}

bool Equipment::RemoveScheduleTime(unsigned long jobId) {
    const auto booking = std::find_if(schedule.begin(), schedule.end(), [&](const ScheduleTime& candidate) {
        return candidate.jobId == jobId;
    });
    if (booking == schedule.end())
        return false;
    schedule.erase(booking);
    return true;
}

bool Equipment::IsAvailable(unsigned long& jobId, int& jobType, CTimeUtil start, CTimeUtil end) {
    for (const ScheduleTime& booking : schedule) {
        // In start order, so no later booking can reach into the window: free, whoever has the device now.
        if (booking.start > end)
            return true;
        if (!(booking.end < start)) {
            jobId = booking.jobId;
            jobType = booking.jobType;
            return false;
        }
    }
    if (checkoutJobId == FREE)
        return true;
    if (checkoutUntil == Job::UNSPECIFIED_DURATION || checkoutUntil > start) {
        jobId = checkoutJobId;
        jobType = checkoutJobType;
        return false;
    }
    return true;
}

bool Equipment::IsAvailable(unsigned long& jobId, int& jobType, CTimeUtil& next) {
    jobId = checkoutJobId;
    jobType = checkoutJobType;
    if (checkoutJobId != FREE)
        return false;
    next = NOT_SCHEDULED;
    const CTimeUtil now = CTimeUtil::CurrentTime();
    while (!schedule.empty()) {
        const ScheduleTime& first = schedule.front();
        if (first.end > now) {
            next = first.start;
            jobId = first.jobId;
            jobType = first.jobType;
            return true;
        }
        schedule.pop_front();
    }
    return true;
}

void Equipment::setProfile(const char* text) {
    kestrel::replaceOwned(profile, text);
}

void Equipment::setField(InputField& field) {
    if (field.getFieldName() == InputField::SUBTYPE)
        subtype = valueOf(field);
}

int Equipment::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields)
        setField(field);
    return validate();
}

int Equipment::validate() {
    return 0;
}

Vtr::Vtr(const char* port) : Equipment(VTR) {
    setComPort(port);
}

Vtr::~Vtr() {
    kestrel::dropOwned(comPort);
}

void Vtr::setComPort(const char* port) {
    kestrel::replaceOwned(comPort, port == nullptr ? "" : port);
    name = std::string("VTR:") + comPort;
}

int Vtr::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields) {
        switch (field.getFieldName()) {
        case InputField::VTR_COM_PORT:
            setComPort(valueOf(field));
            break;
        case InputField::VTR_USE_INTERNAL_CUE:
            useInternalCue = strcasecmp(valueOf(field), "true") == 0;
            break;
        default:
            setField(field);
        }
    }
    return validate();
}

int Vtr::validate() {
    if (comPort == nullptr || *comPort == '\0')
        return refuse(message, kestrel::error::noVtrPort);
    return Equipment::validate();
}

Encoder::Encoder(unsigned long ip, unsigned long port) : Equipment(ENCODER), address(ip), snmpPort(port) {
    name = "E:" + dottedText(ip);
}

void Encoder::setCtrlIp(const char* dotted) {
    takeControlAddress(dotted, address, name);
}

int Encoder::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields) {
        switch (field.getFieldName()) {
        case InputField::ENCODER_PROFILE:
            setProfile(valueOf(field));
            break;
        case InputField::CONTROL_IP_ADDRESS:
            setCtrlIp(valueOf(field));
            break;
        default:
            setField(field);
        }
    }
    return validate();
}

int Encoder::validate() {
    if (address == 0)
        return refuse(message, kestrel::error::invalidEncoderAddress);
    return Equipment::validate();
}

Decoder::Decoder(unsigned long ip) : Equipment(DECODER), address(ip) {
    name = "D:" + dottedText(ip);
}

void Decoder::setCtrlIp(const char* dotted) {
    takeControlAddress(dotted, address, name);
}

int Decoder::setFields(std::vector<InputField>& fields) {
    for (InputField& field : fields) {
        switch (field.getFieldName()) {
        case InputField::DECODER_PROFILE:
            setProfile(valueOf(field));
            break;
        case InputField::DECODER_INTF_IP:
            interfaceAddress = hostAddress(valueOf(field));
            break;
        case InputField::CONTROL_IP_ADDRESS:
            setCtrlIp(valueOf(field));
            break;
        default:
            setField(field);
        }
    }
    return validate();
}

int Decoder::validate() {
    if (address == 0)
        return refuse(message, kestrel::error::invalidDecoderAddress);
    return Equipment::validate();
}
