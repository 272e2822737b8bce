// Registry through which one part of the program hands data to another without knowing it.
#pragma once

#include "foundation/Mutex.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

// Kinds of data, 0 to 16; only the deck command has a meaning in this system.
enum _DataCallback : std::int32_t {
    DATA_CALLBACK_FIRST = 0,
    DATA_CALLBACK_VTR_CMD_REQUEST = 15, // one _VTRCmdData
    DATA_CALLBACK_LAST = 16,
};

class CallbackLib {
public:
    // The kinds of data, also under the name of this class.
    using _DataCallback = ::_DataCallback;

    // What a registered function receives.
    struct _Data {
        _DataCallback type;
        void* data;    // the buffer of the registration
        void* context; // as registered
    };

    // A registered function; what it is given is valid only during the call.
    using Function = void (*)(_Data*);

    // One registration.
    struct CallbackTableData {
        Function function = nullptr;
        char name[100] = {};
        void* dataBuffer = nullptr; // the registrant's memory, into which data is copied before each call
        std::int32_t remainingCalls = 0; // -1 = unlimited, 0 = inactive
        void* context = nullptr;
    };

    // The instance, created on first call.
    static CallbackLib* initCallBackLib();
    // Destroys the instance. Nobody may be using it.
    static void ShutDownCallBackLib();
    // The instance, null before initCallBackLib and after ShutDownCallBackLib.
    static CallbackLib* pInst;

    // Registers fn for a type, or replaces the registration of the same name (cut at 99 characters).
    // dataBuffer must hold whatever is sent under the type. Returns false for a type above 16 or a null
    // function.
    bool registerCallback(_DataCallback type, void (*fn)(_Data*), void* dataBuffer, const char* name,
                          int count, void* context);
    // Makes a registration inactive. Returns false when there is none of that name.
    bool unregisterCallback(_DataCallback type, char* name);
    // Copies size bytes of data into the buffer of each active registration of the type and calls its
    // function, in the order of registration. The functions run on this thread while the registry is locked,
    // so they must be short and must not call the registry. Returns false only for a type above 16.
    bool callback(_DataCallback type, void* data, int size);

    CallbackLib(const CallbackLib&) = delete;
    CallbackLib& operator=(const CallbackLib&) = delete;

private:
    CallbackLib() = default;
    ~CallbackLib() = default;

    static constexpr std::size_t typeCount = DATA_CALLBACK_LAST + 1;

    Mutex m_mutex;
    std::array<std::vector<CallbackTableData>, typeCount> m_registrations GUARDED_BY(m_mutex);
};
