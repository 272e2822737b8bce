#include "resources/ResourceMgr.h"

#include "foundation/FixedText.h"
#include "foundation/StringUtil.h"

#include <strings.h>

namespace {

constexpr unsigned long SNMP_PORT = 161;

// Never destroyed, so that a thread that outlives main finds it.
Mutex& instanceMutex() {
    static Mutex* const mutex = new Mutex;
    return *mutex;
}

ResourceMgr* instance = nullptr;

template <typename Record, typename Matches>
Record* findRecord(const std::vector<std::unique_ptr<Equipment>>& records, Equipment::ResourceType type,
                   Matches&& matches) {
    for (const std::unique_ptr<Equipment>& record : records) {
        if (record->resourceType != type)
            continue;
        // A record that was added may say that it is what it is not.
        Record* const candidate = dynamic_cast<Record*>(record.get());
        if (candidate != nullptr && matches(*candidate))
            return candidate;
    }
    return nullptr;
}

} // namespace

ResourceMgr* ResourceMgr::GetResourceMgrInst() {
    MutexLock lock(instanceMutex());
    if (instance == nullptr)
        instance = new ResourceMgr;
    return instance;
}

void ResourceMgr::Cleanup() {
    MutexLock lock(instanceMutex());
    delete instance;
    instance = nullptr;
}

ResourceMgr::ResourceMgr() = default;
ResourceMgr::~ResourceMgr() = default;

Vtr* ResourceMgr::GetVTR(const char* port) {
    const char* const wanted = port == nullptr ? "" : port;
    MutexLock lock(m_mutex);
    Vtr* record = findRecord<Vtr>(equipment, Equipment::VTR, [&](const Vtr& candidate) {
        return strcasecmp(cStringUtil::cValue(candidate.comPort), wanted) == 0;
    });
    if (record == nullptr) {
        auto made = std::make_unique<Vtr>(wanted);
        record = made.get();
        equipment.push_back(std::move(made));
    }
    return record;
}

Encoder* ResourceMgr::GetEncoder(unsigned long address) {
    MutexLock lock(m_mutex);
    Encoder* record = findRecord<Encoder>(equipment, Equipment::ENCODER, [&](const Encoder& candidate) {
        return candidate.address == address;
    });
    if (record == nullptr) {
        auto made = std::make_unique<Encoder>(address, SNMP_PORT);
        record = made.get();
        equipment.push_back(std::move(made));
    }
    return record;
}

Decoder* ResourceMgr::GetDecoder(unsigned long address) {
    MutexLock lock(m_mutex);
    Decoder* record = findRecord<Decoder>(equipment, Equipment::DECODER, [&](const Decoder& candidate) {
        return candidate.address == address;
    });
    if (record == nullptr) {
        auto made = std::make_unique<Decoder>(address);
        record = made.get();
        equipment.push_back(std::move(made));
    }
    return record;
}

void ResourceMgr::AddEquipment(Equipment* record) {
    if (record == nullptr)
        return;
    std::unique_ptr<Equipment> owned(record);
    MutexLock lock(m_mutex);
    equipment.push_back(std::move(owned));
}

void ResourceMgr::AddScheduleTime(std::vector<Equipment*>& set, unsigned long jobId, Job::JobType type,
                                  CTimeUtil start, CTimeUtil end) {
    MutexLock lock(m_mutex);
    for (Equipment* record : set)
        record->AddScheduleTime(jobId, type, start, end);
}

void ResourceMgr::RemoveScheduleTime(std::vector<Equipment*>& set, unsigned long jobId) {
    MutexLock lock(m_mutex);
    for (Equipment* record : set)
        record->RemoveScheduleTime(jobId);
}

bool ResourceMgr::isAvailable(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type,
                              CTimeUtil start, CTimeUtil end) {
    for (Equipment* record : set) {
        int holderType = type;
        if (!record->IsAvailable(jobId, holderType, start, end)) {
            type = static_cast<Job::JobType>(holderType);
            return false;
        }
    }
    return true;
}

bool ResourceMgr::IsAvailable(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type,
                              CTimeUtil start, CTimeUtil end) {
    MutexLock lock(m_mutex);
    return isAvailable(set, jobId, type, start, end);
}

bool ResourceMgr::isAvailable(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type,
                              CTimeUtil& next) {
    next = Equipment::NOT_SCHEDULED;
    for (Equipment* record : set) {
        int holderType = type;
        CTimeUtil answer;
        const bool available = record->IsAvailable(jobId, holderType, answer);
        type = static_cast<Job::JobType>(holderType);
        if (!available)
            return false;
        // NOT_SCHEDULED is the earliest time of all, so a device without bookings that follows one with a
        // booking resets the answer: it depends on the order of the set, and is kept so.
        if (next == Equipment::NOT_SCHEDULED || answer < next)
            next = answer;
    }
    return true;
}

bool ResourceMgr::IsAvailable(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type,
                              CTimeUtil& next) {
    MutexLock lock(m_mutex);
    return isAvailable(set, jobId, type, next);
}

bool ResourceMgr::IsAvailableFor(std::vector<Equipment*>& set, unsigned long& jobId, Job::JobType& type,
                                 CTimeSpanUtil span) {
    CTimeUtil next;
    if (!IsAvailable(set, jobId, type, next))
        return false;
    if (next == Equipment::NOT_SCHEDULED)
        return true;
    return CTimeUtil::CurrentTime() + span < next;
}

bool ResourceMgr::CheckoutEquipment(std::vector<Equipment*>& set, unsigned long jobId, Job::JobType type,
                                    CTimeUtil until) {
    MutexLock lock(m_mutex);
    unsigned long holder = Equipment::FREE;
    Job::JobType holderType = Job::NONE;
    CTimeUtil next;
    if (!isAvailable(set, holder, holderType, next))
        return false;
    for (std::size_t i = 0; i < set.size(); ++i) {
        if (set[i]->CheckoutEquipment(jobId, type, until))
            continue;
        // The present test passed, so this is a set that names one device twice.
        kestrel::copyText(errorText, kestrel::fieldText(set[i]->message));
        for (std::size_t taken = 0; taken < i; ++taken)
            set[taken]->CheckinEquipment(jobId);
        return false;
    }
    return true;
}

bool ResourceMgr::CheckinEquipment(std::vector<Equipment*>& set, unsigned long jobId) {
    MutexLock lock(m_mutex);
    bool all = true;
    for (Equipment* record : set)
        all = record->CheckinEquipment(jobId) && all;
    return all;
}
