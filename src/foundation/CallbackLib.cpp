#include "foundation/CallbackLib.h"

#include "foundation/FixedText.h"

#include <algorithm>
#include <cstring>

CallbackLib* CallbackLib::pInst = nullptr;

namespace {

// Guards the creation of the instance. Never destroyed, so that it can be used until the process ends.
Mutex& instanceMutex() {
    static Mutex& mutex = *new Mutex;
    return mutex;
}

bool isValid(_DataCallback type) {
    return type >= DATA_CALLBACK_FIRST && type <= DATA_CALLBACK_LAST;
}

// The registration of a name, which is compared as it would be stored.
CallbackLib::CallbackTableData* find(std::vector<CallbackLib::CallbackTableData>& list, const char* name) {
    char stored[sizeof CallbackLib::CallbackTableData::name] = {};
    kestrel::copyText(stored, name);
    const auto found = std::find_if(list.begin(), list.end(), [&](const auto& registration) {
        return std::strcmp(registration.name, stored) == 0;
    });
    return found == list.end() ? nullptr : &*found;
}

} // namespace

CallbackLib* CallbackLib::initCallBackLib() {
    MutexLock lock(instanceMutex());
    if (!pInst)
        pInst = new CallbackLib;
    return pInst;
}

void CallbackLib::ShutDownCallBackLib() {
    MutexLock lock(instanceMutex());
    delete pInst;
    pInst = nullptr;
}

bool CallbackLib::registerCallback(_DataCallback type, void (*fn)(_Data*), void* dataBuffer, const char* name,
                                   int count, void* context) {
    if (!isValid(type) || !fn)
        return false;
    MutexLock lock(m_mutex);
    auto& list = m_registrations[static_cast<std::size_t>(type)];
    CallbackTableData* registration = find(list, name);
    if (!registration)
        registration = &list.emplace_back();
    registration->function = fn;
    kestrel::copyText(registration->name, name);
    registration->dataBuffer = dataBuffer;
    registration->remainingCalls = count;
    registration->context = context;
    return true;
}

bool CallbackLib::unregisterCallback(_DataCallback type, char* name) {
    if (!isValid(type))
        return false;
    MutexLock lock(m_mutex);
    CallbackTableData* registration = find(m_registrations[static_cast<std::size_t>(type)], name);
    if (!registration)
        return false;
    registration->remainingCalls = 0;
    return true;
}

bool CallbackLib::callback(_DataCallback type, void* data, int size) {
    if (!isValid(type))
        return false;
    MutexLock lock(m_mutex);
    for (CallbackTableData& registration : m_registrations[static_cast<std::size_t>(type)]) {
        if (registration.remainingCalls == 0)
            continue;
        if (size >= 1 && data && registration.dataBuffer)
            std::memcpy(registration.dataBuffer, data, static_cast<std::size_t>(size));
        _Data passed{type, registration.dataBuffer, registration.context};
        registration.function(&passed);
        if (registration.remainingCalls > 0)
            --registration.remainingCalls;
    }
    return true;
}
